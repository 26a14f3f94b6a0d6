// The CAN bus of one simulated port: every frame put on it is handed to each
// attached member except the one that sent it.
#ifndef GATEWAY_SIM_CAN_BUS_H
#define GATEWAY_SIM_CAN_BUS_H

#include "SimCounters.h"
#include "SimTypes.h"
#include "libKelMutex.h"

#include <cstddef>
#include <vector>

namespace GatewaySim
{

class ICanBusMember
{
public:
    virtual ~ICanBusMember() = default;
    // A frame another member put on the bus. Called with the bus locked, on
    // the sender's thread: it must not block and must not call the bus.
    virtual void OnBusFrame(const SCanFrame& oFrame, const STimeStamp& oTime) = 0;
    // The thread that held its writes back flushes them (see
    // CCanBus::HoldWrites): a member that kept frames back passes them on
    // now. Called with the bus locked.
    virtual void OnBusFlush() {}
};

class CCanBus
{
public:
    explicit CCanBus(SSimCounters& oCounters) : m_roCounters(oCounters) {}

    CCanBus(const CCanBus&) = delete;
    CCanBus& operator=(const CCanBus&) = delete;

    void Attach(ICanBusMember* pMember);
    // Once this returns the member is called no more.
    void Detach(ICanBusMember* pMember);
    // pSender may be null (a frame from outside every member).
    void Transmit(const SCanFrame& oFrame, const STimeStamp& oTime, const ICanBusMember* pSender);
    std::size_t MemberCount() const;

    // The frames this thread transmits from now on may be kept back by
    // members that write in batches, until the thread calls Flush. A thread
    // that has several frames at hand (those of one TCP read) holds them, so
    // they leave in one system call; it never waits for more.
    static void HoldWrites();
    static bool WritesHeld();
    // Ends the hold and has every member pass on what it kept back.
    void Flush();

private:
    SSimCounters& m_roCounters;
    mutable CKelMutex m_oMutex;
    std::vector<ICanBusMember*> m_apMembers;
};

} // namespace GatewaySim

#endif
