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

    // Binds the first passive IPv4 stream address of `port` (SO_REUSEADDR)
    // and listens with the container's connection limit as backlog: state 5
    // with the listen thread running, or state 1 on any failure. Port 0 binds
    // an ephemeral port (see GetBoundPort).
    CKelIPServer(CKelIPServerContainer* poContainer, unsigned short nPort);
    // Stops the listen thread, then closes the socket.
    ~CKelIPServer() override;

    CKelIPServerContainer* GetContainer() const { return m_poContainer; }
    // The local port the socket is bound to; 0 when not listening.
    unsigned short GetBoundPort() const;

private:
    CKelIPServerContainer* m_poContainer;
    std::unique_ptr<CListenThread> m_poListenThread;
};

#endif
