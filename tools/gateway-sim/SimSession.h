// One client connection of a simulated CAN port: checks each received
// telegram, lets the port's command model execute it, sends the confirmation,
// puts written frames on the bus, indicates the bus's frames to the client,
// and applies the per-connection faults (freeze or close after N telegrams).
// It knows the connection only as an ITelegramLink.
#ifndef GATEWAY_SIM_SESSION_H
#define GATEWAY_SIM_SESSION_H

#include "CanBus.h"
#include "CanPortModel.h"
#include "Outbox.h"
#include "SimCounters.h"
#include "SimLog.h"

#include <atomic>
#include <cstddef>
#include <string>

namespace GatewaySim
{

struct SSessionOptions
{
    bool bEcho = false;            // a client's own writes are indicated back to it
    unsigned int nFreezeAfter = 0; // 0: never
    unsigned int nCloseAfter = 0;  // 0: never
    std::size_t nMaxQueued = 4096; // indications waiting for a slow client
};

class CSimSession : public ICanBusMember
{
public:
    CSimSession(CCanPortModel& oPort, CCanBus& oBus, const SSessionOptions& oOptions, SSimCounters& oCounters,
                CSimLog& oLog, ITelegramLink& oLink, const std::string& sName);
    ~CSimSession() override;

    CSimSession(const CSimSession&) = delete;
    CSimSession& operator=(const CSimSession&) = delete;

    // Starts the sender; false when its thread cannot be started.
    bool Start();
    // The client completed the connect handshake: it is on the bus from now on.
    void JoinBus();
    // One telegram as cut from the stream (length word included).
    void OnTelegram(const char* pData, unsigned short nLength);
    // The telegrams of one TCP read are all handled: the bus frames they
    // made leave now.
    void OnReadEnd();
    // The connection has ended: leave the bus and stop sending.
    void OnLinkLost();

    void OnBusFrame(const SCanFrame& oFrame, const STimeStamp& oTime) override;

    bool IsFrozen() const { return m_bFrozen.load(); }
    const std::string& Name() const { return m_sName; }

private:
    void CountFaultAfter();
    // Freezes once the telegram count reaches its limit, unless the
    // connection is to be closed instead.
    void FreezeIfDue();
    // Queues the indication of a bus frame for the client.
    void PostIndication(const SCanFrame& oFrame, const STimeStamp& oTime);

    CCanPortModel& m_roPort;
    CCanBus& m_roBus;
    const SSessionOptions m_oOptions;
    SSimCounters& m_roCounters;
    CSimLog& m_roLog;
    const std::string m_sName;

    CKelMutex m_oClientMutex; // guards m_oClient
    SClientSettings m_oClient;
    unsigned int m_nTelegrams = 0; // read thread only
    std::atomic<bool> m_bFrozen{false};
    std::atomic<bool> m_bClosing{false};
    std::atomic<bool> m_bOnBus{false};
    COutbox m_oOutbox;
};

} // namespace GatewaySim

#endif
