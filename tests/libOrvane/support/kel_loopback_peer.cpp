#include "kel_loopback_peer.h"

#include "KelMsg.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace kel_test
{
namespace
{
void SetReceiveTimeout(int socket, unsigned int timeoutMs)
{
    const timeval limit{static_cast<time_t>(timeoutMs / 1000), static_cast<suseconds_t>(timeoutMs % 1000 * 1000)};
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
}
} // namespace

CRawSocket::CRawSocket(int socket) : m_nSocket(socket)
{
    const int on = 1;
    if (m_nSocket >= 0)
        setsockopt(m_nSocket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

void CRawSocket::Close()
{
    if (m_nSocket >= 0)
        close(m_nSocket);
    m_nSocket = -1;
}

bool CRawSocket::SendAll(const std::string& bytes)
{
    for (size_t sent = 0; sent < bytes.size();)
    {
        const ssize_t result = send(m_nSocket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (result <= 0)
            return false;
        sent += static_cast<size_t>(result);
    }
    return true;
}

std::string CRawSocket::ReadExactly(size_t count, unsigned int timeoutMs)
{
    SetReceiveTimeout(m_nSocket, timeoutMs);
    std::string out(count, '\0');
    const ssize_t result = count > 0 ? recv(m_nSocket, &out[0], count, MSG_WAITALL) : 0;
    out.resize(result > 0 ? static_cast<size_t>(result) : 0);
    return out;
}

std::string CRawSocket::ReadMessage(unsigned int timeoutMs)
{
    const std::string head = ReadExactly(2, timeoutMs);
    const size_t length = head.size() == 2 ? CKelMsg::GetU16(head.data()) : 0;
    const std::string body = ReadExactly(length, timeoutMs);
    return head.size() == 2 && body.size() == length ? head + body : std::string();
}

bool CRawSocket::WaitForClose(unsigned int timeoutMs)
{
    SetReceiveTimeout(m_nSocket, timeoutMs);
    char buffer[4096];
    ssize_t result;
    while ((result = recv(m_nSocket, buffer, sizeof(buffer), 0)) > 0)
    {
    }
    return result == 0 || errno == ECONNRESET;
}

CRawListener::CRawListener(int backlog, int receiveBuffer) : m_nSocket(socket(AF_INET, SOCK_STREAM, 0))
{
    if (receiveBuffer > 0)
        setsockopt(m_nSocket, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
    SetReceiveTimeout(m_nSocket, kWaitMs); // limits accept()
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof(address);
    if (bind(m_nSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        listen(m_nSocket, backlog) == 0 && getsockname(m_nSocket, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        m_nPort = ntohs(address.sin_port);
}

CRawListener::~CRawListener()
{
    close(m_nSocket);
}

CRawSocket CRawListener::Accept()
{
    return CRawSocket(accept(m_nSocket, nullptr, nullptr));
}

sockaddr_in Loopback(unsigned short port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

std::string MakeMsg(unsigned short command, unsigned short number, const std::string& data)
{
    std::string bytes;
    CKelMsg(command, number, data.data(), static_cast<unsigned short>(data.size())).GetMessageData(bytes);
    return bytes;
}

std::string Frame(const std::string& payload)
{
    std::string bytes(2, '\0');
    CKelMsg::PutU16(&bytes[0], static_cast<unsigned short>(payload.size()));
    return bytes + payload;
}

std::string Pattern(size_t count, unsigned char seed)
{
    std::string bytes(count, '\0');
    for (size_t i = 0; i < count; ++i)
        bytes[i] = static_cast<char>((seed + i * 7 + i / 251) & 0xFF);
    return bytes;
}

std::string U32(unsigned int value)
{
    std::string bytes(4, '\0');
    CKelMsg::PutU32(&bytes[0], value);
    return bytes;
}

bool WaitUntil(const std::function<bool()>& condition, unsigned int timeoutMs)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition())
    {
        if (std::chrono::steady_clock::now() >= end)
            return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace kel_test
