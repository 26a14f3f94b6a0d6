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

// Every code prints its exact line (misspellings included); codes between print nothing.
TEST(SocketCanErrorText, EveryCodeHasItsExactLineAndOtherCodesPrintNothing)
{
    const std::pair<int, const char*> expected[] = {
        {-99, "SocketCAN: USR - other errors"},
        {-98, "SocketCAN: USR - not supported"},
        {-96, "SocketCAN: USR - already initialized"},
        {-95, "SocketCAN: USR - not initialized"},
        {-94, "SocketCAN: USR - null-pointer assignement"},
        {-93, "SocketCAN: USR - illegal parameter"},
        {-91, "SocketCAN: USR - illegal baudrate"},
        {-50, "SocketCAN: USR - time-out"},
        {-30, "SocketCAN: USR - receiver empty"},
        {-20, "SocketCAN: USR - transmitter busy"},
        {-16, "SocketCAN: LEC - checksum error"},
        {-15, "SocketCAN: LEC - dominant bit error"},
        {-14, "SocketCAN: LEC - recessive bit error"},
        {-13, "SocketCAN: LEC - acknowledge error"},
        {-12, "SocketCAN: LEC - form error"},
        {-11, "SocketCAN: LEC - stuff error"},
        {-10, "SocketCAN: CAN - message lost"},
        {-9, "SocketCAN: CAN - not started"},
        {-8, "SocketCAN: CAN - already started"},
        {-3, "SocketCAN: CAN - bus error"},
        {-2, "SocketCAN: CAN - error warning status"},
        {-1, "SocketCAN: CAN - busoff status"},
    };
    for (const auto& entry : expected)
        EXPECT_EQ(std::string(entry.second) + "\n", errorText(entry.first)) << "code " << entry.first;
    for (int code : {0, 1, -4, -17, -92, -97, -100, -10000})
        EXPECT_EQ("", errorText(code)) << "code " << code;
}

// Each state goes out as one datagram; here to an abstract name (the VM tests
// of the bridge use a path). Outside a service manager, or with a name it
// cannot use, the notifier opens nothing and sends nothing.
TEST(ServiceNotifier, SendsOneDatagramPerStateOnlyToAUsableSocket)
{
    OrvaneTest::CServiceManager oManager("@orvane-notify-" + std::to_string(getpid()));
    CServiceNotifier oActive;
    ASSERT_TRUE(oActive.IsActive());
    EXPECT_TRUE(oActive.Notify("READY=1\nSTATUS=up"));
    EXPECT_TRUE(oActive.Notify("WATCHDOG=1"));
    EXPECT_EQ(oManager.Messages(), (std::vector<std::string>{"READY=1\nSTATUS=up", "WATCHDOG=1"}));

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
