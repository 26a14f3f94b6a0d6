#include "KelIPServerContainer.h"

#include "KelIPConnection.h"
#include "KelIPServer.h"
#include "KelMsg.h"
#include "libKelThread.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace
{
using CClientList = std::forward_list<std::unique_ptr<CKelIPConnection>>;
}

CKelIPServerContainer::CKelIPServerContainer(unsigned char nId, int nConnectionLimit, unsigned short nPort,
                                             bool bWithDatagramServer)
    : m_nId(nId), m_nConnectionLimit(nConnectionLimit), m_poDatagramServer(nullptr), m_nPort(nPort),
      m_bWithDatagramServer(bWithDatagramServer), m_bListening(false)
{
}

CKelIPServerContainer::~CKelIPServerContainer()
{
    Shutdown();
}

void CKelIPServerContainer::Shutdown()
{
    // No new clients once the server is gone.
    m_poIPServer.reset();

    CClientList clients;
    std::unique_ptr<CKelIPConnection> datagramServer;
    {
        CKelLockGuard guard(m_oListMutex);
        clients.swap(m_aoClients);
        for (auto before = clients.before_begin(), it = clients.begin(); it != clients.end(); before = it++)
        {
            if (it->get() == m_poDatagramServer)
            {
                datagramServer = std::move(*it);
                clients.erase_after(before);
                break;
            }
        }
        m_poDatagramServer = nullptr;
    }
    // Destroyed outside the list mutex: a connection's read thread may be
    // waiting for it (connection limit) while its destructor joins that thread.
    datagramServer.reset();
    clients.clear();
}

CKelIPConnection* CKelIPServerContainer::CreateNewClass(CKelIPBase::EProtocol eProtocol, int nSocket)
{
    return new CKelIPConnection(this, m_nId, eProtocol, nSocket, true);
}

CKelIPConnection* CKelIPServerContainer::CreateUdpServer(unsigned short nPort)
{
    return new CKelIPConnection(m_nId, nPort, true);
}

int CKelIPServerContainer::Bind(const char* pcAddress)
{
    if (m_poIPServer)
        return EALREADY;
    m_poIPServer.reset(new CKelIPServer(this, m_nPort, pcAddress));
    if (m_nPort == 0)
        m_nPort = m_poIPServer->GetBoundPort();
    return m_poIPServer->GetError();
}

bool CKelIPServerContainer::StartListening()
{
    if (m_bListening)
        return false;
    if (!m_poIPServer)
        Bind(nullptr);
    const bool accepting = m_poIPServer->StartAccepting();

    if (m_bWithDatagramServer && m_poDatagramServer == nullptr)
    {
        CKelLockGuard guard(m_oListMutex);
        CKelIPConnection* datagramServer = CreateUdpServer(m_nPort);
        if (datagramServer != nullptr)
        {
            datagramServer->StartReadThread();
            m_aoClients.emplace_front(datagramServer);
            m_poDatagramServer = datagramServer;
        }
    }
    m_bListening = true;
    return accepting;
}

bool CKelIPServerContainer::IsServerListening() const
{
    return m_poIPServer && m_poIPServer->GetState() == CKelIPBase::eWaitingForPeer;
}

bool CKelIPServerContainer::AddClient(CKelIPBase::EProtocol eProtocol, int nSocket)
{
    RemoveClient();
    {
        CKelLockGuard guard(m_oListMutex);
        CKelIPConnection* connection = CreateNewClass(eProtocol, nSocket);
        if (connection != nullptr)
        {
            connection->ConnectInd(true);
            connection->StartReadThread();
            m_aoClients.emplace_front(connection);
            return true;
        }
    }
    // Refused: tell the peer before its socket is closed.
    char refusal[CKelMsg::OVERHEAD + 1];
    const char result = static_cast<char>(0xFF);
    const unsigned int size =
        CKelMsg::Build(refusal, sizeof(refusal), CKelMsg::Command(m_nId, CKelMsg::eConnectReq | CKelMsg::eConfirmation),
                       1, &result, 1);
    send(nSocket, refusal, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    close(nSocket);
    return false;
}

bool CKelIPServerContainer::TakeFinished(int nSocket, CClientList& aoOut)
{
    bool removedMatch = false;
    auto before = m_aoClients.before_begin();
    for (auto it = m_aoClients.begin(); it != m_aoClients.end();)
    {
        CKelIPConnection* connection = it->get();
        const bool match = connection->GetSocket() == nSocket;
        // An entry whose read thread still runs stays for a later purge.
        if ((match || connection->GetState() == CKelIPBase::eDisconnected) &&
            connection->GetReadThreadState() == CKelThread::eFinished)
        {
            removedMatch = removedMatch || match;
            if (connection == m_poDatagramServer)
                m_poDatagramServer = nullptr;
            aoOut.push_front(std::move(*it));
            it = m_aoClients.erase_after(before);
        }
        else
        {
            before = it++;
        }
    }
    return removedMatch;
}

// The purge is the removal of the entries whose socket is -1.
bool CKelIPServerContainer::RemoveClient()
{
    return RemoveClient(-1);
}

bool CKelIPServerContainer::RemoveClient(int nSocket)
{
    CClientList finished;
    bool removed;
    {
        CKelLockGuard guard(m_oListMutex);
        removed = TakeFinished(nSocket, finished);
    }
    return removed; // `finished` is destroyed here, outside the mutex
}

unsigned int CKelIPServerContainer::CountActiveTCPConnections()
{
    RemoveClient();
    CKelLockGuard guard(m_oListMutex);
    unsigned int count = 0;
    for (const auto& connection : m_aoClients)
    {
        if (connection->GetState() == CKelIPBase::eConnected && !connection->IsDatagramServer())
            ++count;
    }
    return count;
}

bool CKelIPServerContainer::IsConnectionLimitExceeded()
{
    return static_cast<long long>(CountActiveTCPConnections()) > m_nConnectionLimit;
}

void CKelIPServerContainer::ForEachClient(const std::function<void(CKelIPConnection&)>& oVisit)
{
    CKelLockGuard guard(m_oListMutex);
    for (const auto& connection : m_aoClients)
        oVisit(*connection);
}
