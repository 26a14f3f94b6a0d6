// CKelIPConnection: one TCP or UDP endpoint with a read thread that cuts the
// stream into whole messages, connection-level messages (connect, disconnect,
// alive) and the alive protocol.
//
// Framing: every message starts with a 2-byte little-endian length word that
// counts the bytes after it. The read thread hands each whole message, length
// word included, to BaseDataInd, which answers connection messages itself and
// passes every other message to DataInd. The pointer handed to DataInd points
// into the read thread's buffer and is valid only during the call.
//
// Using it:
// - Client: derive, override ConnectInd / DataInd, then
//     ConnectReq("127.0.0.1", port, timeoutMs, id, CKelIPBase::eTCP, "", true)
//   which returns 1 once the peer confirmed the connect request. Send with
//   DataReq, end with DisconnectReq / CloseConnection, watch the peer with
//   SetAlive(periodMs).
// - Server: a CKelIPServerContainer creates one connection per accepted
//   socket through its CreateNewClass (override it to return a subclass with
//   its own DataInd); the connect request of the peer is answered here.
//
// Threads and hooks: DataInd, ConnectInd and IsConnectMsgAccepted run on the
// read thread (ConnectInd(false) also on the thread that detects the loss: a
// sender's thread on a send time-out, the alive thread on silence). They must
// return soon and must never wait for a reply that only the read thread can
// deliver (so no ConnectReq / DisconnectReq from inside them). The end of a
// connection is reported exactly once by ConnectInd(false).
// DataReq sends one message at a time on a stream: a caller that finds
// another message going out waits for it within its own time-out, so the
// alive thread's requests and the read thread's automatic confirmations never
// cut into a message that is sent in parts.
//
// Lifetime: the threads call the virtual hooks, so every derived class calls
// Shutdown() first thing in its own destructor (the most-derived one at
// least); after it no thread enters the hooks any more.
//
// Return codes: EKelIPResult (KelIPBase.h).
#ifndef KEL_IP_CONNECTION_H
#define KEL_IP_CONNECTION_H

#include "KelIPBase.h"
#include "KelSendTurns.h"
#include "libKelMutex.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <memory>
#include <string>

class CKelIPServerContainer;
class CKelMsg;

class CKelIPConnection : public CKelIPBase
{
public:
    class CReadThread;
    class CAliveThread;

    // Alive modes.
    enum EAliveMode
    {
        eAliveOff = 0,
        eAliveActive = 1, // this side sends alive requests
        eAlivePassive = 2 // the peer sends them, this side only watches
    };

    // Client instance: state 1, id 0, connection messages off.
    CKelIPConnection();
    // Server-side instance for an accepted socket (-1 leaves it disconnected).
    // TCP sockets get SetSocketOptions; on failure, or when the peer address
    // cannot be read, the socket is closed and the state stays 1. Otherwise
    // state 3 with the read thread created but not started.
    CKelIPConnection(CKelIPServerContainer* poContainer, unsigned char nId, CKelIPBase::EProtocol eProtocol,
                     int nSocket, bool bUseConnectionMessages);
    // Server-side datagram endpoint bound to `nPort` (IPv4, SO_REUSEADDR):
    // state 5 on success, 1 on failure. Its read thread is created but not
    // started; it answers connect requests from any sender and then talks to
    // that sender.
    CKelIPConnection(unsigned char nId, unsigned short nPort, bool bUseConnectionMessages);
    // If connected DisconnectReq(500); then the threads are stopped.
    ~CKelIPConnection() override;

    // Connects to pcHost:nPort over every resolved address within nTimeoutMs.
    // 1 connected; 2 error; 3 unreachable / not connected; 4 no connect
    // confirmation in time; 5 not in state 1; 7 the peer's connection limit.
    unsigned int ConnectReq(const char* pcHost, unsigned short nPort, unsigned int nTimeoutMs, unsigned char nId,
                            CKelIPBase::EProtocol eProtocol, const std::string& sConnectData,
                            bool bUseConnectionMessages);
    // Sends the bytes as they are (they must carry their own length word).
    // 1 sent; 3 not connected; 5/6 other states; 2 send error; 4 time-out.
    // A time-out or a failed wait ends the connection. Does not allocate.
    unsigned int DataReq(const char* pcData, unsigned short nLength, unsigned int nTimeoutMs);
    unsigned int DataReq(const CKelMsg& oMessage, unsigned int nTimeoutMs);
    // Sends several whole messages lying back to back in `pcData` as one
    // write: on a stream in one turn, so nothing cuts in between them; on a
    // datagram connection one datagram per message. Same results as
    // DataReq; *pnSentBytes (when not null) tells how many bytes went out,
    // also when the send failed part of the way.
    unsigned int DataReqBatch(const char* pcData, size_t nLength, unsigned int nTimeoutMs, size_t* pnSentBytes);
    // With connection messages: disconnect request, wait for its confirmation
    // (4 none, 2 refused); then the connection ends. 5 when not connected.
    unsigned int DisconnectReq(unsigned int nTimeoutMs);
    // Ends the connection without any message; 5 when not connected.
    unsigned int CloseConnection();

    // Alive protocol: nPeriodMs > 0 makes this side send alive requests and
    // end the connection after about one period without anything received;
    // 0 switches it off. 3 when not connected, else the alive request's result.
    unsigned int SetAlive(unsigned int nPeriodMs);
    // Sends an alive request carrying the stored period.
    unsigned int AliveReq(unsigned int nTimeoutMs);
    // Answers a received alive request (read thread).
    void HandleAliveReq(const char* pcBytes, unsigned short nCount);

    // Dispatcher the read thread calls once per whole message; `poFrom` is the
    // sender for datagrams, null for the stream.
    void BaseDataInd(const char* pcData, unsigned short nLength, const sockaddr_storage* poFrom,
                     unsigned int nFromLength);

    // SO_KEEPALIVE 1, TCP_KEEPIDLE 5 s, TCP_KEEPINTVL 1 s, TCP_KEEPCNT 5,
    // TCP_NODELAY 1. 1 on success, 2 on the first failing option (the
    // result of TCP_NODELAY is ignored).
    static unsigned int SetSocketOptions(int nSocket);

    // Hooks (see the threading notes above).
    virtual void ConnectInd(bool bConnected);
    // One whole message, length word included; valid only during the call.
    // Messages longer than 65,535 bytes in all are passed with the length
    // truncated to 16 bits; their length word still tells the true size.
    virtual void DataInd(const char* pcData, unsigned short nLength);
    // Called once after every read whose messages went to DataInd, when
    // they all have been handed up: a receiver that collects what DataInd
    // gave it can pass it on here in one step. Default: nothing.
    virtual void ReadEndInd();
    // Decides a peer's connect request (its connect data); default accepts.
    virtual bool IsConnectMsgAccepted(const std::string& sConnectData);

    // Asked on the read thread for every connection message (connect,
    // disconnect, alive) and their confirmations: false ignores it, while
    // other messages are still handed up, as from a peer whose software hangs
    // while its TCP stack lives on. Default true; a simulator overrides it.
    virtual bool AnswersConnectionMessages() const { return true; }

    unsigned char GetId() const { return m_nId; }
    bool UsesConnectionMessages() const { return m_bUseConnectionMessages.load(std::memory_order_relaxed); }
    bool IsDatagramServer() const { return m_bDatagramServer; }
    CKelIPServerContainer* GetServerContainer() const { return m_poServerContainer; }
    std::string GetPeerAddress() const; // numeric address text, "" when unknown
    std::string GetHost() const;        // host given to ConnectReq (server side: peer address)
    unsigned short GetPort() const;     // the peer's port
    unsigned char GetConnectResult() const { return m_nConnectResult.load(std::memory_order_relaxed); }
    unsigned char GetDisconnectResult() const { return m_nDisconnectResult.load(std::memory_order_relaxed); }
    unsigned int GetAliveMode() const { return m_nAliveMode.load(std::memory_order_relaxed); }
    unsigned int GetAlivePeriod() const { return m_nAlivePeriod.load(std::memory_order_relaxed); }
    // Thread state of the read thread (CKelThread::EThreadState); 3 when
    // there is none.
    int GetReadThreadState() const;
    // Starts the read thread unless it runs; false when there is none or it
    // cannot be started. Used by the server container.
    bool StartReadThread();

protected:
    // What the destructor does: DisconnectReq(500) if connected, close the
    // datagram endpoint's socket, stop the read thread and the alive thread.
    // Safe to call more than once; derived destructors call it first.
    void Shutdown();

private:
    friend class CReadThread;
    friend class CAliveThread;

    void SetIdentifiers(unsigned char nId);
    // Connect request and confirmation within the deadline (connection
    // messages on); 1 accepted, else the connection is closed again.
    unsigned int ConnectHandshake(const std::string& sConnectData, const CKelDeadline& oDeadline);
    // True for the six connect, disconnect and alive commands of this id.
    bool IsConnectionCommand(unsigned short nCommand) const;
    void ResetAliveCounters();
    // Ends a connected connection: state 4, ConnectInd(false), then peer
    // forgotten and state 5 (datagram server) or socket closed and state 1.
    // Only the thread that moves the state out of 3 does this; false for the
    // others.
    bool EndConnection();
    // Stores the peer address and its texts.
    void SetPeer(const sockaddr_storage& oAddress, unsigned int nLength, const char* pcHost);
    unsigned int SendStream(const char* pcData, size_t nLength, unsigned int nTimeoutMs, size_t& nSent);
    // Sends all bytes on `nSocket` during the caller's turn; `bEnds` is set
    // when the failure ends the connection (time-out, failed wait); `nSent`
    // counts the bytes that went out.
    unsigned int SendWhole(int nSocket, const char* pcData, size_t nLength, const CKelDeadline& oDeadline, bool& bEnds,
                           size_t& nSent);
    void NoteSent();
    unsigned int SendDatagram(const char* pcData, unsigned short nLength, unsigned int nTimeoutMs);
    void SendReply(unsigned short nCommand, unsigned short nNumber, unsigned char nResult, unsigned int nTimeoutMs);
    void CreateAliveThread();
    void DestroyAliveThread();

    CKelIPServerContainer* m_poServerContainer;
    CKelEvent m_oConnectEvent;
    CKelEvent m_oDisconnectEvent;
    std::atomic<unsigned char> m_nConnectResult;
    std::atomic<unsigned char> m_nDisconnectResult;

    unsigned short m_nConnectReqId;
    unsigned short m_nConnectCnfId;
    unsigned short m_nDisconnectReqId;
    unsigned short m_nDisconnectCnfId;
    unsigned short m_nAliveReqId;
    unsigned short m_nAliveCnfId;
    unsigned char m_nId;
    std::atomic<bool> m_bUseConnectionMessages;

    // Guarded by m_oPeerGuard.
    std::string m_sPeerAddress;
    std::string m_sHost;
    unsigned short m_nPort;

    std::unique_ptr<CReadThread> m_poReadThread;
    std::unique_ptr<CAliveThread> m_poAliveThread;
    CKelMutex m_oAliveThreadGuard; // creation and destruction of the alive thread
    CKelSendTurns m_oSendTurns;    // one whole message at a time on a stream

    // Alive fields: single relaxed stores; a late update shifts a decision by
    // one tick at most.
    std::atomic<unsigned int> m_nAliveMode;
    std::atomic<unsigned int> m_nAliveTick;
    std::atomic<unsigned int> m_nAlivePeriod;
    std::atomic<unsigned int> m_nAliveLastSend;
    std::atomic<unsigned int> m_nAliveLastReceive;

    bool m_bDatagramServer;
    char m_acReserved[128];
};

#endif
