// Test helpers for the transport tests: a raw loopback peer that reads and
// writes exact bytes, a connection that records what its hooks receive, and
// small builders for messages. Everything stays on 127.0.0.1.
#ifndef KEL_LOOPBACK_PEER_H
#define KEL_LOOPBACK_PEER_H

#include "KelIPConnection.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace kel_test
{
const char* const kLoopback = "127.0.0.1";
// Generous limit for anything the tests wait for.
const unsigned int kWaitMs = 5000;

// One raw TCP socket. Reads fail the test softly: they return what arrived.
class CRawSocket
{
public:
    explicit CRawSocket(int socket = -1) : m_nSocket(socket) {}
    ~CRawSocket() { Close(); }
    CRawSocket(CRawSocket&& other) noexcept : m_nSocket(other.m_nSocket) { other.m_nSocket = -1; }
    CRawSocket& operator=(CRawSocket&& other) noexcept;
    CRawSocket(const CRawSocket&) = delete;
    CRawSocket& operator=(const CRawSocket&) = delete;

    bool IsOpen() const { return m_nSocket >= 0; }
    int Get() const { return m_nSocket; }
    void Close();

    bool SendAll(const std::string& bytes);
    // Exactly `count` bytes, or fewer when the time runs out or the peer closes.
    std::string ReadExactly(size_t count, unsigned int timeoutMs = kWaitMs);
    // One message by its length word (length word included); "" on failure.
    std::string ReadMessage(unsigned int timeoutMs = kWaitMs);
    // True when the peer has closed (end of stream or reset) within the time.
    bool WaitForClose(unsigned int timeoutMs = kWaitMs);
    void SetNoDelay();

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
    int Get() const { return m_nSocket; }
    CRawSocket Accept(unsigned int timeoutMs = kWaitMs);

private:
    int m_nSocket;
    unsigned short m_nPort;
};

// Blocking connect to 127.0.0.1:port; closed socket on failure.
CRawSocket ConnectRaw(unsigned short port);
// A loopback port with nothing listening on it.
unsigned short UnusedPort();

// Wire bytes of a connection message.
std::string MakeMsg(unsigned short command, unsigned short number, const std::string& data = std::string());
// A length-framed message: length word of payload size, then the payload.
std::string Frame(const std::string& payload);
// `count` bytes of a recognisable pattern starting at `seed`.
std::string Pattern(size_t count, unsigned char seed);
std::string U32(unsigned int value);

// Polls `condition` every few milliseconds until it holds or `timeoutMs` ends.
bool WaitUntil(const std::function<bool()>& condition, unsigned int timeoutMs = kWaitMs);

// A client connection that records its hooks.
class CRecordingConnection : public CKelIPConnection
{
public:
    using CKelIPConnection::CKelIPConnection;
    ~CRecordingConnection() override { Shutdown(); }

    void ConnectInd(bool connected) override;
    void DataInd(const char* data, unsigned short length) override;

    bool WaitForMessages(size_t count, unsigned int timeoutMs = kWaitMs);
    bool WaitForConnectInd(bool connected, int count, unsigned int timeoutMs = kWaitMs);
    std::vector<std::string> Messages();
    int ConnectIndCount(bool connected);
    // Called from DataInd with each message (on the read thread).
    std::function<void(CRecordingConnection&, const std::string&)> m_fOnData;

private:
    std::mutex m_oMutex;
    std::condition_variable m_oChanged;
    std::vector<std::string> m_asMessages;
    int m_nUp = 0;
    int m_nDown = 0;
};

// Serves exactly one connect request on an accepted raw socket: reads it and
// answers with `reply` (already framed bytes; empty: no answer). Returns the
// request bytes.
std::string AnswerConnect(CRawSocket& peer, const std::string& reply);
} // namespace kel_test

#endif
