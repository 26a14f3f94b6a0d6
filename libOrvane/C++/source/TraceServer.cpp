#include "TraceServer.h"

#include "KelIPBase.h"
#include "KelSocketWait.h"
#include "TraceTelegram.h"
#include "libKelMutex.h"
#include "libKelThread.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace
{
// Where the server reports its own activation, when the viewer asks for it.
const unsigned char ACTIVATION_LEVEL = 0x04;
const unsigned char ACTIVATION_CATEGORY = 1;
const unsigned int ACTIVATION_MASK = 0x02;
const unsigned short ACTIVATION_LINE = 460;
const char* const ACTIVATION_FILE = "libOrvane/C++/source/TraceServer";
const char* const ACTIVATION_TEXT = "CTraceServer::CReceiveThread::Run(): received ActivateRequest";

const int RECEIVE_POLL_MS = 1000;
const size_t MAX_DATAGRAM = 65535;

unsigned short TextLength(const char* pcText)
{
    if (pcText == nullptr)
    {
        return 0;
    }
    const size_t length = std::strlen(pcText);
    return static_cast<unsigned short>(length > 0xFFFF ? 0xFFFF : length);
}

int SendTelegram(int nSocket, const CTraceTelegram& oTelegram, const sockaddr_storage& oAddress, socklen_t nLength)
{
    const std::vector<char> bytes = oTelegram.Serialize();
    const ssize_t sent = sendto(nSocket, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&oAddress), nLength);
    return sent >= 0 && static_cast<size_t>(sent) == bytes.size() ? 0 : -6;
}
} // namespace

// ---------------------------------------------------------------- receive thread

// Serves the viewer's requests: activate, get categories. Polls the socket
// once a second for the termination request; Stop() also wakes the wait at
// once by shutting the socket down.
class CTraceServer::CReceiveThread : public CKelThread
{
public:
    CReceiveThread() : CKelThread(0), m_bStopping(false), m_acBuffer(MAX_DATAGRAM) {}
    ~CReceiveThread() override { Terminate(); }

    void Stop(int nSocket)
    {
        m_bStopping.store(true);
        shutdown(nSocket, SHUT_RDWR);
        Terminate();
    }

protected:
    void Run() override
    {
        while (!m_bStopping.load() && !IsTerminationRequested())
        {
            const int socket = CTraceServer::m_nSocket.load(std::memory_order_relaxed);
            if (KelWaitForSocket(socket, POLLIN, RECEIVE_POLL_MS) != 1 || m_bStopping.load())
            {
                continue;
            }
            sockaddr_storage sender = {};
            socklen_t senderLen = sizeof(sender);
            const ssize_t received = recvfrom(socket, m_acBuffer.data(), m_acBuffer.size(), 0,
                                              reinterpret_cast<sockaddr*>(&sender), &senderLen);
            if (received < 0)
            {
                continue;
            }
            Dispatch(static_cast<unsigned short>(received), sender, senderLen);
        }
    }

private:
    void Dispatch(unsigned short nSize, const sockaddr_storage& oSender, socklen_t nSenderLen)
    {
        const CTraceTelegram telegram(nSize, m_acBuffer.data());
        switch (telegram.GetType())
        {
        case TRACE_ACTIVATE_REQ:
            OnActivateRequest(CTraceActivateReqTelegram(nSize, m_acBuffer.data()), oSender, nSenderLen);
            break;
        case TRACE_GET_CATEGORIES_REQ:
            OnGetCategoriesRequest(oSender, nSenderLen);
            break;
        default:
            std::fprintf(stderr, "received unexpected telegram with type 0x%02x\n", telegram.GetType());
            break;
        }
    }

    static void OnActivateRequest(const CTraceActivateReqTelegram& oRequest, const sockaddr_storage& oSender,
                                  socklen_t nSenderLen)
    {
        const unsigned char crc = oRequest.CalcCrc();
        if (oRequest.GetCrc() != crc)
        {
            std::fprintf(stderr, "received activate request telegram with invalid CRC\n");
            std::fprintf(stderr, "received CRC=%02x\tcalculated CRC=%02x\n", oRequest.GetCrc(), crc);
            return;
        }
        m_nActiveLevels.store(oRequest.GetTraceLevel(), std::memory_order_relaxed);
        for (unsigned char category = 0; category < CATEGORY_COUNT; ++category)
        {
            // Masks beyond the requested count are switched off.
            m_anCategoryFilters[category].store(oRequest.GetFilterBitmask(category), std::memory_order_relaxed);
        }
        {
            CKelLockGuard lock(m_oTelegramCounterMutex);
            m_oSockAddr = oSender;
            m_nAddrLen.store(nSenderLen, std::memory_order_relaxed);
            char host[INET6_ADDRSTRLEN];
            const char* numeric = getIpStr(reinterpret_cast<const sockaddr*>(&oSender), host, sizeof(host));
            m_sClientHost = numeric != nullptr ? numeric : "";
            m_nClientUdpPort = KelPortOf(oSender);
        }
        // Reaches the new viewer only if it switched on level 4 and mask 2 of
        // category 1: SendTraceMessage makes exactly these tests.
        SendTraceMessage(ACTIVATION_LEVEL, ACTIVATION_CATEGORY, ACTIVATION_MASK, ACTIVATION_LINE, ACTIVATION_FILE,
                         ACTIVATION_TEXT, 0);
    }

    static void OnGetCategoriesRequest(const sockaddr_storage& oSender, socklen_t nSenderLen)
    {
        CTraceGetCategoriesCnfTelegram confirmation;
        {
            CKelLockGuard lock(m_oTelegramCounterMutex);
            confirmation.SetCounter(m_nTelegramCounter++);
            int highest = static_cast<int>(CATEGORY_COUNT) - 1;
            while (highest >= 0 && m_asCategoryNames[highest].empty())
            {
                --highest;
            }
            for (int category = 0; category <= highest; ++category)
            {
                const std::string& name = m_asCategoryNames[category];
                confirmation.SetCategoryName(static_cast<unsigned char>(category),
                                             static_cast<unsigned char>(name.size() > 0xFF ? 0xFF : name.size()),
                                             name.data());
            }
        }
        SendTelegram(m_nSocket.load(std::memory_order_relaxed), confirmation, oSender, nSenderLen);
    }

    std::atomic<bool> m_bStopping;
    std::vector<char> m_acBuffer;
};

// ---------------------------------------------------------------- server state

std::atomic<int> CTraceServer::m_nSocket{-1};
unsigned short CTraceServer::m_nServerUdpPort = 0;
CTraceServer::CReceiveThread* CTraceServer::m_poReceiveThread = nullptr;
std::atomic<unsigned char> CTraceServer::m_nActiveLevels{0};
std::atomic<unsigned int> CTraceServer::m_anCategoryFilters[CTraceServer::CATEGORY_COUNT] = {};
std::string CTraceServer::m_asCategoryNames[CTraceServer::CATEGORY_COUNT];
sockaddr_storage CTraceServer::m_oSockAddr = {};
std::atomic<socklen_t> CTraceServer::m_nAddrLen{0};
std::string CTraceServer::m_sClientHost;
unsigned short CTraceServer::m_nClientUdpPort = 0;
unsigned short CTraceServer::m_nTelegramCounter = 0;
CKelMutex CTraceServer::m_oTelegramCounterMutex;

// ---------------------------------------------------------------- interface

int CTraceServer::Init(unsigned short nPort)
{
    addrinfo hints = {};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* addresses = nullptr;
    const int resolved = getaddrinfo(nullptr, std::to_string(nPort).c_str(), &hints, &addresses);
    if (resolved != 0)
    {
        std::fprintf(stderr, "getaddrinfo: %s\n", gai_strerror(resolved));
        return resolved;
    }
    int boundSocket = -1;
    for (const addrinfo* address = addresses; address != nullptr && boundSocket < 0; address = address->ai_next)
    {
        const int candidate = socket(address->ai_family, address->ai_socktype, address->ai_protocol);
        if (candidate < 0)
        {
            continue;
        }
        if (bind(candidate, address->ai_addr, address->ai_addrlen) == 0)
        {
            boundSocket = candidate;
        }
        else
        {
            close(candidate);
        }
    }
    freeaddrinfo(addresses);
    if (boundSocket < 0)
    {
        std::fprintf(stderr, "CTraceServer: Could not bind to port %u.\n", static_cast<unsigned int>(nPort));
        return -2;
    }
    // Port 0 lets the system choose; keep the port actually bound.
    sockaddr_in bound = {};
    socklen_t boundLen = sizeof(bound);
    if (nPort == 0 && getsockname(boundSocket, reinterpret_cast<sockaddr*>(&bound), &boundLen) == 0)
    {
        nPort = ntohs(bound.sin_port);
    }
    m_nServerUdpPort = nPort;
    m_nSocket.store(boundSocket);
    m_poReceiveThread = new CReceiveThread();
    m_poReceiveThread->Start();
    return 0;
}

int CTraceServer::Init(unsigned short nDefaultPort, int nArgc, const char* const* apcArgv)
{
    unsigned short port = nDefaultPort;
    // The option needs a value after it, so the last argument is never the option.
    for (int i = 1; apcArgv != nullptr && i < nArgc - 1; ++i)
    {
        if (apcArgv[i] == nullptr || std::strcmp(apcArgv[i], "-traceport") != 0)
        {
            continue;
        }
        const char* value = apcArgv[++i];
        const unsigned long requested = value != nullptr ? std::strtoul(value, nullptr, 0) : 0;
        if (requested >= 1 && requested <= 65535)
        {
            port = static_cast<unsigned short>(requested);
            std::printf("CTraceServer: Found traceport parameter: Using port %lu instead of the default of %u.\n",
                        requested, static_cast<unsigned int>(nDefaultPort));
        }
        else
        {
            std::fprintf(stderr,
                         "CTraceServer: Invalid trace port %s: valid values are 1-65535. Using default value of %u "
                         "instead.\n",
                         value != nullptr ? value : "", static_cast<unsigned int>(nDefaultPort));
        }
    }
    return Init(port);
}

int CTraceServer::Disable()
{
    const int socket = m_nSocket.load();
    if (socket < 0)
    {
        return -1;
    }
    if (m_poReceiveThread != nullptr)
    {
        m_poReceiveThread->Stop(socket);
        delete m_poReceiveThread;
        m_poReceiveThread = nullptr;
    }
    int closed = 0;
    {
        // Senders use the socket only under this lock (see SendTraceMessage).
        CKelLockGuard lock(m_oTelegramCounterMutex);
        m_nSocket.store(-1);
        closed = close(socket);
        m_sClientHost.clear();
        m_nClientUdpPort = 0;
        m_nAddrLen.store(0, std::memory_order_relaxed);
        m_nTelegramCounter = 0;
    }
    m_nServerUdpPort = 0;
    m_nActiveLevels.store(0, std::memory_order_relaxed);
    for (std::atomic<unsigned int>& filter : m_anCategoryFilters)
    {
        filter.store(0, std::memory_order_relaxed);
    }
    return closed;
}

int CTraceServer::SetCategoryName(unsigned char nCategory, unsigned char nLength, const char* pcName)
{
    if (nCategory >= CATEGORY_COUNT)
    {
        return -1;
    }
    CKelLockGuard lock(m_oTelegramCounterMutex);
    m_asCategoryNames[nCategory] = pcName != nullptr ? std::string(pcName, nLength) : std::string();
    return 0;
}

bool CTraceServer::IsActive(unsigned char nLevel, unsigned char nCategory, unsigned int nFilterMask)
{
    return m_nSocket.load(std::memory_order_relaxed) >= 0 && m_nAddrLen.load(std::memory_order_relaxed) != 0 &&
        (nLevel & m_nActiveLevels.load(std::memory_order_relaxed)) != 0 && nCategory < CATEGORY_COUNT &&
        (nFilterMask & m_anCategoryFilters[nCategory].load(std::memory_order_relaxed)) != 0;
}

int CTraceServer::SendTraceMessage(unsigned char nLevel, unsigned char nCategory, unsigned int nFilterMask,
                                   unsigned short nLine, const char* pcFile, const char* pcText, unsigned char nFlags)
{
    // The inactive path: plain loads and comparisons only.
    if (m_nSocket.load(std::memory_order_relaxed) < 0)
    {
        return -1;
    }
    if (m_nAddrLen.load(std::memory_order_relaxed) == 0)
    {
        return -2;
    }
    if ((nLevel & m_nActiveLevels.load(std::memory_order_relaxed)) == 0)
    {
        return -3;
    }
    if (nCategory >= CATEGORY_COUNT)
    {
        return -4;
    }
    if ((nFilterMask & m_anCategoryFilters[nCategory].load(std::memory_order_relaxed)) == 0)
    {
        return -5;
    }

    CTraceMessageTelegram telegram;
    timeval now = {};
    const bool clockRead = gettimeofday(&now, nullptr) == 0;
    if (clockRead)
    {
        telegram.SetTime(static_cast<unsigned int>(now.tv_sec), static_cast<unsigned int>(now.tv_usec));
    }
    telegram.SetTraceLevel(nLevel);
    telegram.SetCategory(nCategory);
    telegram.SetFilterBitmask(nFilterMask);
    telegram.SetFlags(nFlags);
    telegram.SetLine(nLine);
    telegram.SetFileName(TextLength(pcFile), pcFile);
    telegram.SetMessageText(TextLength(pcText), pcText);

    // The socket is used only under the lock, and Disable closes it under the
    // lock: a send can never reach a closed descriptor, nor another socket
    // that the system has given the same number meanwhile.
    CKelLockGuard lock(m_oTelegramCounterMutex);
    const int socket = m_nSocket.load(std::memory_order_relaxed);
    if (socket < 0)
    {
        return -1; // disabled meanwhile
    }
    const socklen_t viewerLen = m_nAddrLen.load(std::memory_order_relaxed);
    if (viewerLen == 0)
    {
        return -2;
    }
    if (clockRead)
    {
        telegram.SetCounter(m_nTelegramCounter++);
    }
    return SendTelegram(socket, telegram, m_oSockAddr, viewerLen);
}

int CTraceServer::RegisterStatusSource(CStatusSource* /*source*/, unsigned char /*category*/,
                                       unsigned int /*filterMask*/)
{
    return -1;
}

int CTraceServer::UnRegisterStatusSource(CStatusSource* /*source*/)
{
    return -1;
}
