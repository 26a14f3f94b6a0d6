#include "KelIPBase.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

CKelIPBase::CKelIPBase() : m_nState(eDisconnected), m_nProtocol(eTCP), m_nSocket(-1), m_nPeerAddrLen(0)
{
    std::memset(&m_oPeerAddr, 0, sizeof(m_oPeerAddr));
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

// ------------------------------------------------------------ address helpers

const char* getIpStr(const sockaddr* address, char* buffer, unsigned int size)
{
    if (address == nullptr || buffer == nullptr)
        return nullptr;
    if (address->sa_family == AF_INET)
        return inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, buffer, size);
    if (address->sa_family == AF_INET6)
        return inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr, buffer, size);
    return nullptr;
}

bool SockaddrsAreEqual(const sockaddr* first, unsigned int firstLength, const sockaddr* second,
                       unsigned int secondLength)
{
    if (first == nullptr || second == nullptr || firstLength != secondLength || first->sa_family != second->sa_family)
        return false;
    if (first->sa_family == AF_INET)
    {
        const sockaddr_in* a = reinterpret_cast<const sockaddr_in*>(first);
        const sockaddr_in* b = reinterpret_cast<const sockaddr_in*>(second);
        return a->sin_port == b->sin_port && a->sin_addr.s_addr == b->sin_addr.s_addr;
    }
    return std::memcmp(first, second, firstLength) == 0;
}

unsigned short KelPortOf(const sockaddr_storage& address)
{
    if (address.ss_family == AF_INET)
        return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
    if (address.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
    return 0;
}
