// A CKelIPConnection's socket and its lifecycle: construction, connecting,
// sending, ending. The connection messages and the alive protocol are in
// KelIPConnectionProtocol.cpp, the read and alive threads in
// KelIPConnectionThreads.cpp.
#include "KelIPConnection.h"

#include "KelIPConnectionThreads.h"
#include "KelMsg.h"
#include "KelSocketWait.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace
{
// Messages up to this size are serialised on the stack.
const unsigned int STACK_MESSAGE_SIZE = 512;

bool SetBlocking(int nSocket, bool bBlocking)
{
    const int flags = fcntl(nSocket, F_GETFL, 0);
    if (flags < 0)
        return false;
    const int wanted = bBlocking ? (flags & ~O_NONBLOCK) : (flags | O_NONBLOCK);
    return fcntl(nSocket, F_SETFL, wanted) == 0;
}

// What a send request returns in a connection state other than connected.
unsigned int RefusalInState(int nState)
{
    if (nState == CKelIPBase::eState6)
        return eKelIPState6;
    return nState == CKelIPBase::eDisconnected ? eKelIPNotConnected : eKelIPWrongState;
}
} // namespace

// ------------------------------------------------------------ construction

CKelIPConnection::CKelIPConnection()
    : m_poServerContainer(nullptr), m_nConnectResult(0), m_nDisconnectResult(0), m_nId(0),
      m_bUseConnectionMessages(false), m_nPort(0), m_nAliveMode(eAliveOff), m_nAliveTick(0), m_nAlivePeriod(0),
      m_nAliveLastSend(0), m_nAliveLastReceive(0), m_bDatagramServer(false)
{
    std::memset(m_acReserved, 0, sizeof(m_acReserved));
    SetIdentifiers(0);
}

CKelIPConnection::CKelIPConnection(CKelIPServerContainer* poContainer, unsigned char nId,
                                   CKelIPBase::EProtocol eProtocol, int nSocket, bool bUseConnectionMessages)
    : CKelIPConnection()
{
    m_poServerContainer = poContainer;
    SetIdentifiers(nId);
    m_bUseConnectionMessages.store(bUseConnectionMessages, std::memory_order_relaxed);
    if (nSocket == -1)
        return;

    sockaddr_storage address;
    socklen_t length = sizeof(address);
    if ((eProtocol == eTCP && SetSocketOptions(nSocket) != eKelIPSuccess) ||
        getpeername(nSocket, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    {
        close(nSocket);
        return;
    }
    SetPeer(address, length, nullptr);
    SetProtocol(eProtocol);
    SetSocket(nSocket);
    SetState(eConnected);
    m_poReadThread.reset(new CReadThread(this));
}

CKelIPConnection::CKelIPConnection(unsigned char nId, unsigned short nPort, bool bUseConnectionMessages)
    : CKelIPConnection()
{
    SetIdentifiers(nId);
    m_bUseConnectionMessages.store(bUseConnectionMessages, std::memory_order_relaxed);
    m_bDatagramServer = true;
    SetProtocol(eUDP);

    const CKelAddrInfoList addresses = Resolve(nullptr, nPort, AF_INET, SOCK_DGRAM, AI_PASSIVE);
    if (!addresses)
        return;

    const int socket = ::socket(addresses->ai_family, addresses->ai_socktype, addresses->ai_protocol);
    if (socket < 0)
        return;
    const int on = 1;
    if (setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
        bind(socket, addresses->ai_addr, addresses->ai_addrlen) != 0)
    {
        close(socket);
        return;
    }
    SetSocket(socket);
    SetState(eWaitingForPeer);
    m_poReadThread.reset(new CReadThread(this));
}

CKelIPConnection::~CKelIPConnection()
{
    Shutdown();
}

void CKelIPConnection::Shutdown()
{
    if (GetState() == eConnected)
        DisconnectReq(500);
    if (m_bDatagramServer)
        CloseSocket();
    if (m_poReadThread)
        m_poReadThread->Terminate();
    DestroyAliveThread();
}

void CKelIPConnection::SetPeer(const sockaddr_storage& oAddress, unsigned int nLength, const char* pcHost)
{
    char text[INET6_ADDRSTRLEN];
    const char* numeric = getIpStr(reinterpret_cast<const sockaddr*>(&oAddress), text, sizeof(text));
    CKelLockGuard guard(m_oPeerGuard);
    m_oPeerAddr = oAddress;
    m_nPeerAddrLen = nLength;
    m_sPeerAddress = numeric != nullptr ? numeric : "";
    m_sHost = pcHost != nullptr ? pcHost : m_sPeerAddress;
    m_nPort = KelPortOf(oAddress);
}

std::string CKelIPConnection::GetPeerAddress() const
{
    CKelLockGuard guard(m_oPeerGuard);
    return m_sPeerAddress;
}

std::string CKelIPConnection::GetHost() const
{
    CKelLockGuard guard(m_oPeerGuard);
    return m_sHost;
}

unsigned short CKelIPConnection::GetPort() const
{
    CKelLockGuard guard(m_oPeerGuard);
    return m_nPort;
}

int CKelIPConnection::GetReadThreadState() const
{
    return m_poReadThread ? m_poReadThread->GetState() : static_cast<int>(CKelThread::eFinished);
}

bool CKelIPConnection::StartReadThread()
{
    if (!m_poReadThread)
        return false;
    return m_poReadThread->IsRunning() || m_poReadThread->Start();
}

unsigned int CKelIPConnection::SetSocketOptions(int nSocket)
{
    const int on = 1;
    const int idleSeconds = 5;
    const int intervalSeconds = 1;
    const int probes = 5;
    if (setsockopt(nSocket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on)) != 0 ||
        setsockopt(nSocket, IPPROTO_TCP, TCP_KEEPIDLE, &idleSeconds, sizeof(idleSeconds)) != 0 ||
        setsockopt(nSocket, IPPROTO_TCP, TCP_KEEPINTVL, &intervalSeconds, sizeof(intervalSeconds)) != 0 ||
        setsockopt(nSocket, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof(probes)) != 0)
        return eKelIPError;
    setsockopt(nSocket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return eKelIPSuccess;
}

// ------------------------------------------------------------ hooks

void CKelIPConnection::ConnectInd(bool) {}

void CKelIPConnection::DataInd(const char*, unsigned short) {}

void CKelIPConnection::ReadEndInd() {}

bool CKelIPConnection::IsConnectMsgAccepted(const std::string&)
{
    return true;
}

// ------------------------------------------------------------ connecting

unsigned int CKelIPConnection::ConnectReq(const char* pcHost, unsigned short nPort, unsigned int nTimeoutMs,
                                          unsigned char nId, CKelIPBase::EProtocol eProtocol,
                                          const std::string& sConnectData, bool bUseConnectionMessages)
{
    if (GetState() != eDisconnected)
        return eKelIPWrongState;
    if (eProtocol != eTCP && eProtocol != eUDP)
        return eKelIPError;

    // A read thread of the previous connection leaves by itself once the
    // state is not 3 any more; join it so that exactly one reader serves the
    // new socket.
    if (m_poReadThread)
        m_poReadThread->Terminate();

    SetIdentifiers(nId);
    m_bUseConnectionMessages.store(bUseConnectionMessages, std::memory_order_relaxed);
    m_nAliveMode.store(eAliveOff, std::memory_order_relaxed);
    SetProtocol(eProtocol);
    m_oConnectEvent.Reset();
    SetState(eConnecting);

    const CKelDeadline deadline(nTimeoutMs);

    const CKelAddrInfoList addresses =
        Resolve(pcHost, nPort, AF_UNSPEC, eProtocol == eTCP ? SOCK_STREAM : SOCK_DGRAM, 0);
    if (!addresses)
    {
        SetState(eDisconnected);
        return eKelIPNotConnected;
    }

    // Start a non-blocking connect on every address.
    std::vector<pollfd> pending;
    for (const addrinfo* address = addresses.get(); address != nullptr; address = address->ai_next)
    {
        const int socket = ::socket(address->ai_family, address->ai_socktype, address->ai_protocol);
        if (socket < 0)
            continue;
        if (!SetBlocking(socket, false) ||
            (connect(socket, address->ai_addr, address->ai_addrlen) != 0 && errno != EINPROGRESS))
        {
            close(socket);
            continue;
        }
        pending.push_back(pollfd{socket, POLLOUT, 0});
    }

    auto closeAll = [&pending](int nKeep) {
        for (const pollfd& entry : pending)
            if (entry.fd != nKeep)
                close(entry.fd);
    };

    // No address left that could become writable: the host cannot be reached.
    if (pending.empty())
    {
        SetState(eDisconnected);
        return eKelIPNotConnected;
    }

    const int ready = poll(pending.data(), pending.size(), KelPollTimeout(nTimeoutMs));
    if (ready < 0)
    {
        // The state deliberately stays "connecting".
        closeAll(-1);
        return eKelIPError;
    }
    if (ready == 0)
    {
        closeAll(-1);
        SetState(eDisconnected);
        return eKelIPNotConnected;
    }

    // The lowest writable descriptor that takes the socket options wins.
    std::sort(pending.begin(), pending.end(), [](const pollfd& oA, const pollfd& oB) { return oA.fd < oB.fd; });
    int chosen = -1;
    for (const pollfd& entry : pending)
    {
        if (entry.revents == 0 || (entry.revents & POLLNVAL) != 0)
            continue;
        if (!SetBlocking(entry.fd, true))
            continue;
        if (eProtocol == eTCP && SetSocketOptions(entry.fd) != eKelIPSuccess)
            continue;
        chosen = entry.fd;
        break;
    }
    closeAll(chosen);
    if (chosen < 0)
    {
        SetState(eDisconnected);
        return eKelIPNotConnected;
    }
    SetSocket(chosen);

    // Writability alone does not prove success: a refused connect ends here.
    sockaddr_storage peer;
    socklen_t peerLength = sizeof(peer);
    if (getpeername(chosen, reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0)
    {
        {
            CKelLockGuard guard(m_oPeerGuard);
            m_nPeerAddrLen = 0;
        }
        CloseSocket();
        return eKelIPError;
    }
    SetPeer(peer, peerLength, pcHost != nullptr ? pcHost : "");
    SetState(eConnected);

    if (!m_poReadThread)
        m_poReadThread.reset(new CReadThread(this));
    StartReadThread();

    if (bUseConnectionMessages)
    {
        const unsigned int result = ConnectHandshake(sConnectData, deadline);
        if (result != eKelIPSuccess)
            return result;
    }

    ConnectInd(true);
    return eKelIPSuccess;
}

// ------------------------------------------------------------ sending

unsigned int CKelIPConnection::DataReq(const char* pcData, unsigned short nLength, unsigned int nTimeoutMs)
{
    const int state = GetState();
    if (state != eConnected)
        return RefusalInState(state);
    if (GetProtocol() == eTCP)
    {
        size_t sent = 0;
        return SendStream(pcData, nLength, nTimeoutMs, sent);
    }
    return SendDatagram(pcData, nLength, nTimeoutMs);
}

unsigned int CKelIPConnection::DataReqBatch(const char* pcData, size_t nLength, unsigned int nTimeoutMs,
                                            size_t* pnSentBytes)
{
    size_t sent = 0;
    unsigned int result;
    const int state = GetState();
    if (state != eConnected)
        result = RefusalInState(state);
    else if (GetProtocol() == eTCP)
        result = SendStream(pcData, nLength, nTimeoutMs, sent);
    else
    {
        // A datagram carries one message: the receiver drops what follows
        // a message that does not fit, so none is cut across two.
        result = eKelIPSuccess;
        while (result == eKelIPSuccess && nLength - sent >= 2)
        {
            const size_t message = CKelMsg::GetU16(pcData + sent) + 2u;
            if (message > nLength - sent || message > 0xFFFF)
            {
                result = eKelIPError;
                break;
            }
            result = SendDatagram(pcData + sent, static_cast<unsigned short>(message), nTimeoutMs);
            if (result == eKelIPSuccess)
                sent += message;
        }
    }
    if (pnSentBytes != nullptr)
        *pnSentBytes = sent;
    return result;
}

unsigned int CKelIPConnection::DataReq(const CKelMsg& oMessage, unsigned int nTimeoutMs)
{
    char stackBuffer[STACK_MESSAGE_SIZE];
    const unsigned int size = oMessage.WriteTo(stackBuffer, sizeof(stackBuffer));
    if (size != 0)
        return DataReq(stackBuffer, static_cast<unsigned short>(size), nTimeoutMs);
    std::string bytes;
    oMessage.GetMessageData(bytes);
    return DataReq(bytes.data(), static_cast<unsigned short>(bytes.size()), nTimeoutMs);
}

unsigned int CKelIPConnection::SendStream(const char* pcData, size_t nLength, unsigned int nTimeoutMs, size_t& nSent)
{
    if (nLength == 0)
        return eKelIPSuccess;
    const int socket = GetSocket();
    const CKelDeadline deadline(nTimeoutMs);
    // One message at a time: the alive thread and the read thread's replies
    // send beside the owner, and none of them may cut into a message that
    // goes out in parts. Waiting for the turn counts against the time-out
    // like waiting for the socket.
    if (!m_oSendTurns.Begin(deadline))
    {
        EndConnection();
        return eKelIPTimeout;
    }
    bool ends = false;
    const unsigned int result = SendWhole(socket, pcData, nLength, deadline, ends, nSent);
    m_oSendTurns.End();
    // Ended after the turn: ConnectInd(false) may wait for another sender.
    if (ends)
        EndConnection();
    return result;
}

unsigned int CKelIPConnection::SendWhole(int nSocket, const char* pcData, size_t nLength, const CKelDeadline& oDeadline,
                                         bool& bEnds, size_t& nSent)
{
    nSent = 0;
    // The socket is tried first: while it takes the bytes, this saves one
    // wait per message; when it is full the wait below takes over.
    for (;;)
    {
        ssize_t result;
        {
            CKelLockGuard guard(m_oSocketGuard);
            // The socket was closed: the connection this message was meant
            // for has ended already (a newer one must not be ended here).
            if (GetSocket() != nSocket)
                return eKelIPError;
            result = send(nSocket, pcData + nSent, nLength - nSent, MSG_DONTWAIT | MSG_NOSIGNAL);
        }
        if (result >= 0)
        {
            nSent += static_cast<size_t>(result);
            if (nSent == nLength)
            {
                NoteSent();
                return eKelIPSuccess;
            }
        }
        else if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
        {
            return eKelIPError; // the connection stays open
        }

        const int ready = oDeadline.HasPassed() ? 0 : KelWaitForSocket(nSocket, POLLOUT, oDeadline.RemainingPollMs());
        if (ready <= 0)
        {
            bEnds = true;
            return ready == 0 ? eKelIPTimeout : eKelIPError;
        }
    }
}

unsigned int CKelIPConnection::SendDatagram(const char* pcData, unsigned short nLength, unsigned int nTimeoutMs)
{
    const int socket = GetSocket();
    const int ready = KelWaitForSocket(socket, POLLOUT, KelPollTimeout(nTimeoutMs));
    if (ready == 0)
    {
        EndConnection();
        return eKelIPTimeout;
    }
    if (ready < 0)
    {
        EndConnection();
        return eKelIPError;
    }
    sockaddr_storage peer;
    socklen_t peerLength;
    {
        CKelLockGuard guard(m_oPeerGuard);
        peer = m_oPeerAddr;
        peerLength = m_nPeerAddrLen;
    }
    ssize_t result;
    {
        CKelLockGuard guard(m_oSocketGuard);
        if (GetSocket() != socket)
            return eKelIPError;
        result = sendto(socket, pcData, nLength, MSG_DONTWAIT | MSG_NOSIGNAL,
                        peerLength != 0 ? reinterpret_cast<const sockaddr*>(&peer) : nullptr, peerLength);
    }
    if (result < 0)
        return eKelIPError;
    NoteSent();
    return eKelIPSuccess;
}

// ------------------------------------------------------------ ending

bool CKelIPConnection::EndConnection()
{
    // Whoever moves the state out of "connected" reports the end, once.
    if (!ChangeState(eConnected, eDisconnecting))
        return false;
    ConnectInd(false);
    if (m_bDatagramServer)
    {
        {
            CKelLockGuard guard(m_oPeerGuard);
            m_nPeerAddrLen = 0;
        }
        SetState(eWaitingForPeer);
    }
    else
    {
        CloseSocket();
        SetState(eDisconnected);
    }
    return true;
}

unsigned int CKelIPConnection::CloseConnection()
{
    return EndConnection() ? eKelIPSuccess : eKelIPWrongState;
}
