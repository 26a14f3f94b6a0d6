// The connection messages of a CKelIPConnection: their identifiers, the
// connect handshake, the disconnect exchange, the alive protocol's requests,
// answers and marks, and the dispatcher that answers connection messages and
// hands every other message up. The socket's lifecycle and sending are in
// KelIPConnection.cpp, what one pass of the alive thread decides is in
// KelAliveRules.
#include "KelIPConnection.h"

#include "KelIPConnectionThreads.h"
#include "KelIPServerContainer.h"
#include "KelMsg.h"

#include <string>

namespace
{
const unsigned int REPLY_TIMEOUT_MS = 1000;
// Command let through by a datagram server endpoint from any sender.
const unsigned short DATAGRAM_OPEN_COMMAND = 0x020C;
} // namespace

// ------------------------------------------------------------ identifiers

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

bool CKelIPConnection::IsConnectionCommand(unsigned short command) const
{
    return command == m_nAliveReqId || command == m_nAliveCnfId || command == m_nConnectReqId ||
        command == m_nConnectCnfId || command == m_nDisconnectReqId || command == m_nDisconnectCnfId;
}

// ------------------------------------------------------------ connect and disconnect

// Connect request out, its confirmation in, within the deadline; anything
// but acceptance closes the connection again.
unsigned int CKelIPConnection::ConnectHandshake(const std::string& connectData, const CKelDeadline& deadline)
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
    return eKelIPSuccess;
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
        char request[CKelMsg::OVERHEAD];
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

void CKelIPConnection::SendReply(unsigned short command, unsigned short number, unsigned char result,
                                 unsigned int timeoutMs)
{
    char reply[CKelMsg::OVERHEAD + 1];
    const char data = static_cast<char>(result);
    const unsigned int size = CKelMsg::Build(reply, sizeof(reply), command, number, &data, 1);
    DataReq(reply, static_cast<unsigned short>(size), timeoutMs);
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
    char request[CKelMsg::OVERHEAD + sizeof(period)];
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
    unsigned int replyTimeoutMs = REPLY_TIMEOUT_MS;
    if (count > CKelMsg::OVERHEAD + 3)
    {
        const unsigned int period = CKelMsg::GetU32(bytes + CKelMsg::HEADER_SIZE);
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

// A whole message went out: in the active alive mode the line is not quiet.
void CKelIPConnection::NoteSent()
{
    if (m_nAliveMode.load(std::memory_order_relaxed) == eAliveActive)
        m_nAliveLastSend.store(m_nAliveTick.load(std::memory_order_relaxed), std::memory_order_relaxed);
}

// ------------------------------------------------------------ dispatching

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
        if (length > CKelMsg::HEADER_SIZE && command == m_nConnectReqId)
        {
            if (!CKelMsg::IsIntact(data, length))
                return;
            SetPeer(*from, fromLength, nullptr);
            SetState(eConnected);
            ConnectInd(true);
            const bool accepted =
                IsConnectMsgAccepted(std::string(data + CKelMsg::HEADER_SIZE, length - CKelMsg::OVERHEAD));
            SendReply(m_nConnectCnfId, CKelMsg::GetU16(data + 4), accepted ? 0 : 0xFF, REPLY_TIMEOUT_MS);
            if (!accepted)
                EndConnection();
            return;
        }
        bool fromPeer = false;
        if (GetState() == eConnected)
        {
            CKelLockGuard guard(m_oPeerGuard);
            fromPeer =
                SockaddrsAreEqual(sender, fromLength, reinterpret_cast<const sockaddr*>(&m_oPeerAddr), m_nPeerAddrLen);
        }
        if (!fromPeer && command != DATAGRAM_OPEN_COMMAND)
            return;
    }

    if (length < CKelMsg::OVERHEAD)
    {
        DataInd(data, length);
        return;
    }
    if (IsConnectionCommand(command) && !AnswersConnectionMessages())
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
        else if (!IsConnectMsgAccepted(std::string(data + CKelMsg::HEADER_SIZE, length - CKelMsg::OVERHEAD)))
            result = 0xFF;
        SendReply(m_nConnectCnfId, CKelMsg::GetU16(data + 4), result, REPLY_TIMEOUT_MS);
        if (result != 0)
            EndConnection();
    }
    else if (command == m_nConnectCnfId)
    {
        if (length == CKelMsg::OVERHEAD || !CKelMsg::IsIntact(data, length))
            return;
        m_nConnectResult.store(static_cast<unsigned char>(data[CKelMsg::HEADER_SIZE]), std::memory_order_relaxed);
        m_oConnectEvent.Signal();
    }
    else if (command == m_nDisconnectReqId)
    {
        if (!CKelMsg::IsIntact(data, length))
            return;
        SendReply(m_nDisconnectCnfId, CKelMsg::GetU16(data + 4), 0, REPLY_TIMEOUT_MS);
        EndConnection();
    }
    else if (command == m_nDisconnectCnfId)
    {
        if (length == CKelMsg::OVERHEAD || !CKelMsg::IsIntact(data, length))
            return;
        m_nDisconnectResult.store(static_cast<unsigned char>(data[CKelMsg::HEADER_SIZE]), std::memory_order_relaxed);
        m_oDisconnectEvent.Signal();
    }
    else
    {
        DataInd(data, length);
    }
}
