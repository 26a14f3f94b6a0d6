// CKelIPBase: what every IP endpoint of the transport has in common - a
// socket, its protocol, a connection state and the peer's address.
//
// Thread safety: the state, the protocol and the socket are read and written
// by several threads (owner, read thread, alive thread) without a lock. They
// are atomics: a store of the state publishes the fields written before it
// (release/acquire, free on the usual hardware), and exactly one thread wins
// the move out of the connected state (see CKelIPConnection). Closing the socket takes the
// socket guard, which the connection also holds around each non-blocking
// send/recv call (never across a wait), so a descriptor closed by one thread
// is never used by another after its number may have been given out again.
#ifndef KEL_IP_BASE_H
#define KEL_IP_BASE_H

#include "libKelMutex.h"

#include <netdb.h>
#include <sys/socket.h>

#include <atomic>
#include <memory>

// Address helpers shared by every endpoint.
// Numeric text of an IPv4 (family 2) or IPv6 (family 10) address written into
// `pcBuffer`; null for any other family or when it does not fit.
const char* getIpStr(const sockaddr* poAddress, char* pcBuffer, unsigned int nSize);

// True when both lengths and families agree and, for IPv4, port and address
// agree; for any other family the whole structures must be byte-equal.
bool SockaddrsAreEqual(const sockaddr* poFirst, unsigned int nFirstLength, const sockaddr* poSecond,
                       unsigned int nSecondLength);

// Port of an IPv4 or IPv6 address, 0 for any other family.
unsigned short KelPortOf(const sockaddr_storage& oAddress);

// Results of the connection operations (unsigned 32-bit).
enum EKelIPResult : unsigned int
{
    eKelIPSuccess = 1,
    eKelIPError = 2,        // bad argument, system call or send failed, remote refused a disconnect
    eKelIPNotConnected = 3, // not connected, or the host could not be reached
    eKelIPTimeout = 4,
    eKelIPWrongState = 5,
    eKelIPState6 = 6, // DataReq in state 6
    eKelIPRefused = 7 // the peer refused the connection (its connection limit)
};

// The address list of getaddrinfo, freed with it.
struct SKelAddrInfoFree
{
    void operator()(addrinfo* poList) const { freeaddrinfo(poList); }
};
using CKelAddrInfoList = std::unique_ptr<addrinfo, SKelAddrInfoFree>;

class CKelIPBase
{
public:
    enum EProtocol
    {
        eTCP = 1,
        eUDP = 2
    };

    enum EState
    {
        eDisconnected = 1,
        eConnecting = 2,
        eConnected = 3,
        eDisconnecting = 4,
        eWaitingForPeer = 5, // server-side datagram endpoint that keeps its socket
        eState6 = 6          // answered by DataReq with 6; nothing sets it
    };

    CKelIPBase();
    // Closes the socket if one is open.
    virtual ~CKelIPBase();

    CKelIPBase(const CKelIPBase&) = delete;
    CKelIPBase& operator=(const CKelIPBase&) = delete;

    // If a socket is open: shut it down (so that a thread waiting on it wakes
    // up), close it, socket = -1, state = 1.
    void CloseSocket();

    int GetState() const { return m_nState.load(std::memory_order_acquire); }
    EProtocol GetProtocol() const { return static_cast<EProtocol>(m_nProtocol.load(std::memory_order_relaxed)); }
    int GetSocket() const { return m_nSocket.load(std::memory_order_relaxed); }

protected:
    // getaddrinfo for `pcHost` (null: no host, e.g. the local side with
    // AI_PASSIVE) and `nPort` as decimal text; empty when it fails.
    static CKelAddrInfoList Resolve(const char* pcHost, unsigned short nPort, int nFamily, int nSocketType, int nFlags);

    void SetState(int nState) { m_nState.store(nState, std::memory_order_release); }
    // Moves the state from `nFrom` to `nTo`; false when it was not `nFrom`.
    bool ChangeState(int nFrom, int nTo)
    {
        return m_nState.compare_exchange_strong(nFrom, nTo, std::memory_order_acq_rel, std::memory_order_relaxed);
    }
    void SetProtocol(EProtocol eProtocol) { m_nProtocol.store(eProtocol, std::memory_order_relaxed); }
    void SetSocket(int nSocket) { m_nSocket.store(nSocket, std::memory_order_relaxed); }

    std::atomic<int> m_nState;    // EState
    std::atomic<int> m_nProtocol; // EProtocol, initially TCP
    std::atomic<int> m_nSocket;   // -1 when none

    // Peer address; 0 length while unknown. Guarded by m_oPeerGuard wherever
    // another thread may read it at the same time.
    unsigned int m_nPeerAddrLen;
    sockaddr_storage m_oPeerAddr;
    mutable CKelMutex m_oPeerGuard;

    // Held around close and around each non-blocking send/recv.
    CKelMutex m_oSocketGuard;
};

#endif
