#include "KelAliveRules.h"

#include "KelIPConnection.h"

#include <algorithm>

unsigned int CKelAliveRules::TickMs(unsigned int periodMs)
{
    return std::max(MIN_TICK_MS, periodMs / 4);
}

CKelAliveRules::EAction CKelAliveRules::Decide(unsigned int mode, unsigned int tick, unsigned int lastSend,
                                               unsigned int lastReceive)
{
    if (mode == CKelIPConnection::eAliveOff)
        return eNothing;
    if (tick > lastReceive + SILENT_TICKS)
        return eLinkLost;
    // Requests flow only while the line is otherwise quiet; the passive side
    // only watches.
    if (mode == CKelIPConnection::eAliveActive && (lastSend + QUIET_TICKS < tick || tick > lastReceive + QUIET_TICKS))
        return eSendRequest;
    return eNothing;
}
