// Host-side checks of the bridge's parts that need no CAN in the kernel:
// can_error's texts and the messages to a service manager. The tests on a
// real SocketCAN stack run inside the VM (tests/vm, tests/bridge/vm).
#include "service_notify.h"
#include "socket_can.h"
#include "support/BridgeProcesses.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace
{

std::string errorText(int code)
{
    ::testing::internal::CaptureStdout();
    can_error(code);
    fflush(stdout);
    return ::testing::internal::GetCapturedStdout();
}

// A code prints its exact line (misspellings included): the first and last
// of the table, one of each group and the misspelled one; codes between and
// beyond print nothing.
TEST(SocketCanErrorText, CodesHaveTheirExactLineAndOtherCodesPrintNothing)
{
    const std::pair<int, const char*> expected[] = {
        {-99, "SocketCAN: USR - other errors"},   {-94, "SocketCAN: USR - null-pointer assignement"},
        {-30, "SocketCAN: USR - receiver empty"}, {-13, "SocketCAN: LEC - acknowledge error"},
        {-10, "SocketCAN: CAN - message lost"},   {-1, "SocketCAN: CAN - busoff status"},
    };
    for (const auto& entry : expected)
        EXPECT_EQ(std::string(entry.second) + "\n", errorText(entry.first)) << "code " << entry.first;
    for (int code : {0, 1, -4, -17, -92, -97, -100, -10000})
        EXPECT_EQ("", errorText(code)) << "code " << code;
}

// Each state goes out as one datagram, to a path or to an abstract name.
TEST(ServiceNotifier, SendsOneDatagramPerStateToPathAndAbstractSockets)
{
    const std::string sPath = "/tmp/orvane-notify-" + std::to_string(getpid());
    for (const std::string& sName : {sPath, "@orvane-notify-" + std::to_string(getpid())})
    {
        SCOPED_TRACE(sName);
        OrvaneTest::CServiceManager oManager(sName);
        CServiceNotifier oNotifier;
        ASSERT_TRUE(oNotifier.IsActive());
        EXPECT_TRUE(oNotifier.Notify("READY=1\nSTATUS=up"));
        EXPECT_TRUE(oNotifier.Notify("WATCHDOG=1"));
        EXPECT_EQ(oManager.Messages(), (std::vector<std::string>{"READY=1\nSTATUS=up", "WATCHDOG=1"}));
    }
}

// Outside a service manager, or with a name it cannot use, the notifier
// opens nothing and sends nothing.
TEST(ServiceNotifier, WithoutAUsableNotifySocketNothingIsOpenedOrSent)
{
    unsetenv("NOTIFY_SOCKET");
    for (const char* pcName : {static_cast<const char*>(nullptr), "", "relative/socket", "@"})
    {
        if (pcName != nullptr)
            setenv("NOTIFY_SOCKET", pcName, 1);
        const size_t nBefore = OrvaneTest::Entries("/proc/self/fd");
        CServiceNotifier oNotifier;
        EXPECT_FALSE(oNotifier.IsActive()) << (pcName != nullptr ? pcName : "(unset)");
        EXPECT_FALSE(oNotifier.Notify("READY=1"));
        EXPECT_EQ(nBefore, OrvaneTest::Entries("/proc/self/fd"));
        unsetenv("NOTIFY_SOCKET");
    }
}

} // namespace
