// A bare TCP client for the simulator tests: sends raw bytes and reads whole
// messages by their length word, without the client library.
#ifndef GATEWAY_SIM_TEST_RAW_CLIENT_H
#define GATEWAY_SIM_TEST_RAW_CLIENT_H

#include <string>

namespace SimTest
{

// Wire bytes of the connection messages of a CAN connection (id 2).
extern const char* const CONNECT_REQUEST;       // 0x0201, number 1, no connect data
extern const char* const CONNECT_ACCEPTED;      // 0x8201, result 0
extern const char* const CONNECT_LIMIT_REACHED; // 0x8201, result 1

class CRawClient
{
public:
    CRawClient() = default;
    ~CRawClient();

    CRawClient(const CRawClient&) = delete;
    CRawClient& operator=(const CRawClient&) = delete;

    // TCP connect to 127.0.0.1:nPort.
    bool Connect(unsigned short nPort);
    // Connect and complete the connect handshake (result 0).
    bool Open(unsigned short nPort);
    bool Send(const std::string& sBytes);
    bool SendHex(const std::string& sHex);
    // One whole message (length word included) within nTimeoutMs; false on
    // time-out or when the peer closed.
    bool Receive(std::string& sMessage, int nTimeoutMs = 5000);
    // The next message as hex text, or "" when none came in time.
    std::string ReceiveHex(int nTimeoutMs = 5000);
    // True when the peer closes the connection within nTimeoutMs (bytes
    // still arriving before the close are read and dropped).
    bool WaitClosed(int nTimeoutMs = 5000);
    void Close();

private:
    int m_nSocket = -1;
    std::string m_sBuffer;
};

// A port on 127.0.0.1 that was free a moment ago.
unsigned short FreeTcpPort();

} // namespace SimTest

#endif
