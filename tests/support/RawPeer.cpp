#include "RawPeer.h"

#include "KelMsg.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <utility>

namespace OrvaneTest
{
namespace
{
long long NowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Waits until nSocket is readable, or has an error that the next call
// reports; false when the deadline passed first.
bool WaitReadable(int nSocket, long long nDeadlineMs)
{
    const long long nLeft = nDeadlineMs - NowMs();
    pollfd oEntry{nSocket, POLLIN, 0};
    return poll(&oEntry, 1, nLeft > 0 ? static_cast<int>(nLeft) : 0) != 0;
}
} // namespace

CRawPeer::CRawPeer(int nSocket) : m_nSocket(nSocket)
{
    const int nOn = 1;
    if (m_nSocket >= 0)
        setsockopt(m_nSocket, IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof(nOn));
}

CRawPeer::CRawPeer(CRawPeer&& oOther) noexcept
    : m_nSocket(std::exchange(oOther.m_nSocket, -1)), m_sBuffer(std::move(oOther.m_sBuffer))
{
}

CRawPeer& CRawPeer::operator=(CRawPeer&& oOther) noexcept
{
    std::swap(m_nSocket, oOther.m_nSocket);
    std::swap(m_sBuffer, oOther.m_sBuffer);
    return *this;
}

bool CRawPeer::Connect(unsigned short nPort)
{
    *this = CRawPeer(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in oAddress = Loopback(nPort);
    return IsOpen() && connect(m_nSocket, reinterpret_cast<const sockaddr*>(&oAddress), sizeof(oAddress)) == 0;
}

bool CRawPeer::Open(unsigned short nPort, unsigned char nId)
{
    return Connect(nPort) && Send(ConnectRequest(nId)) && ReceiveMessage() == ConnectConfirmation(nId, 0);
}

void CRawPeer::Close()
{
    if (m_nSocket >= 0)
        close(m_nSocket);
    m_nSocket = -1;
    m_sBuffer.clear();
}

bool CRawPeer::Send(const std::string& sBytes)
{
    for (std::size_t nDone = 0; nDone < sBytes.size();)
    {
        const ssize_t nSent = send(m_nSocket, sBytes.data() + nDone, sBytes.size() - nDone, MSG_NOSIGNAL);
        if (nSent <= 0)
            return false;
        nDone += static_cast<std::size_t>(nSent);
    }
    return true;
}

int CRawPeer::Fill(long long nDeadlineMs)
{
    if (!WaitReadable(m_nSocket, nDeadlineMs))
        return -1;
    char acChunk[65536];
    const ssize_t nRead = recv(m_nSocket, acChunk, sizeof(acChunk), 0);
    if (nRead <= 0)
        return 0;
    m_sBuffer.append(acChunk, static_cast<std::size_t>(nRead));
    return 1;
}

std::string CRawPeer::ReceiveMessage(unsigned int nTimeoutMs)
{
    const long long nDeadlineMs = NowMs() + nTimeoutMs;
    auto MessageSize = [&]() -> std::size_t {
        return m_sBuffer.size() < 2 ? 2 : CKelMsg::GetU16(m_sBuffer.data()) + 2u;
    };
    while (m_sBuffer.size() < MessageSize())
    {
        if (m_nSocket < 0 || Fill(nDeadlineMs) != 1)
            return std::string();
    }
    std::string sMessage = m_sBuffer.substr(0, MessageSize());
    m_sBuffer.erase(0, sMessage.size());
    return sMessage;
}

bool CRawPeer::WaitClosed(unsigned int nTimeoutMs)
{
    const long long nDeadlineMs = NowMs() + nTimeoutMs;
    int nResult = -1;
    while (m_nSocket >= 0 && (nResult = Fill(nDeadlineMs)) == 1)
        m_sBuffer.clear();
    return m_nSocket >= 0 && nResult == 0;
}

CRawListener::CRawListener(int nBacklog, int nReceiveBuffer) : m_nSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    if (nReceiveBuffer > 0)
        setsockopt(m_nSocket, SOL_SOCKET, SO_RCVBUF, &nReceiveBuffer, sizeof(nReceiveBuffer));
    sockaddr_in oAddress = Loopback(0);
    socklen_t nLength = sizeof(oAddress);
    if (bind(m_nSocket, reinterpret_cast<sockaddr*>(&oAddress), sizeof(oAddress)) == 0 &&
        listen(m_nSocket, nBacklog) == 0 &&
        getsockname(m_nSocket, reinterpret_cast<sockaddr*>(&oAddress), &nLength) == 0)
        m_nPort = ntohs(oAddress.sin_port);
}

CRawListener::~CRawListener()
{
    if (m_nSocket >= 0)
        close(m_nSocket);
}

CRawPeer CRawListener::Accept(unsigned int nTimeoutMs)
{
    if (m_nSocket < 0 || !WaitReadable(m_nSocket, NowMs() + nTimeoutMs))
        return CRawPeer();
    return CRawPeer(accept4(m_nSocket, nullptr, nullptr, SOCK_CLOEXEC));
}

sockaddr_in Loopback(unsigned short nPort)
{
    sockaddr_in oAddress{};
    oAddress.sin_family = AF_INET;
    oAddress.sin_port = htons(nPort);
    oAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return oAddress;
}

} // namespace OrvaneTest
