// The simulator in-process on loopback, driven by raw TCP clients: handshake,
// frames between clients, time stamps, fault modes and bad input.
#include "GatewaySim.h"
#include "SimTypes.h"
#include "SimWire.h"
#include "support/RawClient.h"

#include <gtest/gtest.h>

#include <memory>

using namespace GatewaySim;
using namespace SimTest;

namespace
{

// Hex of a telegram built from code, ID and a payload given as hex.
std::string Hex(unsigned short nCode, short nID, const std::string& sPayloadHex = "")
{
    return ToHex(BuildTelegram(nCode, nID, FromHex(sPayloadHex)));
}

const char* const SET_GLOBALS = "0D 00 07 02 03 00 00 48 E8 01 00 01 00 01 A7";  // 125 kbit/s, time stamps on
const char* const SET_GLOBALS_CNF = "06 00 07 82 03 00 00 86";
const char* const GET_GLOBALS = "05 00 08 02 04 00 0E";
const char* const GET_CONFIG_6 = "05 00 06 02 06 00 02";
const char* const GET_CONFIG_6_CNF = "08 00 06 82 06 00 00 00 00 82";
// Frame 0x123 [11 22] written with ID 5, and the indication the others get.
const char* const WRITE_123 = "0C 00 03 02 05 00 23 01 00 00 00 11 22 15";
const char* const IND_123 = "0C 00 03 02 00 00 23 01 00 00 00 11 22 10";

class SimLoopbackTest : public ::testing::Test
{
protected:
    // Starts the simulator with every CAN port on a port the system chooses.
    void StartSim()
    {
        m_oOptions.nTcpBase = 0;
        m_oOptions.bQuiet = getenv("GATEWAY_SIM_LOG") == nullptr;
        m_poSim.reset(new CGatewaySim(m_oOptions, stderr));
        std::string sError;
        ASSERT_TRUE(m_poSim->Start(sError)) << sError;
    }
    // Starts the simulator and opens the clients on CAN port 0.
    void StartWith(std::initializer_list<CRawClient*> apClients)
    {
        ASSERT_NO_FATAL_FAILURE(StartSim());
        for (CRawClient* pClient : apClients)
            ASSERT_TRUE(pClient->Open(Port()));
        ASSERT_TRUE(WaitClients(static_cast<int>(apClients.size())));
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

TEST_F(SimLoopbackTest, ConnectHandshakeAndDisconnect)
{
    StartSim();
    CRawClient oClient;
    ASSERT_TRUE(oClient.Connect(Port()));
    ASSERT_TRUE(oClient.SendHex(CONNECT_REQUEST));
    EXPECT_EQ(oClient.ReceiveHex(), CONNECT_ACCEPTED);
    EXPECT_TRUE(WaitClients(1));
    // Disconnect request, confirmed with result 0, then the simulator closes.
    ASSERT_TRUE(oClient.SendHex("05 00 02 02 00 00 00"));
    EXPECT_EQ(oClient.ReceiveHex(), "06 00 02 82 00 00 00 80");
    EXPECT_TRUE(oClient.WaitClosed());
    EXPECT_TRUE(WaitClients(0));
    EXPECT_EQ(Counters().nConnections.load(), 1u);
}

TEST_F(SimLoopbackTest, SetGlobalsGetGlobalsRoundTripExactBytes)
{
    CRawClient oClient;
    StartWith({&oClient});
    ASSERT_TRUE(oClient.SendHex(SET_GLOBALS));
    EXPECT_EQ(oClient.ReceiveHex(), SET_GLOBALS_CNF);
    ASSERT_TRUE(oClient.SendHex(GET_GLOBALS));
    EXPECT_EQ(oClient.ReceiveHex(), "0E 00 08 82 04 00 00 00 48 E8 01 00 01 00 01 2F");
}

TEST_F(SimLoopbackTest, FramesReachTheOtherClientsOfTheirPortOnly)
{
    m_oOptions.anCanPorts = {0, 1};
    CRawClient oA, oB, oC, oPort1;
    StartWith({&oA, &oB, &oC});
    ASSERT_TRUE(oPort1.Open(Port(1)));

    ASSERT_TRUE(oA.SendHex(WRITE_123));
    EXPECT_EQ(oB.ReceiveHex(), IND_123);
    EXPECT_EQ(oC.ReceiveHex(), IND_123);
    // Frames from B reach A and C in the order written.
    ASSERT_TRUE(oB.SendHex(Hex(0x203, 1, "01 00 00 00 00 AA") + Hex(0x203, 2, "02 00 00 00 00 BB")));
    for (CRawClient* pClient : {&oA, &oC})
    {
        EXPECT_EQ(pClient->ReceiveHex(), Hex(0x203, 0, "01 00 00 00 00 AA"));
        EXPECT_EQ(pClient->ReceiveHex(), Hex(0x203, 0, "02 00 00 00 00 BB"));
    }
    // The sender gets no copy and the write no confirmation, and port 1 heard
    // nothing: the next message of each is the answer to its next request.
    for (CRawClient* pClient : {&oA, &oPort1})
    {
        ASSERT_TRUE(pClient->SendHex(GET_CONFIG_6));
        EXPECT_EQ(pClient->ReceiveHex(), GET_CONFIG_6_CNF);
    }
    EXPECT_EQ(Counters().nFramesIn.load(), 3u);
    EXPECT_TRUE(WaitFor([&] { return Counters().nFramesOut.load() == 6u; }));
    // INFO on port 1 tells its own port number.
    std::string sInfo;
    ASSERT_TRUE(oPort1.Send(BuildTelegram(eCmdInfo, 7, "")) && oPort1.Receive(sInfo));
    ASSERT_EQ(sInfo.size(), 7u + 21u);
    EXPECT_EQ(sInfo[6 + 10], 1);
}

TEST_F(SimLoopbackTest, EchoIndicatesAWriteBackToItsSender)
{
    m_oOptions.bEcho = true;
    CRawClient oA, oB;
    StartWith({&oA, &oB});
    ASSERT_TRUE(oA.SendHex(WRITE_123));
    EXPECT_EQ(oA.ReceiveHex(), IND_123);
    EXPECT_EQ(oB.ReceiveHex(), IND_123);
}

TEST_F(SimLoopbackTest, TimeStampsOnlyForClientsThatSwitchedThemOn)
{
    CRawClient oWriter, oStamped, oPlain;
    StartWith({&oWriter, &oStamped, &oPlain});
    // Gateway time 0x12345678 s; then time stamps on for one client.
    ASSERT_TRUE(oStamped.SendHex(Hex(eCmdSetTime, 1, "78 56 34 12 00 00 00 00")));
    EXPECT_EQ(oStamped.ReceiveHex(), Hex(0x820B, 1, "00"));
    ASSERT_TRUE(oStamped.SendHex(SET_GLOBALS));
    EXPECT_EQ(oStamped.ReceiveHex(), SET_GLOBALS_CNF);

    ASSERT_TRUE(oWriter.SendHex(WRITE_123));
    EXPECT_EQ(oPlain.ReceiveHex(), IND_123);
    std::string sStamped;
    ASSERT_TRUE(oStamped.Receive(sStamped));
    // Flag 0x04, then s32 seconds and s32 microseconds behind the data.
    ASSERT_EQ(sStamped.size(), 22u);
    EXPECT_EQ(ToHex(sStamped.substr(0, 13)), "14 00 03 02 00 00 23 01 00 00 04 11 22");
    CPayloadReader oStamp(sStamped);
    EXPECT_GE(oStamp.S32(13), 0x12345678);
    EXPECT_LE(oStamp.S32(13), 0x12345678 + 30);
    EXPECT_LT(oStamp.U32(17), 1000000u);
    EXPECT_TRUE(COrvaneMsg(sStamped.data(), static_cast<unsigned short>(sStamped.size())).IsCRCValid());

    // Switched off again: plain indications.
    ASSERT_TRUE(oStamped.SendHex(Hex(eCmdSetGlobals, 4, "00 48 E8 01 00 01 00 00")));
    EXPECT_EQ(oStamped.ReceiveHex(), Hex(0x8207, 4, "00"));
    ASSERT_TRUE(oWriter.SendHex(WRITE_123));
    EXPECT_EQ(oStamped.ReceiveHex(), IND_123);
}

TEST_F(SimLoopbackTest, CANopenModeIndicatesServicesAsSuch)
{
    CRawClient oMaster, oOther;
    StartWith({&oMaster, &oOther});
    ASSERT_TRUE(oMaster.SendHex(Hex(eCmdCANopenSetConfig, 1, "01")));
    EXPECT_EQ(oMaster.ReceiveHex(), Hex(0x8260, 1, "00"));
    // A transmit PDO 1 of node 5 reaches the other client as a PDO indication;
    // the master's NMT command (frame 0x000) as an undefined message.
    ASSERT_TRUE(oMaster.SendHex(Hex(eCmdWrite, 2, "85 01 00 00 00 0A 0B")));
    EXPECT_EQ(oOther.ReceiveHex(), Hex(eIndPDO, 0, "05 01 02 0A 0B"));
    ASSERT_TRUE(oMaster.SendHex(Hex(eCmdCANopenNMT, 3, "05 01")));
    EXPECT_EQ(oMaster.ReceiveHex(), Hex(0x8263, 3, "00"));
    EXPECT_EQ(oOther.ReceiveHex(), Hex(eIndUndefined, 0, "00 00 00 00 00 01 05"));
}

TEST_F(SimLoopbackTest, LoadGeneratorFeedsTheBus)
{
    m_oOptions.nLoadRate = 200;
    m_oOptions.nLoadIdentifier = 0x1F0;
    CRawClient oClient;
    StartWith({&oClient});
    for (unsigned int i = 0, nPrevious = 0; i < 5; ++i)
    {
        std::string sFrame;
        ASSERT_TRUE(oClient.Receive(sFrame));
        COrvaneMsg oInd(sFrame.data(), static_cast<unsigned short>(sFrame.size()));
        ASSERT_EQ(oInd.GetCmdCode(), eIndFrame);
        ASSERT_EQ(oInd.GetData().size(), 13u);
        EXPECT_EQ(ToHex(oInd.GetData().substr(0, 5)), "F0 01 00 00 00");
        const unsigned int nCounter = CPayloadReader(oInd.GetData()).U32(5);
        EXPECT_TRUE(i == 0 || nCounter == nPrevious + 1) << nCounter << " after " << nPrevious;
        nPrevious = nCounter;
    }
}

// ---- fault injection ----

TEST_F(SimLoopbackTest, InjectedDeviceErrorForOneCommand)
{
    m_oOptions.oFaults.aoFailCommands[eCmdSetGlobals] = 0x24;
    CRawClient oClient;
    StartWith({&oClient});
    ASSERT_TRUE(oClient.SendHex(SET_GLOBALS));
    EXPECT_EQ(oClient.ReceiveHex(), "06 00 07 82 03 00 24 A2");
    ASSERT_TRUE(oClient.SendHex(GET_CONFIG_6));
    EXPECT_EQ(oClient.ReceiveHex(), GET_CONFIG_6_CNF);
    EXPECT_EQ(Counters().nInjectedErrors.load(), 1u);
}

TEST_F(SimLoopbackTest, FrozenAfterNTelegramsAnswersNothingButKeepsTheConnection)
{
    m_oOptions.oFaults.nFreezeAfter = 2;
    CRawClient oFrozen, oOther;
    StartWith({&oFrozen, &oOther});
    for (int i = 0; i < 2; ++i)
    {
        ASSERT_TRUE(oFrozen.SendHex(GET_CONFIG_6));
        EXPECT_EQ(oFrozen.ReceiveHex(), GET_CONFIG_6_CNF);
    }
    // The third request and a frame of another client stay unanswered, and so
    // do alive and disconnect requests, as with a hung gateway.
    ASSERT_TRUE(oFrozen.SendHex(GET_CONFIG_6));
    ASSERT_TRUE(oOther.SendHex(WRITE_123));
    EXPECT_TRUE(WaitFor([&] { return Counters().nIgnoredFrozen.load() == 1u && Counters().nFramesIn.load() == 1u; }));
    ASSERT_TRUE(oFrozen.SendHex("09 00 0D 02 00 00 E8 03 00 00 E4"));
    ASSERT_TRUE(oFrozen.SendHex("05 00 02 02 00 00 00"));
    ASSERT_TRUE(oFrozen.SendHex(GET_CONFIG_6));
    EXPECT_TRUE(WaitFor([&] { return Counters().nIgnoredFrozen.load() == 2u; }));
    // Any reply would have been sent before the last request was read.
    EXPECT_EQ(oFrozen.ReceiveHex(200), "");
    EXPECT_EQ(m_poSim->ConnectedClients(0), 2);
    ASSERT_TRUE(oOther.SendHex(GET_CONFIG_6));
    EXPECT_EQ(oOther.ReceiveHex(), GET_CONFIG_6_CNF);
}

TEST_F(SimLoopbackTest, ClosedAfterNTelegrams)
{
    m_oOptions.oFaults.nCloseAfter = 2;
    CRawClient oClient;
    StartWith({&oClient});
    for (int nConnection = 0; nConnection < 2; ++nConnection)
    {
        ASSERT_TRUE(nConnection == 0 || oClient.Open(Port()));  // a new connection counts anew
        for (int i = 0; i < 2; ++i)
        {
            ASSERT_TRUE(oClient.SendHex(GET_CONFIG_6));
            EXPECT_EQ(oClient.ReceiveHex(), GET_CONFIG_6_CNF);  // the second one is still answered
        }
        EXPECT_TRUE(oClient.WaitClosed());
        EXPECT_TRUE(WaitClients(0));
    }
}

TEST_F(SimLoopbackTest, ConnectionsBeyondTheLimitAreRefused)
{
    m_oOptions.oFaults.nMaxClients = 2;
    CRawClient oA, oB, oC;
    StartWith({&oA, &oB});
    ASSERT_TRUE(oC.Connect(Port()));
    ASSERT_TRUE(oC.SendHex(CONNECT_REQUEST));
    EXPECT_EQ(oC.ReceiveHex(), CONNECT_LIMIT_REACHED);
    EXPECT_TRUE(oC.WaitClosed());
    EXPECT_TRUE(WaitFor([&] { return Counters().nRefused.load() == 1u; }));
    // Once a client has left there is room again.
    oA.Close();
    ASSERT_TRUE(WaitClients(1));
    EXPECT_TRUE(oC.Open(Port()));
    ASSERT_TRUE(oB.SendHex(WRITE_123));
    EXPECT_EQ(oC.ReceiveHex(), IND_123);
}

TEST_F(SimLoopbackTest, BadTelegramsAreCountedAndOthersStillServed)
{
    CRawClient oBad, oGood;
    StartWith({&oBad, &oGood});
    ASSERT_TRUE(oBad.SendHex("05 00 08 02 04 00 0F"));           // GET_GLOBALS, CRC should be 0E
    ASSERT_TRUE(oBad.SendHex("03 00 08 02 04"));                 // too short to be a telegram
    ASSERT_TRUE(oBad.SendHex("00 00"));                          // empty message
    ASSERT_TRUE(oBad.SendHex(Hex(eCmdSetGlobals, 8, "00 48")));  // SET_GLOBALS without its fields
    ASSERT_TRUE(oBad.SendHex("05 00 99 02 01 00 9A"));           // unknown command 0x299
    // Only the last two are answered, with result 0xFF, in order.
    EXPECT_EQ(oBad.ReceiveHex(), Hex(0x8207, 8, "FF"));
    EXPECT_EQ(oBad.ReceiveHex(), "06 00 99 82 01 00 FF E5");
    EXPECT_EQ(Counters().nBadCrc.load(), 1u);
    EXPECT_EQ(Counters().nBadLength.load(), 3u);
    EXPECT_EQ(Counters().nUnknownCommands.load(), 1u);
    EXPECT_EQ(Counters().nTelegrams.load(), 5u);
    // Both connections go on being served; nothing was stored (defaults).
    ASSERT_TRUE(oGood.SendHex(GET_GLOBALS));
    EXPECT_EQ(oGood.ReceiveHex(), "0E 00 08 82 04 00 00 00 20 A1 07 00 00 00 00 08");
    ASSERT_TRUE(oBad.SendHex(GET_CONFIG_6));
    EXPECT_EQ(oBad.ReceiveHex(), GET_CONFIG_6_CNF);
    EXPECT_EQ(m_poSim->ConnectedClients(0), 2);
}

} // namespace
