// orvane-gateway-sim as a program: options, help, start-up, a client served,
// counters printed on SIGTERM.
#include "SimOptions.h"
#include "support/ChildProcess.h"
#include "support/RawPeer.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <sstream>

using namespace GatewaySim;
using namespace OrvaneTest;

namespace
{

// Parses a command line given as words separated by single blanks.
EParseResult Parse(const std::string& sLine, SSimOptions& oOptions, std::string& sError)
{
    std::vector<std::string> asWords = Words("sim " + sLine);
    std::vector<char*> apArgv;
    for (std::string& sWord : asWords)
        apArgv.push_back(&sWord[0]);
    apArgv.push_back(nullptr);
    return ParseSimOptions(static_cast<int>(asWords.size()), apArgv.data(), oOptions, sError);
}

// Every option's field in one line, identifiers and sizes in hexadecimal.
std::string Describe(const SSimOptions& o)
{
    std::ostringstream oText;
    const auto List = [&](const std::vector<int>& anPorts) {
        for (int nPort : anPorts)
            oText << nPort << ",";
    };
    oText << "bind=" << o.sBindAddress << " can=";
    List(o.anCanPorts);
    oText << " tcp=" << o.nTcpBase << " echo=" << o.bEcho << " socketcan=" << o.sSocketCan << " load=" << o.nLoadRate
          << std::hex << "/" << o.nLoadIdentifier << std::dec << " max=" << o.oFaults.nMaxClients << std::hex
          << " fail=";
    for (const auto& oFail : o.oFaults.aoFailCommands)
        oText << oFail.first << "=" << int(oFail.second) << ",";
    oText << std::dec << " freeze=" << o.oFaults.nFreezeAfter << " close=" << o.oFaults.nCloseAfter << " awire=";
    List(o.anAWirePorts);
    oText << std::hex << " flash=" << o.oAWire.nFlashSize << std::dec << " page=" << o.oAWire.nPageSize
          << " delay=" << o.nAWireDelayMs << " block=" << o.oAWire.nFailBlock << std::hex
          << " status=" << int(o.oAWire.nFailStatus);
    return oText.str();
}

TEST(SimOptions, DefaultsAndEveryOption)
{
    const struct
    {
        const char* pcLine;
        std::string sExpected;
    } aoCases[] = {
        {"",
         "bind=127.0.0.1 can=0, tcp=5001 echo=0 socketcan= load=0/1f0 max=32 fail= freeze=0 close=0 awire= "
         "flash=200000 page=512 delay=2 block=-1 status=5"},
        // A --fail code's low byte alone names the CAN command.
        {"2 --echo -l 500 --load-id 0x18FF0001 --max-clients 3 --fail 0x207=0x24 -f 0x03=0x21 --freeze-after 5 "
         "--close-after 7 -t 6001 0",
         "bind=127.0.0.1 can=2,0, tcp=6001 echo=1 socketcan= load=500/18ff0001 max=3 fail=203=21,207=24, freeze=5 "
         "close=7 awire= flash=200000 page=512 delay=2 block=-1 status=5"},
        {"--socketcan vcan1 -b 127.0.0.2 --awire 3 --awire 0 --awire-flash 0x100000 --awire-page 3000 --awire-delay 0 "
         "--awire-fail-block 4 --awire-fail-status 0x25",
         "bind=127.0.0.2 can=0, tcp=5001 echo=0 socketcan=vcan1 load=0/1f0 max=32 fail= freeze=0 close=0 awire=3,0, "
         "flash=100000 page=3000 delay=0 block=4 status=25"},
    };
    for (const auto& oCase : aoCases)
    {
        SSimOptions oOptions;
        std::string sError;
        ASSERT_EQ(Parse(oCase.pcLine, oOptions, sError), EParseResult::eRun) << sError;
        EXPECT_EQ(Describe(oOptions), oCase.sExpected);
    }
}

TEST(SimOptions, BadCommandLinesAreRefused)
{
    for (const char* pcLine :
         {"--fail 0x207", "--fail 0x207=0", "--fail x=1", "--max-clients 0", "--load -5", "646", "1 1",
          "--socketcan vcan1 0 1", "--tcp-base 65500 1", "--no-such-option", "--load", "--awire 100",
          "--awire 1 --awire 1", "--awire-page 0", "--awire-fail-status 1", "--tcp-base 65500 --awire 1"})
    {
        SSimOptions oOptions;
        std::string sError;
        EXPECT_EQ(Parse(pcLine, oOptions, sError), EParseResult::eError) << pcLine;
        EXPECT_FALSE(sError.empty());
    }
}

TEST(SimProgram, HelpBadOptionAndServingUntilSigtermThenCounters)
{
    const SProgramRun oHelp = RunProgram({GATEWAY_SIM_BINARY, "--help"});
    EXPECT_EQ(oHelp.nExit, 0);
    EXPECT_EQ(oHelp.sOut.rfind("Usage: " GATEWAY_SIM_BINARY " [<options>] [<CAN port> ...]", 0), 0u) << oHelp.sOut;
    for (const char* pcPorts : {"5001 + 100 * P", "5013 + 100 * P"}) // the CAN and aWire ports of port P
        EXPECT_NE(oHelp.sOut.find(pcPorts), std::string::npos) << pcPorts;
    const SProgramRun oBad = RunProgram({GATEWAY_SIM_BINARY, "--fail", "nonsense"});
    EXPECT_EQ(oBad.nExit, 2);
    EXPECT_NE(oBad.sErr.find("invalid --fail \"nonsense\""), std::string::npos) << oBad.sErr;

    CChildProcess oProgram({"orvane-gateway-sim", "--tcp-base", "0"}, GATEWAY_SIM_BINARY);
    const std::string sListening = "listening on 127.0.0.1:"; // the port the system chose follows
    ASSERT_TRUE(oProgram.WaitForOutput(sListening)) << oProgram.Output();
    const std::string sOutput = oProgram.Output();
    const int nPort = std::stoi(sOutput.substr(sOutput.find(sListening) + sListening.size()));
    const std::string sPort = std::to_string(nPort);
    CRawPeer oClient;
    ASSERT_TRUE(oClient.Open(static_cast<unsigned short>(nPort))) << sOutput;
    ASSERT_TRUE(oClient.SendHex("05 00 08 02 04 00 0F")); // wrong CRC
    ASSERT_TRUE(oClient.SendHex("05 00 06 02 06 00 02")); // GET_CONFIG
    EXPECT_EQ(oClient.ReceiveHex(), "08 00 06 82 06 00 00 00 00 82");
    oClient.Close();
    ASSERT_TRUE(oProgram.WaitForOutput("client 1: disconnected")) << oProgram.Output();

    // A second simulator cannot listen on the port taken.
    const SProgramRun oSecond = RunProgram({GATEWAY_SIM_BINARY, "--tcp-base", sPort});
    EXPECT_EQ(oSecond.nExit, 1);
    EXPECT_NE(oSecond.sErr.find("cannot listen on 127.0.0.1:" + sPort), std::string::npos) << oSecond.sErr;

    EXPECT_TRUE(ExitedWith(oProgram.Stop(SIGTERM), 0)) << oProgram.Output();
    const std::string sOut = oProgram.Output();
    for (const char* pText : {"client 1: TCP connection from 127.0.0.1:", "client 1: connected",
                              "with wrong CRC 0x0F (expected 0x0E) ignored",
                              "counters: telegrams=2 confirmations=1 frames_in=0 frames_out=0",
                              "errors=1 (crc=1 length=0 unknown_command=0)"})
        EXPECT_NE(sOut.find(pText), std::string::npos) << pText << "\n" << sOut;
}

} // namespace
