// orvane-bridge as a program on this machine: command-line outcomes with their
// exact output and status; valid lines (always naming 127.0.0.1) get as far as
// opening the SocketCAN interface.
#include "support/ChildProcess.h"

#include <gtest/gtest.h>

#include <linux/can.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace
{

const std::string USAGE =
    "Usage: orvane-bridge <interface> [<options>]\n"
    "Options:\n"
    " -i, --ipaddress=<ipaddress>                  ip address of the Orvane CAN (default=192.168.1.254)\n"
    " -b, --baudrate=<baudrate>                    bit timing in bps (default=1000000=1MBit)\n"
    " -p, --canport=<canport>                      can port of the Orvane CAN (default=0)\n"
    " -t, --termination=<0/1>                      Termination (default=0=Off)\n"
    " -s, --highspeed=<0/1>                        High speed mode (default=0=Off)\n"
    " -d, --timestamp=<0/1>                        Timestamp in messages (default=0=Off)\n"
    " -h, --help                                   display this help and exit\n"
    "     --version                                show version information and exit\n";

const std::string BANNER =
    "orvane-bridge (Connection between SocketCAN and Orvane CAN), version 0.2.0 of Jan  9 2015\n";

// What perror prints when the SocketCAN interface "nocan7" cannot be opened
// here: without CAN in the kernel the socket itself fails, with it the bind.
std::string NoCanError()
{
    const int nSocket = socket(PF_CAN, SOCK_RAW, CAN_RAW);
    const int nReason = nSocket < 0 ? errno : ENODEV;
    if (nSocket >= 0)
        close(nSocket);
    return std::string("+++ error: ") + std::strerror(nReason) + "\n";
}

// -10000 as the operating system reports it: its low 8 bits.
constexpr int SYSTEM_FAILURE_STATUS = 240;

struct SCase
{
    const char* pcArgs;
    int nStatus;
    std::string sOut;
    std::string sErr;
    bool bGetoptLine = false; // getopt's own complaint stands before sErr
};

TEST(BridgeProgram, CommandLineOutcomes)
{
    const std::string sNoCan = NoCanError();
    const std::string sNoCanOut = BANNER + "Hardware=nocan7...FAILED!\n";
    // Every line but the empty one names a loopback address, so that no fault
    // in the option checks can send the bridge to its default gateway.
    const std::string IP = "****IP:127.0.0.1****\n";
    const std::vector<SCase> aoCases = {
        {"", 1, "", "+++ error: no interface given\n" + USAGE},
        {"-i 127.0.0.1 nocan7 nocan8", 1, IP, "+++ error: too many arguments\n" + USAGE},
        {"-i 127.0.0.1 -b 0 nocan7", 1, IP + "**** ERROR: Baudrate invalid:0\n", ""},
        {"-i 127.0.0.1 -b 4294967296 nocan7", 1, IP + "**** ERROR: Baudrate invalid:4294967296\n", ""},
        // 16 characters do not fit the address field with its terminator.
        {"-i 127.000.000.0001 nocan7", 1, "****IP:127.000.000.0001****\n**** ERROR: IP-Address invalid\n", ""},
        // -x takes an argument and means nothing; help is a usage error.
        {"-i 127.0.0.1 -x 1 nocan7", 1, IP, USAGE},
        {"-i 127.0.0.1 -h nocan7", 1, IP, USAGE},
        {"-i 127.0.0.1 --bogus nocan7", 1, IP, USAGE, true},
        {"--version -i 127.0.0.1 -b 0 nocan7", 0, "Version:0.2.0\n", ""}, // before anything is opened or checked
        // Valid lines get as far as the SocketCAN interface: interface first,
        // hexadecimal bit rate, 15-character address; long options, octal bit rate.
        {"nocan7 -b 0x7A120 -i 127.000.000.001 -t 2 -s x -d 1 -p 3", SYSTEM_FAILURE_STATUS,
         "****Baudrate:0x7A120 500000****\n****IP:127.000.000.001****\n****Termination:2****\n"
         "****HighSpeed:x****\n****Date/Time:1****\n****Port:3****\n" +
             sNoCanOut,
         sNoCan},
        {"--ipaddress=127.0.0.1 --baudrate=0400 --canport=1 --termination=0 --highspeed=1 --timestamp=0 nocan7",
         SYSTEM_FAILURE_STATUS,
         "****IP:127.0.0.1****\n****Baudrate:0400 256****\n****Port:1****\n****Termination:0****\n"
         "****HighSpeed:1****\n****Date/Time:0****\n" +
             sNoCanOut,
         sNoCan},
    };
    for (const SCase& oCase : aoCases)
    {
        SCOPED_TRACE(oCase.pcArgs);
        const OrvaneTest::SProgramRun oRun =
            OrvaneTest::RunProgram(OrvaneTest::Words(ORVANE_BRIDGE_BINARY " " + std::string(oCase.pcArgs)));
        EXPECT_EQ(oRun.nExit, oCase.nStatus);
        EXPECT_EQ(oRun.sOut, oCase.sOut);
        // getopt's own complaint, when there is one, is the first line.
        const size_t nOwn = oCase.bGetoptLine ? oRun.sErr.find('\n') + 1 : 0;
        EXPECT_EQ(oRun.sErr.substr(0, nOwn).find("orvane-bridge: ") != std::string::npos, oCase.bGetoptLine)
            << oRun.sErr;
        EXPECT_EQ(oRun.sErr.substr(nOwn), oCase.sErr);
    }
}

} // namespace
