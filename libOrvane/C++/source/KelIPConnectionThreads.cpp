#include "KelIPConnectionThreads.h"

#include "KelAliveRules.h"
#include "KelMsg.h"
#include "KelSocketWait.h"

#include <cxxabi.h>
#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

namespace
{
// Stream framing: a read never fills past this offset unless it completes a
// message that started before it; the buffer holds the longest such message.
const size_t STREAM_FILL_LIMIT = 65537;
const size_t RECEIVE_BUFFER_SIZE = 131072;
const size_t DATAGRAM_BUFFER_SIZE = 65527;
const int READ_WAIT_MS = 1000;

const unsigned int SILENCE_DISCONNECT_TIMEOUT_MS = 1000;

bool IsRetry(ssize_t nReceived)
{
    return nReceived < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
}
} // namespace

// ------------------------------------------------------------ read thread

CKelIPConnection::CReadThread::CReadThread(CKelIPConnection* poOwner)
    : CKelThread(0), m_poOwner(poOwner), m_oBuffer(new char[RECEIVE_BUFFER_SIZE])
{
}

CKelIPConnection::CReadThread::~CReadThread()
{
    Terminate();
}

void CKelIPConnection::CReadThread::Run()
{
    try
    {
        if (m_poOwner->IsDatagramServer())
            RunDatagramServer();
        else if (m_poOwner->GetProtocol() == CKelIPBase::eUDP)
            RunDatagramClient();
        else
            RunStream();
    }
    catch (abi::__forced_unwind&)
    {
        throw;
    }
    catch (...)
    {
        // A hook (DataInd, ConnectInd: the client's code) threw. Nobody reads
        // this connection any more, so it must not look alive: end it, which
        // reports the loss through ConnectInd(false), then let the thread's
        // own firewall log the exception and end the thread.
        m_poOwner->EndConnection();
        throw;
    }
}

// recv/recvfrom on `nSocket` while it is still the connection's socket.
ssize_t CKelIPConnection::CReadThread::Receive(int nSocket, char* pcBuffer, size_t nSize, sockaddr_storage* poFrom,
                                               socklen_t* pnFromLength)
{
    CKelLockGuard guard(m_poOwner->m_oSocketGuard);
    if (m_poOwner->GetSocket() != nSocket)
    {
        errno = EBADF;
        return -1;
    }
    if (poFrom != nullptr)
        return recvfrom(nSocket, pcBuffer, nSize, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(poFrom), pnFromLength);
    return recv(nSocket, pcBuffer, nSize, MSG_DONTWAIT);
}

// Waits for the connected socket to become readable; eLeave when the thread
// should end: termination requested or not connected any more.
CKelIPConnection::CReadThread::EWaitResult CKelIPConnection::CReadThread::WaitConnected(int& nSocket)
{
    if (IsTerminationRequested() || m_poOwner->GetState() != CKelIPBase::eConnected)
        return eLeave;
    nSocket = m_poOwner->GetSocket();
    const int ready = KelWaitForSocket(nSocket, POLLIN, READ_WAIT_MS);
    if (ready == 0)
        return eAgain;
    if (ready < 0)
    {
        m_poOwner->EndConnection();
        return eAgain;
    }
    return eReadable;
}

void CKelIPConnection::CReadThread::RunStream()
{
    char* const buffer = m_oBuffer.get();
    size_t fill = 0;
    size_t consumed = 0;
    for (;;)
    {
        int socket = -1;
        const EWaitResult wait = WaitConnected(socket);
        if (wait == eLeave)
            return;
        if (wait == eAgain)
            continue;

        // Read up to the fill limit, or exactly the rest of a message that
        // started early enough but ends beyond it.
        size_t request = STREAM_FILL_LIMIT - fill;
        if (fill - consumed >= 2)
        {
            const size_t end = consumed + CKelMsg::GetU16(buffer + consumed) + 2;
            if (end > STREAM_FILL_LIMIT)
                request = end - fill;
        }
        const ssize_t received = Receive(socket, buffer + fill, request, nullptr, nullptr);
        if (IsRetry(received))
            continue;
        if (received <= 0)
        {
            m_poOwner->EndConnection(); // peer closed or the socket failed
            continue;
        }
        fill += static_cast<size_t>(received);

        // Hand up every whole message, in place, then tell the owner that
        // this read's messages are all out.
        bool handed = false;
        while (fill - consumed >= 2)
        {
            const size_t length = CKelMsg::GetU16(buffer + consumed) + 2u;
            if (fill - consumed < length)
                break;
            m_poOwner->BaseDataInd(buffer + consumed, static_cast<unsigned short>(length), nullptr, 0);
            consumed += length;
            handed = true;
        }
        if (handed)
            m_poOwner->ReadEndInd();
        if (consumed == fill)
        {
            fill = 0;
            consumed = 0;
        }
        else if (fill - consumed == 1)
        {
            buffer[0] = buffer[consumed];
            fill = 1;
            consumed = 0;
        }
    }
}

// Hands the messages of one datagram up; a message whose length word points
// past the datagram's end is dropped with the rest.
void CKelIPConnection::CReadThread::CutDatagram(size_t nReceived, const sockaddr_storage* poFrom,
                                                unsigned int nFromLength)
{
    if (nReceived < 3)
        return;
    const char* const buffer = m_oBuffer.get();
    size_t offset = 0;
    while (nReceived - offset >= 2)
    {
        const size_t length = CKelMsg::GetU16(buffer + offset) + 2u;
        if (nReceived - offset < length)
            break;
        m_poOwner->BaseDataInd(buffer + offset, static_cast<unsigned short>(length), poFrom, nFromLength);
        offset += length;
    }
    if (offset > 0)
        m_poOwner->ReadEndInd();
}

void CKelIPConnection::CReadThread::RunDatagramClient()
{
    for (;;)
    {
        int socket = -1;
        const EWaitResult wait = WaitConnected(socket);
        if (wait == eLeave)
            return;
        if (wait == eAgain)
            continue;
        const ssize_t received = Receive(socket, m_oBuffer.get(), DATAGRAM_BUFFER_SIZE, nullptr, nullptr);
        if (IsRetry(received))
            continue;
        if (received < 0)
        {
            m_poOwner->EndConnection();
            continue;
        }
        CutDatagram(static_cast<size_t>(received), nullptr, 0);
    }
}

void CKelIPConnection::CReadThread::RunDatagramServer()
{
    for (;;)
    {
        const int socket = m_poOwner->GetSocket();
        if (socket < 0)
            return;
        const int ready = KelWaitForSocket(socket, POLLIN, READ_WAIT_MS);
        if (ready <= 0)
        {
            if (IsTerminationRequested())
                return;
            continue;
        }
        sockaddr_storage from;
        socklen_t fromLength = sizeof(from);
        const ssize_t received = Receive(socket, m_oBuffer.get(), DATAGRAM_BUFFER_SIZE, &from, &fromLength);
        if (IsRetry(received))
            continue;
        if (received < 0)
            return;
        CutDatagram(static_cast<size_t>(received), &from, fromLength);
    }
}

// ------------------------------------------------------------ alive thread

CKelIPConnection::CAliveThread::CAliveThread(CKelIPConnection* poOwner) : CKelThread(0), m_poOwner(poOwner) {}

CKelIPConnection::CAliveThread::~CAliveThread()
{
    Terminate();
}

unsigned int CKelIPConnection::CAliveThread::TickMs(unsigned int nPeriodMs)
{
    return CKelAliveRules::TickMs(nPeriodMs);
}

bool CKelIPConnection::CAliveThread::Pause(unsigned int nMs)
{
    return m_oTerminationEvent.Wait(nMs);
}

void CKelIPConnection::CAliveThread::Run()
{
    CKelIPConnection& owner = *m_poOwner;
    while (!IsTerminationRequested())
    {
        const unsigned int mode = owner.m_nAliveMode.load(std::memory_order_relaxed);
        const unsigned int period = owner.m_nAlivePeriod.load(std::memory_order_relaxed);
        if (mode == eAliveOff)
        {
            if (Pause(TickMs(period)))
                return;
            continue;
        }
        if (owner.GetState() != CKelIPBase::eConnected)
        {
            // After a loss the protocol must be switched on again.
            owner.m_nAliveMode.store(eAliveOff, std::memory_order_relaxed);
            owner.m_nAlivePeriod.store(0, std::memory_order_relaxed);
            owner.ResetAliveCounters();
            if (Pause(CKelAliveRules::MIN_TICK_MS))
                return;
            continue;
        }

        const unsigned int tick = owner.m_nAliveTick.fetch_add(1, std::memory_order_relaxed) + 1;
        switch (CKelAliveRules::Decide(mode, tick, owner.m_nAliveLastSend.load(std::memory_order_relaxed),
                                       owner.m_nAliveLastReceive.load(std::memory_order_relaxed)))
        {
        case CKelAliveRules::eLinkLost:
            owner.DisconnectReq(SILENCE_DISCONNECT_TIMEOUT_MS);
            break;
        case CKelAliveRules::eSendRequest:
            owner.AliveReq(period / 2);
            break;
        case CKelAliveRules::eNothing:
            break;
        }
        if (Pause(TickMs(period)))
            return;
    }
}
