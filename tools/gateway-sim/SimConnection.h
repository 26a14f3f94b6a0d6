// The transport side of a simulated CAN port: the server container that
// creates one CSimConnection per accepted socket, and the connection, which
// hands its telegrams to a CSimSession and logs its connection events. The
// connect, disconnect and alive messages are answered by the transport.
#ifndef GATEWAY_SIM_CONNECTION_H
#define GATEWAY_SIM_CONNECTION_H

#include "CanBus.h"
#include "CanPortModel.h"
#include "KelIPConnection.h"
#include "KelIPServerContainer.h"
#include "LinkedConnection.h"
#include "SimCounters.h"
#include "SimLog.h"
#include "SimSession.h"

#include <atomic>
#include <string>

namespace GatewaySim
{

// What every connection of one port shares.
struct SPortContext
{
    SPortContext(CCanPortModel& oModel, CCanBus& oBus, SSimCounters& oCounters, CSimLog& oLog)
        : roModel(oModel), roBus(oBus), roCounters(oCounters), roLog(oLog)
    {
    }

    CCanPortModel& roModel;
    CCanBus& roBus;
    SSimCounters& roCounters;
    CSimLog& roLog;
    SSessionOptions oSession;
    int nMaxClients = 32;
    std::string sName;              // "CAN port 0 (tcp 5001)"
    std::atomic<int> nConnected{0}; // clients past the connect handshake
    std::atomic<unsigned int> nNextClient{1};
};

class CSimConnection : public CLinkedConnection
{
public:
    CSimConnection(SPortContext& oPort, CKelIPServerContainer* pContainer, int nSocket);
    ~CSimConnection() override;

    void ConnectInd(bool bConnected) override;
    void DataInd(const char* pData, unsigned short nLength) override;
    void ReadEndInd() override;
    bool IsConnectMsgAccepted(const std::string& sConnectData) override;
    bool AnswersConnectionMessages() const override;

private:
    SPortContext& m_roPort;
    const unsigned int m_nClient;
    std::atomic<bool> m_bAccepted{false};
    std::atomic<bool> m_bEnded{false};
    CSimSession m_oSession;
};

class CSimContainer : public CKelIPServerContainer
{
public:
    CSimContainer(SPortContext& oPort, unsigned short nTcpPort);
    ~CSimContainer() override;

protected:
    CKelIPConnection* CreateNewClass(CKelIPBase::EProtocol eProtocol, int nSocket) override;

private:
    SPortContext& m_roPort;
};

} // namespace GatewaySim

#endif
