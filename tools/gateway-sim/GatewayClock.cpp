#include "GatewayClock.h"

#include <sys/time.h>

namespace GatewaySim
{

namespace
{
thread_local bool t_bHeld = false;
thread_local long long t_nHeldUs = 0;
} // namespace

void CGatewayClock::Hold()
{
    t_bHeld = false;
    t_nHeldUs = HostMicroseconds();
    t_bHeld = true;
}

void CGatewayClock::Release()
{
    t_bHeld = false;
}

bool CGatewayClock::IsHeld()
{
    return t_bHeld;
}

long long CGatewayClock::HostMicroseconds()
{
    if (t_bHeld)
        return t_nHeldUs;
    timeval oNow{};
    gettimeofday(&oNow, nullptr);
    return static_cast<long long>(oNow.tv_sec) * 1000000LL + oNow.tv_usec;
}

STimeStamp CGatewayClock::Now() const
{
    const long long nUs = HostMicroseconds() + m_nOffsetUs.load();
    STimeStamp oTime;
    oTime.nSeconds = static_cast<int>(nUs / 1000000LL);
    oTime.nMicroseconds = static_cast<int>(nUs % 1000000LL);
    return oTime;
}

void CGatewayClock::Set(const STimeStamp& oTime)
{
    const long long nWanted = static_cast<long long>(oTime.nSeconds) * 1000000LL + oTime.nMicroseconds;
    m_nOffsetUs.store(nWanted - HostMicroseconds());
    m_bSet.store(true);
}

} // namespace GatewaySim
