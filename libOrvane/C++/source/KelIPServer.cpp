#include "KelIPServer.h"

#include "KelIPServerContainer.h"
#include "KelSocketWait.h"
#include "libKelThread.h"

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

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
            const int socket = accept(listening, reinterpret_cast<sockaddr*>(&address), &length);
            if (socket < 0)
                continue;
            m_poServer->GetContainer()->AddClient(eTCP, socket);
        }
    }

private:
    CKelIPServer* m_poServer;
};

CKelIPServer::CKelIPServer(CKelIPServerContainer* poContainer, unsigned short nPort) : m_poContainer(poContainer)
{
    const CKelAddrInfoList addresses = Resolve(nullptr, nPort, AF_INET, SOCK_STREAM, AI_PASSIVE);
    int bound = -1;
    for (const addrinfo* address = addresses.get(); address != nullptr && bound < 0; address = address->ai_next)
    {
        const int socket = ::socket(address->ai_family, address->ai_socktype, address->ai_protocol);
        if (socket < 0)
            continue;
        const int on = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        if (bind(socket, address->ai_addr, address->ai_addrlen) == 0)
            bound = socket;
        else
            close(socket);
    }
    if (bound < 0)
        return;
    if (listen(bound, poContainer->GetConnectionLimit()) != 0)
    {
        close(bound);
        return;
    }
    SetSocket(bound);
    SetState(eWaitingForPeer);
    m_poListenThread.reset(new CListenThread(this));
    m_poListenThread->Start();
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
