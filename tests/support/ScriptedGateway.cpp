#include "ScriptedGateway.h"

#include "RawPeer.h"

#include "KelMsg.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>

namespace OrvaneTest
{

CScriptedGateway::CScriptedGateway(unsigned char nId) : m_nId(nId)
{
    m_nListener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in oAddress = Loopback(0);
    socklen_t nLength = sizeof(oAddress);
    if (m_nListener < 0 || pipe2(m_anWake, O_CLOEXEC) != 0 ||
        bind(m_nListener, reinterpret_cast<sockaddr*>(&oAddress), sizeof(oAddress)) != 0 ||
        listen(m_nListener, 4) != 0 || getsockname(m_nListener, reinterpret_cast<sockaddr*>(&oAddress), &nLength) != 0)
        return;
    m_nPort = ntohs(oAddress.sin_port);
    m_oThread = std::thread([this] { Run(); });
}

CScriptedGateway::~CScriptedGateway()
{
    if (m_oThread.joinable())
    {
        const char cStop = 1;
        (void)!write(m_anWake[1], &cStop, 1);
        m_oThread.join();
    }
    for (int nSocket : {m_nListener, m_anWake[0], m_anWake[1]})
        if (nSocket >= 0)
            close(nSocket);
}

bool CScriptedGateway::WaitAccepted(unsigned int nTimeoutMs)
{
    std::unique_lock<std::mutex> oLock(m_oMutex);
    return m_oChanged.wait_for(oLock, std::chrono::milliseconds(nTimeoutMs), [&] { return m_bAccepted; });
}

bool CScriptedGateway::WaitConnected(unsigned int nTimeoutMs)
{
    std::unique_lock<std::mutex> oLock(m_oMutex);
    return m_oChanged.wait_for(oLock, std::chrono::milliseconds(nTimeoutMs), [&] { return m_bConnected; });
}

bool CScriptedGateway::WaitClosed(unsigned int nTimeoutMs)
{
    std::unique_lock<std::mutex> oLock(m_oMutex);
    return m_oChanged.wait_for(oLock, std::chrono::milliseconds(nTimeoutMs), [&] { return !m_bAccepted; });
}

std::string CScriptedGateway::NextTelegram(unsigned int nTimeoutMs)
{
    std::unique_lock<std::mutex> oLock(m_oMutex);
    if (!m_oChanged.wait_for(oLock, std::chrono::milliseconds(nTimeoutMs), [&] { return !m_asTelegrams.empty(); }))
        return std::string();
    std::string sTelegram = std::move(m_asTelegrams.front());
    m_asTelegrams.pop_front();
    return sTelegram;
}

bool CScriptedGateway::Send(const std::string& sBytes)
{
    std::lock_guard<std::mutex> oLock(m_oSocketMutex);
    for (std::size_t nDone = 0; m_nClient >= 0 && nDone < sBytes.size();)
    {
        const ssize_t nSent = send(m_nClient, sBytes.data() + nDone, sBytes.size() - nDone, MSG_NOSIGNAL);
        if (nSent <= 0)
            return false;
        nDone += static_cast<std::size_t>(nSent);
    }
    return m_nClient >= 0;
}

void CScriptedGateway::CloseClient()
{
    // The serving thread sees the end of the stream and closes the socket.
    std::lock_guard<std::mutex> oLock(m_oSocketMutex);
    if (m_nClient >= 0)
        shutdown(m_nClient, SHUT_RDWR);
}

int CScriptedGateway::Connections()
{
    std::lock_guard<std::mutex> oLock(m_oMutex);
    return m_nConnections;
}

int CScriptedGateway::AliveRequests()
{
    std::lock_guard<std::mutex> oLock(m_oMutex);
    return m_nAliveRequests;
}

void CScriptedGateway::Run()
{
    for (;;)
    {
        pollfd aoEntries[2] = {{m_nListener, POLLIN, 0}, {m_anWake[0], POLLIN, 0}};
        if (poll(aoEntries, 2, -1) < 0 || aoEntries[1].revents != 0)
            return;
        const int nSocket = accept4(m_nListener, nullptr, nullptr, SOCK_CLOEXEC);
        if (nSocket < 0)
            continue;
        const int nOn = 1;
        setsockopt(nSocket, IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof(nOn));
        // A client that stops reading cannot hold a sender (and the socket
        // mutex) for longer than this.
        const timeval oLimit{WAIT_MS / 1000, 0};
        setsockopt(nSocket, SOL_SOCKET, SO_SNDTIMEO, &oLimit, sizeof(oLimit));
        {
            std::lock_guard<std::mutex> oLock(m_oSocketMutex);
            m_nClient = nSocket;
        }
        {
            std::lock_guard<std::mutex> oLock(m_oMutex);
            m_bAccepted = true;
            ++m_nConnections;
            m_oChanged.notify_all();
        }
        const bool bGoOn = Serve(nSocket);
        EndClient();
        if (!bGoOn)
            return;
    }
}

bool CScriptedGateway::Serve(int nSocket)
{
    std::string sBuffer;
    char acChunk[65536];
    for (;;)
    {
        pollfd aoEntries[2] = {{nSocket, POLLIN, 0}, {m_anWake[0], POLLIN, 0}};
        if (poll(aoEntries, 2, -1) < 0 || aoEntries[1].revents != 0)
            return false;
        const ssize_t nRead = recv(nSocket, acChunk, sizeof(acChunk), 0);
        if (nRead <= 0)
            return true;
        sBuffer.append(acChunk, static_cast<std::size_t>(nRead));
        // Cut whole messages by their length word.
        std::size_t nSize;
        while (sBuffer.size() >= 2 && sBuffer.size() >= (nSize = CKelMsg::GetU16(sBuffer.data()) + 2u))
        {
            std::string sMessage = sBuffer.substr(0, nSize);
            sBuffer.erase(0, nSize);
            bool bClose = false;
            if (Answer(sMessage, bClose))
            {
                if (bClose)
                    return true;
                continue;
            }
            std::lock_guard<std::mutex> oLock(m_oMutex);
            m_asTelegrams.push_back(std::move(sMessage));
            m_oChanged.notify_all();
        }
    }
}

bool CScriptedGateway::Answer(const std::string& sMessage, bool& bClose)
{
    const unsigned short nCount = static_cast<unsigned short>(sMessage.size());
    if (!m_bAnswering || sMessage.size() > 0xFFFF || !CKelMsg::IsIntact(sMessage.data(), nCount))
        return false;
    const unsigned short nCommand = CKelMsg::GetU16(sMessage.data() + 2);
    const unsigned short nNumber = CKelMsg::GetU16(sMessage.data() + 4);
    auto Reply = [&](unsigned short nCode, unsigned char nResult) {
        const unsigned short nConfirmation = static_cast<unsigned short>(nCode | CKelMsg::eConfirmation);
        Send(MakeMsg(CKelMsg::Command(m_nId, nConfirmation), nNumber, Byte(nResult)));
    };
    if (nCommand == CKelMsg::Command(m_nId, CKelMsg::eConnectReq))
    {
        Reply(CKelMsg::eConnectReq, 0);
        std::lock_guard<std::mutex> oLock(m_oMutex);
        m_bConnected = true;
        m_oChanged.notify_all();
    }
    else if (nCommand == CKelMsg::Command(m_nId, CKelMsg::eAliveReq))
    {
        // A request of more than 10 bytes carries the period.
        Reply(CKelMsg::eAliveReq, static_cast<unsigned char>(nCount > 10 ? 0 : 0xFF));
        std::lock_guard<std::mutex> oLock(m_oMutex);
        ++m_nAliveRequests;
    }
    else if (nCommand == CKelMsg::Command(m_nId, CKelMsg::eDisconnectReq))
    {
        Reply(CKelMsg::eDisconnectReq, 0);
        bClose = true;
    }
    else
        return false;
    return true;
}

void CScriptedGateway::EndClient()
{
    {
        std::lock_guard<std::mutex> oLock(m_oSocketMutex);
        close(m_nClient);
        m_nClient = -1;
    }
    std::lock_guard<std::mutex> oLock(m_oMutex);
    m_bAccepted = false;
    m_bConnected = false;
    m_oChanged.notify_all();
}

} // namespace OrvaneTest
