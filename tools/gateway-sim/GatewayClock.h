// The clock of one simulated CAN port: the host's wall clock shifted by
// whatever SET_TIME told the port. Frame time stamps and GET_TIME read it.
#ifndef GATEWAY_SIM_CLOCK_H
#define GATEWAY_SIM_CLOCK_H

#include "SimTypes.h"

#include <atomic>

namespace GatewaySim
{

class CGatewayClock
{
public:
    // Current gateway time.
    STimeStamp Now() const;
    // Sets the gateway time to oTime from now on; the clock becomes valid.
    void Set(const STimeStamp& oTime);
    // True once SET_TIME has been received.
    bool IsSet() const { return m_bSet.load(); }

    static long long HostMicroseconds();

    // A thread that handles the frames of one read at once reads the host's
    // clock once for all of them: from Hold until Release its clock stands
    // still. A clock read may cost a system call (and on some machines a
    // slow timer read); frames that arrived together share their time.
    static void Hold();
    static void Release();
    static bool IsHeld();

private:
    std::atomic<long long> m_nOffsetUs{0};
    std::atomic<bool> m_bSet{false};
};

} // namespace GatewaySim

#endif
