// The simulator in-process on loopback, driven by raw TCP clients: handshake,
// frames between clients, time stamps, fault modes and bad input.
#include "GatewaySim.h"
#include "KelByteOrder.h"
#include "SimTypes.h"
#include "support/RawPeer.h"

#include <gtest/gtest.h>

#include <memory>
#include <utility>

using namespace GatewaySim;
using namespace OrvaneTest;

namespace
{

// Hex of a telegram built from code, ID and a payload given as hex.
std::string Hex(unsigned short nCode, short nID, const std::string& sPayloadHex = "")
{
    return ToHex(BuildTelegram(nCode, nID, FromHex(sPayloadHex)));
}

const char* const SET_GLOBALS = "0D 00 07 02 03 00 00 48 E8 01 00 01 00 01 A7"; // 125 kbit/s, time stamps on
const char* const GET_GLOBALS = "05 00 08 02 04 00 0E";
const char* const GET_CONFIG = "05 00 06 02 06 00 02";
const char* const GET_CONFIG_CNF = "08 00 06 82 06 00 00 00 00 82";
// Frame 0x123 [11 22] written with ID 5, and the indication the others get.
const char* const WRITE_123 = "0C 00 03 02 05 00 23 01 00 00 00 11 22 15";
const char* const IND_123 = "0C 00 03 02 00 00 23 01 00 00 00 11 22 10";

class SimLoopbackTest : public ::testing::Test
{
protected:
    // Starts the simulator (every CAN port on a port the system chooses) and
    // opens nClients clients on CAN port 0.
    void StartWith(int nClients)
    {
        m_oOptions.nTcpBase = 0;
        m_oOptions.bQuiet = getenv("GATEWAY_SIM_LOG") == nullptr;
        m_poSim.reset(new CGatewaySim(m_oOptions, stderr));
        std::string sError;
        ASSERT_TRUE(m_poSim->Start(sError)) << sError;
        for (int i = 0; i < nClients; ++i)
            ASSERT_TRUE(m_aoClients[i].Open(Port()));
        ASSERT_TRUE(WaitClients(nClients));
    }
    // Client nFrom sends sHex; then each {client, hex} must be that client's
    // next message.
    void Talk(int nFrom, const std::string& sHex, std::initializer_list<std::pair<int, std::string>> aoReplies)
    {
        ASSERT_TRUE(m_aoClients[nFrom].SendHex(sHex));
        for (const auto& oReply : aoReplies)
            EXPECT_EQ(m_aoClients[oReply.first].ReceiveHex(), oReply.second) << "client " << oReply.first;
    }
    unsigned short Port(std::size_t nIndex = 0) const { return m_poSim->TcpPort(nIndex); }
    bool WaitClients(int nCount)
    {
        return WaitUntil([&] { return m_poSim->ConnectedClients(0) == nCount; });
    }
    const SSimCounters& Counters() const { return m_poSim->Counters(); }

    SSimOptions m_oOptions;
    std::unique_ptr<CGatewaySim> m_poSim;
    CRawPeer m_aoClients[4];
};

TEST_F(SimLoopbackTest, FramesReachTheOtherClientsOfTheirPortOnly)
{
    m_oOptions.anCanPorts = {0, 1};
    StartWith(3);
    ASSERT_TRUE(m_aoClients[3].Open(Port(1))); // a client of CAN port 1
    Talk(0, WRITE_123, {{1, IND_123}, {2, IND_123}});
    // In the order written.
    Talk(1, Hex(eCmdWrite, 1, "01 00 00 00 00 AA") + " " + Hex(eCmdWrite, 2, "02 00 00 00 00 BB"),
         {{0, Hex(eIndFrame, 0, "01 00 00 00 00 AA")},
          {0, Hex(eIndFrame, 0, "02 00 00 00 00 BB")},
          {2, Hex(eIndFrame, 0, "01 00 00 00 00 AA")},
          {2, Hex(eIndFrame, 0, "02 00 00 00 00 BB")}});
    // The sender got no copy and no confirmation, port 1 heard nothing: the
    // next message of each is the answer to its next request.
    Talk(0, GET_CONFIG, {{0, GET_CONFIG_CNF}});
    Talk(3, GET_CONFIG, {{3, GET_CONFIG_CNF}});
    EXPECT_EQ(Counters().nFramesIn.load(), 3u);
    EXPECT_TRUE(WaitUntil([&] { return Counters().nFramesOut.load() == 6u; }));
}

TEST_F(SimLoopbackTest, GlobalsRoundTripAndTimeStampsOnlyForClientsThatSwitchedThemOn)
{
    StartWith(3);
    // Gateway time 0x12345678 s; then time stamps on for client 1.
    Talk(1, Hex(eCmdSetTime, 1, "78 56 34 12 00 00 00 00"), {{1, Hex(0x820B, 1, "00")}});
    Talk(1, SET_GLOBALS, {{1, Hex(0x8207, 3, "00")}});
    Talk(1, GET_GLOBALS, {{1, "0E 00 08 82 04 00 00 00 48 E8 01 00 01 00 01 2F"}});
    Talk(0, WRITE_123, {{2, IND_123}});
    const std::string sStamped = m_aoClients[1].ReceiveMessage();
    // Flag 0x04, then s32 seconds and s32 microseconds behind the data.
    EXPECT_EQ(ToHex(sStamped.substr(0, 13)), "14 00 03 02 00 00 23 01 00 00 04 11 22");
    const CKelPayloadReader oStamp(sStamped);
    EXPECT_GE(oStamp.S32(13), 0x12345678);
    EXPECT_LE(oStamp.S32(13), 0x12345678 + 30);
    EXPECT_LT(oStamp.U32(17), 1000000u);
    EXPECT_TRUE(COrvaneMsg(sStamped.data(), static_cast<unsigned short>(sStamped.size())).IsCRCValid());
    // Switched off again: plain indications.
    Talk(1, Hex(eCmdSetGlobals, 4, "00 48 E8 01 00 01 00 00"), {{1, Hex(0x8207, 4, "00")}});
    Talk(0, WRITE_123, {{1, IND_123}});
}

TEST_F(SimLoopbackTest, CANopenModeIndicatesServicesAsSuch)
{
    StartWith(2);
    Talk(0, Hex(eCmdCANopenSetConfig, 1, "01"), {{0, Hex(0x8260, 1, "00")}});
    // Transmit PDO 1 of node 5 reaches the other client as its indication;
    // the master's own NMT command (frame 0x000) as an undefined message.
    Talk(0, Hex(eCmdWrite, 2, "85 01 00 00 00 0A 0B"), {{1, Hex(eIndPDO, 0, "05 01 02 0A 0B")}});
    Talk(0, Hex(eCmdCANopenNMT, 8, "05 01"),
         {{0, Hex(0x8263, 8, "00")}, {1, Hex(eIndUndefined, 0, "00 00 00 00 00 01 05")}});
}

TEST_F(SimLoopbackTest, LoadGeneratorFeedsTheBusWithACounter)
{
    m_oOptions.nLoadRate = 200;
    StartWith(1);
    const std::string asFrames[2] = {m_aoClients[0].ReceiveMessage(), m_aoClients[0].ReceiveMessage()};
    ASSERT_TRUE(!asFrames[0].empty() && !asFrames[1].empty());
    // Identifier 0x1F0 (the default), no flags, the 64-bit frame counter as data.
    EXPECT_EQ(ToHex(asFrames[0].substr(0, 11)), "12 00 03 02 00 00 F0 01 00 00 00");
    const unsigned int nCounter = CKelPayloadReader(asFrames[0]).U32(11);
    EXPECT_EQ(
        asFrames[1],
        BuildTelegram(eIndFrame, 0, asFrames[0].substr(6, 5) + KelToLE(nCounter + 1) + asFrames[0].substr(15, 4)));
}

// ---- fault injection ----

TEST_F(SimLoopbackTest, EchoAndAnInjectedDeviceErrorForOneCommand)
{
    m_oOptions.bEcho = true;
    m_oOptions.oFaults.aoFailCommands[eCmdSetGlobals] = 0x24;
    StartWith(2);
    Talk(0, WRITE_123, {{0, IND_123}, {1, IND_123}}); // the sender hears its own write too
    Talk(0, SET_GLOBALS, {{0, "06 00 07 82 03 00 24 A2"}});
    Talk(0, GET_CONFIG, {{0, GET_CONFIG_CNF}});
    EXPECT_EQ(Counters().nInjectedErrors.load(), 1u);
}

TEST_F(SimLoopbackTest, FrozenAfterNTelegramsAnswersNothingButKeepsTheConnection)
{
    m_oOptions.oFaults.nFreezeAfter = 2;
    StartWith(2);
    Talk(0, GET_CONFIG, {{0, GET_CONFIG_CNF}});
    Talk(0, GET_CONFIG, {{0, GET_CONFIG_CNF}});
    // The third request and a frame of another client stay unanswered, and so
    // do alive and disconnect requests, as with a hung gateway.
    Talk(0, GET_CONFIG, {});
    Talk(1, WRITE_123, {});
    EXPECT_TRUE(WaitUntil([&] { return Counters().nIgnoredFrozen.load() == 1u && Counters().nFramesIn.load() == 1u; }));
    Talk(0, "09 00 0D 02 00 00 E8 03 00 00 E4 05 00 02 02 00 00 00", {});
    Talk(0, GET_CONFIG, {});
    EXPECT_TRUE(WaitUntil([&] { return Counters().nIgnoredFrozen.load() == 2u; }));
    // Any reply would have been sent before the last request was read.
    EXPECT_EQ(m_aoClients[0].ReceiveHex(200), "");
    EXPECT_EQ(m_poSim->ConnectedClients(0), 2);
    Talk(1, GET_CONFIG, {{1, GET_CONFIG_CNF}});
}

TEST_F(SimLoopbackTest, ClosedAfterNTelegrams)
{
    m_oOptions.oFaults.nCloseAfter = 2;
    StartWith(1);
    Talk(0, GET_CONFIG, {{0, GET_CONFIG_CNF}});
    Talk(0, GET_CONFIG, {{0, GET_CONFIG_CNF}}); // still answered, then closed
    EXPECT_TRUE(m_aoClients[0].WaitClosed());
    EXPECT_TRUE(WaitClients(0));
}

TEST_F(SimLoopbackTest, ConnectionsBeyondTheLimitAreRefusedUntilOneDisconnects)
{
    m_oOptions.oFaults.nMaxClients = 2;
    StartWith(2);
    ASSERT_TRUE(m_aoClients[2].Connect(Port()));
    // The connect request is confirmed with result 1, the limit reached.
    Talk(2, ToHex(ConnectRequest(DEVICE_CAN)), {{2, ToHex(ConnectConfirmation(DEVICE_CAN, 1))}});
    EXPECT_TRUE(m_aoClients[2].WaitClosed());
    EXPECT_TRUE(WaitUntil([&] { return Counters().nRefused.load() == 1u; }));
    // A disconnect request is confirmed with result 0, then the simulator
    // closes, and there is room again.
    Talk(0, "05 00 02 02 00 00 00", {{0, "06 00 02 82 00 00 00 80"}});
    EXPECT_TRUE(m_aoClients[0].WaitClosed());
    ASSERT_TRUE(WaitClients(1));
    ASSERT_TRUE(m_aoClients[2].Open(Port()));
    Talk(1, WRITE_123, {{2, IND_123}});
    EXPECT_EQ(Counters().nConnections.load(), 3u);
}

TEST_F(SimLoopbackTest, BadTelegramsAreCountedAndOthersStillServed)
{
    StartWith(2);
    // GET_GLOBALS with CRC 0F instead of 0E; too short to be a telegram; an
    // empty message; SET_GLOBALS without its fields; unknown command 0x299.
    // Only the last two are answered, with result 0xFF, in order.
    Talk(0, "05 00 08 02 04 00 0F  03 00 08 02 04  00 00 " + Hex(eCmdSetGlobals, 8, "00 48") + " 05 00 99 02 01 00 9A",
         {{0, Hex(0x8207, 8, "FF")}, {0, "06 00 99 82 01 00 FF E5"}});
    EXPECT_EQ(Counters().nBadCrc.load(), 1u);
    EXPECT_EQ(Counters().nBadLength.load(), 3u);
    EXPECT_EQ(Counters().nUnknownCommands.load(), 1u);
    EXPECT_EQ(Counters().nTelegrams.load(), 5u);
    // Both connections go on being served; nothing was stored (defaults).
    Talk(1, GET_GLOBALS, {{1, "0E 00 08 82 04 00 00 00 20 A1 07 00 00 00 00 08"}});
    Talk(0, GET_CONFIG, {{0, GET_CONFIG_CNF}});
    EXPECT_EQ(m_poSim->ConnectedClients(0), 2);
}

} // namespace
