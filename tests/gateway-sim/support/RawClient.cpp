#include "RawClient.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace SimTest
{

const char* const CONNECT_REQUEST = "05 00 01 02 01 00 02";
const char* const CONNECT_ACCEPTED = "06 00 01 82 01 00 00 82";
const char* const CONNECT_LIMIT_REACHED = "06 00 01 82 01 00 01 83";

std::string FromHex(const std::string& sHex)
{
    std::string sBytes;
    for (std::size_t i = sHex.find_first_not_of(' '); i < sHex.size(); i = sHex.find_first_not_of(' ', i + 2))
        sBytes.push_back(static_cast<char>(std::strtoul(sHex.substr(i, 2).c_str(), nullptr, 16)));
    return sBytes;
}

std::string ToHex(const std::string& sBytes)
{
    std::string sHex;
    char acByte[4];
    for (unsigned char c : sBytes)
    {
        std::snprintf(acByte, sizeof(acByte), sHex.empty() ? "%02X" : " %02X", c);
        sHex += acByte;
    }
    return sHex;
}

bool WaitFor(const std::function<bool()>& fCondition, int nTimeoutMs)
{
    const auto oEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(nTimeoutMs);
    while (!fCondition())
    {
        if (std::chrono::steady_clock::now() >= oEnd)
            return fCondition();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

bool CRawClient::Connect(unsigned short nPort)
{
    Close();
    m_nSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int nOne = 1;
    setsockopt(m_nSocket, IPPROTO_TCP, TCP_NODELAY, &nOne, sizeof(nOne));
    sockaddr_in oAddress{};
    oAddress.sin_family = AF_INET;
    oAddress.sin_port = htons(nPort);
    oAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connect(m_nSocket, reinterpret_cast<sockaddr*>(&oAddress), sizeof(oAddress)) == 0;
}

bool CRawClient::Send(const std::string& sBytes)
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

bool CRawClient::Receive(std::string& sMessage, int nTimeoutMs)
{
    const timeval oLimit{nTimeoutMs / 1000, nTimeoutMs % 1000 * 1000};
    setsockopt(m_nSocket, SOL_SOCKET, SO_RCVTIMEO, &oLimit, sizeof(oLimit));
    auto MessageSize = [&] {
        return m_sBuffer.size() < 2
            ? 2u
            : (static_cast<unsigned char>(m_sBuffer[0]) | (static_cast<unsigned char>(m_sBuffer[1]) << 8)) + 2u;
    };
    char acChunk[4096];
    while (m_sBuffer.size() < MessageSize())
    {
        const ssize_t nRead = recv(m_nSocket, acChunk, sizeof(acChunk), 0);
        if (nRead <= 0)
            return false;
        m_sBuffer.append(acChunk, static_cast<std::size_t>(nRead));
    }
    sMessage = m_sBuffer.substr(0, MessageSize());
    m_sBuffer.erase(0, sMessage.size());
    return true;
}

std::string CRawClient::ReceiveHex(int nTimeoutMs)
{
    std::string sMessage;
    return Receive(sMessage, nTimeoutMs) ? ToHex(sMessage) : std::string();
}

bool CRawClient::WaitClosed(int nTimeoutMs)
{
    std::string sMessage;
    errno = 0;
    while (Receive(sMessage, nTimeoutMs))
    {
    }
    return errno != EAGAIN && errno != EWOULDBLOCK; // end of stream or reset, not the time-out
}

void CRawClient::Close()
{
    if (m_nSocket >= 0)
        close(m_nSocket);
    m_nSocket = -1;
    m_sBuffer.clear();
}

} // namespace SimTest
