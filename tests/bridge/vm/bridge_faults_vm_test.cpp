// Runs inside the SocketCAN test VM: orvane-bridge against simulators that are
// killed and restarted many times, refuse, freeze, close or fail. It must
// reconnect, lose no frame sent while up, keep descriptors and threads, not spin.
#include "support/BridgeProcesses.h"

#include <linux/can.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <vector>

using namespace OrvaneTest;

namespace
{

// A raw CAN socket of the test on one interface.
class CRawCan
{
public:
    explicit CRawCan(const char* pcInterface) : m_nSocket(socket(PF_CAN, SOCK_RAW, CAN_RAW))
    {
        sockaddr_can oAddress{};
        oAddress.can_family = AF_CAN;
        oAddress.can_ifindex = static_cast<int>(if_nametoindex(pcInterface));
        bind(m_nSocket, reinterpret_cast<sockaddr*>(&oAddress), sizeof(oAddress));
    }
    ~CRawCan() { close(m_nSocket); }

    bool Send(canid_t nId, uint32_t nSequence)
    {
        can_frame oFrame{};
        oFrame.can_id = nId;
        oFrame.can_dlc = 8;
        std::memcpy(oFrame.data, &nSequence, 4);
        return write(m_nSocket, &oFrame, sizeof(oFrame)) == sizeof(oFrame);
    }
    // The sequence numbers of frames with identifier nId that arrive until
    // nCount have come or none came for PATIENCE_MS.
    std::set<uint32_t> Receive(canid_t nId, size_t nCount)
    {
        std::set<uint32_t> anSeen;
        while (anSeen.size() < nCount)
        {
            pollfd oReadable{m_nSocket, POLLIN, 0};
            if (poll(&oReadable, 1, int(PATIENCE_MS)) != 1)
                break;
            can_frame oFrame{};
            if (read(m_nSocket, &oFrame, sizeof(oFrame)) == sizeof(oFrame) && oFrame.can_id == nId &&
                oFrame.can_dlc == 8)
            {
                uint32_t nSequence = 0;
                std::memcpy(&nSequence, oFrame.data, 4);
                anSeen.insert(nSequence);
            }
        }
        return anSeen;
    }

private:
    int m_nSocket;
};

// The service manager's end of the bridge's notify socket: every datagram
// the bridge sent, in order. NOTIFY_SOCKET names it for programs started
// while the object lives.
class CServiceManager
{
public:
    CServiceManager() : m_nSocket(socket(AF_UNIX, SOCK_DGRAM, 0))
    {
        sockaddr_un oAddress{};
        oAddress.sun_family = AF_UNIX;
        std::snprintf(oAddress.sun_path, sizeof(oAddress.sun_path), "%s", PATH);
        unlink(PATH);
        bind(m_nSocket, reinterpret_cast<sockaddr*>(&oAddress), sizeof(oAddress));
        setenv("NOTIFY_SOCKET", PATH, 1);
    }
    ~CServiceManager()
    {
        unsetenv("NOTIFY_SOCKET");
        close(m_nSocket);
        unlink(PATH);
    }
    // The datagrams received so far.
    const std::vector<std::string>& Messages()
    {
        char acBuffer[512];
        ssize_t nCount;
        while ((nCount = recv(m_nSocket, acBuffer, sizeof(acBuffer), MSG_DONTWAIT)) > 0)
            m_asMessages.emplace_back(acBuffer, static_cast<size_t>(nCount));
        return m_asMessages;
    }
    // How many datagrams so far contain sPart.
    int Count(const std::string& sPart)
    {
        int nCount = 0;
        for (const std::string& sMessage : Messages())
            nCount += sMessage.find(sPart) != std::string::npos ? 1 : 0;
        return nCount;
    }
    bool WaitFor(const std::string& sPart, int nCount = 1)
    {
        return WaitUntil([&] { return Count(sPart) >= nCount; }, PATIENCE_MS);
    }

private:
    static constexpr const char* PATH = "/tmp/bridge-notify";
    int m_nSocket;
    std::vector<std::string> m_asMessages;
};

size_t Entries(const std::string& sFolder)
{
    std::error_code oError;
    using CEntries = std::filesystem::directory_iterator;
    return static_cast<size_t>(std::distance(CEntries(sFolder, oError), CEntries()));
}

// User plus system CPU time of a process, in clock ticks.
long CpuTicks(pid_t nPid)
{
    std::ifstream oStat("/proc/" + std::to_string(nPid) + "/stat");
    std::string sStat((std::istreambuf_iterator<char>(oStat)), std::istreambuf_iterator<char>());
    std::istringstream oFields(sStat.substr(sStat.rfind(')') + 2));
    std::string sField;
    for (int i = 3; i < 14; ++i) // up to utime, the 14th field
        oFields >> sField;
    long nUser = 0, nSystem = 0;
    oFields >> nUser >> nSystem;
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
    constexpr uint32_t BATCH = 20;
    CRawCan oLocal("vcan0"), oBus("vcan1");
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
        // Numbered frames each way, sent only once the link is up.
        for (uint32_t i = 0; i < BATCH; ++i)
            ASSERT_TRUE(oLocal.Send(0x100, uint32_t(nCycle) * BATCH + i));
        EXPECT_EQ(oBus.Receive(0x100, BATCH).size(), BATCH) << "vcan0 -> gateway";
        for (uint32_t i = 0; i < BATCH; ++i)
            ASSERT_TRUE(oBus.Send(0x200, uint32_t(nCycle) * BATCH + i));
        EXPECT_EQ(oLocal.Receive(0x200, BATCH).size(), BATCH) << "gateway -> vcan0";

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

// Gateways that do not let the bridge in or keep it: the bridge prints its
// messages, keeps trying about once a second, and uses little CPU meanwhile.
TEST_F(BridgeFaults, RefusingFreezingClosingAndFailingGateways)
{
    struct SCase
    {
        std::vector<std::string> asOptions;
        std::string sSeen; // printed at least once
    };
    const SCase aoCases[] = {
        // Every connection beyond 1 refused; a first client holds that one.
        {{"--max-clients", "1"}, "Orvane Error:Open failed, maximum number of connections reached\n"},
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
        std::unique_ptr<CChildProcess> poHolder;
        if (oCase.asOptions[0] == "--max-clients")
        {
            // orvane-bridge on vcan1 is simply a first client of port 0.
            poHolder =
                std::make_unique<CChildProcess>(std::vector<std::string>{"orvane-bridge", "vcan1", "-i", "127.0.0.1"});
            ASSERT_TRUE(poHolder->WaitForOutput(ESTABLISHED, PATIENCE_MS));
        }
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
    CServiceManager oManager;
    StartBridge(); // nothing listens on 127.0.0.1:5001 yet: every attempt is refused
    ASSERT_TRUE(oManager.WaitFor("READY=1"));
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
    ASSERT_TRUE(oManager.WaitFor("state=connected"));
    CRawCan oLocal("vcan0"), oBus("vcan1");
    ASSERT_TRUE(oLocal.Send(0x100, 1));
    EXPECT_EQ(oBus.Receive(0x100, 1).size(), 1u) << "vcan0 -> gateway";
    ASSERT_TRUE(oBus.Send(0x200, 2));
    EXPECT_EQ(oLocal.Receive(0x200, 1).size(), 1u) << "gateway -> vcan0";

    m_poSim->Stop(SIGKILL);
    ASSERT_TRUE(WaitForBridge(LOST));
    EXPECT_TRUE(oWithErrors.WaitForOutput("20000040", PATIENCE_MS)) << "no bus-off frame: " << oWithErrors.Output();
    EXPECT_TRUE(WaitUntil([&] { return oManager.Count("state=disconnected") >= 2; }, PATIENCE_MS));
    StartSim();
    ASSERT_TRUE(WaitForBridge(ESTABLISHED, 2));
    EXPECT_TRUE(oWithErrors.WaitForOutput("20000100", PATIENCE_MS)) << "no restarted frame: " << oWithErrors.Output();
    EXPECT_TRUE(WaitUntil([&] { return oManager.Count("state=connected") >= 2; }, PATIENCE_MS));
    EXPECT_EQ(oPlain.Output().find(" vcan0 2000"), std::string::npos) << "an error frame reached a plain candump";
    EXPECT_EQ(Count(oPlain.Output(), "vcan0 "), 2) << oPlain.Output(); // the two data frames only
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
        const auto oBack = std::chrono::steady_clock::now();
        ASSERT_TRUE(WaitForBridge("+++ CAN interface vcan0 is back\n", nCycle + 1));
        CRawCan oLocal("vcan0"), oBus("vcan1");
        ASSERT_TRUE(oLocal.Send(0x100, uint32_t(nCycle)));
        EXPECT_EQ(oBus.Receive(0x100, 1).size(), 1u) << "vcan0 -> gateway";
        ASSERT_TRUE(oBus.Send(0x200, uint32_t(nCycle)));
        EXPECT_EQ(oLocal.Receive(0x200, 1).size(), 1u) << "gateway -> vcan0";
        std::printf("interface back, frames through both ways after %lld ms; bridge CPU while away %.1f%%\n",
                    static_cast<long long>(
                        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - oBack)
                            .count()),
                    100 * dShare);
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
