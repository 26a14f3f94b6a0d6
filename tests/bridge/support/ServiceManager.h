// A service manager's end of the notify socket, bound to a path or ('@'
// first) an abstract name, with NOTIFY_SOCKET naming it while the object
// lives: every datagram received, in order.
#ifndef ORVANE_TEST_SERVICE_MANAGER_H
#define ORVANE_TEST_SERVICE_MANAGER_H

#include "support/Wait.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace OrvaneTest
{

class CServiceManager
{
public:
    explicit CServiceManager(const std::string& sName) : m_sName(sName), m_nSocket(socket(AF_UNIX, SOCK_DGRAM, 0))
    {
        sockaddr_un oAddress{};
        oAddress.sun_family = AF_UNIX;
        std::memcpy(oAddress.sun_path, sName.data(), sName.size());
        if (sName[0] == '@')
            oAddress.sun_path[0] = '\0';
        unlink(sName.c_str());
        bind(m_nSocket, reinterpret_cast<sockaddr*>(&oAddress),
             static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + sName.size()));
        setenv("NOTIFY_SOCKET", sName.c_str(), 1);
    }
    ~CServiceManager()
    {
        unsetenv("NOTIFY_SOCKET");
        close(m_nSocket);
        unlink(m_sName.c_str());
    }
    CServiceManager(const CServiceManager&) = delete;
    CServiceManager& operator=(const CServiceManager&) = delete;

    // The datagrams received so far.
    const std::vector<std::string>& Messages()
    {
        char acBuffer[512];
        ssize_t nCount;
        while ((nCount = recv(m_nSocket, acBuffer, sizeof(acBuffer), MSG_DONTWAIT)) > 0)
            m_asMessages.emplace_back(acBuffer, static_cast<size_t>(nCount));
        return m_asMessages;
    }
    // How many datagrams so far contain sPart.
    int Count(const std::string& sPart)
    {
        int nCount = 0;
        for (const std::string& sMessage : Messages())
            nCount += sMessage.find(sPart) != std::string::npos ? 1 : 0;
        return nCount;
    }
    bool WaitFor(const std::string& sPart, int nCount, unsigned int nTimeoutMs)
    {
        return WaitUntil([&] { return Count(sPart) >= nCount; }, nTimeoutMs);
    }

private:
    std::string m_sName;
    int m_nSocket;
    std::vector<std::string> m_asMessages;
};

} // namespace OrvaneTest

#endif
