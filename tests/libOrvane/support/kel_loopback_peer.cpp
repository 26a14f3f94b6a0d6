#include "kel_loopback_peer.h"

#include "KelMsg.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

namespace kel_test
{
namespace
{
sockaddr_in LoopbackAddress(unsigned short port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int Remaining(std::chrono::steady_clock::time_point end)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}
} // namespace

CRawSocket& CRawSocket::operator=(CRawSocket&& other) noexcept
{
    if (this != &other)
    {
        Close();
        m_nSocket = other.m_nSocket;
        other.m_nSocket = -1;
    }
    return *this;
}

void CRawSocket::Close()
{
    if (m_nSocket >= 0)
        close(m_nSocket);
    m_nSocket = -1;
}

bool CRawSocket::SendAll(const std::string& bytes)
{
    size_t sent = 0;
    while (sent < bytes.size())
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
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    std::string out;
    char buffer[65536];
    while (out.size() < count)
    {
        pollfd entry{m_nSocket, POLLIN, 0};
        if (poll(&entry, 1, Remaining(end)) <= 0)
            break;
        const size_t want = std::min(sizeof(buffer), count - out.size());
        const ssize_t result = recv(m_nSocket, buffer, want, 0);
        if (result <= 0)
            break;
        out.append(buffer, static_cast<size_t>(result));
    }
    return out;
}

std::string CRawSocket::ReadMessage(unsigned int timeoutMs)
{
    const std::string head = ReadExactly(2, timeoutMs);
    if (head.size() != 2)
        return std::string();
    const size_t length = CKelMsg::GetU16(head.data());
    const std::string body = ReadExactly(length, timeoutMs);
    if (body.size() != length)
        return std::string();
    return head + body;
}

bool CRawSocket::WaitForClose(unsigned int timeoutMs)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    char buffer[4096];
    for (;;)
    {
        pollfd entry{m_nSocket, POLLIN, 0};
        if (poll(&entry, 1, Remaining(end)) <= 0)
            return false;
        const ssize_t result = recv(m_nSocket, buffer, sizeof(buffer), 0);
        if (result == 0 || (result < 0 && errno == ECONNRESET))
            return true;
        if (result < 0)
            return false;
    }
}

void CRawSocket::SetNoDelay()
{
    const int on = 1;
    setsockopt(m_nSocket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

CRawListener::CRawListener(int backlog, int receiveBuffer) : m_nSocket(socket(AF_INET, SOCK_STREAM, 0)), m_nPort(0)
{
    if (receiveBuffer > 0)
        setsockopt(m_nSocket, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
    sockaddr_in address = LoopbackAddress(0);
    if (bind(m_nSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        listen(m_nSocket, backlog) == 0)
    {
        socklen_t length = sizeof(address);
        getsockname(m_nSocket, reinterpret_cast<sockaddr*>(&address), &length);
        m_nPort = ntohs(address.sin_port);
    }
}

CRawListener::~CRawListener()
{
    close(m_nSocket);
}

CRawSocket CRawListener::Accept(unsigned int timeoutMs)
{
    pollfd entry{m_nSocket, POLLIN, 0};
    if (poll(&entry, 1, static_cast<int>(timeoutMs)) <= 0)
        return CRawSocket();
    return CRawSocket(accept(m_nSocket, nullptr, nullptr));
}

CRawSocket ConnectRaw(unsigned short port)
{
    CRawSocket raw(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address = LoopbackAddress(port);
    if (connect(raw.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
        raw.Close();
    return raw;
}

unsigned short UnusedPort()
{
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = LoopbackAddress(0);
    bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    socklen_t length = sizeof(address);
    getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
    close(probe);
    return ntohs(address.sin_port);
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

void CRecordingConnection::ConnectInd(bool connected)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    ++(connected ? m_nUp : m_nDown);
    m_oChanged.notify_all();
}

void CRecordingConnection::DataInd(const char* data, unsigned short length)
{
    std::string message(data, length);
    if (m_fOnData)
        m_fOnData(*this, message);
    std::lock_guard<std::mutex> lock(m_oMutex);
    m_asMessages.push_back(std::move(message));
    m_oChanged.notify_all();
}

bool CRecordingConnection::WaitForMessages(size_t count, unsigned int timeoutMs)
{
    std::unique_lock<std::mutex> lock(m_oMutex);
    return m_oChanged.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                               [&] { return m_asMessages.size() >= count; });
}

bool CRecordingConnection::WaitForConnectInd(bool connected, int count, unsigned int timeoutMs)
{
    std::unique_lock<std::mutex> lock(m_oMutex);
    return m_oChanged.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                               [&] { return (connected ? m_nUp : m_nDown) >= count; });
}

std::vector<std::string> CRecordingConnection::Messages()
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return m_asMessages;
}

int CRecordingConnection::ConnectIndCount(bool connected)
{
    std::lock_guard<std::mutex> lock(m_oMutex);
    return connected ? m_nUp : m_nDown;
}

std::string AnswerConnect(CRawSocket& peer, const std::string& reply)
{
    const std::string request = peer.ReadMessage();
    if (!reply.empty())
        peer.SendAll(reply);
    return request;
}
} // namespace kel_test
