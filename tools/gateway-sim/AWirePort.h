// One simulated aWire programmer port of the gateway: the programmer model
// (flash in RAM), its listening socket and server container, and the
// completer thread that finishes queued block writes after a delay, as a
// real programmer finishes flashing a page some time after confirming it.
// The write-status indications go to every connected client.
#ifndef GATEWAY_SIM_AWIRE_PORT_H
#define GATEWAY_SIM_AWIRE_PORT_H

#include "AWirePortModel.h"
#include "KelIPConnection.h"
#include "KelIPServerContainer.h"
#include "LinkedConnection.h"
#include "Outbox.h"
#include "SimCounters.h"
#include "SimLog.h"
#include "libKelMutex.h"
#include "libKelThread.h"

#include <atomic>
#include <memory>
#include <set>
#include <string>

namespace GatewaySim
{

class CAWireConnection;

// What the connections of one programmer port share.
struct SAWirePortContext
{
    SAWirePortContext(CAWirePortModel& oModel, SSimCounters& oCounters, CSimLog& oLog)
        : roModel(oModel), roCounters(oCounters), roLog(oLog)
    {
    }

    CAWirePortModel& roModel;
    SSimCounters& roCounters;
    CSimLog& roLog;
    std::string sName; // "aWire port 0 (tcp 5013)"
    CKelEvent oWriteQueued;
    std::atomic<unsigned int> nNextClient{1};
    CKelMutex oClientsMutex; // guards aoClients; held while posting to one of them
    std::set<CAWireConnection*> aoClients;
};

class CAWireConnection : public CLinkedConnection
{
public:
    CAWireConnection(SAWirePortContext& oPort, CKelIPServerContainer* pContainer, int nSocket);
    ~CAWireConnection() override;

    void ConnectInd(bool bConnected) override;
    void DataInd(const char* pData, unsigned short nLength) override;
    bool IsConnectMsgAccepted(const std::string& sConnectData) override;

    // Queues an indication; called with the port's client mutex held.
    void PostIndication(const std::string& sBytes) { m_oOutbox.PostIndication(sBytes); }

private:
    void Leave();

    SAWirePortContext& m_roPort;
    const std::string m_sName;
    std::atomic<bool> m_bJoined{false};
    COutbox m_oOutbox;
};

class CAWirePort
{
public:
    // nTcpPort 0: the system chooses. nCompleteDelayMs: how long a block
    // write stays pending before it is finished.
    CAWirePort(int nPort, unsigned short nTcpPort, const SAWireSettings& oSettings, unsigned int nCompleteDelayMs,
               SSimCounters& oCounters, CSimLog& oLog);
    ~CAWirePort();

    CAWirePort(const CAWirePort&) = delete;
    CAWirePort& operator=(const CAWirePort&) = delete;

    bool Open(const std::string& sBindAddress, std::string& sError);
    void Close();

    unsigned short TcpPort() const { return m_nTcpPort; }
    CAWirePortModel& Model() { return m_oModel; }

private:
    class CContainer : public CKelIPServerContainer
    {
    public:
        CContainer(SAWirePortContext& oPort, unsigned short nTcpPort);
        ~CContainer() override { Shutdown(); }

    protected:
        CKelIPConnection* CreateNewClass(CKelIPBase::EProtocol eProtocol, int nSocket) override;

    private:
        SAWirePortContext& m_roPort;
    };

    class CCompleter : public CKelThread
    {
    public:
        explicit CCompleter(CAWirePort& oOwner) : m_roOwner(oOwner) {}
        ~CCompleter() override { Terminate(); }

        // True when a stop was requested, or comes within nWaitMs.
        bool StopRequested(unsigned int nWaitMs) { return m_oTerminationEvent.Wait(nWaitMs); }

    protected:
        void Run() override { m_roOwner.CompleteLoop(); }

    private:
        CAWirePort& m_roOwner;
    };

    void CompleteLoop();

    const int m_nPort;
    const unsigned int m_nCompleteDelayMs;
    const SAWireSettings m_oSettings;
    CAWirePortModel m_oModel;
    SAWirePortContext m_oContext;
    std::unique_ptr<CContainer> m_poContainer;
    unsigned short m_nTcpPort = 0; // the bound port, kept after Close
    CCompleter m_oCompleter;
};

} // namespace GatewaySim

#endif
