// orvane-gateway-sim as a program: command line, start-up, a client served,
// counters printed on SIGTERM.
#include "SimOptions.h"
#include "support/RawClient.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

using namespace GatewaySim;

namespace
{

// Parses a command line given as words (the program name first).
EParseResult Parse(std::vector<std::string> asWords, SSimOptions& oOptions, std::string& sError)
{
    std::vector<char*> apArgv;
    for (std::string& sWord : asWords)
        apArgv.push_back(&sWord[0]);
    apArgv.push_back(nullptr);
    return ParseSimOptions(static_cast<int>(asWords.size()), apArgv.data(), oOptions, sError);
}

TEST(SimOptions, DefaultsServeCanPortZeroOnLoopback)
{
    SSimOptions oOptions;
    std::string sError;
    ASSERT_EQ(Parse({"sim"}, oOptions, sError), EParseResult::eRun);
    EXPECT_EQ(oOptions.sBindAddress, "127.0.0.1");
    EXPECT_EQ(oOptions.anCanPorts, std::vector<int>{0});
    EXPECT_EQ(oOptions.nTcpBase, 5001u);
    EXPECT_FALSE(oOptions.bEcho);
    EXPECT_TRUE(oOptions.sSocketCan.empty());
    EXPECT_EQ(oOptions.oFaults.nMaxClients, 32);
}

TEST(SimOptions, EveryOptionIsTaken)
{
    SSimOptions oOptions;
    std::string sError;
    ASSERT_EQ(Parse({"sim", "2", "--echo", "-l", "500", "--load-id", "0x18FF0001", "--max-clients", "3", "--fail",
                     "0x207=0x24", "-f", "0x03=0x21", "--freeze-after", "5", "--close-after", "7", "-t", "6001", "0"},
                    oOptions, sError),
              EParseResult::eRun)
        << sError;
    EXPECT_EQ(oOptions.anCanPorts, (std::vector<int>{2, 0}));
    EXPECT_TRUE(oOptions.bEcho);
    EXPECT_EQ(oOptions.nLoadRate, 500u);
    EXPECT_EQ(oOptions.nLoadIdentifier, 0x18FF0001u);
    EXPECT_EQ(oOptions.oFaults.nMaxClients, 3);
    ASSERT_EQ(oOptions.oFaults.aoFailCommands.size(), 2u);
    EXPECT_EQ(oOptions.oFaults.aoFailCommands.at(0x207), 0x24);
    EXPECT_EQ(oOptions.oFaults.aoFailCommands.at(0x203), 0x21) << "a low byte names the CAN command";
    EXPECT_EQ(oOptions.oFaults.nFreezeAfter, 5u);
    EXPECT_EQ(oOptions.oFaults.nCloseAfter, 7u);
    EXPECT_EQ(oOptions.nTcpBase, 6001u);

    SSimOptions oCan;
    ASSERT_EQ(Parse({"sim", "--socketcan", "vcan1", "-b", "127.0.0.2"}, oCan, sError), EParseResult::eRun);
    EXPECT_EQ(oCan.sSocketCan, "vcan1");
    EXPECT_EQ(oCan.sBindAddress, "127.0.0.2");
}

TEST(SimOptions, BadCommandLinesAreRefused)
{
    const std::vector<std::vector<std::string>> aasBad = {
        {"sim", "--fail", "0x207"},          {"sim", "--fail", "0x207=0"},   {"sim", "--fail", "x=1"},
        {"sim", "--max-clients", "0"},        {"sim", "--load", "-5"},        {"sim", "646"},
        {"sim", "1", "1"},                    {"sim", "--socketcan", "vcan1", "0", "1"},
        {"sim", "--tcp-base", "65500", "1"}, {"sim", "--no-such-option"},     {"sim", "--load"},
    };
    for (const auto& asWords : aasBad)
    {
        SSimOptions oOptions;
        std::string sError;
        EXPECT_EQ(Parse(asWords, oOptions, sError), EParseResult::eError) << asWords.back();
        EXPECT_FALSE(sError.empty());
    }
    SSimOptions oOptions;
    std::string sError;
    EXPECT_EQ(Parse({"sim", "--help"}, oOptions, sError), EParseResult::eHelp);
    const std::string sHelp = HelpText("orvane-gateway-sim");
    for (const char* pWord : {"--bind", "--tcp-base", "--echo", "--socketcan", "--load", "--max-clients", "--fail",
                              "--freeze-after", "--close-after", "5001 + 100 * P", "SIGTERM"})
        EXPECT_NE(sHelp.find(pWord), std::string::npos) << pWord;
}

// Runs the program with its output in a pipe.
class CProgram
{
public:
    explicit CProgram(const std::vector<std::string>& asArgs)
    {
        int anPipe[2];
        if (pipe(anPipe) != 0)
            return;
        m_nPid = fork();
        if (m_nPid == 0)
        {
            dup2(anPipe[1], 1);
            dup2(anPipe[1], 2);
            close(anPipe[0]);
            std::vector<char*> apArgv;
            std::vector<std::string> asCopy(asArgs);
            for (std::string& sArg : asCopy)
                apArgv.push_back(&sArg[0]);
            apArgv.push_back(nullptr);
            execv(GATEWAY_SIM_BINARY, apArgv.data());
            _exit(127);
        }
        close(anPipe[1]);
        m_nOutput = anPipe[0];
    }
    ~CProgram()
    {
        if (m_nPid > 0)
        {
            kill(m_nPid, SIGKILL);
            waitpid(m_nPid, nullptr, 0);
        }
        if (m_nOutput >= 0)
            close(m_nOutput);
    }
    // Reads output until sText has appeared (true) or the time is up.
    bool WaitForOutput(const std::string& sText, int nTimeoutMs = 10000)
    {
        for (int nWaited = 0; m_sOutput.find(sText) == std::string::npos; nWaited += 50)
        {
            if (nWaited >= nTimeoutMs)
                return false;
            pollfd oPoll{m_nOutput, POLLIN, 0};
            if (poll(&oPoll, 1, 50) > 0)
            {
                char acChunk[4096];
                const ssize_t nRead = read(m_nOutput, acChunk, sizeof(acChunk));
                if (nRead <= 0)
                    return m_sOutput.find(sText) != std::string::npos;
                m_sOutput.append(acChunk, static_cast<std::size_t>(nRead));
            }
        }
        return true;
    }
    // Sends the signal and returns the exit status.
    int Stop(int nSignal)
    {
        kill(m_nPid, nSignal);
        int nStatus = 0;
        waitpid(m_nPid, &nStatus, 0);
        m_nPid = -1;
        WaitForOutput("\x01", 1000); // drain what is left
        return nStatus;
    }
    int Wait()
    {
        int nStatus = 0;
        waitpid(m_nPid, &nStatus, 0);
        m_nPid = -1;
        WaitForOutput("\x01", 1000);
        return nStatus;
    }
    const std::string& Output() const { return m_sOutput; }

private:
    pid_t m_nPid = -1;
    int m_nOutput = -1;
    std::string m_sOutput;
};

TEST(SimProgram, ServesUntilSigtermThenPrintsCounters)
{
    const unsigned short nPort = SimTest::FreeTcpPort();
    CProgram oProgram({"orvane-gateway-sim", "--tcp-base", std::to_string(nPort)});
    ASSERT_TRUE(oProgram.WaitForOutput("listening on 127.0.0.1:" + std::to_string(nPort))) << oProgram.Output();

    SimTest::CRawClient oClient;
    ASSERT_TRUE(oClient.Open(nPort));
    ASSERT_TRUE(oClient.SendHex("05 00 08 02 04 00 0F")); // wrong CRC
    ASSERT_TRUE(oClient.SendHex("05 00 06 02 06 00 02")); // GET_CONFIG
    EXPECT_EQ(oClient.ReceiveHex(), "08 00 06 82 06 00 00 00 00 82");
    oClient.Close();
    ASSERT_TRUE(oProgram.WaitForOutput("client 1: disconnected")) << oProgram.Output();

    const int nStatus = oProgram.Stop(SIGTERM);
    EXPECT_TRUE(WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0) << oProgram.Output();
    const std::string& sOut = oProgram.Output();
    EXPECT_NE(sOut.find("client 1: TCP connection from 127.0.0.1:"), std::string::npos) << sOut;
    EXPECT_NE(sOut.find("client 1: connected"), std::string::npos) << sOut;
    EXPECT_NE(sOut.find("with wrong CRC 0x0F (expected 0x0E) ignored"), std::string::npos) << sOut;
    EXPECT_NE(sOut.find("counters: telegrams=2 confirmations=1 frames_in=0 frames_out=0"), std::string::npos) << sOut;
    EXPECT_NE(sOut.find("errors=1 (crc=1 length=0 unknown_command=0)"), std::string::npos) << sOut;
}

TEST(SimProgram, HelpAndBadOptions)
{
    CProgram oHelp({"orvane-gateway-sim", "--help"});
    int nStatus = oHelp.Wait();
    EXPECT_TRUE(WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0);
    EXPECT_NE(oHelp.Output().find("Usage: orvane-gateway-sim [<options>] [<CAN port> ...]"), std::string::npos);

    CProgram oBad({"orvane-gateway-sim", "--fail", "nonsense"});
    nStatus = oBad.Wait();
    EXPECT_TRUE(WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 2);
    EXPECT_NE(oBad.Output().find("invalid --fail \"nonsense\""), std::string::npos) << oBad.Output();

    // A port already taken cannot be served: exit status 1.
    const unsigned short nPort = SimTest::FreeTcpPort();
    CProgram oFirst({"orvane-gateway-sim", "--tcp-base", std::to_string(nPort)});
    ASSERT_TRUE(oFirst.WaitForOutput("listening"));
    CProgram oSecond({"orvane-gateway-sim", "--tcp-base", std::to_string(nPort)});
    nStatus = oSecond.Wait();
    EXPECT_TRUE(WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 1) << oSecond.Output();
    EXPECT_NE(oSecond.Output().find("cannot listen on 127.0.0.1:" + std::to_string(nPort)), std::string::npos)
        << oSecond.Output();
}

} // namespace
