// The SocketCAN adapter against a real SocketCAN stack: runs inside the test
// VM on vcan0/vcan1, with cansend and candump as the outside world.
#include "socket_can.h"

#include "support/can_tools.h"

#include <gtest/gtest.h>

#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace vmtest;
using Clock = std::chrono::steady_clock;

const can_socket_params_t kVcan0{"vcan0", 29, 3, 1};

_can_msg_t makeRecord(uint32_t id, bool ext, bool rtr, std::vector<unsigned char> data) {
    _can_msg_t msg{};
    msg.id = id;
    msg.ext = ext ? 1 : 0;
    msg.rtr = rtr ? 1 : 0;
    msg.len = static_cast<uint8_t>(data.size());
    if (!data.empty()) memcpy(msg.data, data.data(), data.size());
    return msg;
}

// Keeps calling can_receive through empty seconds until a frame or another
// error arrives; returns the last result.
int receiveWithin(_can_msg_t &msg, Milliseconds limit = kPatience, int *emptyCount = nullptr) {
    const auto deadline = Clock::now() + limit;
    int result;
    do {
        result = can_receive(&msg);
        if (result == -30 && emptyCount != nullptr) ++*emptyCount;
    } while (result == -30 && Clock::now() < deadline);
    return result;
}

bool setLink(const char *interface, const char *state) {
    return runProgram({"ip", "link", "set", interface, state}) == 0;
}

// Brings an interface back up however the test ends.
class LinkDownGuard {
public:
    explicit LinkDownGuard(const char *interface) : interface_(interface) { down_ = setLink(interface_, "down"); }
    ~LinkDownGuard() { setLink(interface_, "up"); }
    bool down() const { return down_; }

private:
    const char *interface_;
    bool down_;
};

class AdapterTest : public ::testing::Test {
protected:
    void TearDown() override { can_exit(); }
};

// An adapter initialised and started on vcan0.
class StartedAdapterTest : public AdapterTest {
protected:
    void SetUp() override {
        ASSERT_EQ(0, can_init(-1, &kVcan0, nullptr, 0, false, false));
        ASSERT_EQ(0, can_start(-1));
    }
};

// --- receiving what cansend writes ---------------------------------------------

struct ReceiveCase {
    const char *cansend;
    uint32_t id;
    int ext;
    int rtr;
    std::vector<unsigned char> data;
};

class ReceiveFromCansendTest : public StartedAdapterTest, public ::testing::WithParamInterface<ReceiveCase> {};

TEST_P(ReceiveFromCansendTest, FrameArrivesWithIdentifierFlagsLengthAndData) {
    const ReceiveCase &expected = GetParam();
    ASSERT_EQ(0, runProgram({"cansend", "vcan0", expected.cansend}));

    _can_msg_t msg{};
    memset(msg.data, 0xA5, sizeof msg.data);
    ASSERT_EQ(0, receiveWithin(msg));
    EXPECT_EQ(expected.id, msg.id);
    EXPECT_EQ(expected.ext, msg.ext);
    EXPECT_EQ(expected.rtr, msg.rtr);
    ASSERT_EQ(expected.data.size(), msg.len);
    EXPECT_EQ(expected.data, std::vector<unsigned char>(msg.data, msg.data + msg.len));

    // The time stamp is the kernel's receive time of this frame.
    timeval now{};
    gettimeofday(&now, nullptr);
    EXPECT_GT(msg.timestamp.tv_sec, 0);
    EXPECT_LE(msg.timestamp.tv_sec, now.tv_sec);
    EXPECT_GE(msg.timestamp.tv_sec, now.tv_sec - 30);
    EXPECT_EQ(0, socket_can::can_state.load());
}

INSTANTIATE_TEST_SUITE_P(
    Frames, ReceiveFromCansendTest,
    ::testing::Values(ReceiveCase{"123#1122334455667788", 0x123, 0, 0, {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88}},
                      ReceiveCase{"123#", 0x123, 0, 0, {}},
                      ReceiveCase{"000#00", 0x000, 0, 0, {0x00}},
                      ReceiveCase{"7FF#A1B2C3", 0x7FF, 0, 0, {0xA1, 0xB2, 0xC3}},
                      ReceiveCase{"1ABCDEF0#DEADBEEF", 0x1ABCDEF0, 1, 0, {0xDE, 0xAD, 0xBE, 0xEF}},
                      ReceiveCase{"1FFFFFFF#0102030405060708", 0x1FFFFFFF, 1, 0, {1, 2, 3, 4, 5, 6, 7, 8}},
                      ReceiveCase{"00000005#", 0x5, 1, 0, {}}, // extended although the value fits 11 bits
                      ReceiveCase{"7FF#R", 0x7FF, 0, 1, {}},
                      ReceiveCase{"1F334455#R", 0x1F334455, 1, 1, {}}));

// --- transmitting what candump sees ------------------------------------------

TEST_F(StartedAdapterTest, CandumpSeesTransmittedFramesWithTheSameBytes) {
    RawCanSocket prober("vcan0");
    ASSERT_TRUE(prober.ok());
    CanDump candump("vcan0");
    ASSERT_TRUE(candump.waitUntilListening(prober)) << "candump did not start listening on vcan0";

    _can_msg_t shortData = makeRecord(0x100, false, false, {0x12, 0x34});
    memset(shortData.data + 2, 0xEE, 6); // bytes past the length are not sent
    const struct {
        _can_msg_t msg;
        const char *candump;
    } cases[] = {
        {makeRecord(0x123, false, false, {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88}), "123#1122334455667788"},
        {makeRecord(0x321, false, false, {}), "321#"},
        {shortData, "100#1234"},
        {makeRecord(0x1ABCDEF0, true, false, {0xAA, 0xBB, 0xCC}), "1ABCDEF0#AABBCC"},
        {makeRecord(0x5, true, false, {0x01}), "00000005#01"},
        {makeRecord(0x7FF, false, true, {}), "7FF#R"},
        {makeRecord(0x1F334455, true, true, {}), "1F334455#R"},
    };
    for (const auto &entry : cases) {
        _can_msg_t msg = entry.msg;
        ASSERT_EQ(0, can_transmit(&msg)) << entry.candump;
    }
    for (const auto &entry : cases) {
        EXPECT_EQ(std::optional<std::string>(entry.candump), candump.nextFrame());
    }
    EXPECT_EQ(0, socket_can::can_state.load());
}

TEST_F(StartedAdapterTest, TransmittedFrameHasFlagsUnmaskedIdentifierAndOnlyLengthBytes) {
    RawCanSocket observer("vcan0");
    ASSERT_TRUE(observer.ok());

    _can_msg_t outOfRange = makeRecord(0x800, false, false, {0x01, 0x02}); // wider than 11 bits
    memset(outOfRange.data + 2, 0xEE, 6);
    ASSERT_EQ(0, can_transmit(&outOfRange));
    auto frame = observer.receive(kPatience);
    ASSERT_TRUE(frame);
    EXPECT_EQ(0x800u, frame->can_id);
    ASSERT_EQ(2, frame->can_dlc);
    const unsigned char expectedData[8] = {0x01, 0x02, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(0, memcmp(expectedData, frame->data, sizeof expectedData)) << "bytes past the length were sent";

    _can_msg_t both = makeRecord(0x12345, true, true, {});
    ASSERT_EQ(0, can_transmit(&both));
    frame = observer.receive(kPatience);
    ASSERT_TRUE(frame);
    EXPECT_EQ(CAN_EFF_FLAG | CAN_RTR_FLAG | 0x12345u, frame->can_id);
    EXPECT_EQ(0, frame->can_dlc);
}

TEST_F(StartedAdapterTest, LengthNineIsRejectedAndWritesNothing) {
    RawCanSocket observer("vcan0");
    ASSERT_TRUE(observer.ok());

    _can_msg_t tooLong = makeRecord(0x111, false, false, {1, 2, 3, 4, 5, 6, 7, 8});
    tooLong.len = 9;
    EXPECT_EQ(-93, can_transmit(&tooLong));
    _can_msg_t marker = makeRecord(0x222, false, false, {0x22});
    ASSERT_EQ(0, can_transmit(&marker));

    const auto frame = observer.receive(kPatience);
    ASSERT_TRUE(frame);
    EXPECT_EQ(0x222u, frame->can_id) << "the rejected frame reached the bus";
}

TEST_F(StartedAdapterTest, TransmitStampsTheRecordWithTheLastReceiveTime) {
    // Nothing received yet: the socket has no time stamp and the record keeps its own.
    _can_msg_t first = makeRecord(0x10, false, false, {0x01});
    first.timestamp = {7, 8};
    ASSERT_EQ(0, can_transmit(&first));
    EXPECT_EQ(7, first.timestamp.tv_sec);
    EXPECT_EQ(8, first.timestamp.tv_usec);

    ASSERT_EQ(0, runProgram({"cansend", "vcan0", "0AB#01"}));
    _can_msg_t received{};
    ASSERT_EQ(0, receiveWithin(received));

    _can_msg_t second = makeRecord(0x11, false, false, {0x02});
    second.timestamp = {7, 8};
    ASSERT_EQ(0, can_transmit(&second));
    EXPECT_EQ(received.timestamp.tv_sec, second.timestamp.tv_sec);
    EXPECT_EQ(received.timestamp.tv_usec, second.timestamp.tv_usec);
}

// --- state machine -------------------------------------------------------------

TEST_F(AdapterTest, StateMachineFromInitThroughStartToExit) {
    _can_msg_t msg = makeRecord(0x1, false, false, {0x01});

    ASSERT_EQ(0, can_init(-1, &kVcan0, nullptr, 0, false, false));
    EXPECT_EQ(1, socket_can::init.load());
    EXPECT_EQ(0x80, socket_can::can_state.load());
    EXPECT_STREQ("vcan0", socket_can::ifname);
    EXPECT_GE(socket_can::descriptor.load(), 0);
    EXPECT_EQ(-96, can_init(-1, &kVcan0, nullptr, 0, false, false));

    // Initialised, not started.
    EXPECT_EQ(-9, can_transmit(&msg));
    EXPECT_EQ(-9, can_receive(&msg));
    EXPECT_EQ(-9, can_transmit(nullptr)); // the start check comes before the null check
    EXPECT_EQ(-91, can_start(0));
    EXPECT_EQ(0x80, socket_can::can_state.load());

    ASSERT_EQ(0, can_start(-1));
    EXPECT_EQ(0, socket_can::can_state.load());
    EXPECT_EQ(-8, can_start(-1));
    EXPECT_EQ(-8, can_start(0)); // already started wins over the channel check
    EXPECT_EQ(-96, can_init(-1, &kVcan0, nullptr, 0, false, false));
    EXPECT_EQ(-94, can_transmit(nullptr));
    EXPECT_EQ(-94, can_receive(nullptr));

    EXPECT_EQ(0, can_exit());
    EXPECT_EQ(0, socket_can::init.load());
    EXPECT_EQ(0x80, socket_can::can_state.load() & 0x80);
    EXPECT_EQ(-1, socket_can::descriptor.load());
    EXPECT_STREQ("", socket_can::ifname);
    EXPECT_EQ(-95, can_transmit(&msg));
    EXPECT_EQ(-95, can_receive(&msg));
    EXPECT_EQ(-95, can_start(-1));
    EXPECT_EQ(0, can_exit());

    // After exit the adapter can be brought up again.
    ASSERT_EQ(0, can_init(-1, &kVcan0, nullptr, 0, false, false));
    EXPECT_EQ(0, can_start(-1));
}

TEST_F(AdapterTest, FilterListAndFlagsDoNotRestrictReception) {
    const can_filter onlyOther{0x7FF, CAN_SFF_MASK};
    ASSERT_EQ(0, can_init(-1, &kVcan0, &onlyOther, 1, true, true));
    ASSERT_EQ(0, can_start(-1));
    ASSERT_EQ(0, runProgram({"cansend", "vcan0", "123#42"}));
    _can_msg_t msg{};
    ASSERT_EQ(0, receiveWithin(msg));
    EXPECT_EQ(0x123u, msg.id);
}

TEST_F(AdapterTest, MissingInterfaceFailsWithSystemCodeAndErrno) {
    const can_socket_params_t missing{"nosuchcan0", 29, 3, 1};
    errno = 0;
    EXPECT_EQ(-10000, can_init(-1, &missing, nullptr, 0, false, false));
    EXPECT_EQ(ENODEV, errno);
    EXPECT_EQ(0, socket_can::init.load());
    EXPECT_EQ(-1, socket_can::descriptor.load());
    EXPECT_EQ(-95, can_start(-1));
    EXPECT_EQ(0, can_init(-1, &kVcan0, nullptr, 0, false, false)); // not -96
}

// --- receive time-out, error frames, failures ------------------------------

TEST_F(StartedAdapterTest, EmptyBusTimesOutAfterOneSecond) {
    _can_msg_t msg{};
    const auto start = Clock::now();
    EXPECT_EQ(-30, can_receive(&msg));
    const auto waited = Clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(990));
    EXPECT_LT(waited, std::chrono::seconds(10));
    EXPECT_EQ(0x04, socket_can::can_state.load());

    ASSERT_EQ(0, runProgram({"cansend", "vcan0", "321#01"}));
    ASSERT_EQ(0, receiveWithin(msg));
    EXPECT_EQ(0, socket_can::can_state.load()); // a good receive clears the empty bit
}

TEST_F(StartedAdapterTest, ErrorFrameIsDroppedAndReportedAsEmpty) {
    RawCanSocket injector("vcan0");
    RawCanSocket errorWatcher("vcan0", true);
    ASSERT_TRUE(injector.ok());
    ASSERT_TRUE(errorWatcher.ok());

    ASSERT_TRUE(injector.send(makeFrame(CAN_ERR_FLAG | 0x40 /* bus off */, {0, 0, 0, 0, 0, 0, 0, 0})));
    ASSERT_TRUE(injector.send(makeFrame(0x042, {0x42})));

    // The bus really carried the error frame to sockets that ask for them.
    const auto seen = errorWatcher.receive(kPatience);
    ASSERT_TRUE(seen);
    EXPECT_EQ(CAN_ERR_FLAG | 0x40u, seen->can_id);

    _can_msg_t msg{};
    int empty = 0;
    ASSERT_EQ(0, receiveWithin(msg, kPatience, &empty));
    EXPECT_EQ(0x042u, msg.id) << "the error frame was handed to the caller";
    EXPECT_GE(empty, 1) << "the error frame should have been reported as -30";
}

TEST_F(StartedAdapterTest, WriteOnDownInterfaceIsTransmitterBusyUntilAGoodWrite) {
    _can_msg_t msg = makeRecord(0x55, false, false, {0x55});
    {
        LinkDownGuard down("vcan0");
        ASSERT_TRUE(down.down());
        EXPECT_EQ(-20, can_transmit(&msg));
        EXPECT_EQ(0x08, socket_can::can_state.load() & 0x08);
    }
    RawCanSocket observer("vcan0");
    ASSERT_TRUE(observer.ok());
    EXPECT_EQ(0, can_transmit(&msg));
    EXPECT_EQ(0, socket_can::can_state.load() & 0x08);
    EXPECT_TRUE(observer.receive(kPatience));
}

TEST_F(StartedAdapterTest, FailedReadIsMessageLostUntilAGoodReceive) {
    {
        // Taking the interface down leaves ENETDOWN pending on the socket:
        // select reports it readable and the read fails.
        LinkDownGuard down("vcan0");
        ASSERT_TRUE(down.down());
        _can_msg_t msg{};
        EXPECT_EQ(-10, receiveWithin(msg));
        EXPECT_EQ(0x02, socket_can::can_state.load() & 0x02);
    }
    ASSERT_EQ(0, runProgram({"cansend", "vcan0", "066#06"}));
    _can_msg_t msg{};
    ASSERT_EQ(0, receiveWithin(msg));
    EXPECT_EQ(0x066u, msg.id);
    EXPECT_EQ(0, socket_can::can_state.load());
}

TEST_F(AdapterTest, SecondInterfaceIsSeparateFromTheFirst) {
    const can_socket_params_t vcan1{"vcan1", 29, 3, 1};
    ASSERT_EQ(0, can_init(-1, &vcan1, nullptr, 0, false, false));
    ASSERT_EQ(0, can_start(-1));
    ASSERT_EQ(0, runProgram({"cansend", "vcan0", "111#01"}));
    ASSERT_EQ(0, runProgram({"cansend", "vcan1", "222#02"}));
    _can_msg_t msg{};
    ASSERT_EQ(0, receiveWithin(msg));
    EXPECT_EQ(0x222u, msg.id);
}

} // namespace
