// CKelIPServer: a TCP listening socket whose listen thread hands every
// accepted socket to its CKelIPServerContainer (AddClient).
#ifndef KEL_IP_SERVER_H
#define KEL_IP_SERVER_H

#include "KelIPBase.h"

#include <memory>

class CKelIPServerContainer;

class CKelIPServer : public CKelIPBase
{
public:
    class CListenThread;

    // Binds `nPort` on `pcAddress` (a numeric IPv4 address, never looked up;
    // null: every address) with SO_REUSEADDR and listens with the container's
    // connection limit as backlog: state 5, or state 1 with GetError set on
    // any failure. Port 0 binds an ephemeral port (see GetBoundPort). Peers
    // wait in the backlog until StartAccepting.
    CKelIPServer(CKelIPServerContainer* poContainer, unsigned short nPort, const char* pcAddress = nullptr);
    // Stops the listen thread, then closes the socket.
    ~CKelIPServer() override;

    // Starts the listen thread once; false when not listening or when the
    // thread cannot start.
    bool StartAccepting();

    CKelIPServerContainer* GetContainer() const { return m_poContainer; }
    // The local port the socket is bound to; 0 when not listening.
    unsigned short GetBoundPort() const;
    // Why the constructor failed: the errno of the failing call (EINVAL for
    // an address that is not numeric IPv4); 0 when listening.
    int GetError() const { return m_nError; }

private:
    CKelIPServerContainer* m_poContainer;
    std::unique_ptr<CListenThread> m_poListenThread;
    int m_nError = 0;
};

#endif
