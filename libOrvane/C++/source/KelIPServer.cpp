#include "KelIPServer.h"

#include "KelIPServerContainer.h"
#include "KelSocketWait.h"
#include "libKelThread.h"

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace
{
const int ACCEPT_WAIT_MS = 100;
}

// Accepts connections while the server listens and hands every new socket
// to the container.
class CKelIPServer::CListenThread : public CKelThread
{
public:
    explicit CListenThread(CKelIPServer* poServer) : CKelThread(0), m_poServer(poServer) {}
    ~CListenThread() override { Terminate(); }

protected:
    void Run() override
    {
        if (m_poServer->GetState() != eWaitingForPeer)
            return;
        while (!IsTerminationRequested())
        {
            const int listening = m_poServer->GetSocket();
            if (listening < 0)
                return;
            if (KelWaitForSocket(listening, POLLIN, ACCEPT_WAIT_MS) <= 0)
                continue;
            sockaddr_storage address;
            socklen_t length = sizeof(address);
            const int socket = accept4(listening, reinterpret_cast<sockaddr*>(&address), &length, SOCK_CLOEXEC);
            if (socket < 0)
                continue;
            m_poServer->GetContainer()->AddClient(eTCP, socket);
        }
    }

private:
    CKelIPServer* m_poServer;
};

CKelIPServer::CKelIPServer(CKelIPServerContainer* poContainer, unsigned short nPort, const char* pcAddress)
    : m_poContainer(poContainer)
{
    const int flags = pcAddress == nullptr ? AI_PASSIVE : AI_NUMERICHOST;
    const CKelAddrInfoList addresses = Resolve(pcAddress, nPort, AF_INET, SOCK_STREAM, flags);
    m_nError = addresses ? 0 : EINVAL;
    int bound = -1;
    for (const addrinfo* address = addresses.get(); address != nullptr && bound < 0; address = address->ai_next)
    {
        const int socket = ::socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC, address->ai_protocol);
        if (socket < 0)
        {
            m_nError = errno;
            continue;
        }
        const int on = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        if (bind(socket, address->ai_addr, address->ai_addrlen) == 0)
            bound = socket;
        else
        {
            m_nError = errno;
            close(socket);
        }
    }
    if (bound < 0)
        return;
    if (listen(bound, poContainer->GetConnectionLimit()) != 0)
    {
        m_nError = errno;
        close(bound);
        return;
    }
    m_nError = 0;
    SetSocket(bound);
    SetState(eWaitingForPeer);
}

bool CKelIPServer::StartAccepting()
{
    if (GetState() != eWaitingForPeer || m_poListenThread)
        return false;
    m_poListenThread.reset(new CListenThread(this));
    return m_poListenThread->Start();
}

CKelIPServer::~CKelIPServer()
{
    m_poListenThread.reset();
    CloseSocket();
}

unsigned short CKelIPServer::GetBoundPort() const
{
    const int socket = GetSocket();
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    if (socket < 0 || getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return 0;
    return ntohs(address.sin_port);
}
