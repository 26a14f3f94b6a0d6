// Runs inside the SocketCAN test VM: orvane-gateway-sim with its bus on vcan1,
// a raw TCP client on loopback, candump and cansend on vcan1.
#include "support/RawClient.h"
#include "support/TelegramBytes.h"

#include "SimWire.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using SimTest::CRawClient;
using SimTest::FromHex;
using SimTest::ToHex;

namespace
{

constexpr unsigned short SIM_PORT = 5001;

// Starts a program found on PATH with its output in a file; killed at the end.
class CChild
{
public:
    CChild(const std::vector<std::string>& asArgs, const std::string& sOutput)
    {
        m_nPid = fork();
        if (m_nPid == 0)
        {
            const int nOut = open(sOutput.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(nOut, 1);
            dup2(nOut, 2);
            std::vector<std::string> asCopy(asArgs);
            std::vector<char*> apArgv;
            for (std::string& sArg : asCopy)
                apArgv.push_back(&sArg[0]);
            apArgv.push_back(nullptr);
            execvp(apArgv[0], apArgv.data());
            _exit(127);
        }
    }
    ~CChild()
    {
        if (m_nPid > 0)
        {
            kill(m_nPid, SIGTERM);
            waitpid(m_nPid, nullptr, 0);
        }
    }
    // True once the child has exited (within nTimeoutMs).
    bool Exited(int nTimeoutMs)
    {
        for (int nWaited = 0; nWaited <= nTimeoutMs; nWaited += 20)
        {
            if (waitpid(m_nPid, nullptr, WNOHANG) == m_nPid)
            {
                m_nPid = -1;
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

private:
    pid_t m_nPid = -1;
};

std::string ReadFile(const std::string& sPath)
{
    std::ifstream oFile(sPath);
    std::stringstream oText;
    oText << oFile.rdbuf();
    return oText.str();
}

// True when one line of candump's output holds every part.
bool HasLine(const std::string& sDump, const std::vector<std::string>& asParts)
{
    std::istringstream oLines(sDump);
    std::string sLine;
    while (std::getline(oLines, sLine))
    {
        bool bAll = true;
        for (const std::string& sPart : asParts)
            bAll = bAll && sLine.find(sPart) != std::string::npos;
        if (bAll)
            return true;
    }
    return false;
}

class GatewaySimVm : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_poSim = new CChild({"orvane-gateway-sim", "--socketcan", "vcan1", "--tcp-base", std::to_string(SIM_PORT)},
                             "/tmp/gateway-sim.log");
    }
    static void TearDownTestSuite()
    {
        delete s_poSim;
        s_poSim = nullptr;
        std::printf("--- simulator log ---\n%s", ReadFile("/tmp/gateway-sim.log").c_str());
    }
    // Connects once the simulator listens (it starts in the background).
    static bool OpenClient(CRawClient& oClient)
    {
        for (int i = 0; i < 250; ++i)
        {
            if (oClient.Open(SIM_PORT))
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

    static CChild* s_poSim;
};

CChild* GatewaySimVm::s_poSim = nullptr;

TEST_F(GatewaySimVm, FrameWrittenByAClientAppearsOnVcan1InCandump)
{
    CRawClient oClient;
    ASSERT_TRUE(OpenClient(oClient));
    // candump ends after two frames; until it listens, frames written before
    // are simply not seen, so the client writes until candump has exited.
    CChild oCandump({"candump", "-n", "2", "vcan1"}, "/tmp/candump.txt");
    const std::string sStandard = GatewaySim::BuildTelegram(0x203, 1, FromHex("23 01 00 00 00 11 22"));
    const std::string sExtended = GatewaySim::BuildTelegram(0x203, 2, FromHex("78 56 34 12 01 DE AD"));
    bool bExited = false;
    for (int i = 0; i < 100 && !bExited; ++i)
    {
        ASSERT_TRUE(oClient.Send(sStandard + sExtended));
        bExited = oCandump.Exited(100);
    }
    ASSERT_TRUE(bExited) << "candump saw nothing on vcan1";
    const std::string sDump = ReadFile("/tmp/candump.txt");
    EXPECT_TRUE(HasLine(sDump, {"vcan1", " 123 ", "[2]", "11 22"})) << sDump;
    EXPECT_TRUE(HasLine(sDump, {"vcan1", "12345678", "[2]", "DE AD"})) << sDump;
}

TEST_F(GatewaySimVm, FrameSentWithCansendReachesTheClient)
{
    CRawClient oClient;
    ASSERT_TRUE(OpenClient(oClient));
    ASSERT_EQ(std::system("cansend vcan1 456#AABBCC"), 0);
    EXPECT_EQ(oClient.ReceiveHex(), ToHex(GatewaySim::BuildTelegram(0x203, 0, FromHex("56 04 00 00 00 AA BB CC"))));
    ASSERT_EQ(std::system("cansend vcan1 1ABCDEF0#01"), 0);
    EXPECT_EQ(oClient.ReceiveHex(), ToHex(GatewaySim::BuildTelegram(0x203, 0, FromHex("F0 DE BC 1A 01 01"))));
    // A remote frame keeps its flag.
    ASSERT_EQ(std::system("cansend vcan1 321#R"), 0);
    EXPECT_EQ(oClient.ReceiveHex(), ToHex(GatewaySim::BuildTelegram(0x203, 0, FromHex("21 03 00 00 02"))));
}

} // namespace
