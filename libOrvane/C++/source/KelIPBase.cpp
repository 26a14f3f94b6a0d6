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

CKelAddrInfoList CKelIPBase::Resolve(const char* pcHost, unsigned short nPort, int nFamily, int nSocketType, int nFlags)
{
    char portText[8];
    std::snprintf(portText, sizeof(portText), "%u", static_cast<unsigned int>(nPort));
    addrinfo hints{};
    hints.ai_flags = nFlags;
    hints.ai_family = nFamily;
    hints.ai_socktype = nSocketType;
    addrinfo* list = nullptr;
    if (getaddrinfo(pcHost, portText, &hints, &list) != 0)
        return CKelAddrInfoList();
    return CKelAddrInfoList(list);
}

// ------------------------------------------------------------ address helpers

const char* getIpStr(const sockaddr* poAddress, char* pcBuffer, unsigned int nSize)
{
    if (poAddress == nullptr || pcBuffer == nullptr)
        return nullptr;
    if (poAddress->sa_family == AF_INET)
        return inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(poAddress)->sin_addr, pcBuffer, nSize);
    if (poAddress->sa_family == AF_INET6)
        return inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(poAddress)->sin6_addr, pcBuffer, nSize);
    return nullptr;
}

bool SockaddrsAreEqual(const sockaddr* poFirst, unsigned int nFirstLength, const sockaddr* poSecond,
                       unsigned int nSecondLength)
{
    if (poFirst == nullptr || poSecond == nullptr || nFirstLength != nSecondLength ||
        poFirst->sa_family != poSecond->sa_family)
        return false;
    if (poFirst->sa_family == AF_INET)
    {
        const sockaddr_in* a = reinterpret_cast<const sockaddr_in*>(poFirst);
        const sockaddr_in* b = reinterpret_cast<const sockaddr_in*>(poSecond);
        return a->sin_port == b->sin_port && a->sin_addr.s_addr == b->sin_addr.s_addr;
    }
    return std::memcmp(poFirst, poSecond, nFirstLength) == 0;
}

unsigned short KelPortOf(const sockaddr_storage& oAddress)
{
    if (oAddress.ss_family == AF_INET)
        return ntohs(reinterpret_cast<const sockaddr_in&>(oAddress).sin_port);
    if (oAddress.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<const sockaddr_in6&>(oAddress).sin6_port);
    return 0;
}
