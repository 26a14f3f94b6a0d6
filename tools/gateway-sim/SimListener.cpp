#include "SimListener.h"

#include "KelIPServerContainer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace GatewaySim
{

CSimListener::CSimListener(CKelIPServerContainer& oContainer) : m_roContainer(oContainer), m_oThread(*this) {}

CSimListener::~CSimListener()
{
    Close();
}

bool CSimListener::Open(const std::string& sAddress, unsigned short nPort, int nBacklog, std::string& sError)
{
    sockaddr_in oAddress{};
    oAddress.sin_family = AF_INET;
    oAddress.sin_port = htons(nPort);
    if (inet_pton(AF_INET, sAddress.c_str(), &oAddress.sin_addr) != 1)
    {
        sError = "bind address " + sAddress + " is not a numeric IPv4 address";
        return false;
    }
    m_nSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_nSocket < 0)
    {
        sError = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    const int nOne = 1;
    setsockopt(m_nSocket, SOL_SOCKET, SO_REUSEADDR, &nOne, sizeof(nOne));
    if (bind(m_nSocket, reinterpret_cast<sockaddr*>(&oAddress), sizeof(oAddress)) != 0 ||
        listen(m_nSocket, nBacklog) != 0)
    {
        sError = "cannot listen on " + sAddress + ":" + std::to_string(nPort) + ": " + std::strerror(errno);
        close(m_nSocket);
        m_nSocket = -1;
        return false;
    }
    sockaddr_in oBound{};
    socklen_t nLength = sizeof(oBound);
    getsockname(m_nSocket, reinterpret_cast<sockaddr*>(&oBound), &nLength);
    m_nBoundPort = ntohs(oBound.sin_port);
    return true;
}

bool CSimListener::Start()
{
    m_bStop.store(false);
    return m_nSocket >= 0 && m_oThread.Start();
}

void CSimListener::Close()
{
    m_bStop.store(true);
    m_oThread.Terminate();
    if (m_nSocket >= 0)
    {
        close(m_nSocket);
        m_nSocket = -1;
    }
}

void CSimListener::AcceptLoop()
{
    while (!m_bStop.load())
    {
        pollfd oPoll{m_nSocket, POLLIN, 0};
        if (poll(&oPoll, 1, 100) <= 0)
            continue;
        const int nClient = accept4(m_nSocket, nullptr, nullptr, SOCK_CLOEXEC);
        if (nClient >= 0)
            m_roContainer.AddClient(CKelIPBase::eTCP, nClient);
    }
}

} // namespace GatewaySim
