#include "RawClient.h"

#include "TelegramBytes.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

namespace SimTest
{

const char* const CONNECT_REQUEST = "05 00 01 02 01 00 02";
const char* const CONNECT_ACCEPTED = "06 00 01 82 01 00 00 82";
const char* const CONNECT_LIMIT_REACHED = "06 00 01 82 01 00 01 83";

namespace
{

long long NowMs()
{
    timespec oNow{};
    clock_gettime(CLOCK_MONOTONIC, &oNow);
    return static_cast<long long>(oNow.tv_sec) * 1000 + oNow.tv_nsec / 1000000;
}

sockaddr_in Loopback(unsigned short nPort)
{
    sockaddr_in oAddress{};
    oAddress.sin_family = AF_INET;
    oAddress.sin_port = htons(nPort);
    oAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return oAddress;
}

} // namespace

CRawClient::~CRawClient()
{
    Close();
}

bool CRawClient::Connect(unsigned short nPort)
{
    Close();
    m_nSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_nSocket < 0)
        return false;
    const int nOne = 1;
    setsockopt(m_nSocket, IPPROTO_TCP, TCP_NODELAY, &nOne, sizeof(nOne));
    sockaddr_in oAddress = Loopback(nPort);
    return connect(m_nSocket, reinterpret_cast<sockaddr*>(&oAddress), sizeof(oAddress)) == 0;
}

bool CRawClient::Open(unsigned short nPort)
{
    return Connect(nPort) && SendHex(CONNECT_REQUEST) && ReceiveHex() == CONNECT_ACCEPTED;
}

bool CRawClient::Send(const std::string& sBytes)
{
    std::size_t nDone = 0;
    while (nDone < sBytes.size())
    {
        const ssize_t nSent = send(m_nSocket, sBytes.data() + nDone, sBytes.size() - nDone, MSG_NOSIGNAL);
        if (nSent <= 0)
            return false;
        nDone += static_cast<std::size_t>(nSent);
    }
    return true;
}

bool CRawClient::SendHex(const std::string& sHex)
{
    return Send(FromHex(sHex));
}

bool CRawClient::Receive(std::string& sMessage, int nTimeoutMs)
{
    const long long nDeadline = NowMs() + nTimeoutMs;
    for (;;)
    {
        if (m_sBuffer.size() >= 2)
        {
            const std::size_t nTotal = (static_cast<unsigned char>(m_sBuffer[0]) |
                                        (static_cast<unsigned char>(m_sBuffer[1]) << 8)) + 2u;
            if (m_sBuffer.size() >= nTotal)
            {
                sMessage = m_sBuffer.substr(0, nTotal);
                m_sBuffer.erase(0, nTotal);
                return true;
            }
        }
        const long long nLeft = nDeadline - NowMs();
        if (nLeft <= 0 || m_nSocket < 0)
            return false;
        pollfd oPoll{m_nSocket, POLLIN, 0};
        if (poll(&oPoll, 1, static_cast<int>(nLeft)) <= 0)
            continue;
        char acChunk[4096];
        const ssize_t nRead = recv(m_nSocket, acChunk, sizeof(acChunk), 0);
        if (nRead <= 0)
            return false;
        m_sBuffer.append(acChunk, static_cast<std::size_t>(nRead));
    }
}

std::string CRawClient::ReceiveHex(int nTimeoutMs)
{
    std::string sMessage;
    return Receive(sMessage, nTimeoutMs) ? ToHex(sMessage) : std::string();
}

bool CRawClient::WaitClosed(int nTimeoutMs)
{
    const long long nDeadline = NowMs() + nTimeoutMs;
    for (;;)
    {
        const long long nLeft = nDeadline - NowMs();
        if (nLeft <= 0 || m_nSocket < 0)
            return false;
        pollfd oPoll{m_nSocket, POLLIN, 0};
        if (poll(&oPoll, 1, static_cast<int>(nLeft)) <= 0)
            continue;
        char acChunk[4096];
        if (recv(m_nSocket, acChunk, sizeof(acChunk), 0) <= 0)
            return true;
    }
}

void CRawClient::Close()
{
    if (m_nSocket >= 0)
    {
        close(m_nSocket);
        m_nSocket = -1;
    }
    m_sBuffer.clear();
}

unsigned short FreeTcpPort()
{
    const int nSocket = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in oAddress = Loopback(0);
    bind(nSocket, reinterpret_cast<sockaddr*>(&oAddress), sizeof(oAddress));
    socklen_t nLength = sizeof(oAddress);
    getsockname(nSocket, reinterpret_cast<sockaddr*>(&oAddress), &nLength);
    close(nSocket);
    return ntohs(oAddress.sin_port);
}

} // namespace SimTest
