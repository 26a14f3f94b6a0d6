#include "GatewayClock.h"

#include <sys/time.h>

namespace GatewaySim
{

long long CGatewayClock::HostMicroseconds()
{
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
