// Counters of one simulator run, printed on exit.
#ifndef GATEWAY_SIM_COUNTERS_H
#define GATEWAY_SIM_COUNTERS_H

#include <atomic>
#include <string>

namespace GatewaySim
{

struct SSimCounters
{
    std::atomic<unsigned long long> nTelegrams{0};     // gateway telegrams received
    std::atomic<unsigned long long> nConfirmations{0}; // confirmations sent
    std::atomic<unsigned long long> nFramesIn{0};      // frames put on a bus
    std::atomic<unsigned long long> nFramesOut{0};     // frame indications sent to clients
    std::atomic<unsigned long long> nFramesDropped{0}; // indications lost to a full client queue
    std::atomic<unsigned long long> nBadCrc{0};
    std::atomic<unsigned long long> nBadLength{0};
    std::atomic<unsigned long long> nUnknownCommands{0};
    std::atomic<unsigned long long> nInjectedErrors{0};
    std::atomic<unsigned long long> nIgnoredFrozen{0}; // telegrams left unanswered by a frozen connection
    std::atomic<unsigned long long> nConnections{0};   // connect requests accepted
    std::atomic<unsigned long long> nRefused{0};       // connections refused or closed before connecting
    std::atomic<unsigned long long> nSendErrors{0};

    // Total of the input errors (CRC, length, unknown command).
    unsigned long long InputErrors() const { return nBadCrc + nBadLength + nUnknownCommands; }
    // One line: "telegrams=... confirmations=... ...".
    std::string Format() const;
};

} // namespace GatewaySim

#endif
