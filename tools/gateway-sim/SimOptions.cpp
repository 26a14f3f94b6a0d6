#include "SimOptions.h"

#include "OrvaneProtocol.h"

#include <getopt.h>

#include <cerrno>
#include <cstdlib>

namespace GatewaySim
{

namespace
{

// Highest CAN port whose TCP port 5001 + 100 * P still fits 16 bits.
constexpr unsigned long MAX_CAN_PORT = 645;
// Highest device port the client library addresses.
constexpr unsigned long MAX_AWIRE_PORT = 99;
// Largest simulated flash: 64 MiB.
constexpr unsigned long MAX_FLASH = 64ul << 20;

enum ELongOnly
{
    eOptLoadId = 1000,
    eOptFreezeAfter,
    eOptCloseAfter,
    eOptAWire,
    eOptAWireFlash,
    eOptAWirePage,
    eOptAWireDelay,
    eOptAWireFailBlock,
    eOptAWireFailStatus
};

// Offset of an aWire port's TCP port from the CAN port with the same number.
constexpr unsigned int AWIRE_TCP_OFFSET = OrvaneAWire::DEVICE_TYPE - OrvaneCan::DEVICE_TYPE;

// Decimal, 0x hexadecimal; the whole text must be a number <= nMax.
bool ParseNumber(const char* pText, unsigned long nMax, unsigned long& nValue)
{
    if (pText == nullptr || *pText == '\0' || *pText == '-')
        return false;
    char* pEnd = nullptr;
    errno = 0;
    nValue = std::strtoul(pText, &pEnd, 0);
    return errno == 0 && *pEnd == '\0' && nValue <= nMax;
}

// "0x207=0x24": command code (a low byte alone means the CAN command with
// that low byte) and the device result byte.
bool ParseFail(const std::string& sText, SFaultSettings& oFaults)
{
    const std::size_t nEquals = sText.find('=');
    if (nEquals == std::string::npos)
        return false;
    unsigned long nCode = 0, nResult = 0;
    if (!ParseNumber(sText.substr(0, nEquals).c_str(), 0x7FFF, nCode) ||
        !ParseNumber(sText.substr(nEquals + 1).c_str(), 0xFF, nResult) || nResult == 0)
        return false;
    if (nCode <= 0xFF)
        nCode |= 0x200;
    oFaults.aoFailCommands[static_cast<unsigned short>(nCode)] = static_cast<unsigned char>(nResult);
    return true;
}

} // namespace

EParseResult ParseSimOptions(int nArgc, char** apArgv, SSimOptions& oOptions, std::string& sError)
{
    static const option s_aoLong[] = {
        {"bind", required_argument, nullptr, 'b'},
        {"tcp-base", required_argument, nullptr, 't'},
        {"echo", no_argument, nullptr, 'e'},
        {"socketcan", required_argument, nullptr, 's'},
        {"load", required_argument, nullptr, 'l'},
        {"load-id", required_argument, nullptr, eOptLoadId},
        {"max-clients", required_argument, nullptr, 'm'},
        {"fail", required_argument, nullptr, 'f'},
        {"freeze-after", required_argument, nullptr, eOptFreezeAfter},
        {"close-after", required_argument, nullptr, eOptCloseAfter},
        {"awire", required_argument, nullptr, eOptAWire},
        {"awire-flash", required_argument, nullptr, eOptAWireFlash},
        {"awire-page", required_argument, nullptr, eOptAWirePage},
        {"awire-delay", required_argument, nullptr, eOptAWireDelay},
        {"awire-fail-block", required_argument, nullptr, eOptAWireFailBlock},
        {"awire-fail-status", required_argument, nullptr, eOptAWireFailStatus},
        {"quiet", no_argument, nullptr, 'q'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    optind = 0; // full re-initialisation, so the parser can run more than once
    opterr = 0;
    unsigned long nValue = 0;
    int nOption;
    while ((nOption = getopt_long(nArgc, apArgv, "b:t:es:l:m:f:qh", s_aoLong, nullptr)) != -1)
    {
        const std::string sArg = optarg != nullptr ? optarg : "";
        switch (nOption)
        {
        case 'b':
            oOptions.sBindAddress = sArg;
            break;
        case 't':
            if (!ParseNumber(optarg, 65535, nValue))
            {
                sError = "invalid TCP base port \"" + sArg + "\"";
                return EParseResult::eError;
            }
            oOptions.nTcpBase = static_cast<unsigned int>(nValue);
            break;
        case 'e':
            oOptions.bEcho = true;
            break;
        case 's':
            oOptions.sSocketCan = sArg;
            break;
        case 'l':
            if (!ParseNumber(optarg, 1000000, nValue))
            {
                sError = "invalid load rate \"" + sArg + "\" (frames per second, at most 1000000)";
                return EParseResult::eError;
            }
            oOptions.nLoadRate = static_cast<unsigned int>(nValue);
            break;
        case eOptLoadId:
            if (!ParseNumber(optarg, 0x1FFFFFFF, nValue))
            {
                sError = "invalid load identifier \"" + sArg + "\"";
                return EParseResult::eError;
            }
            oOptions.nLoadIdentifier = static_cast<unsigned int>(nValue);
            break;
        case 'm':
            if (!ParseNumber(optarg, 1000, nValue) || nValue == 0)
            {
                sError = "invalid connection limit \"" + sArg + "\" (1 to 1000)";
                return EParseResult::eError;
            }
            oOptions.oFaults.nMaxClients = static_cast<int>(nValue);
            break;
        case 'f':
            if (!ParseFail(sArg, oOptions.oFaults))
            {
                sError = "invalid --fail \"" + sArg + "\" (expected COMMAND=RESULT, e.g. 0x207=0x24)";
                return EParseResult::eError;
            }
            break;
        case eOptFreezeAfter:
        case eOptCloseAfter:
            if (!ParseNumber(optarg, 0xFFFFFFFFul, nValue))
            {
                sError = "invalid telegram count \"" + sArg + "\"";
                return EParseResult::eError;
            }
            (nOption == eOptFreezeAfter ? oOptions.oFaults.nFreezeAfter : oOptions.oFaults.nCloseAfter) =
                static_cast<unsigned int>(nValue);
            break;
        case eOptAWire:
            if (!ParseNumber(optarg, MAX_AWIRE_PORT, nValue))
            {
                sError = "invalid aWire port \"" + sArg + "\" (0 to 99)";
                return EParseResult::eError;
            }
            for (int nPort : oOptions.anAWirePorts)
                if (nPort == static_cast<int>(nValue))
                {
                    sError = "aWire port " + sArg + " given twice";
                    return EParseResult::eError;
                }
            oOptions.anAWirePorts.push_back(static_cast<int>(nValue));
            break;
        case eOptAWireFlash:
        case eOptAWirePage:
            if (!ParseNumber(optarg, MAX_FLASH, nValue) || nValue == 0)
            {
                sError = "invalid size \"" + sArg + "\" (1 to 67108864 bytes)";
                return EParseResult::eError;
            }
            (nOption == eOptAWireFlash ? oOptions.oAWire.nFlashSize : oOptions.oAWire.nPageSize) =
                static_cast<unsigned int>(nValue);
            break;
        case eOptAWireDelay:
            if (!ParseNumber(optarg, 60000, nValue))
            {
                sError = "invalid delay \"" + sArg + "\" (0 to 60000 ms)";
                return EParseResult::eError;
            }
            oOptions.nAWireDelayMs = static_cast<unsigned int>(nValue);
            break;
        case eOptAWireFailBlock:
            if (!ParseNumber(optarg, 0x7FFFFFFF, nValue))
            {
                sError = "invalid block number \"" + sArg + "\"";
                return EParseResult::eError;
            }
            oOptions.oAWire.nFailBlock = static_cast<int>(nValue);
            break;
        case eOptAWireFailStatus:
            // 0 and 1 mean finished and running, so they cannot report a failure.
            if (!ParseNumber(optarg, 0xFF, nValue) || nValue < 2)
            {
                sError = "invalid failure status \"" + sArg + "\" (2 to 255)";
                return EParseResult::eError;
            }
            oOptions.oAWire.nFailStatus = static_cast<unsigned char>(nValue);
            break;
        case 'q':
            oOptions.bQuiet = true;
            break;
        case 'h':
            return EParseResult::eHelp;
        default:
            sError = "unknown or incomplete option \"" + std::string(apArgv[optind - 1]) + "\"";
            return EParseResult::eError;
        }
    }
    for (int i = optind; i < nArgc; ++i)
    {
        if (!ParseNumber(apArgv[i], MAX_CAN_PORT, nValue))
        {
            sError = "invalid CAN port \"" + std::string(apArgv[i]) + "\" (0 to 645)";
            return EParseResult::eError;
        }
        for (int nPort : oOptions.anCanPorts)
            if (nPort == static_cast<int>(nValue))
            {
                sError = "CAN port " + std::to_string(nValue) + " given twice";
                return EParseResult::eError;
            }
        oOptions.anCanPorts.push_back(static_cast<int>(nValue));
    }
    if (oOptions.anCanPorts.empty())
        oOptions.anCanPorts.push_back(0);
    for (int nPort : oOptions.anCanPorts)
        if (oOptions.nTcpBase != 0 && oOptions.nTcpBase + 100u * static_cast<unsigned int>(nPort) > 65535u)
        {
            sError = "TCP port of CAN port " + std::to_string(nPort) + " would exceed 65535";
            return EParseResult::eError;
        }
    for (int nPort : oOptions.anAWirePorts)
        if (oOptions.nTcpBase != 0 &&
            oOptions.nTcpBase + AWIRE_TCP_OFFSET + 100u * static_cast<unsigned int>(nPort) > 65535u)
        {
            sError = "TCP port of aWire port " + std::to_string(nPort) + " would exceed 65535";
            return EParseResult::eError;
        }
    if (!oOptions.sSocketCan.empty() && oOptions.anCanPorts.size() != 1)
    {
        sError = "--socketcan needs exactly one CAN port";
        return EParseResult::eError;
    }
    return EParseResult::eRun;
}

std::string HelpText(const char* pProgram)
{
    std::string sText = std::string("Usage: ") + pProgram + " [<options>] [<CAN port> ...]\n";
    sText += "\n"
             "Simulates the CAN ports of an Orvane CAN gateway on this machine, so that the\n"
             "bridge and programs using the Orvane client library can run without hardware.\n"
             "CAN port P is served on TCP port 5001 + 100 * P (CAN port 0, TCP port 5001, when\n"
             "no port is given). Connect, disconnect and alive requests are answered by the\n"
             "library's own transport; every CAN, CANopen and common command is confirmed.\n"
             "Set commands store their values and the get commands return them.\n"
             "\n"
             "Each CAN port has its own bus: a frame a client writes is indicated to every\n"
             "other client of that port (with an 8-byte time stamp when that client switched\n"
             "time stamps on with SET_GLOBALS). With data confirmations on (SET_CONFIG), a\n"
             "write is confirmed with its transmit time. Time stamps and data confirmations\n"
             "follow each client's own last SET_GLOBALS / SET_CONFIG; the get commands\n"
             "return the port's last stored values.\n"
             "\n"
             "Options:\n"
             "  -b, --bind ADDRESS     listen on this IPv4 address (default 127.0.0.1)\n"
             "  -t, --tcp-base PORT    CAN port P listens on PORT + 100 * P (default 5001;\n"
             "                         0 lets the system choose a free port for each)\n"
             "  -e, --echo             also indicate a client's own writes back to it\n"
             "  -s, --socketcan IFACE  the bus is the SocketCAN interface IFACE (e.g. vcan1):\n"
             "                         client frames go out on IFACE, frames on IFACE reach\n"
             "                         the clients (needs exactly one CAN port)\n"
             "  -l, --load RATE        generate RATE frames per second on every bus\n"
             "      --load-id ID       identifier of generated frames (default 0x1F0; above\n"
             "                         0x7FF they are extended frames)\n"
             "Fault injection:\n"
             "  -m, --max-clients N    accept N connections per CAN port; the next connect\n"
             "                         request is refused with result 1 (default 32)\n"
             "  -f, --fail CMD=RESULT  answer command CMD (code such as 0x207, or its low\n"
             "                         byte) with device result RESULT (e.g. 0x24) instead of\n"
             "                         executing it; may be repeated\n"
             "      --freeze-after N   after N telegrams on a connection, answer nothing more\n"
             "                         (alive and disconnect requests included) and\n"
             "                         indicate no frames, keeping the TCP connection open\n"
             "      --close-after N    close a connection after its N-th telegram\n"
             "aWire programmers:\n"
             "      --awire P          also serve an aWire programmer on port P (0 to 99),\n"
             "                         TCP port 5013 + 100 * P (PORT + 12 + 100 * P with\n"
             "                         --tcp-base); may be repeated\n"
             "      --awire-flash N    flash size in bytes, erased to 0xFF (default 2097152)\n"
             "      --awire-page N     page size reported until SET_CONFIG (default 512)\n"
             "      --awire-delay MS   a block write is finished MS ms after the oldest\n"
             "                         pending one (default 2; 0: at once)\n"
             "      --awire-fail-block N  the N-th block write (from 0) fails\n"
             "      --awire-fail-status S progress value reported for it (default 5)\n"
             "Other:\n"
             "  -q, --quiet            no log lines\n"
             "  -h, --help             this text\n"
             "\n"
             "Telegrams with a wrong CRC or an invalid length are counted, logged and not\n"
             "answered; unknown commands and payloads too short for their command are\n"
             "answered with device result 0xFF. The program logs one line per connection\n"
             "event and prints its counters when SIGINT or SIGTERM stops it.\n"
             "\n"
             "Commands answered (CAN device type, confirmation = code | 0x8000):\n"
             "  0x209 INFO, 0x20A status, 0x20C CLOSE (restart), 0x240/0x241 READ/WRITE\n"
             "  DIGITAL, 0x242/0x243 READ/WRITE ANALOG, 0x203 WRITE, 0x205/0x206 SET/GET_CONFIG,\n"
             "  0x207/0x208 SET/GET_GLOBALS, 0x20B SET_TIME, 0x20E GET_TIME, 0x220/0x221\n"
             "  SET/GET_FILTER, 0x222 GET_POWERSTATUS, 0x223 SET_POWERRELAIS,\n"
             "  0x224 SET_POWERACTIVESUPPLIES, 0x251/0x252 SET/GET_ZCARD_PI,\n"
             "  0x260/0x261 CANOPEN_SET/GET_CONFIG, 0x262 CANOPEN_SYNC_MODE, 0x263 CANOPEN_NMT,\n"
             "  0x264 CANOPEN_SYNC, 0x265 CANOPEN_TIME, 0x267 CANOPEN_PDO, 0x268/0x269\n"
             "  CANOPEN_SDO_READ/WRITE, 0x26A/0x26B CANOPEN_SDO_READ/WRITE_BLOCK.\n"
             "CANopen services need CANopen mode on (else result 0xFE); NMT, SYNC, TIME and\n"
             "PDO (types 1-4) go onto the bus as frames, SDOs are answered from a simulated\n"
             "object dictionary per node. In CANopen mode, received SYNC, EMCY, PDO and GUARD\n"
             "frames are indicated as such, every other frame as an undefined message.\n"
             "\n"
             "Commands answered by an aWire programmer (device type 14): 0xE05/0xE06\n"
             "SET/GET_CONFIG, 0xEE0 WRITE BLOCK (confirmed at once; write status 0xEE1\n"
             "indicated with progress 1, then 0 or the failure status, once the block is\n"
             "finished), 0xEE2 ERASE, 0xEE3 READ, 0xEE4 WRITE USER PAGE, 0xEE5 ERASE USER\n"
             "PAGE. Unknown commands and bad payloads are logged and not answered. The flash\n"
             "keeps its contents across connections until the program ends.\n"
             "\n"
             "Example: " +
        std::string(pProgram) + " --echo 0 1\n";
    return sText;
}

} // namespace GatewaySim
