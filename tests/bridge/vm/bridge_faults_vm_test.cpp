// Runs inside the SocketCAN test VM: orvane-bridge against simulators that are
// killed and restarted many times, refuse, freeze, close or fail. It must
// reconnect, lose no frame sent while up, keep descriptors and threads, not spin.
#include "support/BridgeProcesses.h"
#include "support/TempDir.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

using namespace OrvaneTest;

namespace
{

// User plus system CPU time of a process, in clock ticks.
long CpuTicks(pid_t nPid)
{
    const std::string sStat = ReadFile("/proc/" + std::to_string(nPid) + "/stat");
    long nUser = 0, nSystem = 0;
    // utime and stime, the 14th and 15th fields; the name (2nd) may hold blanks.
    std::sscanf(sStat.c_str() + sStat.rfind(')') + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld", &nUser,
                &nSystem);
    return nUser + nSystem;
}

class BridgeFaults : public CBridgeProcesses
{
protected:
    std::string BridgeProc(const char* pcPart) const
    {
        return "/proc/" + std::to_string(m_poBridge->Pid()) + "/" + pcPart;
    }
    // The bridge's share of one CPU while it waits nSeconds.
    double CpuShareWhileWaiting(int nSeconds)
    {
        const long nBefore = CpuTicks(m_poBridge->Pid());
        sleep(static_cast<unsigned int>(nSeconds)); // measuring over time, not waiting for an event
        return double(CpuTicks(m_poBridge->Pid()) - nBefore) / double(sysconf(_SC_CLK_TCK) * nSeconds);
    }
};

// Frames sent both ways while the link is up all arrive; killing the
// simulator (SIGKILL: the link just ends) and starting it again is noticed
// and recovered from every time, with as many descriptors and threads as
// after the first connection.
TEST_F(BridgeFaults, SimulatorKilledAndRestartedManyTimes)
{
    const char* pcCycles = std::getenv("ORVANE_FAULT_CYCLES");
    const int nCycles = pcCycles != nullptr ? std::atoi(pcCycles) : 50;
    ASSERT_GE(nCycles, 1);
    constexpr unsigned int BATCH = 20;
    StartBridge();
    size_t nFds = 0, nThreads = 0;
    for (int nCycle = 0; nCycle < nCycles && !HasFailure(); ++nCycle)
    {
        SCOPED_TRACE("cycle " + std::to_string(nCycle));
        StartSim();
        ASSERT_TRUE(WaitForBridge(ESTABLISHED, nCycle + 1));
        if (nCycle == 0)
        {
            nFds = Entries(BridgeProc("fd"));
            nThreads = Entries(BridgeProc("task"));
        }
        ExpectBurstBothWays(unsigned(nCycle) * BATCH, BATCH);

        m_poSim->Stop(nCycle % 2 == 0 ? SIGKILL : SIGTERM);
        ASSERT_TRUE(WaitForBridge(LOST, nCycle + 1));
    }
    StartSim();
    ASSERT_TRUE(WaitForBridge(ESTABLISHED, nCycles + 1));
    EXPECT_TRUE(WaitUntil([&] { return Entries(BridgeProc("fd")) == nFds; }, PATIENCE_MS))
        << Entries(BridgeProc("fd")) << " descriptors, " << nFds << " after the first connection";
    EXPECT_TRUE(WaitUntil([&] { return Entries(BridgeProc("task")) == nThreads; }, PATIENCE_MS))
        << Entries(BridgeProc("task")) << " threads, " << nThreads << " after the first connection";
    EXPECT_EQ(Count(m_poBridge->Output(), LOST), nCycles);
    std::printf("%d restart cycles: every reconnect made, %zu descriptors and %zu threads as after the first\n",
                nCycles, nFds, nThreads);
}

// Gateways that fail the set-up or do not keep the bridge: it prints its
// messages, keeps trying about once a second, and uses little CPU meanwhile.
TEST_F(BridgeFaults, FreezingClosingAndFailingGateways)
{
    struct SCase
    {
        std::vector<std::string> asOptions;
        std::string sSeen; // printed at least once
    };
    const SCase aoCases[] = {
        // SET_GLOBALS answered with the device error 0x24.
        {{"--fail", "0x207=0x24"}, "Orvane Error:CAN no valid baudrate\n"},
        // Each connection closed after its first telegram (SET_GLOBALS).
        {{"--close-after", "1"}, ""},
        // Silent from SET_GLOBALS on (alive requests included): each attempt
        // runs into the request's time-out.
        {{"--freeze-after", "1"}, "Orvane Error:TCP/IP timeout occured\n"},
    };
    for (const SCase& oCase : aoCases)
    {
        SCOPED_TRACE(oCase.asOptions[0]);
        StartSim(oCase.asOptions);
        StartBridge();
        // Three connection attempts: the bridge keeps trying.
        EXPECT_TRUE(WaitUntil(
            [&] {
                const std::string sOutput = m_poBridge->Output();
                return Count(sOutput, ESTABLISHED) + Count(sOutput, NOT_ESTABLISHED) >= 3;
            },
            40000))
            << "the bridge does not keep trying";
        if (!oCase.sSeen.empty())
        {
            EXPECT_TRUE(WaitForBridge(oCase.sSeen, 1));
        }
        const double dShare = CpuShareWhileWaiting(3);
        std::printf("%s: bridge CPU while it waits %.1f%%\n", oCase.asOptions[0].c_str(), 100 * dShare);
        EXPECT_LT(dShare, 0.10) << "the bridge spins while it waits";
        EXPECT_TRUE(ExitedWith(m_poBridge->Stop(SIGTERM), 0)) << "the bridge did not end normally";
        m_poSim->Stop(SIGTERM);
    }
}

// A gateway that refuses while 1,000 frames/s arrive: about one connection
// attempt a second (not one per frame), two lines each, little CPU; then it
// comes up and frames flow. Meanwhile the service manager hears READY at
// once, the watchdog every pass, and the link's state; programs that asked
// for error frames see bus-off when the link is lost and restarted when it
// is back, and programs that did not see neither.
TEST_F(BridgeFaults, RefusedUnderTrafficAndTheLinkStateOnTheBusAndToTheServiceManager)
{
    CServiceManager oManager("/tmp/bridge-notify");
    StartBridge(); // nothing listens on 127.0.0.1:5001 yet: every attempt is refused
    ASSERT_TRUE(oManager.WaitFor("READY=1", 1, PATIENCE_MS));
    EXPECT_NE(oManager.Messages()[0].find("state=disconnected"), std::string::npos) << oManager.Messages()[0];
    ASSERT_TRUE(WaitForBridge(NOT_ESTABLISHED));

    const std::string sBefore = BridgeOutput();
    const int nWatchdogsBefore = oManager.Count("WATCHDOG=1");
    CChildProcess oTraffic({"cangen", "vcan0", "-g", "1", "-n", "3000", "-I", "123", "-L", "8"});
    const double dShare = CpuShareWhileWaiting(3);
    const std::string sDuring = BridgeOutput().substr(sBefore.size());
    const int nAttempts = Count(sDuring, NOT_ESTABLISHED);
    const int nWatchdogs = oManager.Count("WATCHDOG=1") - nWatchdogsBefore;
    std::printf("refused under traffic, 3 s: %d attempts, %d lines, %d watchdog pings, bridge CPU %.1f%%\n", nAttempts,
                Count(sDuring, "\n"), nWatchdogs, 100 * dShare);
    EXPECT_LE(nAttempts, 5);
    EXPECT_LE(Count(sDuring, "\n"), 12) << sDuring;
    EXPECT_LT(dShare, 0.10) << "the bridge spins while the gateway refuses";
    EXPECT_GE(nWatchdogs, 3) << "the watchdog is not pinged at least once a second";
    oTraffic.WaitExit(PATIENCE_MS);

    // candump -e only explains error frames; the "#mask" asks for them.
    CChildProcess oWithErrors({"candump", "-e", "vcan0,#FFFFFFFF"});
    CChildProcess oPlain({"candump", "-L", "vcan0"});
    StartSim();
    ASSERT_TRUE(WaitForBridge(ESTABLISHED));
    ASSERT_TRUE(oManager.WaitFor("state=connected", 1, PATIENCE_MS));
    ExpectBurstBothWays(1, 1);

    m_poSim->Stop(SIGKILL);
    ASSERT_TRUE(WaitForBridge(LOST));
    EXPECT_TRUE(oWithErrors.WaitForOutput("20000040", PATIENCE_MS)) << "no bus-off frame: " << oWithErrors.Output();
    EXPECT_TRUE(oManager.WaitFor("state=disconnected", 2, PATIENCE_MS));
    StartSim();
    ASSERT_TRUE(WaitForBridge(ESTABLISHED, 2));
    EXPECT_TRUE(oWithErrors.WaitForOutput("20000100", PATIENCE_MS)) << "no restarted frame: " << oWithErrors.Output();
    EXPECT_TRUE(oManager.WaitFor("state=connected", 2, PATIENCE_MS));
    // The two data frames only: no error frame reached the plain candump.
    EXPECT_EQ(Count(oPlain.Output(), "vcan0 "), 2) << oPlain.Output();
    EXPECT_TRUE(ExitedWith(m_poBridge->Stop(SIGTERM), 0));
    EXPECT_NE(oManager.Messages().back().find("STOPPING=1"), std::string::npos);
}

// An interface deleted and created again (an adapter unplugged and plugged
// back) while the gateway sends: the bridge says so once each way, without
// spinning or a message per frame meanwhile, and frames flow again both ways
// with as many descriptors and threads as before.
TEST_F(BridgeFaults, InterfaceDeletedAndCreatedAgain)
{
    StartSim();
    StartBridge();
    ASSERT_TRUE(WaitForBridge(ESTABLISHED));
    // Frames from the gateway keep coming while the interface is away (a few:
    // each costs the emulated VM the better part of a millisecond of wake-ups).
    CChildProcess oTraffic({"cangen", "vcan1", "-g", "50", "-I", "333", "-L", "8"});
    const size_t nFds = Entries(BridgeProc("fd"));
    const size_t nThreads = Entries(BridgeProc("task"));
    for (int nCycle = 0; nCycle < 3 && !HasFailure(); ++nCycle)
    {
        SCOPED_TRACE("cycle " + std::to_string(nCycle));
        ASSERT_EQ(0, system("ip link del dev vcan0"));
        ASSERT_TRUE(WaitForBridge("+++ error: CAN interface vcan0 lost, reopening\n", nCycle + 1));
        const double dShare = CpuShareWhileWaiting(2);
        EXPECT_LT(dShare, 0.10) << "the bridge spins while its interface is away";
        ASSERT_EQ(0, system("ip link add dev vcan0 type vcan && ip link set up vcan0"));
        ASSERT_TRUE(WaitForBridge("+++ CAN interface vcan0 is back\n", nCycle + 1));
        ExpectBurstBothWays(unsigned(nCycle), 1, 0x333); // cangen's frames passed over
        std::printf("interface back, frames through both ways; bridge CPU while away %.1f%%\n", 100 * dShare);
    }
    EXPECT_EQ(Entries(BridgeProc("fd")), nFds);
    EXPECT_EQ(Entries(BridgeProc("task")), nThreads);
    EXPECT_EQ(Count(BridgeOutput(), "lost, reopening"), 3);
    // The interface goes down before it goes: that read error and the first
    // failed write are reported, as for an interface brought down, and
    // nothing after them.
    EXPECT_LE(Count(BridgeOutput(), "Error CAN"), 6) << "a message per failed read or write";
    EXPECT_EQ(Count(BridgeOutput(), ESTABLISHED), 1) << "the gateway link is not the interface's business";
}

} // namespace
