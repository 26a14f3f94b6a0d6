// Runs inside the SocketCAN test VM: orvane-bridge on vcan0 and
// orvane-gateway-sim with its bus on vcan1, both on 127.0.0.1; frames sent with
// cansend and seen with candump, the bridge's output read as it is written.
#include "support/BridgeProcesses.h"
#include "support/can_tools.h"

#include "OrvaneDllCan.h"

#include <chrono>
#include <sstream>
#include <tuple>

using namespace OrvaneTest;
using vmtest::CanDump;
using vmtest::runProgram;

namespace
{

using Clock = std::chrono::steady_clock;

// Lines of the bridge's output that none of its start-up and connection
// messages explain.
std::string UnexplainedLines(const std::string& sOutput)
{
    const std::vector<std::string> asKnown = {"orvane-bridge (Connection between SocketCAN and Orvane CAN)",
                                              "Hardware=vcan0...OK!",
                                              "Press ^C to abort.",
                                              ESTABLISHED.substr(0, ESTABLISHED.size() - 1),
                                              LOST.substr(0, LOST.size() - 1),
                                              NOT_ESTABLISHED.substr(0, NOT_ESTABLISHED.size() - 1),
                                              "Orvane Error:",
                                              "counters: ",
                                              "****"};
    std::istringstream oLines(sOutput);
    std::string sLine, sUnexplained;
    while (std::getline(oLines, sLine))
    {
        bool bKnown = sLine.empty();
        for (const std::string& sKnown : asKnown)
            bKnown = bKnown || sLine.compare(0, sKnown.size(), sKnown) == 0;
        if (!bKnown)
            sUnexplained += sLine + "\n";
    }
    return sUnexplained;
}

class BridgeVm : public CBridgeProcesses
{
protected:
    // Sends each frame with cansend on sFrom; candump on sTo must show exactly
    // these frames, in order ("123#1122" as candump -L prints them).
    static void ExpectCrossing(const std::string& sFrom, const std::string& sTo,
                               const std::vector<std::string>& asFrames)
    {
        CanDump oDump(sTo);
        ASSERT_TRUE(oDump.waitUntilListening()) << "candump on " << sTo;
        for (const std::string& sFrame : asFrames)
        {
            ASSERT_EQ(runProgram({"cansend", sFrom, sFrame}), 0) << sFrame;
            EXPECT_EQ(oDump.nextFrame().value_or("nothing"), sFrame) << sFrom << " -> " << sTo;
        }
    }
};

TEST_F(BridgeVm, FramesCrossInBothDirectionsByteForByte)
{
    StartSim();
    StartBridge();
    ASSERT_TRUE(WaitForBridge(ESTABLISHED));
    const std::vector<std::string> asFrames = {"000#",
                                               "123#11",
                                               "7FF#1122",
                                               "456#112233",
                                               "001#11223344",
                                               "5A5#1122334455",
                                               "6B6#112233445566",
                                               "7C7#11223344556677",
                                               "7FF#8899AABBCCDDEEFF",
                                               "00000000#",
                                               "12345678#A1B2C3",
                                               "1FFFFFFE#0102030405060708",
                                               "123#R",
                                               "1ABCDEF0#R"};
    ExpectCrossing("vcan0", "vcan1", asFrames);
    ExpectCrossing("vcan1", "vcan0", asFrames);
    EXPECT_EQ(UnexplainedLines(BridgeOutput()), "");
}

// -t 2 means on, -s x off; with -d 1 the gateway adds its time stamp to every
// frame it indicates, and the frames still reach the socket unchanged.
TEST_F(BridgeVm, OptionsReachTheGatewayAndTimeStampedFramesCrossUnchanged)
{
    StartSim();
    StartBridge({"-d", "1", "-t", "2", "-s", "x", "-b", "0x7A120", "-p", "0"});
    ASSERT_TRUE(WaitForBridge(ESTABLISHED));

    // A second client of the same port reads back what the bridge configured.
    int nHandle = -1;
    ASSERT_EQ(CANOpenDevice(&nHandle, 0, 1, 0, "127.0.0.1", 5000), 0);
    unsigned int nBaudrate = 0;
    unsigned char nMode = 0xFF;
    int bTermination = -1, bHighSpeed = -1, bTimeStamp = -1;
    EXPECT_EQ(CANGetGlobals(nHandle, &nBaudrate, &nMode, &bTermination, &bHighSpeed, &bTimeStamp), 0);
    EXPECT_EQ(CANCloseDevice(nHandle), 0);
    EXPECT_EQ(std::make_tuple(nBaudrate, int(nMode), bTermination, bHighSpeed, bTimeStamp),
              std::make_tuple(500000u, 0, 1, 0, 1));

    ExpectCrossing("vcan1", "vcan0", {"7FF#8899AABBCCDDEEFF", "123#", "00000001#01", "1ABCDEF0#R"});
    ExpectCrossing("vcan0", "vcan1", {"321#0102"});
    EXPECT_EQ(UnexplainedLines(BridgeOutput()), "");
}

TEST_F(BridgeVm, GatewayLossIsReportedOnceRetriedAboutEverySecondAndRecovered)
{
    StartSim();
    StartBridge();
    ASSERT_TRUE(WaitForBridge(ESTABLISHED));
    StopSim();
    ASSERT_TRUE(WaitForBridge(LOST));

    // Retries are paced by the one-second receive wait, not a busy loop.
    ASSERT_TRUE(WaitForBridge(NOT_ESTABLISHED, 1));
    const auto oFirst = Clock::now();
    ASSERT_TRUE(WaitForBridge(NOT_ESTABLISHED, 4));
    EXPECT_GE(Clock::now() - oFirst, std::chrono::milliseconds(2500)) << "three retries";

    // Frames while the gateway is away are dropped without a message, and
    // the retries go on.
    CanDump oDump("vcan1");
    ASSERT_TRUE(oDump.waitUntilListening());
    for (const char* sFrame : {"0AA#01", "0AB#0203", "1000000A#R"})
        ASSERT_EQ(runProgram({"cansend", "vcan0", sFrame}), 0);
    ASSERT_TRUE(WaitForBridge(NOT_ESTABLISHED, Count(BridgeOutput(), NOT_ESTABLISHED) + 2));

    StartSim();
    ASSERT_TRUE(WaitForBridge(ESTABLISHED, 2));
    ASSERT_EQ(runProgram({"cansend", "vcan0", "2BB#CAFE"}), 0);
    EXPECT_EQ(oDump.nextFrame().value_or("nothing"), "2BB#CAFE") << "frames of the outage were not dropped";
    // SIGUSR1: one line of counters, and the bridge goes on.
    m_poBridge->Signal(SIGUSR1);
    EXPECT_TRUE(WaitForBridge("counters: to_gateway=1 from_gateway=0 dropped=3 reconnects=1 state=connected\n"));
    ExpectCrossing("vcan1", "vcan0", {"3CC#BEEF"});

    const std::string sOutput = BridgeOutput();
    EXPECT_EQ(Count(sOutput, LOST), 1);
    EXPECT_EQ(Count(sOutput, "Orvane Error:"), Count(sOutput, NOT_ESTABLISHED));
    EXPECT_EQ(UnexplainedLines(sOutput), "");
}

// The simulator answers nothing after its second telegram (the bit-rate
// settings, then one frame), alive requests included, while keeping the TCP
// connection open: only the alive protocol (5 s) can notice.
TEST_F(BridgeVm, FrozenGatewayIsFoundByTheAliveProtocolAndReconnected)
{
    StartSim({"--freeze-after", "2"});
    StartBridge();
    ASSERT_TRUE(WaitForBridge(ESTABLISHED));
    ASSERT_EQ(runProgram({"cansend", "vcan0", "123#01"}), 0);
    ASSERT_TRUE(m_poSim->WaitForOutput("frozen after 2 telegrams", PATIENCE_MS));
    const auto oFrozen = Clock::now();
    ASSERT_TRUE(WaitForBridge(LOST, 1, 30000));
    const auto nMs = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - oFrozen).count();
    std::printf("frozen gateway noticed after %lld ms\n", static_cast<long long>(nMs));
    EXPECT_LT(nMs, 15000) << "about one alive period of 5 s";
    ASSERT_TRUE(WaitForBridge(ESTABLISHED, 2));
    EXPECT_EQ(Count(BridgeOutput(), LOST), 1);
}

TEST_F(BridgeVm, SignalsEndTheBridgeWithStatusZeroWithinASecondAndAHalf)
{
    StartSim();
    struct SCase
    {
        int nSignal;
        bool bGatewayUp;
    };
    for (const SCase& oCase : {SCase{SIGINT, true}, SCase{SIGTERM, true}, SCase{SIGHUP, false}})
    {
        SCOPED_TRACE(strsignal(oCase.nSignal));
        if (!oCase.bGatewayUp)
            StopSim();
        const int nDisconnects = Count(m_poSim->Output(), ": disconnected");
        StartBridge();
        ASSERT_TRUE(WaitForBridge(oCase.bGatewayUp ? ESTABLISHED : NOT_ESTABLISHED));
        const auto oStart = Clock::now();
        const int nStatus = m_poBridge->Stop(oCase.nSignal);
        const auto nMs = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - oStart).count();
        std::printf("%s: bridge ended after %lld ms\n", strsignal(oCase.nSignal), static_cast<long long>(nMs));
        EXPECT_TRUE(ExitedWith(nStatus, 0)) << nStatus;
        EXPECT_LT(nMs, 3000);
        if (oCase.bGatewayUp) // the device was closed with a disconnect request
        {
            EXPECT_TRUE(WaitUntil([&] { return Count(m_poSim->Output(), ": disconnected") > nDisconnects; }));
        }
    }
}

} // namespace
