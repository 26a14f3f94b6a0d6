// Transport test helpers: a raw loopback peer that reads and writes exact
// bytes, a connection that records its hooks, and message builders.
// Everything stays on 127.0.0.1.
#ifndef KEL_LOOPBACK_PEER_H
#define KEL_LOOPBACK_PEER_H

#include "KelIPConnection.h"

#include <netinet/in.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kel_test
{
const char* const kLoopback = "127.0.0.1";
const unsigned int kWaitMs = 5000; // generous limit for anything awaited

// One raw TCP socket (TCP_NODELAY, so every send is its own segment).
class CRawSocket
{
public:
    explicit CRawSocket(int socket = -1);
    ~CRawSocket() { Close(); }
    CRawSocket(CRawSocket&& other) noexcept : m_nSocket(std::exchange(other.m_nSocket, -1)) {}
    CRawSocket& operator=(CRawSocket&& other) noexcept
    {
        std::swap(m_nSocket, other.m_nSocket);
        return *this;
    }

    bool IsOpen() const { return m_nSocket >= 0; }
    int Get() const { return m_nSocket; }
    void Close();
    bool SendAll(const std::string& bytes);
    // `count` bytes; fewer when the time runs out or the peer closes.
    std::string ReadExactly(size_t count, unsigned int timeoutMs = kWaitMs);
    // One message, length word included; "" when none came whole in time.
    std::string ReadMessage(unsigned int timeoutMs = kWaitMs);
    // True when the peer closes (end of stream or reset) within the time.
    bool WaitForClose(unsigned int timeoutMs = kWaitMs);

private:
    int m_nSocket;
};

// A listening socket on 127.0.0.1 with an ephemeral port.
class CRawListener
{
public:
    explicit CRawListener(int backlog = 8, int receiveBuffer = 0);
    ~CRawListener();
    unsigned short Port() const { return m_nPort; }
    CRawSocket Accept(); // closed socket when none came within kWaitMs

private:
    int m_nSocket;
    unsigned short m_nPort = 0;
};

sockaddr_in Loopback(unsigned short port);

std::string MakeMsg(unsigned short command, unsigned short number, const std::string& data = std::string());
std::string Frame(const std::string& payload); // length word + payload
std::string Pattern(size_t count, unsigned char seed);
std::string U32(unsigned int value);

// Polls `condition` until it holds or `timeoutMs` ends.
bool WaitUntil(const std::function<bool()>& condition, unsigned int timeoutMs = kWaitMs);

// A connection that records what its hooks receive.
class CRecordingConnection : public CKelIPConnection
{
public:
    using CKelIPConnection::CKelIPConnection;
    ~CRecordingConnection() override { Shutdown(); }

    void ConnectInd(bool connected) override
    {
        Record([&] { ++m_anInd[connected]; });
    }
    void DataInd(const char* data, unsigned short length) override
    {
        const std::string message(data, length);
        if (m_fOnData)
            m_fOnData(*this, message);
        Record([&] { m_asMessages.push_back(message); });
    }
    bool WaitForMessages(size_t count)
    {
        return Wait([&] { return m_asMessages.size() >= count; });
    }
    bool WaitForConnectInd(bool connected, int count)
    {
        return Wait([&] { return m_anInd[connected] >= count; });
    }
    std::vector<std::string> Messages()
    {
        return Read([&] { return m_asMessages; });
    }
    int ConnectIndCount(bool connected)
    {
        return Read([&] { return m_anInd[connected]; });
    }

    // Called on the read thread with each message before it is recorded.
    std::function<void(CRecordingConnection&, const std::string&)> m_fOnData;

private:
    template <class F>
    void Record(F change)
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        change();
        m_oChanged.notify_all();
    }
    template <class F>
    auto Read(F read) -> decltype(read())
    {
        std::lock_guard<std::mutex> lock(m_oMutex);
        return read();
    }
    template <class F>
    bool Wait(F condition)
    {
        std::unique_lock<std::mutex> lock(m_oMutex);
        return m_oChanged.wait_for(lock, std::chrono::milliseconds(kWaitMs), condition);
    }

    std::mutex m_oMutex;
    std::condition_variable m_oChanged;
    std::vector<std::string> m_asMessages;
    int m_anInd[2] = {0, 0}; // ConnectInd(false), ConnectInd(true)
};
} // namespace kel_test

#endif
