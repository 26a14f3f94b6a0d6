// The connection message's layout, CRC and parsing rules, then the IP
// connection against a raw loopback peer that checks the exact bytes:
// framing, connect results, loss, disconnecting and the alive protocol, whose
// rules of one pass are checked without I/O first. Last the listening side:
// connection limit, purge of ended connections, refusal, derived containers
// and connections, and the datagram endpoint.
#include "KelAliveRules.h"
#include "KelIPConnection.h"
#include "KelIPServerContainer.h"
#include "KelMsg.h"
#include "libKelThread.h"
#include "support/RawPeer.h"
#include "support/RecordingConnection.h"

#include <gtest/gtest.h>

#include <netinet/tcp.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

using namespace OrvaneTest;

namespace
{
const unsigned char kId = 2; // CAN device type: connection commands 0x02xx
const unsigned short kConnectReq = 0x0201, kConnectCnf = 0x8201, kDisconnectReq = 0x0202, kDisconnectCnf = 0x8202,
                     kAliveReq = 0x020D, kAliveCnf = 0x820D;
// Alive period of the tests whose peer answers: ticks of 200 ms, so an
// answer has two ticks (400 ms) to come back before the link is lost, and
// the alive thread waits as long for its turn to send.
const unsigned int kAlivePeriodMs = 800;

// True once a listening socket's accept queue is full, so that the kernel
// drops further connection requests (for a listener, TCP_INFO counts the
// queue in tcpi_unacked and its limit in tcpi_sacked).
bool AcceptQueueFull(int listener)
{
    tcp_info info{};
    socklen_t size = sizeof(info);
    return getsockopt(listener, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 && info.tcpi_state == TCP_LISTEN &&
        info.tcpi_unacked > info.tcpi_sacked;
}

// A connection and the raw peer it is connected to.
struct CPeeredConnection
{
    // `receiveBuffer`: the peer's receive buffer, 0 for the system's default.
    explicit CPeeredConnection(int receiveBuffer = 0) : m_oListener(8, receiveBuffer) {}

    // ConnectReq against the peer, which checks the connect request and
    // answers it with `reply` (with connection messages only).
    unsigned int Connect(bool useConnectionMessages, const std::string& reply = MakeMsg(kConnectCnf, 1, Byte(0)),
                         unsigned int timeoutMs = WAIT_MS)
    {
        auto result = std::async(std::launch::async, [&] {
            return m_oConnection.ConnectReq(LOOPBACK, m_oListener.Port(), timeoutMs, kId, CKelIPBase::eTCP, "hi",
                                            useConnectionMessages);
        });
        m_oPeer = m_oListener.Accept();
        if (useConnectionMessages)
        {
            EXPECT_EQ(MakeMsg(kConnectReq, 1, "hi"), m_oPeer.ReceiveMessage());
            m_oPeer.Send(reply);
        }
        return result.get();
    }

    CRawListener m_oListener;
    CRecordingConnection m_oConnection;
    CRawPeer m_oPeer;
};

struct MessageConnectionTest : ::testing::Test, CPeeredConnection
{
    void SetUp() override { ASSERT_EQ(eKelIPSuccess, Connect(true)); }
};

TEST(KelMsgWire, LayoutCrcAndBuilders)
{
    const CKelMsg message(0x0201, 0x0301, "AB", 2);
    std::string wire;
    message.GetMessageData(wire);
    // CRC = 01 ^ 02 ^ 01 ^ 03 ^ 41 ^ 42 = 02; the length word is not included.
    EXPECT_EQ(FromHex("07 00 01 02 01 03 41 42 02"), wire);
    EXPECT_TRUE(message.IsValid() && message.IsCRCValid() && !message.IsConfirmation());

    char buffer[16];
    ASSERT_EQ(9u, CKelMsg::Build(buffer, sizeof(buffer), 0x0201, 0x0301, "AB", 2));
    EXPECT_EQ(wire, std::string(buffer, 9));
    EXPECT_EQ(0u, CKelMsg::Build(buffer, 8, 0x0201, 0x0301, "AB", 2));
    EXPECT_EQ(0u, message.WriteTo(buffer, 8));

    const CKelMsg empty(0x8002, 0, nullptr, 4); // null data: no data at all
    EXPECT_EQ(5, empty.GetLength());
    EXPECT_EQ(7u, empty.GetWireSize());
    EXPECT_TRUE(empty.IsConfirmation());

    // The connection commands of id 2 are checked byte for byte further down.
    EXPECT_EQ(0x0202, CKelMsg::Command(0x82, CKelMsg::eDisconnectReq)); // low seven bits of the id
}

TEST(KelMsgParse, LengthAndCrcEdgeCases)
{
    CKelMsg message;
    const std::string noData = FromHex("05 00 02 82 09 00 89"); // CRC 82 ^ 02 ^ 09
    EXPECT_TRUE(message.SetMessage(noData.data(), 7));
    EXPECT_EQ(0x8202, message.GetCommand());
    EXPECT_EQ(9, message.GetNumber());
    EXPECT_TRUE(message.GetData().empty());
    EXPECT_TRUE(message.IsCRCValid());

    // Six bytes or fewer clear the message.
    const std::string six = FromHex("05 00 01 02 01 00");
    EXPECT_FALSE(message.SetMessage(six.data(), 6));
    EXPECT_EQ(5, message.GetLength());
    EXPECT_EQ(0, message.GetCommand() + message.GetNumber() + message.GetCRC());

    std::string wire;
    CKelMsg(0x020D, 0, "\xE8\x03\x00\x00", 4).GetMessageData(wire);
    CKelMsg parsed(wire.data(), static_cast<unsigned short>(wire.size()));
    EXPECT_TRUE(parsed.IsValid() && parsed.IsCRCValid());
    EXPECT_EQ(std::string("\xE8\x03\x00\x00", 4), parsed.GetData());

    std::string badCrc = wire;
    badCrc.back() = static_cast<char>(badCrc.back() ^ 0x10);
    EXPECT_TRUE(parsed.SetMessage(badCrc.data(), static_cast<unsigned short>(badCrc.size())));
    EXPECT_FALSE(parsed.IsCRCValid());
    std::string badLength = wire;
    badLength[0] = static_cast<char>(badLength[0] + 1);
    EXPECT_FALSE(parsed.SetMessage(badLength.data(), static_cast<unsigned short>(badLength.size())));

    // The copy-free check says what parsing says.
    const struct
    {
        const std::string& bytes;
        bool intact;
    } checks[] = {{noData, true}, {six, false}, {wire, true}, {badCrc, false}, {badLength, false}};
    for (const auto& check : checks)
        EXPECT_EQ(check.intact, CKelMsg::IsIntact(check.bytes.data(), static_cast<unsigned short>(check.bytes.size())))
            << ::testing::PrintToString(check.bytes);
}
TEST(KelIPConnectionFraming, PeerBytesArriveAsWholeMessages)
{
    const std::string small = Frame(Pattern(11, 1)), kilo = Frame(Pattern(1000, 5)), single = Frame(Pattern(200, 3));
    // 65,535 bytes in all is the longest message; the second one ends past
    // the read buffer's fill limit.
    const std::vector<std::string> largest = {Frame(Pattern(39998, 1)), Frame(Pattern(65533, 2)), Frame(Pattern(1, 3)),
                                              Frame(Pattern(65533, 4))};
    struct
    {
        const char* name;
        // The peer sends each chunk's bytes once the connection has reported
        // its count of messages in all.
        std::vector<std::pair<std::string, size_t>> chunks;
        std::vector<std::string> expected;
    } cases[] = {
        {"one message in single-byte segments", {}, {single}},
        {"largest messages", {{largest[0] + largest[1] + largest[2] + largest[3], 0}}, largest},
        {"one byte left behind", {{small + kilo.substr(0, 1), 0}, {kilo.substr(1), 1}}, {small, kilo}},
        // Without connection messages even a disconnect request is data.
        {"connection command as data", {{MakeMsg(kDisconnectReq, 3), 0}}, {MakeMsg(kDisconnectReq, 3)}},
    };
    for (char byte : single)
        cases[0].chunks.push_back({std::string(1, byte), 0});

    for (const auto& test : cases)
    {
        SCOPED_TRACE(test.name);
        CPeeredConnection side;
        ASSERT_EQ(eKelIPSuccess, side.Connect(false));
        for (const auto& chunk : test.chunks)
        {
            ASSERT_TRUE(side.m_oConnection.WaitForMessages(chunk.second));
            ASSERT_TRUE(side.m_oPeer.Send(chunk.first));
            // Keeps single bytes in separate segments; nothing waits on it.
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
        ASSERT_TRUE(side.m_oConnection.WaitForMessages(test.expected.size()));
        const std::vector<std::string> received = side.m_oConnection.Messages();
        ASSERT_EQ(test.expected.size(), received.size());
        for (size_t i = 0; i < received.size(); ++i)
            EXPECT_TRUE(test.expected[i] == received[i]) << "message " << i << " differs";
        EXPECT_EQ(CKelIPBase::eConnected, side.m_oConnection.GetState());
    }
}

TEST(KelIPConnectionConnect, PeerAnswerDecidesTheResult)
{
    const struct
    {
        std::string reply;
        unsigned int timeoutMs;
        unsigned int result;
    } cases[] = {
        {MakeMsg(kConnectCnf, 1, Byte(0)), WAIT_MS, eKelIPSuccess},
        {MakeMsg(kConnectCnf, 1, Byte(1)), WAIT_MS, eKelIPRefused}, // the peer's connection limit
        {MakeMsg(kConnectCnf, 1, Byte(0xFF)), WAIT_MS, eKelIPNotConnected},
        {MakeMsg(kConnectCnf, 1), 400, eKelIPTimeout},     // no result byte
        {MakeMsg(0x8301, 1, Byte(0)), 400, eKelIPTimeout}, // another id's confirmation
    };
    for (const auto& test : cases)
    {
        SCOPED_TRACE(::testing::PrintToString(test.reply));
        CPeeredConnection side;
        EXPECT_EQ(test.result, side.Connect(true, test.reply, test.timeoutMs));
        const bool connected = test.result == eKelIPSuccess;
        EXPECT_EQ(connected ? CKelIPBase::eConnected : CKelIPBase::eDisconnected, side.m_oConnection.GetState());
        EXPECT_EQ(connected ? 1 : 0, side.m_oConnection.ConnectIndCount(true));
        EXPECT_TRUE(connected || side.m_oPeer.WaitClosed());
        if (!connected)
            continue;
        EXPECT_EQ("127.0.0.1", side.m_oConnection.GetPeerAddress());
        // A second connect request changes nothing.
        EXPECT_EQ(
            eKelIPWrongState,
            side.m_oConnection.ConnectReq(LOOPBACK, side.m_oListener.Port(), 1000, kId, CKelIPBase::eTCP, "", true));
    }
}

TEST(KelIPConnectionConnect, UnreachablePeers)
{
    CRecordingConnection connection;
    // Nothing listening (the listener is gone): the refused connect leaves
    // no peer address to read.
    const unsigned short unused = CRawListener().Port();
    EXPECT_EQ(eKelIPError, connection.ConnectReq(LOOPBACK, unused, 2000, kId, CKelIPBase::eTCP, "", true));
    EXPECT_EQ(CKelIPBase::eDisconnected, connection.GetState());

    // A listener that never accepts, its queue full (backlog 0: one waiting
    // client fills it): the kernel drops the next connection request.
    CRawListener listener(0);
    CRawPeer filler;
    ASSERT_TRUE(filler.Connect(listener.Port()));
    ASSERT_TRUE(WaitUntil([&] { return AcceptQueueFull(listener.Socket()); }));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(eKelIPNotConnected,
              connection.ConnectReq(LOOPBACK, listener.Port(), 300, kId, CKelIPBase::eTCP, "", true));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(290));
    EXPECT_EQ(CKelIPBase::eDisconnected, connection.GetState());
    EXPECT_EQ(0, connection.ConnectIndCount(true));
}

TEST(KelIPConnectionSend, RefusedInEveryStateButConnectedWithItsOwnResult)
{
    CRecordingConnection connection;
    const std::pair<int, unsigned int> cases[] = {
        {CKelIPBase::eDisconnected, eKelIPNotConnected},
        {CKelIPBase::eConnecting, eKelIPWrongState},
        {CKelIPBase::eDisconnecting, eKelIPWrongState},
        {CKelIPBase::eWaitingForPeer, eKelIPWrongState},
        {CKelIPBase::eState6, eKelIPState6},
    };
    for (const auto& test : cases)
    {
        connection.SetState(test.first);
        size_t sent = 99;
        EXPECT_EQ(test.second, connection.DataReq("\x00\x00", 2, 100)) << test.first;
        EXPECT_EQ(test.second, connection.DataReqBatch("\x00\x00", 2, 100, &sent)) << test.first;
        EXPECT_EQ(0u, sent);
    }
    connection.SetState(CKelIPBase::eDisconnected);
}

// Round 1 ends by the peer's close, round 2 (on the new socket) by a hook
// that throws, which ends the connection from this side.
TEST_F(MessageConnectionTest, PeerCloseOrThrowingHookEndsTheConnectionOnceAndReconnectServesTheNewSocket)
{
    for (int round = 1; round <= 2; ++round)
    {
        ASSERT_TRUE(round == 1 || Connect(true) == eKelIPSuccess); // round 1: connected by SetUp
        const std::string message = Frame(Pattern(4, static_cast<unsigned char>(round)));
        ASSERT_TRUE(m_oPeer.Send(message));
        ASSERT_TRUE(m_oConnection.WaitForMessages(static_cast<size_t>(round)));
        EXPECT_EQ(message, m_oConnection.Messages().back());
        if (round == 1)
            m_oPeer.Close();
        else
        {
            m_oConnection.m_fOnData = [](CRecordingConnection&, const std::string&) {
                throw std::runtime_error("hook");
            };
            ASSERT_TRUE(m_oPeer.Send(message));
            EXPECT_TRUE(m_oPeer.WaitClosed());
        }
        ASSERT_TRUE(m_oConnection.WaitForConnectInd(false, round));
        EXPECT_TRUE(WaitUntil([&] { return m_oConnection.GetReadThreadState() == CKelThread::eFinished; }));
        EXPECT_EQ(CKelIPBase::eDisconnected, m_oConnection.GetState());
        EXPECT_EQ(-1, m_oConnection.GetSocket());
        EXPECT_EQ(eKelIPNotConnected, m_oConnection.DataReq("\x00\x00", 2, 100));
        EXPECT_EQ(eKelIPWrongState, m_oConnection.DisconnectReq(100));
        EXPECT_EQ(eKelIPWrongState, m_oConnection.CloseConnection());
        EXPECT_EQ(round, m_oConnection.ConnectIndCount(false));
    }
}

TEST(KelIPConnectionLoss, SendTimeOutEndsTheConnection)
{
    CRawListener listener(8, 4096);
    CRecordingConnection connection;
    ASSERT_EQ(eKelIPSuccess,
              connection.ConnectReq(LOOPBACK, listener.Port(), WAIT_MS, kId, CKelIPBase::eTCP, "", false));
    CRawPeer peer = listener.Accept(); // never reads
    const std::string message = Frame(Pattern(65533, 1));
    unsigned int result = eKelIPSuccess;
    for (int i = 0; i < 2000 && result == eKelIPSuccess; ++i)
        result = connection.DataReq(message.data(), static_cast<unsigned short>(message.size()), 100);
    EXPECT_EQ(eKelIPTimeout, result);
    EXPECT_EQ(1, connection.ConnectIndCount(false));
    EXPECT_EQ(CKelIPBase::eDisconnected, connection.GetState());
}

TEST(KelIPConnectionDisconnect, ConnectionEndsWhateverThePeerAnswers)
{
    const struct
    {
        std::string result;     // of the peer's confirmation; "" none
        unsigned int timeoutMs; // 0: CloseConnection, which sends nothing
        unsigned int expected;
    } cases[] = {{Byte(0), WAIT_MS, eKelIPSuccess},
                 {Byte(3), WAIT_MS, eKelIPError},
                 {"", 200, eKelIPTimeout},
                 {"", 0, eKelIPSuccess}};
    for (const auto& test : cases)
    {
        SCOPED_TRACE(test.timeoutMs);
        CPeeredConnection side;
        ASSERT_EQ(eKelIPSuccess, side.Connect(true));
        CRecordingConnection& connection = side.m_oConnection;
        auto result = std::async(std::launch::async, [&] {
            return test.timeoutMs > 0 ? connection.DisconnectReq(test.timeoutMs) : connection.CloseConnection();
        });
        EXPECT_EQ(test.timeoutMs > 0 ? MakeMsg(kDisconnectReq, 0) : "", side.m_oPeer.ReceiveMessage());
        if (!test.result.empty())
            side.m_oPeer.Send(MakeMsg(kDisconnectCnf, 0, test.result));
        EXPECT_EQ(test.expected, result.get());
        EXPECT_TRUE(side.m_oPeer.WaitClosed());
        EXPECT_EQ(CKelIPBase::eDisconnected, connection.GetState());
        EXPECT_EQ(1, connection.ConnectIndCount(false));
    }
}

TEST_F(MessageConnectionTest, PeerDisconnectRequestIsConfirmedAndEndsTheConnection)
{
    ASSERT_TRUE(m_oPeer.Send(MakeMsg(kDisconnectReq, 7)));
    EXPECT_EQ(MakeMsg(kDisconnectCnf, 7, Byte(0)), m_oPeer.ReceiveMessage());
    EXPECT_TRUE(m_oPeer.WaitClosed());
    ASSERT_TRUE(m_oConnection.WaitForConnectInd(false, 1));
    EXPECT_TRUE(WaitUntil([&] { return m_oConnection.GetState() == CKelIPBase::eDisconnected; }));
    EXPECT_TRUE(m_oConnection.Messages().empty());
}

// ------------------------------------------------------------------ alive protocol

TEST(KelAliveRules, DecisionOfOnePass)
{
    const unsigned int off = CKelIPConnection::eAliveOff, active = CKelIPConnection::eAliveActive,
                       passive = CKelIPConnection::eAlivePassive;
    const struct
    {
        const char* what;
        unsigned int mode, tick, lastSend, lastReceive;
        CKelAliveRules::EAction expected;
    } rows[] = {
        {"off: silence is no reason to act", off, 100, 0, 0, CKelAliveRules::eNothing},
        // Lost after more than four silent ticks, on either side.
        {"active, 4 ticks silent", active, 4, 3, 0, CKelAliveRules::eSendRequest},
        {"active, 5 ticks silent", active, 5, 4, 0, CKelAliveRules::eLinkLost},
        {"passive, 4 ticks silent: it never asks", passive, 4, 0, 0, CKelAliveRules::eNothing},
        {"passive, 5 ticks silent", passive, 5, 0, 0, CKelAliveRules::eLinkLost},
        // The active side asks after more than two ticks without a send or
        // without a receive.
        {"active, sent 2 ticks ago", active, 10, 8, 10, CKelAliveRules::eNothing},
        {"active, sent 3 ticks ago", active, 10, 7, 10, CKelAliveRules::eSendRequest},
        {"active, received 2 ticks ago", active, 10, 10, 8, CKelAliveRules::eNothing},
        {"active, received 3 ticks ago", active, 10, 10, 7, CKelAliveRules::eSendRequest},
        // A receive noted with the tick of before a reset of the counters
        // does not make the link look silent.
        {"receive mark ahead of the tick", active, 1, 0, 7, CKelAliveRules::eNothing},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.expected, CKelAliveRules::Decide(row.mode, row.tick, row.lastSend, row.lastReceive)) << row.what;
}

TEST(KelAliveRules, TickIsAQuarterPeriodButAtLeastTenMs)
{
    const unsigned int rows[][2] = {{1000, 250}, {44, 11}, {40, 10}, {20, 10}};
    for (const auto& row : rows)
        EXPECT_EQ(row[1], CKelAliveRules::TickMs(row[0])) << "period " << row[0];
}

TEST_F(MessageConnectionTest, AnsweredAliveKeepsTheConnectionAndSilenceEndsItOnce)
{
    ASSERT_EQ(eKelIPSuccess, m_oConnection.SetAlive(kAlivePeriodMs));
    EXPECT_EQ(CKelIPConnection::eAliveActive, m_oConnection.GetAliveMode());
    const std::string request = MakeMsg(kAliveReq, 0, U32(kAlivePeriodMs));
    // The request of SetAlive, then two of the alive thread, each answered.
    for (int i = 0; i < 3; ++i)
    {
        ASSERT_EQ(request, m_oPeer.ReceiveMessage()) << "request " << i;
        ASSERT_TRUE(m_oPeer.Send(MakeMsg(kAliveCnf, 0, Byte(0))));
    }
    EXPECT_EQ(0, m_oConnection.ConnectIndCount(false));

    // The peer falls silent: more requests for about one period, then the
    // end, at least three ticks after the last answer and well before the
    // four periods it would take if a tick lasted a whole period.
    const auto start = std::chrono::steady_clock::now();
    std::string message;
    for (int i = 0; i < 50 && (message = m_oPeer.ReceiveMessage()) == request; ++i)
    {
    }
    EXPECT_EQ(MakeMsg(kDisconnectReq, 0), message);
    const auto silence = std::chrono::steady_clock::now() - start;
    EXPECT_GE(silence, std::chrono::milliseconds(3 * kAlivePeriodMs / 4));
    EXPECT_LT(silence, std::chrono::milliseconds(3 * kAlivePeriodMs));
    ASSERT_TRUE(m_oConnection.WaitForConnectInd(false, 1));
    EXPECT_TRUE(m_oPeer.WaitClosed());
    EXPECT_TRUE(WaitUntil([&] { return m_oConnection.GetAliveMode() == CKelIPConnection::eAliveOff; }));
    EXPECT_TRUE(WaitUntil([&] { return m_oConnection.GetState() == CKelIPBase::eDisconnected; }));
    EXPECT_EQ(1, m_oConnection.ConnectIndCount(false));
}

// Messages that go out in parts while the alive thread sends its requests
// arrive whole: each request comes before or after a message, never inside
// it, and the requests still get their turn between back-to-back messages.
TEST(KelIPConnectionAlive, RequestsTakeTurnsWithMessagesSentInParts)
{
    CPeeredConnection side(4096);
    ASSERT_EQ(eKelIPSuccess, side.Connect(true));
    const int sendBuffer = 4096; // small buffers: every large message goes out in parts
    setsockopt(side.m_oConnection.GetSocket(), SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof(sendBuffer));
    ASSERT_EQ(eKelIPSuccess, side.m_oConnection.SetAlive(kAlivePeriodMs));
    const std::string request = MakeMsg(kAliveReq, 0, U32(kAlivePeriodMs));
    ASSERT_EQ(request, side.m_oPeer.ReceiveMessage());

    // Large messages back to back until the peer has found a request between
    // two of them (the alive thread sends one once nothing was received for
    // a while), then a small last one.
    const std::string large = Frame(Pattern(65533, 6)), last = Frame("last");
    std::atomic<bool> found{false};
    auto sender = std::async(std::launch::async, [&] {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(WAIT_MS);
        unsigned int result = eKelIPSuccess;
        while (!found && result == eKelIPSuccess && std::chrono::steady_clock::now() < limit)
            result = side.m_oConnection.DataReq(large.data(), static_cast<unsigned short>(large.size()), WAIT_MS);
        return result == eKelIPSuccess
            ? side.m_oConnection.DataReq(last.data(), static_cast<unsigned short>(last.size()), WAIT_MS)
            : result;
    });
    // The peer reads all the time and answers every request at once.
    int messages = 0;
    for (std::string message; (message = side.m_oPeer.ReceiveMessage()) != last;)
    {
        if (message == request)
        {
            found = found || messages > 0;
            ASSERT_TRUE(side.m_oPeer.Send(MakeMsg(kAliveCnf, 0, Byte(0))));
            continue;
        }
        ASSERT_TRUE(message == large) << "message " << messages << " was cut into (" << message.size() << " bytes)";
        ++messages;
    }
    EXPECT_EQ(eKelIPSuccess, sender.get());
    EXPECT_TRUE(found) << "no request between " << messages << " messages";
    EXPECT_EQ(0, side.m_oConnection.ConnectIndCount(false));
}

TEST_F(MessageConnectionTest, SwitchingAliveOffStillTellsThePeerTheOldPeriod)
{
    ASSERT_EQ(eKelIPSuccess, m_oConnection.SetAlive(300));
    EXPECT_EQ(eKelIPSuccess, m_oConnection.SetAlive(0));
    EXPECT_EQ(CKelIPConnection::eAliveOff, m_oConnection.GetAliveMode());
    int requests = 0;
    std::string message;
    while (requests < 5 && (message = m_oPeer.ReceiveMessage(500)) == MakeMsg(kAliveReq, 0, U32(300)))
        ++requests;
    EXPECT_EQ("", message); // no more requests, and silence ends nothing
    EXPECT_GE(requests, 2);
    EXPECT_EQ(CKelIPBase::eConnected, m_oConnection.GetState());
}

TEST_F(MessageConnectionTest, PeerAliveRequestsSetThePassiveMode)
{
    std::string corrupted = MakeMsg(kAliveReq, 1, U32(300));
    corrupted.back() = static_cast<char>(corrupted.back() ^ 0x40);
    // A corrupted request gets no answer, one without a period gets 0xFF.
    ASSERT_TRUE(m_oPeer.Send(corrupted + MakeMsg(kAliveReq, 2, "abc")));
    EXPECT_EQ(MakeMsg(kAliveCnf, 2, Byte(0xFF)), m_oPeer.ReceiveMessage());
    EXPECT_EQ(CKelIPConnection::eAliveOff, m_oConnection.GetAliveMode());

    // Passive: no requests of its own, but silence still ends the connection.
    // Stray confirmations are no data. The mode is read when the data behind
    // the request arrives, before silence can end it.
    std::atomic<unsigned int> modeAtData{CKelIPConnection::eAliveOff}, periodAtData{0};
    m_oConnection.m_fOnData = [&](CRecordingConnection& connection, const std::string&) {
        modeAtData = connection.GetAliveMode();
        periodAtData = connection.GetAlivePeriod();
    };
    ASSERT_TRUE(m_oPeer.Send(MakeMsg(kAliveReq, 3, U32(300)) + MakeMsg(kAliveCnf, 0, Byte(0)) +
                             MakeMsg(kConnectCnf, 1, Byte(0)) + Frame("ab")));
    EXPECT_EQ(MakeMsg(kAliveCnf, 3, Byte(0)), m_oPeer.ReceiveMessage());
    EXPECT_EQ(MakeMsg(kDisconnectReq, 0), m_oPeer.ReceiveMessage());
    ASSERT_TRUE(m_oConnection.WaitForConnectInd(false, 1));
    EXPECT_EQ(1, m_oConnection.ConnectIndCount(false));
    EXPECT_EQ(std::vector<std::string>{Frame("ab")}, m_oConnection.Messages());
    EXPECT_EQ(CKelIPConnection::eAlivePassive, modeAtData.load());
    EXPECT_EQ(300u, periodAtData.load());
}

// ------------------------------------------------------------------ listening side

size_t CountEntries(CKelIPServerContainer& container)
{
    size_t count = 0;
    container.ForEachClient([&](CKelIPConnection&) { ++count; });
    return count;
}

unsigned int Connect(CKelIPConnection& client, unsigned short port, const std::string& data = "")
{
    return client.ConnectReq(LOOPBACK, port, WAIT_MS, kId, CKelIPBase::eTCP, data, true);
}

// The connect confirmation a raw client gets before the server closes;
// `request`: the client sends its connect request first.
std::string RawConnectAnswer(unsigned short port, bool request)
{
    CRawPeer raw;
    EXPECT_TRUE(raw.Connect(port));
    if (request)
        raw.Send(MakeMsg(kConnectReq, 1));
    const std::string answer = raw.ReceiveMessage();
    EXPECT_TRUE(raw.WaitClosed());
    return answer;
}

// A server-side connection that records its hooks, echoes every message,
// and refuses the connect data "no".
class CServerConnection : public CRecordingConnection
{
public:
    CServerConnection(CKelIPServerContainer* container, int socket)
        : CRecordingConnection(container, kId, CKelIPBase::eTCP, socket, true)
    {
        m_fOnData = [](CRecordingConnection& self, const std::string& message) {
            self.DataReq(message.data(), static_cast<unsigned short>(message.size()), 1000);
        };
    }
    ~CServerConnection() override { Shutdown(); }
    bool IsConnectMsgAccepted(const std::string& connectData) override { return connectData != "no"; }
};

class CTestContainer : public CKelIPServerContainer
{
public:
    explicit CTestContainer(int limit, bool withDatagramServer = false, unsigned short port = 0)
        : CKelIPServerContainer(kId, limit, port, withDatagramServer)
    {
    }
    ~CTestContainer() override { Shutdown(); }

    CServerConnection* First()
    {
        CServerConnection* found = nullptr;
        ForEachClient([&](CKelIPConnection& connection) {
            if (found == nullptr && !connection.IsDatagramServer())
                found = dynamic_cast<CServerConnection*>(&connection);
        });
        return found;
    }

    std::atomic<bool> m_bRefuse{false};

protected:
    CKelIPConnection* CreateNewClass(CKelIPBase::EProtocol, int socket) override
    {
        return m_bRefuse ? nullptr : new CServerConnection(this, socket);
    }
    CKelIPConnection* CreateUdpServer(unsigned short port) override
    {
        return new CRecordingConnection(GetId(), port, true);
    }
};

TEST(KelIPServerLimit, PurgeFreesSlotsButKeepsAnEntryWhoseReadThreadRuns)
{
    CTestContainer container(1);
    container.StartListening();
    CRecordingConnection client;
    ASSERT_EQ(eKelIPSuccess, Connect(client, container.GetPort()));
    CServerConnection* server = nullptr;
    ASSERT_TRUE(WaitUntil([&] { return (server = container.First()) != nullptr; }));
    // Holds the server's read thread inside DataInd.
    std::promise<void> entered, release;
    std::shared_future<void> released = release.get_future().share();
    server->m_fOnData = [&](CRecordingConnection&, const std::string&) {
        entered.set_value();
        released.wait();
    };
    ASSERT_EQ(eKelIPSuccess, client.DataReq(CKelMsg(0x0203, 1, "x", 1), 1000));
    ASSERT_EQ(std::future_status::ready, entered.get_future().wait_for(std::chrono::seconds(5)));

    // Ended while its read thread is held: the purge neither removes it nor
    // waits for it (destroying it would join the held thread).
    EXPECT_EQ(eKelIPSuccess, server->CloseConnection());
    auto purge = std::async(std::launch::async, [&] { return container.RemoveClient(); });
    EXPECT_EQ(std::future_status::ready, purge.wait_for(std::chrono::seconds(2)));
    EXPECT_EQ(1u, CountEntries(container));
    release.set_value();
    EXPECT_FALSE(purge.get());
    EXPECT_TRUE(WaitUntil([&] { return CountEntries(container) == 0 || container.RemoveClient(); }));
    EXPECT_EQ(0u, CountEntries(container));
    EXPECT_TRUE(client.WaitForConnectInd(false, 1));
    CRecordingConnection next; // the only slot is free again
    EXPECT_EQ(eKelIPSuccess, Connect(next, container.GetPort()));
}

// The base container's own connections, with a limit of two; a derived one beside it.
TEST(KelIPServerListening, TwoContainersServeTheirOwnClientsUpToTheLimit)
{
    CKelIPServerContainer first(kId, 2, 0, false);
    auto second = std::make_unique<CTestContainer>(4);
    first.StartListening();
    second->StartListening();
    ASSERT_TRUE(first.IsServerListening());
    ASSERT_NE(first.GetPort(), second->GetPort());

    CRecordingConnection a, b, c;
    EXPECT_EQ(eKelIPSuccess, Connect(a, first.GetPort()));
    EXPECT_EQ(eKelIPSuccess, Connect(b, first.GetPort()));
    EXPECT_EQ(eKelIPSuccess, Connect(c, second->GetPort()));
    // A client above the limit gets result 1 and is closed.
    EXPECT_EQ(MakeMsg(kConnectCnf, 1, "\x01"), RawConnectAnswer(first.GetPort(), true));
    EXPECT_TRUE(WaitUntil([&] { return first.CountActiveTCPConnections() == 2; }));
    EXPECT_FALSE(first.IsConnectionLimitExceeded());
    EXPECT_EQ(1u, second->CountActiveTCPConnections());

    second.reset(); // disconnects its client only
    EXPECT_TRUE(c.WaitForConnectInd(false, 1));
    EXPECT_TRUE(WaitUntil([&] { return c.GetState() == CKelIPBase::eDisconnected; }));
    EXPECT_EQ(2u, first.CountActiveTCPConnections());
    EXPECT_EQ(0, a.ConnectIndCount(false) + b.ConnectIndCount(false));
    EXPECT_TRUE(a.GetState() == CKelIPBase::eConnected && b.GetState() == CKelIPBase::eConnected);
}

// Bound to the loopback address first, accepting later: a peer waits in the
// backlog until listening starts. Bind failures come back as errno and leave
// the container listening without a server.
TEST(KelIPServerListening, BindsFirstAndAcceptsOnceListening)
{
    CTestContainer container(4);
    ASSERT_EQ(0, container.Bind(LOOPBACK));
    ASSERT_NE(0, container.GetPort());
    EXPECT_TRUE(container.IsServerListening());
    EXPECT_EQ(EALREADY, container.Bind(LOOPBACK));
    CTestContainer taken(4, false, container.GetPort());
    EXPECT_EQ(EADDRINUSE, taken.Bind(LOOPBACK));
    EXPECT_FALSE(taken.StartListening());
    EXPECT_TRUE(taken.IsListening() && !taken.IsServerListening());
    CTestContainer named(4);
    EXPECT_EQ(EINVAL, named.Bind("localhost")); // names are never looked up

    CRawPeer raw;
    ASSERT_TRUE(raw.Connect(container.GetPort())); // in the backlog
    ASSERT_TRUE(raw.Send(MakeMsg(kConnectReq, 1)));
    EXPECT_EQ(0u, CountEntries(container));
    EXPECT_TRUE(container.StartListening());
    EXPECT_EQ(MakeMsg(kConnectCnf, 1, std::string(1, '\0')), raw.ReceiveMessage());
    EXPECT_EQ(1u, container.CountActiveTCPConnections());
    EXPECT_FALSE(container.StartListening()); // once only
}

TEST(KelIPServerDerived, DerivedConnectionDecidesAndAnswers)
{
    CTestContainer container(4);
    container.StartListening();
    CRecordingConnection refused, accepted;
    EXPECT_EQ(eKelIPNotConnected, Connect(refused, container.GetPort(), "no"));
    EXPECT_EQ(eKelIPSuccess, Connect(accepted, container.GetPort(), "yes"));
    CServerConnection* server = nullptr;
    ASSERT_TRUE(WaitUntil([&] { return (server = container.First()) != nullptr; }));
    EXPECT_EQ(1, server->ConnectIndCount(true));
    EXPECT_EQ("127.0.0.1", server->GetPeerAddress());
    // The server's read thread answers from inside DataInd.
    ASSERT_EQ(eKelIPSuccess, accepted.DataReq(CKelMsg(0x0203, 1, "abc", 3), 1000));
    ASSERT_TRUE(accepted.WaitForMessages(1));
    EXPECT_EQ(MakeMsg(0x0203, 1, "abc"), accepted.Messages()[0]);

    // CreateNewClass refusing the socket: result 0xFF, then closed.
    container.m_bRefuse = true;
    EXPECT_EQ(MakeMsg(kConnectCnf, 1, "\xFF"), RawConnectAnswer(container.GetPort(), false));
    EXPECT_EQ(1u, container.CountActiveTCPConnections());
}

TEST(KelIPServerDatagram, EndpointTalksToTheClientThatConnected)
{
    CTestContainer container(4, true);
    container.StartListening();
    auto* endpoint = dynamic_cast<CRecordingConnection*>(container.GetDatagramServer());
    ASSERT_NE(nullptr, endpoint);
    EXPECT_EQ(1u, CountEntries(container));
    EXPECT_EQ(CKelIPBase::eWaitingForPeer, endpoint->GetState());
    CRecordingConnection client;
    ASSERT_EQ(eKelIPSuccess,
              client.ConnectReq(LOOPBACK, container.GetPort(), WAIT_MS, kId, CKelIPBase::eUDP, "", true));
    EXPECT_EQ(CKelIPBase::eConnected, endpoint->GetState());
    EXPECT_EQ(1, endpoint->ConnectIndCount(true));

    const std::string request = MakeMsg(0x0203, 3, "one"), answer = MakeMsg(0x0203, 5, "back");
    ASSERT_EQ(eKelIPSuccess, client.DataReq(request.data(), static_cast<unsigned short>(request.size()), 1000));
    ASSERT_TRUE(endpoint->WaitForMessages(1));
    EXPECT_EQ(request, endpoint->Messages()[0]);
    ASSERT_EQ(eKelIPSuccess, endpoint->DataReq(answer.data(), static_cast<unsigned short>(answer.size()), 1000));
    ASSERT_TRUE(client.WaitForMessages(1));
    EXPECT_EQ(answer, client.Messages()[0]);
    // Disconnecting returns the endpoint to waiting for a peer.
    EXPECT_EQ(eKelIPSuccess, client.DisconnectReq(WAIT_MS));
    EXPECT_TRUE(WaitUntil([&] { return endpoint->GetState() == CKelIPBase::eWaitingForPeer; }));
    EXPECT_EQ(1, endpoint->ConnectIndCount(false));
    EXPECT_EQ(0u, container.CountActiveTCPConnections());
}
} // namespace
