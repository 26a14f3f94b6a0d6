// What one pass of the alive thread decides, and how long a pass lasts.
#include "KelAliveRules.h"
#include "KelIPConnection.h"

#include <gtest/gtest.h>

namespace
{
const unsigned int kOff = CKelIPConnection::eAliveOff;
const unsigned int kActive = CKelIPConnection::eAliveActive;
const unsigned int kPassive = CKelIPConnection::eAlivePassive;
} // namespace

TEST(KelAliveRules, DecisionOfOnePass)
{
    const struct
    {
        const char* what;
        unsigned int mode, tick, lastSend, lastReceive;
        CKelAliveRules::EAction expected;
    } rows[] = {
        {"off: silence is no reason to act", kOff, 100, 0, 0, CKelAliveRules::eNothing},
        // Lost after more than four silent ticks, on either side.
        {"active, 4 ticks silent", kActive, 4, 3, 0, CKelAliveRules::eSendRequest},
        {"active, 5 ticks silent", kActive, 5, 4, 0, CKelAliveRules::eLinkLost},
        {"passive, 4 ticks silent: it never asks", kPassive, 4, 0, 0, CKelAliveRules::eNothing},
        {"passive, 5 ticks silent", kPassive, 5, 0, 0, CKelAliveRules::eLinkLost},
        // The active side asks after more than two ticks without a send or
        // without a receive.
        {"active, sent 2 ticks ago", kActive, 10, 8, 10, CKelAliveRules::eNothing},
        {"active, sent 3 ticks ago", kActive, 10, 7, 10, CKelAliveRules::eSendRequest},
        {"active, received 2 ticks ago", kActive, 10, 10, 8, CKelAliveRules::eNothing},
        {"active, received 3 ticks ago", kActive, 10, 10, 7, CKelAliveRules::eSendRequest},
        // A receive noted with the tick of before a reset of the counters
        // does not make the link look silent.
        {"receive mark ahead of the tick", kActive, 1, 0, 7, CKelAliveRules::eNothing},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.expected, CKelAliveRules::Decide(row.mode, row.tick, row.lastSend, row.lastReceive)) << row.what;
}

TEST(KelAliveRules, TickIsAQuarterPeriodButAtLeastTenMs)
{
    const unsigned int rows[][2] = {{1000, 250}, {5000, 1250}, {44, 11}, {40, 10}, {20, 10}, {0, 10}};
    for (const auto& row : rows)
        EXPECT_EQ(row[1], CKelAliveRules::TickMs(row[0])) << "period " << row[0];
}
