// CScriptedGateway: a stand-in for a gateway device on 127.0.0.1, for tests
// of client code. It does what every gateway does on its own and leaves the
// rest to the test, which can thus send what a real gateway never would.
//
//   CScriptedGateway oGateway(DEVICE_CAN);       // listens at once
//   ... the client connects to LOOPBACK, oGateway.Port(), connection messages on
//   ASSERT_TRUE(oGateway.WaitConnected());       // connect request confirmed (0)
//   const std::string sRequest = oGateway.NextTelegram(); // whole, length word included
//   const COrvaneMsg oRequest = ToOrvaneMsg(sRequest);    // OrvaneTelegram.h
//   oGateway.Send(Confirmation(oRequest.GetCmdCode(), oRequest.GetMsgID(), Byte(0)));
//   oGateway.Send(WithWrongCrc(...));            // or any other bytes (Bytes.h)
//   oGateway.CloseClient();                      // e.g. in the middle of a request
//
// On its own thread it answers the connection messages of its connection
// identifier (the device type): a connect request with result 0, an alive
// request with 0 (0xFF when it carries no period), a disconnect request with
// 0, after which it closes the connection. Every other message the client
// sends is queued for NextTelegram. SetAnswering(false) stops the answers (a
// gateway that falls silent, or a test that answers the connect request
// itself): connection messages are then queued like everything else.
//
// One client at a time; once it has gone, the next one is accepted. Nothing
// is sent that the test did not ask for, apart from the answers above.
#ifndef ORVANE_TEST_SCRIPTED_GATEWAY_H
#define ORVANE_TEST_SCRIPTED_GATEWAY_H

#include "Bytes.h"
#include "Wait.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

namespace OrvaneTest
{

class CScriptedGateway
{
public:
    explicit CScriptedGateway(unsigned char nId = DEVICE_CAN);
    ~CScriptedGateway();
    CScriptedGateway(const CScriptedGateway&) = delete;
    CScriptedGateway& operator=(const CScriptedGateway&) = delete;

    unsigned short Port() const { return m_nPort; } // 0 when listening failed

    // A client is connected (TCP) / has had its connect request confirmed /
    // is gone, within nTimeoutMs.
    bool WaitAccepted(unsigned int nTimeoutMs = WAIT_MS);
    bool WaitConnected(unsigned int nTimeoutMs = WAIT_MS);
    bool WaitClosed(unsigned int nTimeoutMs = WAIT_MS);

    // The next message from a client that was not answered automatically,
    // whole; "" when none came within nTimeoutMs.
    std::string NextTelegram(unsigned int nTimeoutMs = WAIT_MS);
    // Exactly these bytes to the connected client; false when there is none
    // or sending fails.
    bool Send(const std::string& sBytes);
    // Ends the client's connection (it sees the stream end).
    void CloseClient();
    void SetAnswering(bool bAnswering) { m_bAnswering = bAnswering; }

    int Connections();   // clients accepted so far
    int AliveRequests(); // alive requests answered so far

private:
    // Accepts and serves one client after the other until the destructor
    // wakes it.
    void Run();
    // Reads from nSocket and handles each whole message until the client
    // goes; false when woken to stop.
    bool Serve(int nSocket);
    // Answers a connection message; false for any other message. Sets
    // bClose after a disconnect request.
    bool Answer(const std::string& sMessage, bool& bClose);
    void EndClient();

    const unsigned char m_nId;
    int m_nListener = -1;
    int m_anWake[2] = {-1, -1}; // pipe: a byte in it stops the thread
    unsigned short m_nPort = 0;
    std::atomic<bool> m_bAnswering{true};

    // The client's socket: set, sent on and closed only under this mutex,
    // so a test's Send never meets a closed or reused descriptor, and whole
    // messages of the test and of the automatic answers never interleave.
    std::mutex m_oSocketMutex;
    int m_nClient = -1;

    std::mutex m_oMutex; // what follows
    std::condition_variable m_oChanged;
    bool m_bAccepted = false;
    bool m_bConnected = false;
    int m_nConnections = 0;
    int m_nAliveRequests = 0;
    std::deque<std::string> m_asTelegrams;

    std::thread m_oThread; // last: starts once everything above exists
};

} // namespace OrvaneTest

#endif
