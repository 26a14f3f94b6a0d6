// Helpers for the simulator tests: hex text <-> bytes, waiting on a condition,
// and a bare TCP client on 127.0.0.1 that reads whole messages by their
// length word, without the client library.
#ifndef GATEWAY_SIM_TEST_RAW_CLIENT_H
#define GATEWAY_SIM_TEST_RAW_CLIENT_H

#include <functional>
#include <string>

namespace SimTest
{

// Connection messages of a CAN connection (id 2).
extern const char* const CONNECT_REQUEST;       // 0x0201, number 1, no connect data
extern const char* const CONNECT_ACCEPTED;      // 0x8201, result 0
extern const char* const CONNECT_LIMIT_REACHED; // 0x8201, result 1

std::string FromHex(const std::string& sHex); // "0D 00 07" -> bytes
std::string ToHex(const std::string& sBytes); // bytes -> "0D 00 07"
// Polls fCondition until it holds or nTimeoutMs have passed.
bool WaitFor(const std::function<bool()>& fCondition, int nTimeoutMs = 5000);

class CRawClient
{
public:
    CRawClient() = default;
    ~CRawClient() { Close(); }
    CRawClient(const CRawClient&) = delete;
    CRawClient& operator=(const CRawClient&) = delete;

    bool Connect(unsigned short nPort);
    // Connect and complete the connect handshake (result 0).
    bool Open(unsigned short nPort)
    {
        return Connect(nPort) && SendHex(CONNECT_REQUEST) && ReceiveHex() == CONNECT_ACCEPTED;
    }
    bool Send(const std::string& sBytes);
    bool SendHex(const std::string& sHex) { return Send(FromHex(sHex)); }
    // One whole message (length word included); false on close or when
    // nothing arrives for nTimeoutMs.
    bool Receive(std::string& sMessage, int nTimeoutMs = 5000);
    // The next message as hex, "" when none came in time.
    std::string ReceiveHex(int nTimeoutMs = 5000);
    // True when the peer closes within nTimeoutMs (bytes before it are dropped).
    bool WaitClosed(int nTimeoutMs = 5000);
    void Close();

private:
    int m_nSocket = -1;
    std::string m_sBuffer;
};

} // namespace SimTest

#endif
