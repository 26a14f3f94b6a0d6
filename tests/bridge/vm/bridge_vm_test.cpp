// Runs inside the SocketCAN test VM: orvane-bridge on vcan0 and
// orvane-gateway-sim with its bus on vcan1, both on 127.0.0.1; frames sent with
// cansend and seen with candump, the bridge's output read as it is written.
#include "support/BridgeProcesses.h"
#include "support/can_tools.h"

#include "OrvaneDllCan.h"

#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <sstream>
#include <thread>
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

// A raw CAN socket of the test itself, for bursts far beyond what cansend
// and candump keep up with. A receiving one gets a buffer that holds every
// burst, so nothing is lost in the test's own socket.
class CRawCan
{
public:
    CRawCan(const char* pcInterface, bool bReceive) : m_nSocket(socket(PF_CAN, SOCK_RAW, CAN_RAW))
    {
        const int nBuffer = 16 << 20;
        if (bReceive)
            setsockopt(m_nSocket, SOL_SOCKET, SO_RCVBUFFORCE, &nBuffer, sizeof(nBuffer));
        else
            setsockopt(m_nSocket, SOL_CAN_RAW, CAN_RAW_FILTER, nullptr, 0);
        sockaddr_can oAddress{};
        oAddress.can_family = AF_CAN;
        oAddress.can_ifindex = static_cast<int>(if_nametoindex(pcInterface));
        EXPECT_EQ(bind(m_nSocket, reinterpret_cast<sockaddr*>(&oAddress), sizeof(oAddress)), 0) << pcInterface;
    }
    ~CRawCan() { close(m_nSocket); }
    CRawCan(const CRawCan&) = delete;
    CRawCan& operator=(const CRawCan&) = delete;

    // Writes as fast as the socket takes frames, waiting only while it is full.
    bool Send(const can_frame& oFrame)
    {
        for (;;)
        {
            if (write(m_nSocket, &oFrame, sizeof(oFrame)) == static_cast<ssize_t>(sizeof(oFrame)))
                return true;
            if (errno != ENOBUFS && errno != EAGAIN)
                return false;
            pollfd oWait{m_nSocket, POLLOUT, 0};
            poll(&oWait, 1, 10);
        }
    }
    // The next frame, or false when none comes within nTimeoutMs.
    bool Receive(can_frame& oFrame, int nTimeoutMs = PATIENCE_MS)
    {
        pollfd oWait{m_nSocket, POLLIN, 0};
        return poll(&oWait, 1, nTimeoutMs) == 1 &&
            read(m_nSocket, &oFrame, sizeof(oFrame)) == static_cast<ssize_t>(sizeof(oFrame));
    }

private:
    int m_nSocket;
};

// Frame nIndex of a burst: standard and extended identifiers, every length,
// the index in the first data bytes; remote frames now and then.
can_frame BurstFrame(unsigned int nIndex)
{
    can_frame oFrame{};
    oFrame.can_id = nIndex % 5 == 0 ? (CAN_EFF_FLAG | (nIndex * 2654435761u & CAN_EFF_MASK)) : nIndex % 0x800;
    if (nIndex % 97 == 0)
        oFrame.can_id |= CAN_RTR_FLAG;
    else
        oFrame.can_dlc = static_cast<unsigned char>(nIndex % 9);
    for (unsigned int i = 0; i < oFrame.can_dlc; ++i)
        oFrame.data[i] = static_cast<unsigned char>(nIndex >> (8 * (i % 4)));
    return oFrame;
}

std::string Text(const can_frame& oFrame)
{
    std::ostringstream oText;
    oText << std::hex << oFrame.can_id << "#" << int(oFrame.can_dlc);
    for (unsigned int i = 0; i < oFrame.can_dlc && i < CAN_MAX_DLEN; ++i)
        oText << "." << int(oFrame.data[i]);
    return oText.str();
}

// The value of "name=" in the bridge's last counters line, -1 when absent.
long long LastCounter(const std::string& sOutput, const std::string& sName)
{
    const size_t nLine = sOutput.rfind("counters: ");
    const size_t nAt = nLine == std::string::npos ? nLine : sOutput.find(" " + sName + "=", nLine);
    return nAt == std::string::npos ? -1 : std::atoll(sOutput.c_str() + nAt + sName.size() + 2);
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

// Bursts queue up in the sockets, so frames cross in batches of what is
// there; every frame arrives once, unchanged and in order, both ways.
TEST_F(BridgeVm, BurstsCrossInBatchesInOrderBothWays)
{
    StartSim();
    StartBridge();
    ASSERT_TRUE(WaitForBridge(ESTABLISHED));
    constexpr unsigned int COUNT = 3000;
    for (const auto& oWay : {std::make_pair("vcan0", "vcan1"), std::make_pair("vcan1", "vcan0")})
    {
        SCOPED_TRACE(std::string(oWay.first) + " -> " + oWay.second);
        CRawCan oReceiver(oWay.second, true), oSender(oWay.first, false);
        for (unsigned int i = 0; i < COUNT; ++i)
            ASSERT_TRUE(oSender.Send(BurstFrame(i)));
        for (unsigned int i = 0; i < COUNT; ++i)
        {
            can_frame oFrame{};
            ASSERT_TRUE(oReceiver.Receive(oFrame)) << "frame " << i << " of " << COUNT;
            ASSERT_EQ(Text(oFrame), Text(BurstFrame(i))) << "frame " << i;
        }
    }
    m_poBridge->Signal(SIGUSR1);
    ASSERT_TRUE(WaitForBridge("counters: "));
    EXPECT_EQ(LastCounter(BridgeOutput(), "to_gateway"), COUNT);
    EXPECT_EQ(LastCounter(BridgeOutput(), "from_gateway"), COUNT);
    EXPECT_EQ(LastCounter(BridgeOutput(), "kernel_dropped"), 0);
    EXPECT_EQ(UnexplainedLines(BridgeOutput()), "");
}

// The gateway goes while a burst is crossing: the bridge reconnects, and
// every frame of the burst is either written to the gateway or counted as
// dropped (by the bridge, or by the kernel when its socket overflowed).
TEST_F(BridgeVm, GatewayLostInTheMiddleOfABurstEveryFrameIsAccountedFor)
{
    StartSim();
    StartBridge();
    ASSERT_TRUE(WaitForBridge(ESTABLISHED));
    constexpr unsigned int COUNT = 20000;
    CRawCan oReceiver("vcan1", true);
    std::atomic<bool> bSent{false};
    std::thread oSender([&] {
        CRawCan oSocket("vcan0", false);
        for (unsigned int i = 0; i < COUNT; ++i)
            oSocket.Send(BurstFrame(i));
        bSent = true;
    });
    can_frame oFrame{};
    for (int i = 0; i < 500; ++i)
        ASSERT_TRUE(oReceiver.Receive(oFrame));
    StopSim();
    oSender.join();
    ASSERT_TRUE(bSent.load());
    ASSERT_TRUE(WaitForBridge(LOST));
    StartSim();
    ASSERT_TRUE(WaitForBridge(ESTABLISHED, 2));
    m_poBridge->Signal(SIGUSR1);
    ASSERT_TRUE(WaitForBridge("counters: "));
    const std::string sOutput = BridgeOutput();
    EXPECT_EQ(LastCounter(sOutput, "to_gateway") + LastCounter(sOutput, "dropped") +
                  LastCounter(sOutput, "kernel_dropped"),
              COUNT)
        << sOutput;
    EXPECT_GE(LastCounter(sOutput, "to_gateway"), 500);
    EXPECT_GT(LastCounter(sOutput, "dropped") + LastCounter(sOutput, "kernel_dropped"), 0);
    ExpectCrossing("vcan0", "vcan1", {"2BB#CAFE"});
    ExpectCrossing("vcan1", "vcan0", {"3CC#BEEF"});
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
    EXPECT_TRUE(WaitForBridge(
        "counters: to_gateway=1 from_gateway=0 dropped=3 kernel_dropped=0 reconnects=1 state=connected\n"));
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
