#include "KelIPBase.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

CKelIPBase::CKelIPBase() : m_nState(eDisconnected), m_nProtocol(eTCP), m_nSocket(-1), m_nPeerAddrLen(0)
{
    std::memset(&m_sPeerAddr, 0, sizeof(m_sPeerAddr));
}

CKelIPBase::~CKelIPBase()
{
    CloseSocket();
}

void CKelIPBase::CloseSocket()
{
    CKelLockGuard guard(m_oSocketGuard);
    const int socket = m_nSocket.load(std::memory_order_relaxed);
    if (socket < 0)
        return;
    // Shutting down first wakes a read or listen thread that waits on the
    // socket, so it sees the new state at once instead of after its wait.
    shutdown(socket, SHUT_RDWR);
    close(socket);
    SetSocket(-1);
    SetState(eDisconnected);
}

CKelAddrInfoList CKelIPBase::Resolve(const char* host, unsigned short port, int family, int socketType, int flags)
{
    char portText[8];
    std::snprintf(portText, sizeof(portText), "%u", static_cast<unsigned int>(port));
    addrinfo hints{};
    hints.ai_flags = flags;
    hints.ai_family = family;
    hints.ai_socktype = socketType;
    addrinfo* list = nullptr;
    if (getaddrinfo(host, portText, &hints, &list) != 0)
        return CKelAddrInfoList();
    return CKelAddrInfoList(list);
}
