// A raw TCP peer on 127.0.0.1 that sends exact bytes and reads whole
// messages cut by their 2-byte little-endian length word, with no library
// code in between; and a listener that hands out accepted peers.
#ifndef ORVANE_TEST_RAW_PEER_H
#define ORVANE_TEST_RAW_PEER_H

#include "Bytes.h"
#include "Wait.h"

#include <netinet/in.h>

#include <string>

namespace OrvaneTest
{

// One TCP socket with TCP_NODELAY, so every send leaves as its own segment.
class CRawPeer
{
public:
    // Adopts an open socket (-1: none yet, see Connect).
    explicit CRawPeer(int nSocket = -1);
    ~CRawPeer() { Close(); }
    CRawPeer(CRawPeer&& oOther) noexcept;
    CRawPeer& operator=(CRawPeer&& oOther) noexcept;
    CRawPeer(const CRawPeer&) = delete;
    CRawPeer& operator=(const CRawPeer&) = delete;

    // Connects to 127.0.0.1:nPort (a socket it held before is closed).
    bool Connect(unsigned short nPort);
    // Connects and completes the connect handshake of connection identifier
    // nId: connect request out, confirmation with result 0 back.
    bool Open(unsigned short nPort, unsigned char nId = DEVICE_CAN);
    bool IsOpen() const { return m_nSocket >= 0; }
    void Close();

    bool Send(const std::string& sBytes);
    bool SendHex(const std::string& sHex) { return Send(FromHex(sHex)); }
    // The next whole message, length word included; "" when the peer closes
    // or nothing whole arrives within nTimeoutMs.
    std::string ReceiveMessage(unsigned int nTimeoutMs = WAIT_MS);
    std::string ReceiveHex(unsigned int nTimeoutMs = WAIT_MS) { return ToHex(ReceiveMessage(nTimeoutMs)); }
    // True when the other side closes (end of stream or reset) within
    // nTimeoutMs; whatever arrives before is dropped.
    bool WaitClosed(unsigned int nTimeoutMs = WAIT_MS);

private:
    // Reads what is there into m_sBuffer; 1 read, 0 end of stream or
    // error, -1 nothing until the deadline.
    int Fill(long long nDeadlineMs);

    int m_nSocket;
    std::string m_sBuffer; // received bytes not yet handed out
};

// A listening socket on 127.0.0.1 with a port chosen by the system.
class CRawListener
{
public:
    // nReceiveBuffer > 0 sets SO_RCVBUF, which accepted sockets inherit.
    explicit CRawListener(int nBacklog = 8, int nReceiveBuffer = 0);
    ~CRawListener();
    CRawListener(const CRawListener&) = delete;
    CRawListener& operator=(const CRawListener&) = delete;

    unsigned short Port() const { return m_nPort; } // 0 when listening failed
    int Socket() const { return m_nSocket; }
    // The next client; a closed peer when none came within nTimeoutMs.
    CRawPeer Accept(unsigned int nTimeoutMs = WAIT_MS);

private:
    int m_nSocket;
    unsigned short m_nPort = 0;
};

sockaddr_in Loopback(unsigned short nPort); // 127.0.0.1:nPort

} // namespace OrvaneTest

#endif
