// The SocketCAN adapter against a real SocketCAN stack: runs inside the test
// VM on vcan0, with cansend and candump as the outside world.
#include "socket_can.h"

#include "support/ChildProcess.h"

#include <gtest/gtest.h>

#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

namespace
{

using namespace OrvaneTest;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<unsigned char>;

const can_socket_params_t kVcan0{"vcan0", 29, 3, 1};

_can_msg_t makeRecord(uint32_t id, int ext, int rtr, const Bytes& data)
{
    _can_msg_t msg{};
    msg.id = id;
    msg.ext = ext;
    msg.rtr = rtr;
    msg.len = static_cast<uint8_t>(data.size());
    if (!data.empty())
        memcpy(msg.data, data.data(), data.size());
    return msg;
}

// An adapter started on vcan0. Its filter list and flags would exclude every
// frame these tests send if they were applied; the adapter ignores them.
class StartedAdapterTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const can_filter onlyOther{0x7FE, CAN_SFF_MASK};
        ASSERT_EQ(0, can_init(-1, &kVcan0, &onlyOther, 1, true, true));
        ASSERT_EQ(0, can_start(-1));
    }
    void TearDown() override { can_exit(); }
};

TEST_F(StartedAdapterTest, FramesFromCansendArriveWithIdentifierFlagsLengthAndDataErrorFramesDoNot)
{
    // Eight digits with the error flag set make cansend write an error frame
    // (bus off): it is dropped and reported as an empty receiver.
    ASSERT_TRUE(CanSend("vcan0", "20000040#0000000000000000"));
    int empties = 0;
    const struct
    {
        const char* cansend;
        uint32_t id;
        int ext;
        int rtr;
        Bytes data;
    } cases[] = {
        // The bridge's VM tests send every frame kind through the adapter; these
        // are the kinds whose flags are easiest to get wrong.
        {"123#1122334455667788", 0x123, 0, 0, {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88}},
        {"00000005#01", 0x5, 1, 0, {0x01}}, // extended although the value fits 11 bits
        {"1F334455#R", 0x1F334455, 1, 1, {}},
    };
    for (const auto& expected : cases)
    {
        SCOPED_TRACE(expected.cansend);
        ASSERT_TRUE(CanSend("vcan0", expected.cansend));
        // Through empty seconds, each counted, until the frame arrives
        // (generous: the VM is slow).
        const auto deadline = Clock::now() + std::chrono::seconds(10);
        _can_msg_t msg{};
        int result;
        while ((result = can_receive(&msg)) == -30 && Clock::now() < deadline)
            ++empties;
        ASSERT_EQ(0, result);
        EXPECT_EQ(expected.id, msg.id);
        EXPECT_EQ(expected.ext, msg.ext);
        EXPECT_EQ(expected.rtr, msg.rtr);
        EXPECT_EQ(expected.data, Bytes(msg.data, msg.data + msg.len));

        // The time stamp is the kernel's receive time of this frame.
        timeval now{};
        gettimeofday(&now, nullptr);
        EXPECT_LE(msg.timestamp.tv_sec, now.tv_sec);
        EXPECT_GE(msg.timestamp.tv_sec, now.tv_sec - 30);
    }
    EXPECT_GE(empties, 1) << "the error frame should have been reported as -30";
}

TEST_F(StartedAdapterTest, CandumpSeesTransmittedFramesWithTheSameBytes)
{
    CCanDump candump("vcan0");
    ASSERT_TRUE(candump.WaitUntilListening()) << "candump did not start listening on vcan0";

    // A length of 9 is refused before anything is written: candump's first
    // frame must be the first valid one.
    _can_msg_t tooLong = makeRecord(0x111, 0, 0, {1, 2, 3, 4, 5, 6, 7, 8});
    tooLong.len = 9;
    EXPECT_EQ(-93, can_transmit(&tooLong));

    const struct
    {
        _can_msg_t msg;
        const char* logged;
    } cases[] = {
        {makeRecord(0x321, 0, 0, {1, 2, 3, 4, 5, 6, 7, 8}), "321#0102030405060708"},
        {makeRecord(0x5, 1, 0, {0x01}), "00000005#01"},
        {makeRecord(0x7FF, 0, 1, {}), "7FF#R"},
    };
    for (const auto& entry : cases)
    {
        _can_msg_t msg = entry.msg;
        ASSERT_EQ(0, can_transmit(&msg)) << entry.logged;
    }
    for (const auto& entry : cases)
    {
        EXPECT_EQ(entry.logged, candump.NextFrame());
    }
}

TEST(SocketCanAdapter, StateMachineFromFailedInitThroughStartToExit)
{
    EXPECT_EQ(0, can_exit());                                       // nothing to close yet
    EXPECT_EQ(-93, can_init(0, &kVcan0, nullptr, 0, false, false)); // the only channel is -1
    EXPECT_EQ(-94, can_init(-1, nullptr, nullptr, 0, false, false));
    // A missing interface leaves the adapter uninitialised, with the reason in errno.
    const can_socket_params_t missing{"nosuchcan0", 29, 3, 1};
    errno = 0;
    EXPECT_EQ(-10000, can_init(-1, &missing, nullptr, 0, false, false));
    EXPECT_EQ(ENODEV, errno);
    EXPECT_EQ(-95, can_start(-1));

    _can_msg_t msg = makeRecord(0x1, 0, 0, {0x01});
    ASSERT_EQ(0, can_init(-1, &kVcan0, nullptr, 0, false, false));
    EXPECT_EQ(-96, can_init(-1, &kVcan0, nullptr, 0, false, false));
    EXPECT_EQ(-9, can_transmit(&msg));
    EXPECT_EQ(-9, can_receive(&msg));
    EXPECT_EQ(-91, can_start(0));

    ASSERT_EQ(0, can_start(-1));
    EXPECT_EQ(-8, can_start(-1));
    EXPECT_EQ(-94, can_transmit(nullptr));
    EXPECT_EQ(-94, can_receive(nullptr));

    EXPECT_EQ(0, can_exit());
    EXPECT_EQ(-95, can_transmit(&msg));
    EXPECT_EQ(-95, can_receive(&msg));
    EXPECT_EQ(-1, socket_can::Descriptor());

    // After exit the adapter can be brought up again.
    EXPECT_EQ(0, can_init(-1, &kVcan0, nullptr, 0, false, false));
    EXPECT_EQ(0, can_start(-1));
    EXPECT_EQ(0, can_exit());
}

} // namespace
