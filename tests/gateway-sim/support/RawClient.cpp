#include "RawClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
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

namespace
{
sockaddr_in Loopback(unsigned short nPort)
{
    sockaddr_in oAddress{};
    oAddress.sin_family = AF_INET;
    oAddress.sin_port = htons(nPort);
    oAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return oAddress;
}
} // namespace

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

unsigned short FreeTcpPort()
{
    const int nSocket = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in oAddress = Loopback(0);
    socklen_t nLength = sizeof(oAddress);
    bind(nSocket, reinterpret_cast<sockaddr*>(&oAddress), sizeof(oAddress));
    getsockname(nSocket, reinterpret_cast<sockaddr*>(&oAddress), &nLength);
    close(nSocket);
    return ntohs(oAddress.sin_port);
}

bool CRawClient::Connect(unsigned short nPort)
{
    Close();
    m_nSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int nOne = 1;
    setsockopt(m_nSocket, IPPROTO_TCP, TCP_NODELAY, &nOne, sizeof(nOne));
    sockaddr_in oAddress = Loopback(nPort);
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

bool CRawClient::Fill(int nTimeoutMs)
{
    pollfd oPoll{m_nSocket, POLLIN, 0};
    char acChunk[4096];
    const ssize_t nRead = poll(&oPoll, 1, nTimeoutMs) > 0 ? recv(m_nSocket, acChunk, sizeof(acChunk), 0) : -1;
    if (nRead > 0)
        m_sBuffer.append(acChunk, static_cast<std::size_t>(nRead));
    return nRead > 0;
}

bool CRawClient::Receive(std::string& sMessage, int nTimeoutMs)
{
    const auto oEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(nTimeoutMs);
    for (;;)
    {
        const std::size_t nTotal =
            m_sBuffer.size() < 2 ? 0 : (static_cast<unsigned char>(m_sBuffer[0]) | (static_cast<unsigned char>(m_sBuffer[1]) << 8)) + 2u;
        if (nTotal > 0 && m_sBuffer.size() >= nTotal)
        {
            sMessage = m_sBuffer.substr(0, nTotal);
            m_sBuffer.erase(0, nTotal);
            return true;
        }
        const auto nLeft = std::chrono::duration_cast<std::chrono::milliseconds>(oEnd - std::chrono::steady_clock::now());
        if (nLeft.count() <= 0 || !Fill(static_cast<int>(nLeft.count())))
            return false;
    }
}

std::string CRawClient::ReceiveHex(int nTimeoutMs)
{
    std::string sMessage;
    return Receive(sMessage, nTimeoutMs) ? ToHex(sMessage) : std::string();
}

bool CRawClient::WaitClosed(int nTimeoutMs)
{
    pollfd oPoll{m_nSocket, POLLIN, 0};
    char acChunk[4096];
    while (poll(&oPoll, 1, nTimeoutMs) > 0)
        if (recv(m_nSocket, acChunk, sizeof(acChunk), 0) <= 0)
            return true;
    return false;
}

void CRawClient::Close()
{
    if (m_nSocket >= 0)
        close(m_nSocket);
    m_nSocket = -1;
    m_sBuffer.clear();
}

} // namespace SimTest
