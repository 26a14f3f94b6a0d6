#include "KelIPConnection.h"

#include "KelIPConnectionThreads.h"
#include "KelIPServerContainer.h"
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
const unsigned int kReplyTimeoutMs = 1000;
// Command let through by a datagram server endpoint from any sender.
const unsigned short kDatagramOpenCommand = 0x020C;
// Messages up to this size are serialised on the stack.
const unsigned int kStackMessageSize = 512;

bool SetBlocking(int socket, bool blocking)
{
    const int flags = fcntl(socket, F_GETFL, 0);
    if (flags < 0)
        return false;
    const int wanted = blocking ? (flags & ~O_NONBLOCK) : (flags | O_NONBLOCK);
    return fcntl(socket, F_SETFL, wanted) == 0;
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

CKelIPConnection::CKelIPConnection(CKelIPServerContainer* container, unsigned char id, CKelIPBase::EProtocol protocol,
                                   int socket, bool useConnectionMessages)
    : CKelIPConnection()
{
    m_poServerContainer = container;
    SetIdentifiers(id);
    m_bUseConnectionMessages.store(useConnectionMessages, std::memory_order_relaxed);
    if (socket == -1)
        return;

    sockaddr_storage address;
    socklen_t length = sizeof(address);
    if ((protocol == eTCP && SetSocketOptions(socket) != eKelIPSuccess) ||
        getpeername(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    {
        close(socket);
        return;
    }
    SetPeer(address, length, nullptr);
    SetProtocol(protocol);
    SetSocket(socket);
    SetState(eConnected);
    m_poReadThread.reset(new CReadThread(this));
}

CKelIPConnection::CKelIPConnection(unsigned char id, unsigned short port, bool useConnectionMessages)
    : CKelIPConnection()
{
    SetIdentifiers(id);
    m_bUseConnectionMessages.store(useConnectionMessages, std::memory_order_relaxed);
    m_bDatagramServer = true;
    SetProtocol(eUDP);

    const CKelAddrInfoList addresses = Resolve(nullptr, port, AF_INET, SOCK_DGRAM, AI_PASSIVE);
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

void CKelIPConnection::SetIdentifiers(unsigned char id)
{
    m_nId = id;
    m_nConnectReqId = CKelMsg::Command(id, CKelMsg::eConnectReq);
    m_nConnectCnfId = CKelMsg::Command(id, CKelMsg::eConnectReq | CKelMsg::eConfirmation);
    m_nDisconnectReqId = CKelMsg::Command(id, CKelMsg::eDisconnectReq);
    m_nDisconnectCnfId = CKelMsg::Command(id, CKelMsg::eDisconnectReq | CKelMsg::eConfirmation);
    m_nAliveReqId = CKelMsg::Command(id, CKelMsg::eAliveReq);
    m_nAliveCnfId = CKelMsg::Command(id, CKelMsg::eAliveReq | CKelMsg::eConfirmation);
}

void CKelIPConnection::SetPeer(const sockaddr_storage& address, unsigned int length, const char* host)
{
    char text[INET6_ADDRSTRLEN];
    const char* numeric = getIpStr(reinterpret_cast<const sockaddr*>(&address), text, sizeof(text));
    CKelLockGuard guard(m_oPeerGuard);
    m_sPeerAddr = address;
    m_nPeerAddrLen = length;
    m_sPeerAddress = numeric != nullptr ? numeric : "";
    m_sHost = host != nullptr ? host : m_sPeerAddress;
    m_nPort = KelPortOf(address);
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

unsigned int CKelIPConnection::SetSocketOptions(int socket)
{
    const int on = 1;
    const int idleSeconds = 5;
    const int intervalSeconds = 1;
    const int probes = 5;
    if (setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on)) != 0 ||
        setsockopt(socket, IPPROTO_TCP, TCP_KEEPIDLE, &idleSeconds, sizeof(idleSeconds)) != 0 ||
        setsockopt(socket, IPPROTO_TCP, TCP_KEEPINTVL, &intervalSeconds, sizeof(intervalSeconds)) != 0 ||
        setsockopt(socket, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof(probes)) != 0)
        return eKelIPError;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return eKelIPSuccess;
}

// ------------------------------------------------------------ hooks

void CKelIPConnection::ConnectInd(bool) {}

void CKelIPConnection::DataInd(const char*, unsigned short) {}

bool CKelIPConnection::IsConnectMsgAccepted(const std::string&)
{
    return true;
}

// ------------------------------------------------------------ connecting

unsigned int CKelIPConnection::ConnectReq(const char* host, unsigned short port, unsigned int timeoutMs,
                                          unsigned char id, CKelIPBase::EProtocol protocol,
                                          const std::string& connectData, bool useConnectionMessages)
{
    if (GetState() != eDisconnected)
        return eKelIPWrongState;
    if (protocol != eTCP && protocol != eUDP)
        return eKelIPError;

    // A read thread of the previous connection leaves by itself once the
    // state is not 3 any more; join it so that exactly one reader serves the
    // new socket.
    if (m_poReadThread)
        m_poReadThread->Terminate();

    SetIdentifiers(id);
    m_bUseConnectionMessages.store(useConnectionMessages, std::memory_order_relaxed);
    m_nAliveMode.store(eAliveOff, std::memory_order_relaxed);
    SetProtocol(protocol);
    m_oConnectEvent.Reset();
    SetState(eConnecting);

    const CKelDeadline deadline(timeoutMs);

    const CKelAddrInfoList addresses = Resolve(host, port, AF_UNSPEC, protocol == eTCP ? SOCK_STREAM : SOCK_DGRAM, 0);
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

    auto closeAll = [&pending](int keep) {
        for (const pollfd& entry : pending)
            if (entry.fd != keep)
                close(entry.fd);
    };

    // No address left that could become writable: the host cannot be reached.
    if (pending.empty())
    {
        SetState(eDisconnected);
        return eKelIPNotConnected;
    }

    const int ready = poll(pending.data(), pending.size(), KelPollTimeout(timeoutMs));
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
    std::sort(pending.begin(), pending.end(), [](const pollfd& a, const pollfd& b) { return a.fd < b.fd; });
    int chosen = -1;
    for (const pollfd& entry : pending)
    {
        if (entry.revents == 0 || (entry.revents & POLLNVAL) != 0)
            continue;
        if (!SetBlocking(entry.fd, true))
            continue;
        if (protocol == eTCP && SetSocketOptions(entry.fd) != eKelIPSuccess)
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
    SetPeer(peer, peerLength, host != nullptr ? host : "");
    SetState(eConnected);

    if (!m_poReadThread)
        m_poReadThread.reset(new CReadThread(this));
    StartReadThread();

    if (useConnectionMessages)
    {
        const CKelMsg request(m_nConnectReqId, 1, connectData.data(), static_cast<unsigned short>(connectData.size()));
        const unsigned int sent = DataReq(request, deadline.RemainingMs());
        if (sent != eKelIPSuccess)
        {
            CloseConnection();
            return sent;
        }
        if (!m_oConnectEvent.Wait(deadline.RemainingMs()))
        {
            CloseConnection();
            return eKelIPTimeout;
        }
        const unsigned char result = m_nConnectResult.load(std::memory_order_relaxed);
        if (result == 1)
        {
            CloseConnection();
            return eKelIPRefused;
        }
        if (result != 0)
        {
            CloseConnection();
            return eKelIPNotConnected;
        }
    }

    ConnectInd(true);
    return eKelIPSuccess;
}

// ------------------------------------------------------------ sending

unsigned int CKelIPConnection::DataReq(const char* data, unsigned short length, unsigned int timeoutMs)
{
    const int state = GetState();
    if (state != eConnected)
    {
        if (state == eState6)
            return eKelIPState6;
        return state == eDisconnected ? eKelIPNotConnected : eKelIPWrongState;
    }
    if (GetProtocol() == eTCP)
        return SendStream(data, length, timeoutMs);
    return SendDatagram(data, length, timeoutMs);
}

unsigned int CKelIPConnection::DataReq(const CKelMsg& message, unsigned int timeoutMs)
{
    char stackBuffer[kStackMessageSize];
    const unsigned int size = message.WriteTo(stackBuffer, sizeof(stackBuffer));
    if (size != 0)
        return DataReq(stackBuffer, static_cast<unsigned short>(size), timeoutMs);
    std::string bytes;
    message.GetMessageData(bytes);
    return DataReq(bytes.data(), static_cast<unsigned short>(bytes.size()), timeoutMs);
}

unsigned int CKelIPConnection::SendStream(const char* data, unsigned short length, unsigned int timeoutMs)
{
    if (length == 0)
        return eKelIPSuccess;
    const int socket = GetSocket();
    const CKelDeadline deadline(timeoutMs);
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
    const unsigned int result = SendWhole(socket, data, length, deadline, ends);
    m_oSendTurns.End();
    // Ended after the turn: ConnectInd(false) may wait for another sender.
    if (ends)
        EndConnection();
    return result;
}

unsigned int CKelIPConnection::SendWhole(int socket, const char* data, unsigned short length,
                                         const CKelDeadline& deadline, bool& ends)
{
    size_t sent = 0;
    // The socket is tried first: while it takes the bytes, this saves one
    // wait per message; when it is full the wait below takes over.
    for (;;)
    {
        ssize_t result;
        {
            CKelLockGuard guard(m_oSocketGuard);
            // The socket was closed: the connection this message was meant
            // for has ended already (a newer one must not be ended here).
            if (GetSocket() != socket)
                return eKelIPError;
            result = send(socket, data + sent, length - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        }
        if (result >= 0)
        {
            sent += static_cast<size_t>(result);
            if (sent == length)
            {
                NoteSent();
                return eKelIPSuccess;
            }
        }
        else if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
        {
            return eKelIPError; // the connection stays open
        }

        const int ready = deadline.HasPassed() ? 0 : KelWaitForSocket(socket, POLLOUT, deadline.RemainingPollMs());
        if (ready <= 0)
        {
            ends = true;
            return ready == 0 ? eKelIPTimeout : eKelIPError;
        }
    }
}

unsigned int CKelIPConnection::SendDatagram(const char* data, unsigned short length, unsigned int timeoutMs)
{
    const int socket = GetSocket();
    const int ready = KelWaitForSocket(socket, POLLOUT, KelPollTimeout(timeoutMs));
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
        peer = m_sPeerAddr;
        peerLength = m_nPeerAddrLen;
    }
    ssize_t result;
    {
        CKelLockGuard guard(m_oSocketGuard);
        if (GetSocket() != socket)
            return eKelIPError;
        result = sendto(socket, data, length, MSG_DONTWAIT | MSG_NOSIGNAL,
                        peerLength != 0 ? reinterpret_cast<const sockaddr*>(&peer) : nullptr, peerLength);
    }
    if (result < 0)
        return eKelIPError;
    NoteSent();
    return eKelIPSuccess;
}

// A whole message went out: in the active alive mode the line is not quiet.
void CKelIPConnection::NoteSent()
{
    if (m_nAliveMode.load(std::memory_order_relaxed) == eAliveActive)
        m_nAliveLastSend.store(m_nAliveTick.load(std::memory_order_relaxed), std::memory_order_relaxed);
}

void CKelIPConnection::SendReply(unsigned short command, unsigned short number, unsigned char result,
                                 unsigned int timeoutMs)
{
    char reply[CKelMsg::kOverhead + 1];
    const char data = static_cast<char>(result);
    const unsigned int size = CKelMsg::Build(reply, sizeof(reply), command, number, &data, 1);
    DataReq(reply, static_cast<unsigned short>(size), timeoutMs);
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

unsigned int CKelIPConnection::DisconnectReq(unsigned int timeoutMs)
{
    if (GetState() != eConnected)
        return eKelIPWrongState;

    unsigned int result = eKelIPSuccess;
    if (m_bUseConnectionMessages.load(std::memory_order_relaxed))
    {
        // Drop a confirmation nobody asked for, so only ours releases the wait.
        m_oDisconnectEvent.Wait(0);
        char request[CKelMsg::kOverhead];
        const unsigned int size = CKelMsg::Build(request, sizeof(request), m_nDisconnectReqId, 0, nullptr, 0);
        result = DataReq(request, static_cast<unsigned short>(size), timeoutMs);
        if (result == eKelIPSuccess)
        {
            if (!m_oDisconnectEvent.Wait(timeoutMs))
                result = eKelIPTimeout;
            else if (m_nDisconnectResult.load(std::memory_order_relaxed) != 0)
                result = eKelIPError;
        }
        if (GetState() != eConnected)
            return result;
    }
    EndConnection();
    return result;
}

unsigned int CKelIPConnection::CloseConnection()
{
    return EndConnection() ? eKelIPSuccess : eKelIPWrongState;
}

// ------------------------------------------------------------ alive protocol

void CKelIPConnection::CreateAliveThread()
{
    CKelLockGuard guard(m_oAliveThreadGuard);
    if (!m_poAliveThread)
        m_poAliveThread.reset(new CAliveThread(this));
    if (!m_poAliveThread->IsRunning())
        m_poAliveThread->Start();
}

void CKelIPConnection::DestroyAliveThread()
{
    std::unique_ptr<CAliveThread> thread;
    {
        CKelLockGuard guard(m_oAliveThreadGuard);
        thread.swap(m_poAliveThread);
    }
    // Joined outside the guard: the alive thread may be ending the connection.
    thread.reset();
}

unsigned int CKelIPConnection::SetAlive(unsigned int periodMs)
{
    if (GetState() != eConnected)
        return eKelIPNotConnected;
    if (periodMs == 0)
    {
        m_nAliveMode.store(eAliveOff, std::memory_order_relaxed);
        DestroyAliveThread();
        // The peer is told the period stored before, not 0.
        return AliveReq(0);
    }
    m_nAlivePeriod.store(periodMs, std::memory_order_relaxed);
    if (m_nAliveMode.load(std::memory_order_relaxed) == eAliveOff)
        ResetAliveCounters();
    CreateAliveThread();
    m_nAliveMode.store(eAliveActive, std::memory_order_relaxed);
    return AliveReq(periodMs);
}

unsigned int CKelIPConnection::AliveReq(unsigned int timeoutMs)
{
    char period[4];
    CKelMsg::PutU32(period, m_nAlivePeriod.load(std::memory_order_relaxed));
    char request[CKelMsg::kOverhead + sizeof(period)];
    const unsigned int size = CKelMsg::Build(request, sizeof(request), m_nAliveReqId, 0, period, sizeof(period));
    return DataReq(request, static_cast<unsigned short>(size), timeoutMs);
}

// A protocol switched on afresh judges silence from its own start, not from
// the marks an earlier phase left behind.
void CKelIPConnection::ResetAliveCounters()
{
    m_nAliveTick.store(0, std::memory_order_relaxed);
    m_nAliveLastSend.store(0, std::memory_order_relaxed);
    m_nAliveLastReceive.store(0, std::memory_order_relaxed);
}

void CKelIPConnection::HandleAliveReq(const char* bytes, unsigned short count)
{
    if (!CKelMsg::IsIntact(bytes, count))
        return;
    unsigned char result = 0xFF;
    unsigned int replyTimeoutMs = kReplyTimeoutMs;
    if (count > CKelMsg::kOverhead + 3)
    {
        const unsigned int period = CKelMsg::GetU32(bytes + CKelMsg::kHeaderSize);
        m_nAlivePeriod.store(period, std::memory_order_relaxed);
        if (period == 0)
        {
            m_nAliveMode.store(eAliveOff, std::memory_order_relaxed);
            DestroyAliveThread();
        }
        else
        {
            if (m_nAliveMode.load(std::memory_order_relaxed) == eAliveOff)
            {
                ResetAliveCounters();
                m_nAliveMode.store(eAlivePassive, std::memory_order_relaxed);
                CreateAliveThread();
            }
            replyTimeoutMs = period;
        }
        result = 0;
    }
    SendReply(m_nAliveCnfId, CKelMsg::GetU16(bytes + 4), result, replyTimeoutMs);
}

// ------------------------------------------------------------ dispatching

bool CKelIPConnection::IsConnectionCommand(unsigned short command) const
{
    return command == m_nAliveReqId || command == m_nAliveCnfId || command == m_nConnectReqId ||
        command == m_nConnectCnfId || command == m_nDisconnectReqId || command == m_nDisconnectCnfId;
}

void CKelIPConnection::BaseDataInd(const char* data, unsigned short length, const sockaddr_storage* from,
                                   unsigned int fromLength)
{
    if (!m_bUseConnectionMessages.load(std::memory_order_relaxed))
    {
        DataInd(data, length);
        return;
    }
    if (m_nAliveMode.load(std::memory_order_relaxed) != eAliveOff)
        m_nAliveLastReceive.store(m_nAliveTick.load(std::memory_order_relaxed), std::memory_order_relaxed);

    const unsigned short command = length >= 4 ? CKelMsg::GetU16(data + 2) : 0;
    if (m_bDatagramServer)
    {
        if (from == nullptr)
            return;
        const sockaddr* sender = reinterpret_cast<const sockaddr*>(from);
        if (length > CKelMsg::kHeaderSize && command == m_nConnectReqId)
        {
            if (!CKelMsg::IsIntact(data, length))
                return;
            SetPeer(*from, fromLength, nullptr);
            SetState(eConnected);
            ConnectInd(true);
            const bool accepted =
                IsConnectMsgAccepted(std::string(data + CKelMsg::kHeaderSize, length - CKelMsg::kOverhead));
            SendReply(m_nConnectCnfId, CKelMsg::GetU16(data + 4), accepted ? 0 : 0xFF, kReplyTimeoutMs);
            if (!accepted)
                EndConnection();
            return;
        }
        bool fromPeer = false;
        if (GetState() == eConnected)
        {
            CKelLockGuard guard(m_oPeerGuard);
            fromPeer =
                SockaddrsAreEqual(sender, fromLength, reinterpret_cast<const sockaddr*>(&m_sPeerAddr), m_nPeerAddrLen);
        }
        if (!fromPeer && command != kDatagramOpenCommand)
            return;
    }

    if (length < CKelMsg::kOverhead)
    {
        DataInd(data, length);
        return;
    }
    if (IsMuted() && IsConnectionCommand(command))
        return;

    if (command == m_nAliveReqId)
    {
        HandleAliveReq(data, length);
    }
    else if (command == m_nAliveCnfId)
    {
        // Nothing to do: any received message already counts as a sign of life.
    }
    else if (command == m_nConnectReqId)
    {
        if (!CKelMsg::IsIntact(data, length))
            return;
        unsigned char result = 0;
        if (m_poServerContainer != nullptr && m_poServerContainer->IsConnectionLimitExceeded())
            result = 1;
        else if (!IsConnectMsgAccepted(std::string(data + CKelMsg::kHeaderSize, length - CKelMsg::kOverhead)))
            result = 0xFF;
        SendReply(m_nConnectCnfId, CKelMsg::GetU16(data + 4), result, kReplyTimeoutMs);
        if (result != 0)
            EndConnection();
    }
    else if (command == m_nConnectCnfId)
    {
        if (length == CKelMsg::kOverhead || !CKelMsg::IsIntact(data, length))
            return;
        m_nConnectResult.store(static_cast<unsigned char>(data[CKelMsg::kHeaderSize]), std::memory_order_relaxed);
        m_oConnectEvent.Signal();
    }
    else if (command == m_nDisconnectReqId)
    {
        if (!CKelMsg::IsIntact(data, length))
            return;
        SendReply(m_nDisconnectCnfId, CKelMsg::GetU16(data + 4), 0, kReplyTimeoutMs);
        EndConnection();
    }
    else if (command == m_nDisconnectCnfId)
    {
        if (length == CKelMsg::kOverhead || !CKelMsg::IsIntact(data, length))
            return;
        m_nDisconnectResult.store(static_cast<unsigned char>(data[CKelMsg::kHeaderSize]), std::memory_order_relaxed);
        m_oDisconnectEvent.Signal();
    }
    else
    {
        DataInd(data, length);
    }
}
