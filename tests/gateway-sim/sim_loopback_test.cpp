// The simulator in-process on loopback, driven by raw TCP clients.
#include "GatewaySim.h"
#include "SimWire.h"
#include "support/RawClient.h"
#include "support/TelegramBytes.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <thread>

using namespace GatewaySim;
using SimTest::CRawClient;
using SimTest::FromHex;
using SimTest::ToHex;

namespace
{

bool WaitFor(const std::function<bool()>& fCondition, int nTimeoutMs = 5000)
{
    for (int nWaited = 0; nWaited < nTimeoutMs; nWaited += 5)
    {
        if (fCondition())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return fCondition();
}

// Wire bytes of a request with a payload given as hex.
std::string Request(unsigned short nCode, short nID, const std::string& sPayloadHex = "")
{
    return BuildTelegram(nCode, nID, FromHex(sPayloadHex));
}

class SimLoopbackTest : public ::testing::Test
{
protected:
    // Starts the simulator; every CAN port on a port the system chooses.
    void StartSim()
    {
        m_oOptions.nTcpBase = 0;
        m_oOptions.bQuiet = getenv("GATEWAY_SIM_LOG") == nullptr;
        m_poSim.reset(new CGatewaySim(m_oOptions, stderr));
        std::string sError;
        ASSERT_TRUE(m_poSim->Start(sError)) << sError;
    }
    unsigned short Port(std::size_t nIndex = 0) const { return m_poSim->TcpPort(nIndex); }
    bool WaitClients(int nCount, std::size_t nIndex = 0)
    {
        return WaitFor([&] { return m_poSim->ConnectedClients(nIndex) == nCount; });
    }
    const SSimCounters& Counters() const { return m_poSim->Counters(); }

    SSimOptions m_oOptions;
    std::unique_ptr<CGatewaySim> m_poSim;
};

// GET_CONFIG with ID 6 and its confirmation while nothing was configured.
const char* const GET_CONFIG_6 = "05 00 06 02 06 00 02";
const char* const GET_CONFIG_6_CNF = "08 00 06 82 06 00 00 00 00 82";
// Frame 0x123 [11 22] written with ID 5, and the indication the others get.
const char* const WRITE_123 = "0C 00 03 02 05 00 23 01 00 00 00 11 22 15";
const char* const IND_123 = "0C 00 03 02 00 00 23 01 00 00 00 11 22 10";

TEST_F(SimLoopbackTest, ConnectHandshakeAndDisconnect)
{
    StartSim();
    CRawClient oClient;
    ASSERT_TRUE(oClient.Connect(Port()));
    ASSERT_TRUE(oClient.SendHex(SimTest::CONNECT_REQUEST));
    EXPECT_EQ(oClient.ReceiveHex(), SimTest::CONNECT_ACCEPTED);
    EXPECT_TRUE(WaitClients(1));

    // Disconnect request 0x0202 -> confirmation 0x8202 with result 0, then
    // the simulator ends the connection.
    ASSERT_TRUE(oClient.SendHex("05 00 02 02 00 00 00"));
    EXPECT_EQ(oClient.ReceiveHex(), "06 00 02 82 00 00 00 80");
    EXPECT_TRUE(oClient.WaitClosed());
    EXPECT_TRUE(WaitClients(0));
    EXPECT_EQ(Counters().nConnections.load(), 1u);
}

TEST_F(SimLoopbackTest, SetGlobalsGetGlobalsRoundTripExactBytes)
{
    StartSim();
    CRawClient oClient;
    ASSERT_TRUE(oClient.Open(Port()));
    ASSERT_TRUE(oClient.SendHex("0D 00 07 02 03 00 00 48 E8 01 00 01 00 01 A7"));
    EXPECT_EQ(oClient.ReceiveHex(), "06 00 07 82 03 00 00 86");
    ASSERT_TRUE(oClient.SendHex("05 00 08 02 04 00 0E"));
    EXPECT_EQ(oClient.ReceiveHex(), "0E 00 08 82 04 00 00 00 48 E8 01 00 01 00 01 2F");
}

TEST_F(SimLoopbackTest, FrameReachesEveryOtherClientButNotItsSender)
{
    StartSim();
    CRawClient oA, oB, oC;
    ASSERT_TRUE(oA.Open(Port()));
    ASSERT_TRUE(oB.Open(Port()));
    ASSERT_TRUE(oC.Open(Port()));
    ASSERT_TRUE(WaitClients(3));

    ASSERT_TRUE(oA.SendHex(WRITE_123));
    EXPECT_EQ(oB.ReceiveHex(), IND_123);
    EXPECT_EQ(oC.ReceiveHex(), IND_123);
    // Without data confirmations the write is not answered, and the sender
    // gets no copy: its next message is the answer to its next request.
    ASSERT_TRUE(oA.SendHex(GET_CONFIG_6));
    EXPECT_EQ(oA.ReceiveHex(), GET_CONFIG_6_CNF);

    // Frames from B go to A and C in the order written.
    ASSERT_TRUE(oB.Send(Request(0x203, 1, "01 00 00 00 00 AA") + Request(0x203, 2, "02 00 00 00 00 BB")));
    for (CRawClient* pClient : {&oA, &oC})
    {
        EXPECT_EQ(pClient->ReceiveHex(), ToHex(Request(0x203, 0, "01 00 00 00 00 AA")));
        EXPECT_EQ(pClient->ReceiveHex(), ToHex(Request(0x203, 0, "02 00 00 00 00 BB")));
    }
    EXPECT_EQ(Counters().nFramesIn.load(), 3u);
    EXPECT_TRUE(WaitFor([&] { return Counters().nFramesOut.load() == 6u; }));
}

TEST_F(SimLoopbackTest, EchoIndicatesAWriteBackToItsSender)
{
    m_oOptions.bEcho = true;
    StartSim();
    CRawClient oA, oB;
    ASSERT_TRUE(oA.Open(Port()));
    ASSERT_TRUE(oB.Open(Port()));
    ASSERT_TRUE(WaitClients(2));
    ASSERT_TRUE(oA.SendHex(WRITE_123));
    EXPECT_EQ(oA.ReceiveHex(), IND_123);
    EXPECT_EQ(oB.ReceiveHex(), IND_123);
}

TEST_F(SimLoopbackTest, TimeStampsOnlyForClientsThatSwitchedThemOn)
{
    StartSim();
    CRawClient oWriter, oStamped, oPlain;
    ASSERT_TRUE(oWriter.Open(Port()));
    ASSERT_TRUE(oStamped.Open(Port()));
    ASSERT_TRUE(oPlain.Open(Port()));
    ASSERT_TRUE(WaitClients(3));

    // Gateway time 0x12345678 s; then time stamps on for one client.
    ASSERT_TRUE(oStamped.Send(Request(0x20B, 1, "78 56 34 12 00 00 00 00")));
    EXPECT_EQ(oStamped.ReceiveHex(), ToHex(BuildTelegram(0x820B, 1, FromHex("00"))));
    ASSERT_TRUE(oStamped.SendHex("0D 00 07 02 03 00 00 48 E8 01 00 01 00 01 A7"));
    EXPECT_EQ(oStamped.ReceiveHex(), "06 00 07 82 03 00 00 86");

    ASSERT_TRUE(oWriter.SendHex(WRITE_123));
    std::string sStamped;
    ASSERT_TRUE(oStamped.Receive(sStamped));
    // 0x203, flags 0x04, data 11 22, then s32 seconds and s32 microseconds.
    ASSERT_EQ(sStamped.size(), 22u);
    EXPECT_EQ(ToHex(sStamped.substr(0, 13)), "14 00 03 02 00 00 23 01 00 00 04 11 22");
    int nSeconds = 0, nMicros = -1;
    COrvaneMsg::FromChar(nSeconds, sStamped.data() + 13);
    COrvaneMsg::FromChar(nMicros, sStamped.data() + 17);
    EXPECT_GE(nSeconds, 0x12345678);
    EXPECT_LE(nSeconds, 0x12345678 + 30);
    EXPECT_GE(nMicros, 0);
    EXPECT_LT(nMicros, 1000000);
    EXPECT_TRUE(COrvaneMsg(sStamped.data(), static_cast<unsigned short>(sStamped.size())).IsCRCValid());

    EXPECT_EQ(oPlain.ReceiveHex(), IND_123);

    // Switched off again: plain indications.
    ASSERT_TRUE(oStamped.Send(Request(0x207, 4, "00 48 E8 01 00 01 00 00")));
    EXPECT_EQ(oStamped.ReceiveHex(), ToHex(BuildTelegram(0x8207, 4, FromHex("00"))));
    ASSERT_TRUE(oWriter.SendHex(WRITE_123));
    EXPECT_EQ(oStamped.ReceiveHex(), IND_123);
}

TEST_F(SimLoopbackTest, ConfirmDataConfirmsWritesWithTransmitTime)
{
    StartSim();
    CRawClient oClient;
    ASSERT_TRUE(oClient.Open(Port()));
    ASSERT_TRUE(oClient.Send(Request(0x205, 1, "01 00")));
    EXPECT_EQ(oClient.ReceiveHex(), "06 00 05 82 01 00 00 86");
    ASSERT_TRUE(oClient.SendHex(WRITE_123));
    std::string sCnf;
    ASSERT_TRUE(oClient.Receive(sCnf));
    COrvaneMsg oCnf(sCnf.data(), static_cast<unsigned short>(sCnf.size()));
    EXPECT_EQ(oCnf.GetCmdCode(), 0x8203);
    EXPECT_EQ(oCnf.GetMsgID(), 5);
    ASSERT_EQ(oCnf.GetData().size(), 9u);
    EXPECT_EQ(oCnf.GetData()[0], 0);
    EXPECT_TRUE(oCnf.IsCRCValid());
}

TEST_F(SimLoopbackTest, TwoCanPortsHaveSeparateBuses)
{
    m_oOptions.anCanPorts = {0, 1};
    StartSim();
    ASSERT_NE(Port(0), Port(1));
    CRawClient oPort0a, oPort0b, oPort1;
    ASSERT_TRUE(oPort0a.Open(Port(0)));
    ASSERT_TRUE(oPort0b.Open(Port(0)));
    ASSERT_TRUE(oPort1.Open(Port(1)));
    ASSERT_TRUE(WaitClients(2, 0));
    ASSERT_TRUE(WaitClients(1, 1));
    ASSERT_TRUE(oPort0a.SendHex(WRITE_123));
    EXPECT_EQ(oPort0b.ReceiveHex(), IND_123);
    ASSERT_TRUE(oPort1.SendHex(GET_CONFIG_6));
    EXPECT_EQ(oPort1.ReceiveHex(), GET_CONFIG_6_CNF);
    // Port 1 answers INFO with its own port number.
    ASSERT_TRUE(oPort1.Send(Request(0x209, 7)));
    std::string sInfo;
    ASSERT_TRUE(oPort1.Receive(sInfo));
    ASSERT_EQ(sInfo.size(), 7u + 21u);
    EXPECT_EQ(sInfo[6 + 10], 1);
}

TEST_F(SimLoopbackTest, CANopenModeIndicatesServicesAsSuch)
{
    StartSim();
    CRawClient oMaster, oOther;
    ASSERT_TRUE(oMaster.Open(Port()));
    ASSERT_TRUE(oOther.Open(Port()));
    ASSERT_TRUE(WaitClients(2));
    ASSERT_TRUE(oMaster.Send(Request(0x260, 1, "01")));
    EXPECT_EQ(oMaster.ReceiveHex(), ToHex(BuildTelegram(0x8260, 1, FromHex("00"))));

    // A transmit PDO 1 of node 5 reaches the other client as a PDO indication.
    ASSERT_TRUE(oMaster.Send(Request(0x203, 2, "85 01 00 00 00 0A 0B")));
    EXPECT_EQ(oOther.ReceiveHex(), ToHex(BuildTelegram(0x267, 0, FromHex("05 01 02 0A 0B"))));
    // The master's NMT command is a frame 0x000 on the bus: for the other
    // client an undefined message.
    ASSERT_TRUE(oMaster.Send(Request(0x263, 3, "05 01")));
    EXPECT_EQ(oMaster.ReceiveHex(), ToHex(BuildTelegram(0x8263, 3, FromHex("00"))));
    EXPECT_EQ(oOther.ReceiveHex(), ToHex(BuildTelegram(0x26C, 0, FromHex("00 00 00 00 00 01 05"))));
}

// ---- fault injection ----

TEST_F(SimLoopbackTest, InjectedDeviceErrorForOneCommand)
{
    m_oOptions.oFaults.aoFailCommands[0x207] = 0x24;
    StartSim();
    CRawClient oClient;
    ASSERT_TRUE(oClient.Open(Port()));
    ASSERT_TRUE(oClient.SendHex("0D 00 07 02 03 00 00 48 E8 01 00 01 00 01 A7"));
    EXPECT_EQ(oClient.ReceiveHex(), "06 00 07 82 03 00 24 A2");
    ASSERT_TRUE(oClient.SendHex(GET_CONFIG_6));
    EXPECT_EQ(oClient.ReceiveHex(), GET_CONFIG_6_CNF);
    EXPECT_EQ(Counters().nInjectedErrors.load(), 1u);
}

TEST_F(SimLoopbackTest, FrozenAfterNTelegramsKeepsTheConnectionOpen)
{
    m_oOptions.oFaults.nFreezeAfter = 2;
    StartSim();
    CRawClient oFrozen, oOther;
    ASSERT_TRUE(oFrozen.Open(Port()));
    ASSERT_TRUE(oOther.Open(Port()));
    ASSERT_TRUE(WaitClients(2));

    ASSERT_TRUE(oFrozen.SendHex(GET_CONFIG_6));
    EXPECT_EQ(oFrozen.ReceiveHex(), GET_CONFIG_6_CNF);
    ASSERT_TRUE(oFrozen.SendHex(GET_CONFIG_6));
    EXPECT_EQ(oFrozen.ReceiveHex(), GET_CONFIG_6_CNF);
    // The third request and a frame of another client stay unanswered ...
    ASSERT_TRUE(oFrozen.SendHex(GET_CONFIG_6));
    ASSERT_TRUE(oOther.SendHex(WRITE_123));
    EXPECT_TRUE(WaitFor([&] { return Counters().nIgnoredFrozen.load() == 1u && Counters().nFramesIn.load() == 1u; }));
    // ... and so do alive and disconnect requests, as with a hung gateway,
    // while the TCP connection stays up.
    ASSERT_TRUE(oFrozen.SendHex("09 00 0D 02 00 00 E8 03 00 00 E4"));
    ASSERT_TRUE(oFrozen.SendHex("05 00 02 02 00 00 00"));
    ASSERT_TRUE(oFrozen.SendHex(GET_CONFIG_6));
    EXPECT_TRUE(WaitFor([&] { return Counters().nIgnoredFrozen.load() == 2u; }));
    EXPECT_EQ(m_poSim->ConnectedClients(0), 2);
    // Any reply would have been sent before the last request was read.
    EXPECT_EQ(oFrozen.ReceiveHex(200), "");
    // Other connections are served as before.
    ASSERT_TRUE(oOther.SendHex(GET_CONFIG_6));
    EXPECT_EQ(oOther.ReceiveHex(), GET_CONFIG_6_CNF);
}

TEST_F(SimLoopbackTest, ClosedAfterNTelegrams)
{
    m_oOptions.oFaults.nCloseAfter = 2;
    StartSim();
    CRawClient oClient;
    ASSERT_TRUE(oClient.Open(Port()));
    ASSERT_TRUE(oClient.SendHex(GET_CONFIG_6));
    EXPECT_EQ(oClient.ReceiveHex(), GET_CONFIG_6_CNF);
    ASSERT_TRUE(oClient.SendHex(GET_CONFIG_6));
    // The second telegram is still answered, then the connection is closed.
    EXPECT_EQ(oClient.ReceiveHex(), GET_CONFIG_6_CNF);
    EXPECT_TRUE(oClient.WaitClosed());
    EXPECT_TRUE(WaitClients(0));

    // A new connection gets its own count.
    ASSERT_TRUE(oClient.Open(Port()));
    ASSERT_TRUE(oClient.SendHex(GET_CONFIG_6));
    EXPECT_EQ(oClient.ReceiveHex(), GET_CONFIG_6_CNF);
}

TEST_F(SimLoopbackTest, ConnectionsBeyondTheLimitAreRefused)
{
    m_oOptions.oFaults.nMaxClients = 2;
    StartSim();
    CRawClient oA, oB, oC;
    ASSERT_TRUE(oA.Open(Port()));
    ASSERT_TRUE(oB.Open(Port()));
    ASSERT_TRUE(oC.Connect(Port()));
    ASSERT_TRUE(oC.SendHex(SimTest::CONNECT_REQUEST));
    EXPECT_EQ(oC.ReceiveHex(), SimTest::CONNECT_LIMIT_REACHED);
    EXPECT_TRUE(oC.WaitClosed());
    EXPECT_TRUE(WaitFor([&] { return Counters().nRefused.load() == 1u; }));

    // Once a client has left there is room again.
    oA.Close();
    ASSERT_TRUE(WaitClients(1));
    EXPECT_TRUE(oC.Open(Port()));
    ASSERT_TRUE(oB.SendHex(WRITE_123));
    EXPECT_EQ(oC.ReceiveHex(), IND_123);
}

// ---- bad input ----

TEST_F(SimLoopbackTest, BadTelegramsAreCountedAndOthersStillServed)
{
    StartSim();
    CRawClient oBad, oGood;
    ASSERT_TRUE(oBad.Open(Port()));
    ASSERT_TRUE(oGood.Open(Port()));
    ASSERT_TRUE(WaitClients(2));

    ASSERT_TRUE(oBad.SendHex("05 00 08 02 04 00 0F"));  // GET_GLOBALS, CRC should be 0E
    ASSERT_TRUE(oBad.SendHex("03 00 08 02 04"));         // too short to be a telegram
    ASSERT_TRUE(oBad.SendHex("00 00"));                  // empty message
    ASSERT_TRUE(oBad.Send(Request(0x207, 8, "00 48"))); // SET_GLOBALS without its fields
    ASSERT_TRUE(oBad.SendHex("05 00 99 02 01 00 9A"));  // unknown command 0x299
    // Only the last two are answered, with result 0xFF, in order.
    EXPECT_EQ(oBad.ReceiveHex(), ToHex(BuildTelegram(0x8207, 8, FromHex("FF"))));
    EXPECT_EQ(oBad.ReceiveHex(), "06 00 99 82 01 00 FF E5");
    EXPECT_EQ(Counters().nBadCrc.load(), 1u);
    EXPECT_EQ(Counters().nBadLength.load(), 3u);
    EXPECT_EQ(Counters().nUnknownCommands.load(), 1u);
    EXPECT_EQ(Counters().nTelegrams.load(), 5u);

    // Both connections go on being served.
    ASSERT_TRUE(oGood.SendHex("05 00 08 02 04 00 0E"));
    EXPECT_EQ(oGood.ReceiveHex(), "0E 00 08 82 04 00 00 00 20 A1 07 00 00 00 00 08");
    ASSERT_TRUE(oBad.SendHex(GET_CONFIG_6));
    EXPECT_EQ(oBad.ReceiveHex(), GET_CONFIG_6_CNF);
    EXPECT_EQ(m_poSim->ConnectedClients(0), 2);
}

TEST_F(SimLoopbackTest, LoadGeneratorFeedsTheBus)
{
    m_oOptions.nLoadRate = 200;
    m_oOptions.nLoadIdentifier = 0x1F0;
    StartSim();
    CRawClient oClient;
    ASSERT_TRUE(oClient.Open(Port()));
    unsigned int nPrevious = 0;
    for (int i = 0; i < 5; ++i)
    {
        std::string sFrame;
        ASSERT_TRUE(oClient.Receive(sFrame));
        COrvaneMsg oInd(sFrame.data(), static_cast<unsigned short>(sFrame.size()));
        ASSERT_EQ(oInd.GetCmdCode(), 0x203);
        ASSERT_EQ(oInd.GetData().size(), 13u);
        EXPECT_EQ(ToHex(oInd.GetData().substr(0, 5)), "F0 01 00 00 00");
        unsigned int nCounter = 0;
        COrvaneMsg::FromChar(nCounter, oInd.GetData().data() + 5);
        if (i > 0)
        {
            EXPECT_EQ(nCounter, nPrevious + 1);
        }
        nPrevious = nCounter;
    }
}

} // namespace
