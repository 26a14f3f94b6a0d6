// IP connection over real loopback sockets: stream framing, connect results,
// connection loss, disconnecting and the alive protocol. A raw peer on the
// other end checks the exact bytes on the wire.
#include "KelIPConnection.h"
#include "KelMsg.h"
#include "libKelThread.h"
#include "support/kel_loopback_peer.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstring>

#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

using namespace kel_test;

namespace
{
const unsigned char kId = 2;  // CAN device type
const unsigned short kConnectReq = 0x0201;
const unsigned short kConnectCnf = 0x8201;
const unsigned short kDisconnectReq = 0x0202;
const unsigned short kDisconnectCnf = 0x8202;
const unsigned short kAliveReq = 0x020D;
const unsigned short kAliveCnf = 0x820D;

std::string Result(unsigned char value)
{
    return std::string(1, static_cast<char>(value));
}

// A connection to a raw peer, without connection messages (framing tests).
class RawStreamTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(eKelIPSuccess, m_oConnection.ConnectReq(kLoopback, m_oListener.Port(), kWaitMs, kId,
                                                          CKelIPBase::eTCP, "", false));
        m_oPeer = m_oListener.Accept();
        ASSERT_TRUE(m_oPeer.IsOpen());
    }

    CRawListener m_oListener;
    CRecordingConnection m_oConnection;
    CRawSocket m_oPeer;
};

// A connection with connection messages, its connect request answered by
// the raw peer with result 0.
class MessageConnectionTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        auto result = std::async(std::launch::async, [this] {
            return m_oConnection.ConnectReq(kLoopback, m_oListener.Port(), kWaitMs, kId, CKelIPBase::eTCP, "hi", true);
        });
        m_oPeer = m_oListener.Accept();
        ASSERT_TRUE(m_oPeer.IsOpen());
        ASSERT_EQ(MakeMsg(kConnectReq, 1, "hi"), AnswerConnect(m_oPeer, MakeMsg(kConnectCnf, 1, Result(0))));
        ASSERT_EQ(eKelIPSuccess, result.get());
    }

    CRawListener m_oListener;
    CRecordingConnection m_oConnection;
    CRawSocket m_oPeer;
};

// ------------------------------------------------------------------ framing

TEST_F(RawStreamTest, TwoMessagesInOneSegmentArriveAsTwo)
{
    const std::string first = Frame(Pattern(11, 1));
    const std::string second = Frame(Pattern(3, 9));
    ASSERT_TRUE(m_oPeer.SendAll(first + second));
    ASSERT_TRUE(m_oConnection.WaitForMessages(2));
    EXPECT_EQ((std::vector<std::string>{first, second}), m_oConnection.Messages());
}

TEST_F(RawStreamTest, MessageSplitIntoSingleByteSegmentsArrivesWhole)
{
    m_oPeer.SetNoDelay();
    const std::string message = Frame(Pattern(200, 3));
    for (char byte : message)
    {
        ASSERT_TRUE(m_oPeer.SendAll(std::string(1, byte)));
        // Spreads the bytes over separate segments; nothing waits on it.
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    ASSERT_TRUE(m_oConnection.WaitForMessages(1));
    EXPECT_EQ((std::vector<std::string>{message}), m_oConnection.Messages());
}

TEST_F(RawStreamTest, LargestMessagesArriveWholeAcrossTheFillLimit)
{
    // 65,535 bytes in all is the longest message DataInd can report; the
    // second one starts behind the first and ends past the fill limit.
    const std::vector<std::string> messages = {Frame(Pattern(39998, 1)), Frame(Pattern(65533, 2)),
                                               Frame(Pattern(1, 3)), Frame(Pattern(65533, 4))};
    std::string stream;
    for (const std::string& message : messages)
        stream += message;
    ASSERT_TRUE(m_oPeer.SendAll(stream));
    ASSERT_TRUE(m_oConnection.WaitForMessages(messages.size()));
    const std::vector<std::string> received = m_oConnection.Messages();
    ASSERT_EQ(messages.size(), received.size());
    for (size_t i = 0; i < messages.size(); ++i)
        EXPECT_TRUE(messages[i] == received[i]) << "message " << i << " differs";
}

TEST_F(RawStreamTest, ByteLeftBehindJoinsTheRestOfItsMessage)
{
    const std::string first = Frame("hello");
    const std::string second = Frame(Pattern(1000, 5));  // low length byte alone first
    ASSERT_TRUE(m_oPeer.SendAll(first + second.substr(0, 1)));
    ASSERT_TRUE(m_oConnection.WaitForMessages(1));
    ASSERT_TRUE(m_oPeer.SendAll(second.substr(1)));
    ASSERT_TRUE(m_oConnection.WaitForMessages(2));
    EXPECT_EQ((std::vector<std::string>{first, second}), m_oConnection.Messages());
}

TEST_F(RawStreamTest, DataReqSendsTheBytesAsTheyAreAndEmptySucceeds)
{
    const std::string message = Frame(Pattern(13, 7));
    EXPECT_EQ(eKelIPSuccess, m_oConnection.DataReq(message.data(), static_cast<unsigned short>(message.size()), 1000));
    EXPECT_EQ(eKelIPSuccess, m_oConnection.DataReq("", 0, 1000));
    EXPECT_EQ(eKelIPSuccess, m_oConnection.DataReq(CKelMsg(0x0203, 4, "ab", 2), 1000));
    EXPECT_EQ(message, m_oPeer.ReadExactly(message.size()));
    EXPECT_EQ(MakeMsg(0x0203, 4, "ab"), m_oPeer.ReadMessage());
}

TEST_F(RawStreamTest, WithoutConnectionMessagesEvenConnectMessagesGoToDataInd)
{
    const std::string request = MakeMsg(kDisconnectReq, 3);
    ASSERT_TRUE(m_oPeer.SendAll(request));
    ASSERT_TRUE(m_oConnection.WaitForMessages(1));
    EXPECT_EQ(request, m_oConnection.Messages()[0]);
    EXPECT_EQ(CKelIPBase::eConnected, m_oConnection.GetState());
}

// ------------------------------------------------------------------ connecting

struct ConnectOutcome
{
    unsigned int result;
    std::string request;
    bool peerClosed;
};

// The peer stays open as long as `listener` lives in the caller.
struct ConnectPeer
{
    CRawListener listener;
    CRawSocket peer;
};

ConnectOutcome ConnectAgainst(CRecordingConnection& connection, const std::string& reply, unsigned int timeoutMs,
                              ConnectPeer& side)
{
    CRawListener& listener = side.listener;
    auto result = std::async(std::launch::async, [&] {
        return connection.ConnectReq(kLoopback, listener.Port(), timeoutMs, kId, CKelIPBase::eTCP, "abc", true);
    });
    CRawSocket& peer = side.peer;
    peer = listener.Accept();
    ConnectOutcome outcome{0, AnswerConnect(peer, reply), false};
    outcome.result = result.get();
    outcome.peerClosed = outcome.result != eKelIPSuccess && peer.WaitForClose();
    return outcome;
}

ConnectOutcome ConnectAgainst(CRecordingConnection& connection, const std::string& reply, unsigned int timeoutMs)
{
    ConnectPeer side;
    return ConnectAgainst(connection, reply, timeoutMs, side);
}

TEST(KelIPConnectionConnect, ResultZeroConnectsAndReportsOnce)
{
    ConnectPeer side;
    CRecordingConnection connection;
    const ConnectOutcome outcome =
        ConnectAgainst(connection, MakeMsg(kConnectCnf, 1, Result(0)), kWaitMs, side);
    EXPECT_EQ(eKelIPSuccess, outcome.result);
    EXPECT_EQ(MakeMsg(kConnectReq, 1, "abc"), outcome.request);
    EXPECT_EQ(CKelIPBase::eConnected, connection.GetState());
    EXPECT_EQ(1, connection.ConnectIndCount(true));
    EXPECT_EQ("127.0.0.1", connection.GetPeerAddress());
    EXPECT_EQ("127.0.0.1", connection.GetHost());
}

TEST(KelIPConnectionConnect, ResultOneIsTheConnectionLimit)
{
    CRecordingConnection connection;
    const ConnectOutcome outcome = ConnectAgainst(connection, MakeMsg(kConnectCnf, 1, Result(1)), kWaitMs);
    EXPECT_EQ(eKelIPRefused, outcome.result);
    EXPECT_TRUE(outcome.peerClosed);
    EXPECT_EQ(CKelIPBase::eDisconnected, connection.GetState());
    EXPECT_EQ(0, connection.ConnectIndCount(true));
}

TEST(KelIPConnectionConnect, ResultFFIsNotConnected)
{
    CRecordingConnection connection;
    const ConnectOutcome outcome = ConnectAgainst(connection, MakeMsg(kConnectCnf, 1, Result(0xFF)), kWaitMs);
    EXPECT_EQ(eKelIPNotConnected, outcome.result);
    EXPECT_TRUE(outcome.peerClosed);
    EXPECT_EQ(CKelIPBase::eDisconnected, connection.GetState());
}

TEST(KelIPConnectionConnect, ConfirmationWithoutResultByteRunsIntoTheTimeOut)
{
    CRecordingConnection connection;
    const ConnectOutcome outcome = ConnectAgainst(connection, MakeMsg(kConnectCnf, 1), 400);
    EXPECT_EQ(eKelIPTimeout, outcome.result);
    EXPECT_TRUE(outcome.peerClosed);
    EXPECT_EQ(CKelIPBase::eDisconnected, connection.GetState());
}

TEST(KelIPConnectionConnect, ConfirmationWithWrongCrcIsIgnored)
{
    CRecordingConnection connection;
    std::string reply = MakeMsg(kConnectCnf, 1, Result(0));
    reply.back() = static_cast<char>(reply.back() ^ 0x01);
    EXPECT_EQ(eKelIPTimeout, ConnectAgainst(connection, reply, 400).result);
}

TEST(KelIPConnectionConnect, ConfirmationOfAnotherIdIsNotOurs)
{
    CRecordingConnection connection;
    EXPECT_EQ(eKelIPTimeout, ConnectAgainst(connection, MakeMsg(0x8301, 1, Result(0)), 400).result);
}

TEST(KelIPConnectionConnect, NothingListeningIsARefusedConnect)
{
    // The connect completes at once with a refusal; reading the peer address
    // then fails, which is reported as a socket error.
    CRecordingConnection connection;
    EXPECT_EQ(eKelIPError, connection.ConnectReq(kLoopback, UnusedPort(), 2000, kId, CKelIPBase::eTCP, "", true));
    EXPECT_EQ(CKelIPBase::eDisconnected, connection.GetState());
    EXPECT_EQ(0, connection.ConnectIndCount(true));
}

// Opens connections to `port` until one is no longer answered (the
// listener's queue is full); keeps them all open.
std::vector<CRawSocket> FillBacklog(unsigned short port)
{
    std::vector<CRawSocket> fillers;
    for (int i = 0; i < 64; ++i)
    {
        CRawSocket filler(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connect(filler.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
        pollfd entry{filler.Get(), POLLOUT, 0};
        const bool answered = poll(&entry, 1, 200) == 1;
        fillers.push_back(std::move(filler));
        if (!answered)
            break;
    }
    return fillers;
}

TEST(KelIPConnectionConnect, PeerThatNeverAcceptsRunsIntoTheTimeOut)
{
    CRawListener listener(0);
    const std::vector<CRawSocket> fillers = FillBacklog(listener.Port());
    CRecordingConnection connection;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(eKelIPNotConnected,
              connection.ConnectReq(kLoopback, listener.Port(), 300, kId, CKelIPBase::eTCP, "", true));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(290));
    EXPECT_EQ(CKelIPBase::eDisconnected, connection.GetState());
    EXPECT_EQ(0, connection.ConnectIndCount(true));
}

TEST_F(MessageConnectionTest, ConnectReqInTheWrongStateChangesNothing)
{
    EXPECT_EQ(eKelIPWrongState,
              m_oConnection.ConnectReq(kLoopback, m_oListener.Port(), 1000, kId, CKelIPBase::eTCP, "", true));
    EXPECT_EQ(CKelIPBase::eConnected, m_oConnection.GetState());
    // The connection still works.
    const std::string message = Frame(Pattern(5, 1));
    ASSERT_TRUE(m_oPeer.SendAll(message));
    ASSERT_TRUE(m_oConnection.WaitForMessages(1));
    EXPECT_EQ(message, m_oConnection.Messages()[0]);
}

TEST(KelIPConnectionConnect, OperationsOnADisconnectedConnection)
{
    CRecordingConnection connection;
    EXPECT_EQ(eKelIPNotConnected, connection.DataReq("\x02\x00\x01\x02", 4, 100));
    EXPECT_EQ(eKelIPWrongState, connection.DisconnectReq(100));
    EXPECT_EQ(eKelIPWrongState, connection.CloseConnection());
    EXPECT_EQ(eKelIPNotConnected, connection.SetAlive(100));
    EXPECT_EQ(eKelIPError, connection.ConnectReq(kLoopback, 1, 100, kId, static_cast<CKelIPBase::EProtocol>(3), "", true));
}

TEST(KelIPConnectionConnect, ReconnectServesTheNewSocket)
{
    CRawListener listener;
    CRecordingConnection connection;
    for (int round = 0; round < 3; ++round)
    {
        ASSERT_EQ(eKelIPSuccess, connection.ConnectReq(kLoopback, listener.Port(), kWaitMs, kId, CKelIPBase::eTCP, "", false));
        CRawSocket peer = listener.Accept();
        const std::string message = Frame(Pattern(4, static_cast<unsigned char>(round)));
        ASSERT_TRUE(peer.SendAll(message));
        ASSERT_TRUE(connection.WaitForMessages(static_cast<size_t>(round) + 1));
        EXPECT_EQ(message, connection.Messages().back());
        peer.Close();
        ASSERT_TRUE(connection.WaitForConnectInd(false, round + 1));
        // State 4 while ConnectInd(false) runs, then 1.
        EXPECT_TRUE(WaitUntil([&] { return connection.GetState() == CKelIPBase::eDisconnected; }));
    }
}

// ------------------------------------------------------------------ loss

TEST_F(RawStreamTest, PeerCloseEndsTheConnectionOnce)
{
    m_oPeer.Close();
    ASSERT_TRUE(m_oConnection.WaitForConnectInd(false, 1));
    EXPECT_TRUE(WaitUntil([&] { return m_oConnection.GetReadThreadState() == CKelThread::eFinished; }));
    EXPECT_EQ(CKelIPBase::eDisconnected, m_oConnection.GetState());
    EXPECT_EQ(-1, m_oConnection.GetSocket());
    EXPECT_EQ(eKelIPNotConnected, m_oConnection.DataReq("\x00\x00", 2, 100));
    EXPECT_EQ(1, m_oConnection.ConnectIndCount(false));
}

TEST(KelIPConnectionLoss, SendTimeOutEndsTheConnection)
{
    CRawListener listener(8, 4096);
    CRecordingConnection connection;
    ASSERT_EQ(eKelIPSuccess, connection.ConnectReq(kLoopback, listener.Port(), kWaitMs, kId, CKelIPBase::eTCP, "", false));
    CRawSocket peer = listener.Accept();  // never reads
    const std::string message = Frame(Pattern(65533, 1));
    unsigned int result = eKelIPSuccess;
    for (int i = 0; i < 2000 && result == eKelIPSuccess; ++i)
        result = connection.DataReq(message.data(), static_cast<unsigned short>(message.size()), 100);
    EXPECT_EQ(eKelIPTimeout, result);
    EXPECT_EQ(1, connection.ConnectIndCount(false));
    EXPECT_EQ(CKelIPBase::eDisconnected, connection.GetState());
    EXPECT_EQ(eKelIPNotConnected, connection.DataReq(message.data(), 10, 100));
}

TEST_F(MessageConnectionTest, RemoteDisconnectRequestIsConfirmedAndEndsTheConnection)
{
    ASSERT_TRUE(m_oPeer.SendAll(MakeMsg(kDisconnectReq, 7)));
    EXPECT_EQ(MakeMsg(kDisconnectCnf, 7, Result(0)), m_oPeer.ReadMessage());
    EXPECT_TRUE(m_oPeer.WaitForClose());
    ASSERT_TRUE(m_oConnection.WaitForConnectInd(false, 1));
    EXPECT_TRUE(WaitUntil([&] { return m_oConnection.GetState() == CKelIPBase::eDisconnected; }));
    EXPECT_TRUE(m_oConnection.Messages().empty());
}

TEST_F(MessageConnectionTest, ConnectionMessagesStayOutOfDataInd)
{
    const std::string telegram = MakeMsg(0x0203, 1, "frame");
    ASSERT_TRUE(m_oPeer.SendAll(MakeMsg(kAliveCnf, 0, Result(0)) + MakeMsg(kConnectCnf, 1, Result(0)) + telegram +
                                Frame("ab")));
    ASSERT_TRUE(m_oConnection.WaitForMessages(2));
    EXPECT_EQ((std::vector<std::string>{telegram, Frame("ab")}), m_oConnection.Messages());
}

// ------------------------------------------------------------------ disconnecting

TEST_F(MessageConnectionTest, DisconnectReqConfirmedWithZeroSucceeds)
{
    auto result = std::async(std::launch::async, [this] { return m_oConnection.DisconnectReq(kWaitMs); });
    EXPECT_EQ(MakeMsg(kDisconnectReq, 0), m_oPeer.ReadMessage());
    ASSERT_TRUE(m_oPeer.SendAll(MakeMsg(kDisconnectCnf, 0, Result(0))));
    EXPECT_EQ(eKelIPSuccess, result.get());
    EXPECT_TRUE(m_oPeer.WaitForClose());
    EXPECT_EQ(1, m_oConnection.ConnectIndCount(false));
    EXPECT_EQ(CKelIPBase::eDisconnected, m_oConnection.GetState());
}

TEST_F(MessageConnectionTest, DisconnectReqRefusedByThePeerIsAnError)
{
    auto result = std::async(std::launch::async, [this] { return m_oConnection.DisconnectReq(kWaitMs); });
    EXPECT_EQ(MakeMsg(kDisconnectReq, 0), m_oPeer.ReadMessage());
    ASSERT_TRUE(m_oPeer.SendAll(MakeMsg(kDisconnectCnf, 0, Result(3))));
    EXPECT_EQ(eKelIPError, result.get());
    EXPECT_EQ(CKelIPBase::eDisconnected, m_oConnection.GetState());
}

TEST_F(MessageConnectionTest, DisconnectReqWithoutAnswerTimesOutAndStillEnds)
{
    EXPECT_EQ(eKelIPTimeout, m_oConnection.DisconnectReq(200));
    EXPECT_EQ(CKelIPBase::eDisconnected, m_oConnection.GetState());
    EXPECT_EQ(1, m_oConnection.ConnectIndCount(false));
    EXPECT_EQ(MakeMsg(kDisconnectReq, 0), m_oPeer.ReadMessage());
    EXPECT_TRUE(m_oPeer.WaitForClose());
}

TEST_F(MessageConnectionTest, CloseConnectionSendsNothing)
{
    EXPECT_EQ(eKelIPSuccess, m_oConnection.CloseConnection());
    EXPECT_EQ("", m_oPeer.ReadExactly(1));  // end of stream, no bytes
    EXPECT_EQ(1, m_oConnection.ConnectIndCount(false));
}

// ------------------------------------------------------------------ alive protocol

TEST_F(MessageConnectionTest, SilentPeerEndsTheConnectionAfterAboutOnePeriod)
{
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(eKelIPSuccess, m_oConnection.SetAlive(200));
    EXPECT_EQ(MakeMsg(kAliveReq, 0, U32(200)), m_oPeer.ReadMessage());
    EXPECT_EQ(CKelIPConnection::eAliveActive, m_oConnection.GetAliveMode());

    // More alive requests while quiet, then the disconnect request.
    std::string message;
    int aliveRequests = 0;
    while (!(message = m_oPeer.ReadMessage()).empty() && message == MakeMsg(kAliveReq, 0, U32(200)))
        ++aliveRequests;
    EXPECT_GE(aliveRequests, 1);
    EXPECT_EQ(MakeMsg(kDisconnectReq, 0), message);
    // Four silent ticks of 50 ms have passed by then.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));

    ASSERT_TRUE(m_oConnection.WaitForConnectInd(false, 1));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
    EXPECT_TRUE(m_oPeer.WaitForClose());
    // The alive thread notices the loss at its next tick and stops the protocol.
    EXPECT_TRUE(WaitUntil([&] { return m_oConnection.GetAliveMode() == CKelIPConnection::eAliveOff; }));
    EXPECT_EQ(1, m_oConnection.ConnectIndCount(false));
    EXPECT_TRUE(WaitUntil([&] { return m_oConnection.GetState() == CKelIPBase::eDisconnected; }));
}

TEST_F(MessageConnectionTest, AnsweringPeerKeepsTheConnection)
{
    ASSERT_EQ(eKelIPSuccess, m_oConnection.SetAlive(300));
    for (int i = 0; i < 6; ++i)
    {
        ASSERT_EQ(MakeMsg(kAliveReq, 0, U32(300)), m_oPeer.ReadMessage()) << "request " << i;
        ASSERT_TRUE(m_oPeer.SendAll(MakeMsg(kAliveCnf, 0, Result(0))));
    }
    EXPECT_EQ(CKelIPBase::eConnected, m_oConnection.GetState());
    EXPECT_EQ(0, m_oConnection.ConnectIndCount(false));

    // Switching off tells the peer the period it had, not 0.
    EXPECT_EQ(eKelIPSuccess, m_oConnection.SetAlive(0));
    EXPECT_EQ(CKelIPConnection::eAliveOff, m_oConnection.GetAliveMode());
    int requests = 0;
    for (std::string message; !(message = m_oPeer.ReadMessage(300)).empty(); ++requests)
        EXPECT_EQ(MakeMsg(kAliveReq, 0, U32(300)), message);
    EXPECT_GE(requests, 1);
    EXPECT_EQ(CKelIPBase::eConnected, m_oConnection.GetState());
}

TEST_F(MessageConnectionTest, PeerAliveRequestMakesThisSidePassiveAndWatching)
{
    ASSERT_TRUE(m_oPeer.SendAll(MakeMsg(kAliveReq, 5, U32(200))));
    EXPECT_EQ(MakeMsg(kAliveCnf, 5, Result(0)), m_oPeer.ReadMessage());
    EXPECT_EQ(CKelIPConnection::eAlivePassive, m_oConnection.GetAliveMode());
    EXPECT_EQ(200u, m_oConnection.GetAlivePeriod());

    // Passive: no requests of its own, but silence still ends the connection.
    EXPECT_EQ(MakeMsg(kDisconnectReq, 0), m_oPeer.ReadMessage());
    ASSERT_TRUE(m_oConnection.WaitForConnectInd(false, 1));
    EXPECT_EQ(1, m_oConnection.ConnectIndCount(false));
}

TEST_F(MessageConnectionTest, AliveRequestWithoutPeriodIsAnsweredWithFF)
{
    ASSERT_TRUE(m_oPeer.SendAll(MakeMsg(kAliveReq, 6, "abc")));
    EXPECT_EQ(MakeMsg(kAliveCnf, 6, Result(0xFF)), m_oPeer.ReadMessage());
    EXPECT_EQ(CKelIPConnection::eAliveOff, m_oConnection.GetAliveMode());

    // A period of 0 switches the watching off again.
    ASSERT_TRUE(m_oPeer.SendAll(MakeMsg(kAliveReq, 7, U32(300))));
    EXPECT_EQ(MakeMsg(kAliveCnf, 7, Result(0)), m_oPeer.ReadMessage());
    ASSERT_TRUE(m_oPeer.SendAll(MakeMsg(kAliveReq, 8, U32(0))));
    EXPECT_EQ(MakeMsg(kAliveCnf, 8, Result(0)), m_oPeer.ReadMessage());
    EXPECT_EQ(CKelIPConnection::eAliveOff, m_oConnection.GetAliveMode());

    // A corrupted request gets no answer at all.
    std::string corrupted = MakeMsg(kAliveReq, 9, U32(300));
    corrupted.back() = static_cast<char>(corrupted.back() ^ 0x40);
    ASSERT_TRUE(m_oPeer.SendAll(corrupted + MakeMsg(kAliveReq, 10, "x")));
    EXPECT_EQ(MakeMsg(kAliveCnf, 10, Result(0xFF)), m_oPeer.ReadMessage());
}

// ------------------------------------------------------------------ helpers

TEST(KelIPConnectionHelpers, AddressTextAndComparison)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(5001);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    char text[64];
    EXPECT_STREQ("127.0.0.1", getIpStr(reinterpret_cast<sockaddr*>(&a), text, sizeof(text)));
    sockaddr_in6 six{};
    six.sin6_family = AF_INET6;
    six.sin6_addr = in6addr_loopback;
    EXPECT_STREQ("::1", getIpStr(reinterpret_cast<sockaddr*>(&six), text, sizeof(text)));
    sockaddr other{};
    other.sa_family = AF_UNIX;
    EXPECT_EQ(nullptr, getIpStr(&other, text, sizeof(text)));

    sockaddr_in b = a;
    std::memset(b.sin_zero, 0x55, sizeof(b.sin_zero));  // padding does not count for IPv4
    EXPECT_TRUE(SockaddrsAreEqual(reinterpret_cast<sockaddr*>(&a), sizeof(a), reinterpret_cast<sockaddr*>(&b), sizeof(b)));
    b.sin_port = htons(5002);
    EXPECT_FALSE(SockaddrsAreEqual(reinterpret_cast<sockaddr*>(&a), sizeof(a), reinterpret_cast<sockaddr*>(&b), sizeof(b)));
    EXPECT_FALSE(SockaddrsAreEqual(reinterpret_cast<sockaddr*>(&a), sizeof(a), reinterpret_cast<sockaddr*>(&a), sizeof(a) - 1));
    sockaddr_in6 six2 = six;
    EXPECT_TRUE(SockaddrsAreEqual(reinterpret_cast<sockaddr*>(&six), sizeof(six), reinterpret_cast<sockaddr*>(&six2), sizeof(six2)));
    six2.sin6_flowinfo = 1;  // other families compare every byte
    EXPECT_FALSE(SockaddrsAreEqual(reinterpret_cast<sockaddr*>(&six), sizeof(six), reinterpret_cast<sockaddr*>(&six2), sizeof(six2)));
}
} // namespace
