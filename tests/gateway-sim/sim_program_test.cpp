// orvane-gateway-sim as a program: options, help, start-up, a client served,
// counters printed on SIGTERM.
#include "SimOptions.h"
#include "support/ChildProcess.h"
#include "support/RawPeer.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>

using namespace GatewaySim;
using namespace OrvaneTest;

namespace
{

EParseResult Parse(std::vector<std::string> asWords, SSimOptions& oOptions, std::string& sError)
{
    asWords.insert(asWords.begin(), "sim");
    std::vector<char*> apArgv;
    for (std::string& sWord : asWords)
        apArgv.push_back(&sWord[0]);
    apArgv.push_back(nullptr);
    return ParseSimOptions(static_cast<int>(asWords.size()), apArgv.data(), oOptions, sError);
}

// The TCP port the program announces once it listens; 0 if it does not.
unsigned short ListeningPort(const CChildProcess& oProgram)
{
    const std::string sText = "listening on 127.0.0.1:";
    const std::string sOut = oProgram.WaitForOutput(sText) ? oProgram.Output() : sText + "0";
    return static_cast<unsigned short>(std::stoi(sOut.substr(sOut.find(sText) + sText.size())));
}

bool Exited(int nStatus, int nCode)
{
    return nStatus >= 0 && WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == nCode;
}

TEST(SimOptions, DefaultsAndEveryOption)
{
    SSimOptions oDefaults;
    std::string sError;
    ASSERT_EQ(Parse({}, oDefaults, sError), EParseResult::eRun);
    EXPECT_EQ(oDefaults.sBindAddress, "127.0.0.1");
    EXPECT_EQ(oDefaults.anCanPorts, std::vector<int>{0});
    EXPECT_EQ(oDefaults.nTcpBase, 5001u);
    EXPECT_EQ(oDefaults.oFaults.nMaxClients, 32);
    SSimOptions oCan;
    ASSERT_EQ(Parse({"--socketcan", "vcan1", "-b", "127.0.0.2"}, oCan, sError), EParseResult::eRun) << sError;
    EXPECT_EQ(oCan.sSocketCan, "vcan1");
    EXPECT_EQ(oCan.sBindAddress, "127.0.0.2");

    SSimOptions oOptions;
    ASSERT_EQ(Parse({"2", "--echo", "-l", "500", "--load-id", "0x18FF0001", "--max-clients", "3", "--fail",
                     "0x207=0x24", "-f", "0x03=0x21", "--freeze-after", "5", "--close-after", "7", "-t", "6001", "0"},
                    oOptions, sError),
              EParseResult::eRun)
        << sError;
    EXPECT_EQ(oOptions.anCanPorts, (std::vector<int>{2, 0}));
    EXPECT_TRUE(oOptions.bEcho);
    EXPECT_EQ(oOptions.nLoadRate, 500u);
    EXPECT_EQ(oOptions.nLoadIdentifier, 0x18FF0001u);
    EXPECT_EQ(oOptions.oFaults.nMaxClients, 3);
    EXPECT_EQ(oOptions.oFaults.aoFailCommands, (std::map<unsigned short, unsigned char>{{0x203, 0x21}, {0x207, 0x24}}))
        << "a low byte names the CAN command";
    EXPECT_EQ(oOptions.oFaults.nFreezeAfter, 5u);
    EXPECT_EQ(oOptions.oFaults.nCloseAfter, 7u);
    EXPECT_EQ(oOptions.nTcpBase, 6001u);

    SSimOptions oAWire;
    ASSERT_EQ(Parse({"--awire", "3", "--awire", "0", "--awire-flash", "0x100000", "--awire-page", "3000",
                     "--awire-delay", "0", "--awire-fail-block", "4", "--awire-fail-status", "0x25"},
                    oAWire, sError),
              EParseResult::eRun)
        << sError;
    EXPECT_EQ(oAWire.anAWirePorts, (std::vector<int>{3, 0}));
    EXPECT_EQ(oAWire.anCanPorts, std::vector<int>{0});
    EXPECT_EQ(oAWire.oAWire.nFlashSize, 0x100000u);
    EXPECT_EQ(oAWire.oAWire.nPageSize, 3000u);
    EXPECT_EQ(oAWire.nAWireDelayMs, 0u);
    EXPECT_EQ(oAWire.oAWire.nFailBlock, 4);
    EXPECT_EQ(oAWire.oAWire.nFailStatus, 0x25);
}

TEST(SimOptions, BadCommandLinesAreRefusedAndHelpNamesEveryOption)
{
    const std::vector<std::vector<std::string>> aasBad = {
        {"--fail", "0x207"},
        {"--fail", "0x207=0"},
        {"--fail", "x=1"},
        {"--max-clients", "0"},
        {"--load", "-5"},
        {"646"},
        {"1", "1"},
        {"--socketcan", "vcan1", "0", "1"},
        {"--tcp-base", "65500", "1"},
        {"--no-such-option"},
        {"--load"},
        {"--awire", "100"},
        {"--awire", "1", "--awire", "1"},
        {"--awire-page", "0"},
        {"--awire-fail-status", "1"},
        {"--tcp-base", "65500", "--awire", "1"},
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
    EXPECT_EQ(Parse({"--help"}, oOptions, sError), EParseResult::eHelp);
    const std::string sHelp = HelpText("orvane-gateway-sim");
    for (const char* pWord :
         {"--bind", "--tcp-base", "--echo", "--socketcan", "--load", "--max-clients", "--fail", "--freeze-after",
          "--close-after", "5001 + 100 * P", "SIGTERM", "--awire", "--awire-flash", "--awire-page", "--awire-delay",
          "--awire-fail-block", "--awire-fail-status", "5013 + 100 * P"})
        EXPECT_NE(sHelp.find(pWord), std::string::npos) << pWord;
}

TEST(SimProgram, ServesUntilSigtermThenPrintsCounters)
{
    CChildProcess oProgram({"orvane-gateway-sim", "--tcp-base", "0"}, GATEWAY_SIM_BINARY);
    const unsigned short nPort = ListeningPort(oProgram);
    CRawPeer oClient;
    ASSERT_TRUE(oClient.Open(nPort)) << oProgram.Output();
    ASSERT_TRUE(oClient.SendHex("05 00 08 02 04 00 0F")); // wrong CRC
    ASSERT_TRUE(oClient.SendHex("05 00 06 02 06 00 02")); // GET_CONFIG
    EXPECT_EQ(oClient.ReceiveHex(), "08 00 06 82 06 00 00 00 00 82");
    oClient.Close();
    ASSERT_TRUE(oProgram.WaitForOutput("client 1: disconnected")) << oProgram.Output();

    EXPECT_TRUE(Exited(oProgram.Stop(SIGTERM), 0)) << oProgram.Output();
    const std::string sOut = oProgram.Output();
    for (const char* pText : {"client 1: TCP connection from 127.0.0.1:", "client 1: connected",
                              "with wrong CRC 0x0F (expected 0x0E) ignored",
                              "counters: telegrams=2 confirmations=1 frames_in=0 frames_out=0",
                              "errors=1 (crc=1 length=0 unknown_command=0)"})
        EXPECT_NE(sOut.find(pText), std::string::npos) << pText << "\n" << sOut;
}

TEST(SimProgram, HelpBadOptionAndPortTaken)
{
    CChildProcess oHelp({"orvane-gateway-sim", "--help"}, GATEWAY_SIM_BINARY);
    EXPECT_TRUE(Exited(oHelp.WaitExit(), 0));
    EXPECT_NE(oHelp.Output().find("Usage: orvane-gateway-sim [<options>] [<CAN port> ...]"), std::string::npos)
        << oHelp.Output();

    CChildProcess oBad({GATEWAY_SIM_BINARY, "--fail", "nonsense"});
    EXPECT_TRUE(Exited(oBad.WaitExit(), 2));
    EXPECT_NE(oBad.Output().find("invalid --fail \"nonsense\""), std::string::npos) << oBad.Output();

    CChildProcess oFirst({GATEWAY_SIM_BINARY, "--tcp-base", "0"});
    const std::string sPort = std::to_string(ListeningPort(oFirst));
    CChildProcess oSecond({GATEWAY_SIM_BINARY, "--tcp-base", sPort});
    EXPECT_TRUE(Exited(oSecond.WaitExit(), 1)) << oSecond.Output();
    EXPECT_NE(oSecond.Output().find("cannot listen on 127.0.0.1:" + sPort), std::string::npos) << oSecond.Output();
}

} // namespace
