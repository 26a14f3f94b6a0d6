// Host-side checks of the SocketCAN adapter: everything that needs no CAN
// support in the kernel (argument checks, the state machine before a socket
// exists, can_error's texts). The tests that need a real SocketCAN stack run
// inside the VM (tests/vm).
#include "socket_can.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <string>

namespace {

class SocketCanHostTest : public ::testing::Test {
protected:
    void TearDown() override { can_exit(); }

    static std::string errorText(int code) {
        ::testing::internal::CaptureStdout();
        can_error(code);
        fflush(stdout);
        return ::testing::internal::GetCapturedStdout();
    }

    can_socket_params_t params_{"orvnone0", 29, 3, 1};
};

TEST_F(SocketCanHostTest, ErrorTextsAreExactAndEndWithNewline) {
    const struct {
        int code;
        const char *text;
    } expected[] = {
        {-99, "SocketCAN: USR - other errors\n"},
        {-98, "SocketCAN: USR - not supported\n"},
        {-96, "SocketCAN: USR - already initialized\n"},
        {-95, "SocketCAN: USR - not initialized\n"},
        {-94, "SocketCAN: USR - null-pointer assignement\n"},
        {-93, "SocketCAN: USR - illegal parameter\n"},
        {-91, "SocketCAN: USR - illegal baudrate\n"},
        {-50, "SocketCAN: USR - time-out\n"},
        {-30, "SocketCAN: USR - receiver empty\n"},
        {-20, "SocketCAN: USR - transmitter busy\n"},
        {-16, "SocketCAN: LEC - checksum error\n"},
        {-15, "SocketCAN: LEC - dominant bit error\n"},
        {-14, "SocketCAN: LEC - recessive bit error\n"},
        {-13, "SocketCAN: LEC - acknowledge error\n"},
        {-12, "SocketCAN: LEC - form error\n"},
        {-11, "SocketCAN: LEC - stuff error\n"},
        {-10, "SocketCAN: CAN - message lost\n"},
        {-9, "SocketCAN: CAN - not started\n"},
        {-8, "SocketCAN: CAN - already started\n"},
        {-3, "SocketCAN: CAN - bus error\n"},
        {-2, "SocketCAN: CAN - error warning status\n"},
        {-1, "SocketCAN: CAN - busoff status\n"},
    };
    for (const auto &entry : expected) {
        EXPECT_EQ(entry.text, errorText(entry.code)) << "code " << entry.code;
    }
}

TEST_F(SocketCanHostTest, CodesOutsideTheTablePrintNothing) {
    for (int code : {0, 1, -4, -7, -17, -92, -97, -100, -10000}) {
        EXPECT_EQ("", errorText(code)) << "code " << code;
    }
}

TEST_F(SocketCanHostTest, EveryCallBeforeInitReportsNotInitialised) {
    _can_msg_t msg{};
    EXPECT_EQ(-95, can_start(-1));
    EXPECT_EQ(-95, can_start(0)); // the init check comes before the channel check
    EXPECT_EQ(-95, can_transmit(&msg));
    EXPECT_EQ(-95, can_transmit(nullptr));
    EXPECT_EQ(-95, can_receive(&msg));
    EXPECT_EQ(-95, can_receive(nullptr));
    EXPECT_EQ(0, can_exit());
    EXPECT_EQ(0, can_exit());
}

TEST_F(SocketCanHostTest, InitChecksChannelBeforeParams) {
    EXPECT_EQ(-93, can_init(0, &params_, nullptr, 0, false, false));
    EXPECT_EQ(-93, can_init(-2, &params_, nullptr, 0, false, false));
    EXPECT_EQ(-93, can_init(0, nullptr, nullptr, 0, false, false));
    EXPECT_EQ(-94, can_init(-1, nullptr, nullptr, 0, false, false));
    EXPECT_EQ(0, socket_can::init.load());
    EXPECT_EQ(-1, socket_can::descriptor.load());
}

// Without CAN in the kernel the socket call fails; with it, bind fails for the
// missing interface. Either way the operating system's reason is in errno.
TEST_F(SocketCanHostTest, FailedSocketSetupGivesSystemCodeWithErrnoAndStaysUninitialised) {
    errno = 0;
    EXPECT_EQ(-10000, can_init(-1, &params_, nullptr, 0, false, false));
    EXPECT_NE(0, errno);
    EXPECT_EQ(0, socket_can::init.load());
    EXPECT_EQ(-1, socket_can::descriptor.load());
    EXPECT_EQ(-95, can_start(-1));
    // Not initialised, so a second attempt is allowed rather than -96.
    EXPECT_EQ(-10000, can_init(-1, &params_, nullptr, 0, false, false));
}

TEST_F(SocketCanHostTest, UnknownAddressFamilyReportsItsErrno) {
    const can_socket_params_t bogus{"can0", 4242, 3, 1};
    errno = 0;
    EXPECT_EQ(-10000, can_init(-1, &bogus, nullptr, 0, false, false));
    EXPECT_EQ(EAFNOSUPPORT, errno);
}

TEST_F(SocketCanHostTest, InitStoresParamsAndExitRestoresDefaults) {
    const can_socket_params_t other{"a-very-long-interface-name", 4242, 2, 7};
    EXPECT_EQ(-10000, can_init(-1, &other, nullptr, 0, false, false));
    EXPECT_STREQ("a-very-long-inte", socket_can::ifname); // at most 16 characters
    EXPECT_EQ(4242, socket_can::family);
    EXPECT_EQ(2, socket_can::type);
    EXPECT_EQ(7, socket_can::protocol);

    EXPECT_EQ(0, can_exit());
    EXPECT_STREQ("", socket_can::ifname);
    EXPECT_EQ(29, socket_can::family);
    EXPECT_EQ(3, socket_can::type);
    EXPECT_EQ(1, socket_can::protocol);
    EXPECT_EQ(0x80, socket_can::can_state.load() & 0x80);
}

TEST(SocketCanRecord, FieldsInTheOrderTheBridgeCopies) {
    // identifier, remote, extended, length, data, time stamp
    EXPECT_EQ(0u, offsetof(_can_msg_t, id));
    EXPECT_LT(offsetof(_can_msg_t, id), offsetof(_can_msg_t, rtr));
    EXPECT_LT(offsetof(_can_msg_t, rtr), offsetof(_can_msg_t, ext));
    EXPECT_LT(offsetof(_can_msg_t, ext), offsetof(_can_msg_t, len));
    EXPECT_EQ(offsetof(_can_msg_t, len) + 1, offsetof(_can_msg_t, data));
    EXPECT_LT(offsetof(_can_msg_t, data), offsetof(_can_msg_t, timestamp));
    EXPECT_EQ(8u, sizeof(_can_msg_t{}.data));
}

} // namespace
