// Tells a service manager how the bridge is doing, with the datagram
// protocol that systemd documents for Type=notify services: one datagram of
// newline-separated assignments (READY=1, STATUS=..., WATCHDOG=1,
// STOPPING=1) to the AF_UNIX socket named by the NOTIFY_SOCKET environment
// variable (a path, or an abstract name after '@').
//
// Without NOTIFY_SOCKET (a bridge started by hand or by another supervisor)
// the notifier opens no socket and every call returns false without doing
// anything, so the bridge behaves as if it did not exist. A failing send is
// not an error of the bridge: the service manager may be gone.
#ifndef SERVICE_NOTIFY_H
#define SERVICE_NOTIFY_H

#include <sys/socket.h>
#include <sys/un.h>

#include <string>

class CServiceNotifier
{
public:
    // Reads NOTIFY_SOCKET once; an empty, relative or too long name leaves
    // the notifier inactive.
    CServiceNotifier();
    ~CServiceNotifier();
    CServiceNotifier(const CServiceNotifier&) = delete;
    CServiceNotifier& operator=(const CServiceNotifier&) = delete;

    bool IsActive() const { return m_nSocket >= 0; }
    // Sends sState (e.g. "READY=1\nSTATUS=connected") as one datagram.
    // True when it was sent.
    bool Notify(const std::string& sState);

private:
    int m_nSocket = -1;
    sockaddr_un m_oAddress{};
    socklen_t m_nAddressLength = 0;
};

#endif
