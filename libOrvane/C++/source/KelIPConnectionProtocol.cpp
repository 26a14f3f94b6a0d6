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

void CKelIPConnection::SetIdentifiers(unsigned char nId)
{
    m_nId = nId;
    m_nConnectReqId = CKelMsg::Command(nId, CKelMsg::eConnectReq);
    m_nConnectCnfId = CKelMsg::Command(nId, CKelMsg::eConnectReq | CKelMsg::eConfirmation);
    m_nDisconnectReqId = CKelMsg::Command(nId, CKelMsg::eDisconnectReq);
    m_nDisconnectCnfId = CKelMsg::Command(nId, CKelMsg::eDisconnectReq | CKelMsg::eConfirmation);
    m_nAliveReqId = CKelMsg::Command(nId, CKelMsg::eAliveReq);
    m_nAliveCnfId = CKelMsg::Command(nId, CKelMsg::eAliveReq | CKelMsg::eConfirmation);
}

bool CKelIPConnection::IsConnectionCommand(unsigned short nCommand) const
{
    return nCommand == m_nAliveReqId || nCommand == m_nAliveCnfId || nCommand == m_nConnectReqId ||
        nCommand == m_nConnectCnfId || nCommand == m_nDisconnectReqId || nCommand == m_nDisconnectCnfId;
}

// ------------------------------------------------------------ connect and disconnect

// Connect request out, its confirmation in, within the deadline; anything
// but acceptance closes the connection again.
unsigned int CKelIPConnection::ConnectHandshake(const std::string& sConnectData, const CKelDeadline& oDeadline)
{
    const CKelMsg request(m_nConnectReqId, 1, sConnectData.data(), static_cast<unsigned short>(sConnectData.size()));
    const unsigned int sent = DataReq(request, oDeadline.RemainingMs());
    if (sent != eKelIPSuccess)
    {
        CloseConnection();
        return sent;
    }
    if (!m_oConnectEvent.Wait(oDeadline.RemainingMs()))
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

unsigned int CKelIPConnection::DisconnectReq(unsigned int nTimeoutMs)
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
        result = DataReq(request, static_cast<unsigned short>(size), nTimeoutMs);
        if (result == eKelIPSuccess)
        {
            if (!m_oDisconnectEvent.Wait(nTimeoutMs))
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

void CKelIPConnection::SendReply(unsigned short nCommand, unsigned short nNumber, unsigned char nResult,
                                 unsigned int nTimeoutMs)
{
    char reply[CKelMsg::OVERHEAD + 1];
    const char data = static_cast<char>(nResult);
    const unsigned int size = CKelMsg::Build(reply, sizeof(reply), nCommand, nNumber, &data, 1);
    DataReq(reply, static_cast<unsigned short>(size), nTimeoutMs);
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

unsigned int CKelIPConnection::SetAlive(unsigned int nPeriodMs)
{
    if (GetState() != eConnected)
        return eKelIPNotConnected;
    if (nPeriodMs == 0)
    {
        m_nAliveMode.store(eAliveOff, std::memory_order_relaxed);
        DestroyAliveThread();
        // The peer is told the period stored before, not 0.
        return AliveReq(0);
    }
    m_nAlivePeriod.store(nPeriodMs, std::memory_order_relaxed);
    if (m_nAliveMode.load(std::memory_order_relaxed) == eAliveOff)
        ResetAliveCounters();
    CreateAliveThread();
    m_nAliveMode.store(eAliveActive, std::memory_order_relaxed);
    return AliveReq(nPeriodMs);
}

unsigned int CKelIPConnection::AliveReq(unsigned int nTimeoutMs)
{
    char period[4];
    CKelMsg::PutU32(period, m_nAlivePeriod.load(std::memory_order_relaxed));
    char request[CKelMsg::OVERHEAD + sizeof(period)];
    const unsigned int size = CKelMsg::Build(request, sizeof(request), m_nAliveReqId, 0, period, sizeof(period));
    return DataReq(request, static_cast<unsigned short>(size), nTimeoutMs);
}

// A protocol switched on afresh judges silence from its own start, not from
// the marks an earlier phase left behind.
void CKelIPConnection::ResetAliveCounters()
{
    m_nAliveTick.store(0, std::memory_order_relaxed);
    m_nAliveLastSend.store(0, std::memory_order_relaxed);
    m_nAliveLastReceive.store(0, std::memory_order_relaxed);
}

void CKelIPConnection::HandleAliveReq(const char* pcBytes, unsigned short nCount)
{
    if (!CKelMsg::IsIntact(pcBytes, nCount))
        return;
    unsigned char result = 0xFF;
    unsigned int replyTimeoutMs = REPLY_TIMEOUT_MS;
    if (nCount > CKelMsg::OVERHEAD + 3)
    {
        const unsigned int period = CKelMsg::GetU32(pcBytes + CKelMsg::HEADER_SIZE);
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
    SendReply(m_nAliveCnfId, CKelMsg::GetU16(pcBytes + 4), result, replyTimeoutMs);
}

// A whole message went out: in the active alive mode the line is not quiet.
void CKelIPConnection::NoteSent()
{
    if (m_nAliveMode.load(std::memory_order_relaxed) == eAliveActive)
        m_nAliveLastSend.store(m_nAliveTick.load(std::memory_order_relaxed), std::memory_order_relaxed);
}

// ------------------------------------------------------------ dispatching

void CKelIPConnection::BaseDataInd(const char* pcData, unsigned short nLength, const sockaddr_storage* poFrom,
                                   unsigned int nFromLength)
{
    if (!m_bUseConnectionMessages.load(std::memory_order_relaxed))
    {
        DataInd(pcData, nLength);
        return;
    }
    if (m_nAliveMode.load(std::memory_order_relaxed) != eAliveOff)
        m_nAliveLastReceive.store(m_nAliveTick.load(std::memory_order_relaxed), std::memory_order_relaxed);

    const unsigned short command = nLength >= 4 ? CKelMsg::GetU16(pcData + 2) : 0;
    if (m_bDatagramServer)
    {
        if (poFrom == nullptr)
            return;
        const sockaddr* sender = reinterpret_cast<const sockaddr*>(poFrom);
        if (nLength > CKelMsg::HEADER_SIZE && command == m_nConnectReqId)
        {
            if (!CKelMsg::IsIntact(pcData, nLength))
                return;
            SetPeer(*poFrom, nFromLength, nullptr);
            SetState(eConnected);
            ConnectInd(true);
            const bool accepted =
                IsConnectMsgAccepted(std::string(pcData + CKelMsg::HEADER_SIZE, nLength - CKelMsg::OVERHEAD));
            SendReply(m_nConnectCnfId, CKelMsg::GetU16(pcData + 4), accepted ? 0 : 0xFF, REPLY_TIMEOUT_MS);
            if (!accepted)
                EndConnection();
            return;
        }
        bool fromPeer = false;
        if (GetState() == eConnected)
        {
            CKelLockGuard guard(m_oPeerGuard);
            fromPeer =
                SockaddrsAreEqual(sender, nFromLength, reinterpret_cast<const sockaddr*>(&m_oPeerAddr), m_nPeerAddrLen);
        }
        if (!fromPeer && command != DATAGRAM_OPEN_COMMAND)
            return;
    }

    if (nLength < CKelMsg::OVERHEAD)
    {
        DataInd(pcData, nLength);
        return;
    }
    if (IsConnectionCommand(command) && !AnswersConnectionMessages())
        return;

    if (command == m_nAliveReqId)
    {
        HandleAliveReq(pcData, nLength);
    }
    else if (command == m_nAliveCnfId)
    {
        // Nothing to do: any received message already counts as a sign of life.
    }
    else if (command == m_nConnectReqId)
    {
        if (!CKelMsg::IsIntact(pcData, nLength))
            return;
        unsigned char result = 0;
        if (m_poServerContainer != nullptr && m_poServerContainer->IsConnectionLimitExceeded())
            result = 1;
        else if (!IsConnectMsgAccepted(std::string(pcData + CKelMsg::HEADER_SIZE, nLength - CKelMsg::OVERHEAD)))
            result = 0xFF;
        SendReply(m_nConnectCnfId, CKelMsg::GetU16(pcData + 4), result, REPLY_TIMEOUT_MS);
        if (result != 0)
            EndConnection();
    }
    else if (command == m_nConnectCnfId)
    {
        if (nLength == CKelMsg::OVERHEAD || !CKelMsg::IsIntact(pcData, nLength))
            return;
        m_nConnectResult.store(static_cast<unsigned char>(pcData[CKelMsg::HEADER_SIZE]), std::memory_order_relaxed);
        m_oConnectEvent.Signal();
    }
    else if (command == m_nDisconnectReqId)
    {
        if (!CKelMsg::IsIntact(pcData, nLength))
            return;
        SendReply(m_nDisconnectCnfId, CKelMsg::GetU16(pcData + 4), 0, REPLY_TIMEOUT_MS);
        EndConnection();
    }
    else if (command == m_nDisconnectCnfId)
    {
        if (nLength == CKelMsg::OVERHEAD || !CKelMsg::IsIntact(pcData, nLength))
            return;
        m_nDisconnectResult.store(static_cast<unsigned char>(pcData[CKelMsg::HEADER_SIZE]), std::memory_order_relaxed);
        m_oDisconnectEvent.Signal();
    }
    else
    {
        DataInd(pcData, nLength);
    }
}
