// Runs inside the SocketCAN test VM: orvane-bridge on vcan0 and
// orvane-gateway-sim with its bus on vcan1, both on 127.0.0.1; frames sent with
// cansend and seen with candump, the bridge's output read as it is written.
#include "support/BridgeProcesses.h"

#include "OrvaneDllCan.h"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <thread>
#include <tuple>

using namespace OrvaneTest;

namespace
{

// The lines of the bridge's output that none of its start-up, connection and
// counter messages explain.
std::string UnexplainedLines(const std::string& sOutput)
{
    static const char* const KNOWN[] = {"orvane-bridge (Connection between SocketCAN and Orvane CAN)",
                                        "Hardware=vcan0...OK!",
                                        "Press ^C to abort.",
                                        "+++ connection to Orvane CAN established",
                                        "+++ error: connection to Orvane CAN lost, reconnecting",
                                        "+++ error: could not establish connection to Orvane CAN",
                                        "Orvane Error:",
                                        "counters: ",
                                        "****"};
    std::istringstream oLines(sOutput);
    std::string sLine, sLeft;
    while (std::getline(oLines, sLine))
        if (!sLine.empty() && std::none_of(std::begin(KNOWN), std::end(KNOWN), [&](const char* pcKnown) {
                return sLine.find(pcKnown) != std::string::npos;
            }))
            sLeft += sLine + "\n";
    return sLeft;
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
    // SIGINT and SIGHUP (SIGTERM: the fault tests) end the bridge soon with
    // status 0, its device closed with a disconnect request.
    void ExpectEndedBy(int nSignal)
    {
        const int nDisconnects = Count(m_poSim->Output(), ": disconnected");
        m_poBridge->Signal(nSignal);
        EXPECT_TRUE(ExitedWith(m_poBridge->WaitExit(3000), 0)) << strsignal(nSignal) << ": no status 0 within 3 s";
        EXPECT_TRUE(WaitUntil([&] { return Count(m_poSim->Output(), ": disconnected") > nDisconnects; }));
    }
};

// -t 2 means on, -s x off; with -d 1 the gateway adds its time stamp to every
// frame it indicates. Bursts queue up in the sockets, so frames cross in
// batches of what is there.
TEST_F(BridgeVm, OptionsReachTheGatewayAndBurstsCrossInBatchesInOrderBothWays)
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

    ExpectBurstBothWays(0, 3000);
    m_poBridge->Signal(SIGUSR1);
    EXPECT_TRUE(WaitForBridge(
        "counters: to_gateway=3000 from_gateway=3000 dropped=0 kernel_dropped=0 reconnects=0 state=connected\n"));
    EXPECT_EQ(UnexplainedLines(BridgeOutput()), "");
    ExpectEndedBy(SIGINT);
}

// The gateway goes while a burst is crossing: the loss is reported once, the
// bridge retries and reconnects. Every frame is either
// written to the gateway or counted as dropped: by the bridge (frames of the
// outage, without a message) or by the kernel when its socket overflowed.
TEST_F(BridgeVm, GatewayLostInABurstIsReportedOnceRetriedAndEveryFrameAccountedFor)
{
    StartSim();
    StartBridge();
    ASSERT_TRUE(WaitForBridge(ESTABLISHED));
    constexpr unsigned int COUNT = 20000;
    CRawCan oReceiver("vcan1");
    std::thread oSender([&] {
        CRawCan oSocket("vcan0", false);
        for (unsigned int i = 0; i < COUNT; ++i)
            oSocket.Send(BurstFrame(i));
    });
    can_frame oFrame{};
    for (int i = 0; i < 500; ++i)
        ASSERT_TRUE(oReceiver.Receive(oFrame));
    ASSERT_TRUE(ExitedWith(m_poSim->Stop(SIGTERM), 0));
    oSender.join();
    ASSERT_TRUE(WaitForBridge(LOST));

    // Frames while the gateway is away are dropped, and the retries go on
    // (their pace is measured under traffic in the fault tests).
    CCanDump oDump("vcan1");
    ASSERT_TRUE(oDump.WaitUntilListening());
    for (const char* sFrame : {"0AA#01", "0AB#0203", "1000000A#R"})
        ASSERT_TRUE(CanSend("vcan0", sFrame));
    ASSERT_TRUE(WaitForBridge(NOT_ESTABLISHED, Count(BridgeOutput(), NOT_ESTABLISHED) + 2));

    StartSim();
    ASSERT_TRUE(WaitForBridge(ESTABLISHED, 2));
    ASSERT_TRUE(CanSend("vcan0", "2BB#CAFE"));
    EXPECT_EQ(oDump.NextFrame(), "2BB#CAFE") << "frames of the outage were not dropped";
    // SIGUSR1: one line of counters, and the bridge goes on.
    m_poBridge->Signal(SIGUSR1);
    ASSERT_TRUE(WaitForBridge("reconnects=1 state=connected\n"));
    const std::string sOutput = BridgeOutput();
    EXPECT_EQ(LastCounter(sOutput, "to_gateway") + LastCounter(sOutput, "dropped") +
                  LastCounter(sOutput, "kernel_dropped"),
              COUNT + 4)
        << sOutput;
    EXPECT_GE(LastCounter(sOutput, "to_gateway"), 501);

    EXPECT_EQ(Count(sOutput, LOST), 1);
    EXPECT_EQ(Count(sOutput, "Orvane Error:"), Count(sOutput, NOT_ESTABLISHED));
    EXPECT_EQ(UnexplainedLines(sOutput), "");
    ExpectEndedBy(SIGHUP);
}

// The simulator answers nothing after its second telegram (the bit-rate
// settings, then one frame), alive requests included, while keeping the TCP
// connection open: only the alive protocol (5 s) can notice.
TEST_F(BridgeVm, FrozenGatewayIsFoundByTheAliveProtocolAndReconnected)
{
    StartSim({"--freeze-after", "2"});
    StartBridge();
    ASSERT_TRUE(WaitForBridge(ESTABLISHED));
    ASSERT_TRUE(CanSend("vcan0", "123#01"));
    ASSERT_TRUE(m_poSim->WaitForOutput("frozen after 2 telegrams", PATIENCE_MS));
    ASSERT_TRUE(WaitForBridge(LOST, 1, 15000)) << "not noticed within about one alive period of 5 s";
    ASSERT_TRUE(WaitForBridge(ESTABLISHED, 2));
    EXPECT_EQ(Count(BridgeOutput(), LOST), 1);
}

} // namespace
