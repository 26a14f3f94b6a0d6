// Runs inside the SocketCAN test VM: orvane-bridge against simulators that are
// killed and restarted many times, refuse, freeze, close or fail. It must
// reconnect, lose no frame sent while up, keep descriptors and threads, not spin.
#include "support/BridgeProcesses.h"

#include <linux/can.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

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

} // namespace
