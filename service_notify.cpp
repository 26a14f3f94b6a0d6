#include "service_notify.h"

#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

CServiceNotifier::CServiceNotifier()
{
    const char* pcName = std::getenv("NOTIFY_SOCKET");
    if (pcName == nullptr)
        return;
    const size_t nLength = std::strlen(pcName);
    if (nLength < 2 || (pcName[0] != '/' && pcName[0] != '@') || nLength >= sizeof(m_oAddress.sun_path))
        return;
    m_oAddress.sun_family = AF_UNIX;
    std::memcpy(m_oAddress.sun_path, pcName, nLength);
    if (pcName[0] == '@')
        m_oAddress.sun_path[0] = '\0'; // abstract name: no terminator, the length says where it ends
    m_nAddressLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + nLength + (pcName[0] == '/' ? 1 : 0));
    m_nSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

CServiceNotifier::~CServiceNotifier()
{
    if (m_nSocket >= 0)
        close(m_nSocket);
}

bool CServiceNotifier::Notify(const std::string& sState)
{
    if (m_nSocket < 0)
        return false;
    // MSG_DONTWAIT: a full or stalled manager's queue must never hold up the bridge's loop.
    return sendto(m_nSocket, sState.data(), sState.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                  reinterpret_cast<const sockaddr*>(&m_oAddress),
                  m_nAddressLength) == static_cast<ssize_t>(sState.size());
}
