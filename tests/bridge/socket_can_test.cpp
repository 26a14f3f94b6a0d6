// Host-side checks of the SocketCAN adapter that need no CAN in the kernel:
// can_error's texts and the checks made before a socket exists. The tests on
// a real SocketCAN stack run inside the VM (tests/vm).
#include "socket_can.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <utility>

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

TEST(SocketCanHost, CallsBeforeASocketExistsAreRejectedWithTheirCodes)
{
    const can_socket_params_t params{"orvnone0", 29, 3, 1};
    _can_msg_t msg{};
    EXPECT_EQ(-95, can_start(-1));
    EXPECT_EQ(-95, can_transmit(&msg));
    EXPECT_EQ(-95, can_receive(&msg));
    EXPECT_EQ(-93, can_init(0, &params, nullptr, 0, false, false)); // channel must be -1
    EXPECT_EQ(-94, can_init(-1, nullptr, nullptr, 0, false, false));
    EXPECT_EQ(-1, socket_can::descriptor.load());
    EXPECT_EQ(0, can_exit());
}

} // namespace
