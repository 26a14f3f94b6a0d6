// orvane-bridge: joins a local SocketCAN interface to one CAN port of an
// Orvane CAN gateway. Frames read from the socket are written to the gateway;
// frames the gateway indicates are written to the socket. A lost gateway link
// is closed and opened again, about once a second, until a signal stops the
// program.
#include "OrvaneDllCan.h"
#include "service_notify.h"
#include "socket_can.h"

#include <getopt.h>
#include <linux/can/error.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace
{

// The project's version, from project(VERSION) in CMakeLists.txt.
const char* const VERSION = ORVANE_VERSION;
const char* const BUILD_DATE = "Jan  9 2015";
const char* const DEFAULT_IP_ADDRESS = "192.168.1.254";

constexpr int CAN_CHANNEL = -1;       // the adapter's only channel
constexpr int OPEN_TIMEOUT_MS = 5000; // TCP connect and connection message
constexpr unsigned int ALIVE_SECONDS = 5;
constexpr int ERROR_TEXT_SIZE = 200;
// Frames moved in one system call at the most, each way.
constexpr int CAN_BATCH = 64;

using CClock = std::chrono::steady_clock;
// Connection attempts and re-opens of a lost interface are made at most this
// often, however many frames end the receive wait meanwhile.
constexpr auto RETRY_PERIOD = std::chrono::seconds(1);
// The service manager hears from the loop this often (watchdog and status).
constexpr auto NOTIFY_PERIOD = std::chrono::milliseconds(500);


// What the command line sets, with the defaults of a run without options.
struct SBridgeSettings
{
    char m_sIPAddress[16] = {};
    int m_nBaudrate = 1000000;
    int m_nCanPort = 0;
    bool m_bTermination = false;
    bool m_bHighSpeed = false;
    bool m_bTimeStamp = false;
    const char* m_sInterface = "can0";

    SBridgeSettings() { std::strcpy(m_sIPAddress, DEFAULT_IP_ADDRESS); }
};

// Parsing either goes on to start the bridge or ends the program with a status.
constexpr int CONTINUE = -1;

const char* BaseName(const char* sPath)
{
    if (sPath == nullptr)
        return "orvane-bridge";
    const char* sSlash = std::strrchr(sPath, '/');
    return sSlash != nullptr ? sSlash + 1 : sPath;
}

} // namespace

// Cleared by sigterm; the main loop runs while it is set.
volatile sig_atomic_t running = 1;
// Set by SIGUSR1: the main loop prints one line of counters and goes on.
static volatile sig_atomic_t printCounters = 0;

namespace
{

// What the bridge has done since it started, for the SIGUSR1 line. Frames
// from the gateway are counted on the library's receive thread, the rest on
// the main thread.
struct SBridgeCounters
{
    std::atomic<unsigned long long> m_nToGateway{0};   // frames written to the gateway
    std::atomic<unsigned long long> m_nFromGateway{0}; // gateway frames written to the socket
    std::atomic<unsigned long long> m_nDropped{0};     // socket frames no open gateway link took
    std::atomic<unsigned long long> m_nReconnects{0};  // connections after the first one
};

SBridgeCounters g_oCounters;

} // namespace

static void usage(FILE* pStream, const char* sProgram)
{
    std::fprintf(pStream, "Usage: %s <interface> [<options>]\n", sProgram);
    std::fprintf(pStream, "Options:\n");
    std::fprintf(pStream, " -i, --ipaddress=<ipaddress>                  ip address of the Orvane CAN (default=%s)\n",
                 DEFAULT_IP_ADDRESS);
    std::fprintf(pStream, " -b, --baudrate=<baudrate>                    bit timing in bps (default=1000000=1MBit)\n");
    std::fprintf(pStream, " -p, --canport=<canport>                      can port of the Orvane CAN (default=0)\n");
    std::fprintf(pStream, " -t, --termination=<0/1>                      Termination (default=0=Off)\n");
    std::fprintf(pStream, " -s, --highspeed=<0/1>                        High speed mode (default=0=Off)\n");
    std::fprintf(pStream, " -d, --timestamp=<0/1>                        Timestamp in messages (default=0=Off)\n");
    std::fprintf(pStream, " -h, --help                                   display this help and exit\n");
    std::fprintf(pStream, "     --version                                show version information and exit\n");
}

static void sigterm(int)
{
    running = 0;
}

static void sigusr1(int)
{
    printCounters = 1;
}

// Frames from the gateway on their way to the socket: MyCallback collects
// the frames of one TCP read, and MyReadEnd, called once that read's frames
// are all handed over, writes them with as few system calls as the kernel
// allows. Both run on the gateway library's receive thread, the only thread
// that writes to the socket; the main thread only reads.
static _can_msg_t g_aoToSocket[CAN_BATCH];
static int g_nToSocket = 0;

// A failing interface (down, going away, a full transmit queue) fails every
// read or write for a while: bReported keeps it to one message until a call
// succeeds again, and there is none while the interface is gone (the main
// loop says so once).
static void ReportSocketError(bool& bReported, FILE* pStream, const char* pcText, int nResult)
{
    if (bReported || can_interface_lost())
        return;
    bReported = true;
    std::fprintf(pStream, "%s", pcText);
    can_error(nResult);
}

static void WriteCollectedFrames()
{
    static bool s_bWriteErrorReported = false;
    for (int nDone = 0; nDone < g_nToSocket;)
    {
        int nSent = 0;
        const int nResult = can_transmit_batch(g_aoToSocket + nDone, g_nToSocket - nDone, &nSent);
        g_oCounters.m_nFromGateway += static_cast<unsigned long long>(nSent);
        nDone += nSent;
        if (nSent > 0)
            s_bWriteErrorReported = false;
        if (nResult == 0)
            break;
        // The frame that failed is left out and the rest tried.
        ReportSocketError(s_bWriteErrorReported, stdout, "Error CAN transmit socket:", nResult);
        ++nDone;
    }
    g_nToSocket = 0;
}

static void MyCallback(unsigned int nIdentifier, const char* pcBuffer, int nBufferLen, int nFlags, int /*nHandle*/,
                       int nSeconds, int nMicroseconds)
{
    _can_msg_t& oMsg = g_aoToSocket[g_nToSocket++];
    oMsg = _can_msg_t{};
    oMsg.id = nIdentifier;
    oMsg.rtr = (nFlags & CAN_FLAG_REMOTE) != 0 ? 1 : 0;
    oMsg.ext = (nFlags & CAN_FLAG_EXTENDED) != 0 ? 1 : 0;
    // A length above 8 stays in the record, so that the write refuses the
    // frame; the copy itself never leaves the data field.
    oMsg.len = static_cast<uint8_t>(nBufferLen);
    if (pcBuffer != nullptr && nBufferLen > 0)
        std::memcpy(oMsg.data, pcBuffer, std::min<size_t>(static_cast<size_t>(nBufferLen), sizeof(oMsg.data)));
    oMsg.timestamp.tv_sec = nSeconds;
    oMsg.timestamp.tv_usec = nMicroseconds;
    if (g_nToSocket == CAN_BATCH)
        WriteCollectedFrames();
}

static void MyReadEnd(int /*nHandle*/)
{
    WriteCollectedFrames();
}

namespace
{

// Decimal, "0x" hexadecimal or leading-"0" octal; 0, garbage (which converts
// to 0) and values beyond 32 bits are refused.
bool ParseBaudrate(const char* sText, int& nBaudrate)
{
    errno = 0;
    const long nValue = std::strtol(sText, nullptr, 0);
    if (errno == 0 && (nValue > INT_MAX || nValue < INT_MIN))
        errno = ERANGE;
    if (errno == ERANGE || errno == EINVAL || nValue == 0)
        return false;
    nBaudrate = static_cast<int>(nValue);
    return true;
}

// Handles the options in the order given, printing each one's trace as it is
// met. Returns CONTINUE, or the exit status when the program is to end here.
int ParseCommandLine(int argc, char** argv, SBridgeSettings& oSettings)
{
    static const option s_aoLongOptions[] = {
        {"baudrate", required_argument, nullptr, 'b'},
        {"ipaddress", required_argument, nullptr, 'i'},
        {"canport", required_argument, nullptr, 'p'},
        {"termination", required_argument, nullptr, 't'},
        {"highspeed", required_argument, nullptr, 's'},
        {"timestamp", required_argument, nullptr, 'd'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'v'},
        {nullptr, 0, nullptr, 0},
    };
    const char* sProgram = BaseName(argv[0]);
    int nOption;
    while ((nOption = getopt_long(argc, argv, "b:i:x:p:t:s:d:h", s_aoLongOptions, nullptr)) != -1)
    {
        switch (nOption)
        {
        case 'b':
            if (!ParseBaudrate(optarg, oSettings.m_nBaudrate))
            {
                std::printf("**** ERROR: Baudrate invalid:%s\n", optarg);
                return 1;
            }
            std::printf("****Baudrate:%s %d****\n", optarg, oSettings.m_nBaudrate);
            break;
        case 'i':
            std::printf("****IP:%s****\n", optarg);
            // The address and its terminator must fit the 16-byte field.
            if (std::strlen(optarg) >= sizeof(oSettings.m_sIPAddress))
            {
                std::printf("**** ERROR: IP-Address invalid\n");
                return 1;
            }
            std::snprintf(oSettings.m_sIPAddress, sizeof(oSettings.m_sIPAddress), "%s", optarg);
            break;
        case 'p':
            std::printf("****Port:%s****\n", optarg);
            oSettings.m_nCanPort = std::atoi(optarg);
            break;
        case 't':
            std::printf("****Termination:%s****\n", optarg);
            oSettings.m_bTermination = std::atoi(optarg) != 0;
            break;
        case 's':
            std::printf("****HighSpeed:%s****\n", optarg);
            oSettings.m_bHighSpeed = std::atoi(optarg) != 0;
            break;
        case 'd':
            std::printf("****Date/Time:%s****\n", optarg);
            oSettings.m_bTimeStamp = std::atoi(optarg) != 0;
            break;
        case 'v':
            std::printf("Version:%s\n", VERSION);
            return 0;
        default: // -h (help is a usage error), -x, unknown options, missing arguments
            usage(stderr, sProgram);
            return 1;
        }
    }
    if (optind >= argc)
    {
        std::fprintf(stderr, "+++ error: no interface given\n");
        usage(stderr, sProgram);
        return 1;
    }
    if (argc - optind > 1)
    {
        std::fprintf(stderr, "+++ error: too many arguments\n");
        usage(stderr, sProgram);
        return 1;
    }
    oSettings.m_sInterface = argv[optind];
    return CONTINUE;
}

// Opens the SocketCAN interface. Returns 0, or the adapter's failing result,
// which becomes the exit status.
int StartSocketCan(const SBridgeSettings& oSettings)
{
    std::printf("Hardware=%s...", oSettings.m_sInterface);
    std::fflush(stdout);
    const can_socket_params_t oParams = {oSettings.m_sInterface, PF_CAN, SOCK_RAW, CAN_RAW};
    int nResult = can_init(CAN_CHANNEL, &oParams, nullptr, 0, false, false);
    if (nResult != 0)
    {
        std::printf("FAILED!\n");
        std::fflush(stdout);
        if (nResult == CAN_RC_SYSTEM)
            std::perror("+++ error");
        else
            std::fprintf(stderr, "+++ error: CAN Controller not initialized (can_init=%i)\n", nResult);
        return nResult;
    }
    std::fflush(stdout);
    nResult = can_start(CAN_CHANNEL);
    if (nResult != 0)
    {
        std::fprintf(stderr, "+++ error: CAN Controller not started (can_start=%i)\n", nResult);
        can_exit();
        return nResult;
    }
    std::printf("OK!\n");
    std::fflush(stdout);
    std::fprintf(stderr, "\nPress ^C to abort.\n\n");
    return 0;
}

// Opens and configures the gateway device. The first failing step ends the
// chain: its text is printed and whatever the handle holds is closed, so the
// next pass starts again from nothing.
void ConnectGateway(int& nHandle, const SBridgeSettings& oSettings, bool& bConnectedBefore)
{
    int nResult = CANOpenDevice(&nHandle, 0, 1, oSettings.m_nCanPort, oSettings.m_sIPAddress, OPEN_TIMEOUT_MS);
    if (nResult == 0)
        nResult = CANSetGlobals(nHandle, static_cast<unsigned int>(oSettings.m_nBaudrate), 0, oSettings.m_bTermination,
                                oSettings.m_bHighSpeed, oSettings.m_bTimeStamp);
    // The read end first: no frame may wait for a read end that is not called.
    if (nResult == 0)
        nResult = CANSetReadEndCallback(nHandle, MyReadEnd);
    if (nResult == 0)
        nResult = CANSetCallbackEx(nHandle, MyCallback);
    if (nResult == 0)
        nResult = CANStartAlive(nHandle, ALIVE_SECONDS);
    if (nResult == 0)
    {
        std::printf("+++ connection to Orvane CAN established\n");
        if (bConnectedBefore)
            ++g_oCounters.m_nReconnects;
        bConnectedBefore = true;
        return;
    }
    char acText[ERROR_TEXT_SIZE] = "";
    CANErrorMessage(nResult, acText, sizeof(acText));
    std::fprintf(stderr, "Orvane Error:%s\n", acText);
    std::fprintf(stderr, "+++ error: could not establish connection to Orvane CAN\n");
    CANCloseDevice(nHandle);
    nHandle = CAN_NO_HANDLE;
}

// Forwards the frames queued on the socket, or the first that comes within a
// second, to the gateway: all of them, in order, in one write. Without an
// open device the write fails on the handle and the frames are dropped
// without a message.
void ForwardFrames(int nHandle)
{
    // An interface that goes down or away reports it on a read or two (down,
    // then gone; a socket bound anew to an interface not yet up says down
    // once more).
    static bool s_bReadErrorReported = false;
    _can_msg_t aoMsgs[CAN_BATCH];
    int nCount = 0;
    const int nResult = can_receive_batch(aoMsgs, CAN_BATCH, &nCount);
    if (nResult == 0)
    {
        s_bReadErrorReported = false;
        SCANFrame aoFrames[CAN_BATCH];
        for (int i = 0; i < nCount; ++i)
        {
            const _can_msg_t& oMsg = aoMsgs[i];
            aoFrames[i].m_nIdentifier = oMsg.id;
            aoFrames[i].m_nFlags = static_cast<unsigned char>((oMsg.rtr != 0 ? CAN_FLAG_REMOTE : 0) |
                                                              (oMsg.ext != 0 ? CAN_FLAG_EXTENDED : 0));
            aoFrames[i].m_nLength = oMsg.len;
            std::memcpy(aoFrames[i].m_acData, oMsg.data, sizeof(oMsg.data));
        }
        // Frames that find no open device or a failing link are counted as
        // dropped; the link itself is looked after by the connect-state check
        // of the next pass.
        int nWritten = 0;
        CANWriteBatch(nHandle, aoFrames, nCount, &nWritten);
        g_oCounters.m_nToGateway += static_cast<unsigned long long>(nWritten);
        g_oCounters.m_nDropped += static_cast<unsigned long long>(nCount - nWritten);
    }
    else if (nResult != CAN_RC_RX_EMPTY)
        ReportSocketError(s_bReadErrorReported, stderr, "Error CAN receive socket:", nResult);
}

// The counters and the link state, as the SIGUSR1 line and the service
// status show them.
std::string FormatCounters(int nHandle, bool bInterfaceLost)
{
    const bool bConnected = nHandle != CAN_NO_HANDLE && CANDeviceConnectState(nHandle) == CAN_STATE_CONNECTED;
    char acLine[256];
    std::snprintf(acLine, sizeof(acLine),
                  "to_gateway=%llu from_gateway=%llu dropped=%llu kernel_dropped=%llu reconnects=%llu state=%s%s",
                  g_oCounters.m_nToGateway.load(), g_oCounters.m_nFromGateway.load(), g_oCounters.m_nDropped.load(),
                  can_kernel_dropped(), g_oCounters.m_nReconnects.load(), bConnected ? "connected" : "disconnected",
                  bInterfaceLost ? " interface=lost" : "");
    return acLine;
}

// One pass of the loop after another: the gateway link, the SocketCAN
// interface and the service manager, each looked after at its own pace.
//
// The loop departs from a pass-paced retry on purpose: every received frame
// ends the receive wait, so retrying on every pass would make one connection
// attempt (and two error lines) per frame while a gateway refuses. Attempts
// are made at most once per RETRY_PERIOD instead; frames that arrive
// meanwhile are read and counted as dropped at once.
//
// A pass also moves several frames, not one, on purpose: every frame already
// queued on the socket is read in one call and written to the gateway in one
// TCP send, in order, and the frames of one read from the gateway go to the
// socket in one call (MyReadEnd). Nothing waits for a batch to fill: a batch
// is what is there when the pass comes, and an empty socket is waited on for
// at most one second as before. One system call and one wake-up per frame
// cost more than a small CPU has to spare at a full bus.
class CBridgeLoop
{
public:
    explicit CBridgeLoop(const SBridgeSettings& oSettings) : m_oSettings(oSettings) {}

    // Runs until a signal clears `running`; returns the handle still open.
    int Run()
    {
        m_oNotifier.Notify("READY=1\nSTATUS=" + FormatCounters(m_nHandle, false));
        for (;;)
        {
            if (running == 0)
                break;
            const CClock::time_point oNow = CClock::now();
            if (printCounters != 0)
            {
                printCounters = 0;
                std::fprintf(stderr, "counters: %s\n", FormatCounters(m_nHandle, m_bInterfaceLost).c_str());
            }
            LookAfterInterface(oNow);
            LookAfterGateway(oNow);
            if (oNow >= m_oNextNotify)
                TellServiceManager(oNow, "WATCHDOG=1\n");
            if (m_nHandle == CAN_NO_HANDLE && !m_bInterfaceLost)
                DiscardUntilNextAttempt();
            else
                ForwardFrames(m_nHandle);
        }
        m_oNotifier.Notify("STOPPING=1");
        return m_nHandle;
    }

private:
    // Without a gateway every frame would be dropped: rather than wake for
    // each one, sleep until the next attempt (or watchdog ping), then read
    // and count what came meanwhile. A signal ends the sleep at once.
    void DiscardUntilNextAttempt()
    {
        CClock::time_point oUntil = std::min(m_oNextAttempt, m_oNextIndexCheck);
        if (m_oNotifier.IsActive())
            oUntil = std::min(oUntil, m_oNextNotify);
        const auto oWait = std::min<CClock::duration>(oUntil - CClock::now(), RETRY_PERIOD);
        if (oWait > CClock::duration::zero())
        {
            const auto nNanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(oWait).count();
            const timespec oSleep = {static_cast<time_t>(nNanoseconds / 1000000000),
                                     static_cast<long>(nNanoseconds % 1000000000)};
            nanosleep(&oSleep, nullptr);
        }
        const int nDiscarded = can_discard_pending();
        if (nDiscarded > 0)
            g_oCounters.m_nDropped += static_cast<unsigned long long>(nDiscarded);
    }

    void TellServiceManager(CClock::time_point oNow, const char* pcPrefix = "")
    {
        if (!m_oNotifier.IsActive())
            return;
        m_oNotifier.Notify(pcPrefix + std::string("STATUS=") + FormatCounters(m_nHandle, m_bInterfaceLost));
        m_oNextNotify = oNow + NOTIFY_PERIOD;
    }

    // A link error frame tells the programs on the interface that asked for
    // error frames what a controller would: bus-off when the gateway link is
    // lost, restarted when it is back. Only on a virtual interface: a real
    // controller's driver would put the frame on its bus as an ordinary one.
    void ReportLinkOnBus(uint32_t nErrorClass)
    {
        if (can_interface_is_virtual())
            can_transmit_error(nErrorClass);
    }

    void LookAfterGateway(CClock::time_point oNow)
    {
        if (m_nHandle != CAN_NO_HANDLE && CANDeviceConnectState(m_nHandle) != CAN_STATE_CONNECTED)
        {
            std::fprintf(stderr, "+++ error: connection to Orvane CAN lost, reconnecting\n");
            CANCloseDevice(m_nHandle);
            m_nHandle = CAN_NO_HANDLE;
            m_bLinkReportedLost = true;
            ReportLinkOnBus(CAN_ERR_BUSOFF);
            TellServiceManager(oNow);
            m_oNextAttempt = oNow; // the first attempt at once, as before
        }
        if (m_nHandle != CAN_NO_HANDLE || oNow < m_oNextAttempt)
            return;
        m_oNextAttempt = oNow + RETRY_PERIOD;
        ConnectGateway(m_nHandle, m_oSettings, m_bConnectedBefore);
        if (m_nHandle == CAN_NO_HANDLE)
            return;
        if (m_bLinkReportedLost)
            ReportLinkOnBus(CAN_ERR_RESTARTED);
        m_bLinkReportedLost = false;
        TellServiceManager(oNow);
    }

    // A deleted interface does not come back to the bound socket by itself:
    // say so once, then open it again by name about once a second.
    void LookAfterInterface(CClock::time_point oNow)
    {
        if (!m_bInterfaceLost)
        {
            bool bLost = can_interface_lost();
            if (!bLost && oNow >= m_oNextIndexCheck)
            {
                m_oNextIndexCheck = oNow + RETRY_PERIOD;
                bLost = can_check_interface();
            }
            if (!bLost)
                return;
            std::fprintf(stderr, "+++ error: CAN interface %s lost, reopening\n", m_oSettings.m_sInterface);
            m_bInterfaceLost = true;
            m_oNextReopen = oNow;
            TellServiceManager(oNow);
        }
        if (oNow < m_oNextReopen)
            return;
        m_oNextReopen = oNow + RETRY_PERIOD;
        if (can_reopen() != 0)
            return;
        std::printf("+++ CAN interface %s is back\n", m_oSettings.m_sInterface);
        m_bInterfaceLost = false;
        m_oNextIndexCheck = oNow + RETRY_PERIOD;
        TellServiceManager(oNow);
    }

    const SBridgeSettings& m_oSettings;
    CServiceNotifier m_oNotifier;
    int m_nHandle = CAN_NO_HANDLE;
    bool m_bConnectedBefore = false;
    bool m_bLinkReportedLost = false;
    bool m_bInterfaceLost = false;
    CClock::time_point m_oNextAttempt{};
    CClock::time_point m_oNextReopen{};
    CClock::time_point m_oNextIndexCheck{};
    CClock::time_point m_oNextNotify{};
};

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGINT, sigterm);
    std::signal(SIGHUP, sigterm);
    std::signal(SIGTERM, sigterm);
    std::signal(SIGUSR1, sigusr1);
    // Whole lines as they happen, also when the output goes to a file or pipe.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    SBridgeSettings oSettings;
    const int nStatus = ParseCommandLine(argc, argv, oSettings);
    if (nStatus != CONTINUE)
        return nStatus;

    std::printf("%s (Connection between SocketCAN and Orvane CAN), version %s of %s\n", BaseName(argv[0]), VERSION,
                BUILD_DATE);
    const int nResult = StartSocketCan(oSettings);
    if (nResult != 0)
        return nResult;

    const int nHandle = CBridgeLoop(oSettings).Run();
    if (nHandle != CAN_NO_HANDLE)
        CANCloseDevice(nHandle);
    can_exit();
    return 0;
}
