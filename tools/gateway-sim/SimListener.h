// The listening socket of one simulated CAN port. It binds the simulator's
// bind address (127.0.0.1 unless told otherwise), unlike the transport's own
// server, which listens on every address, and hands each accepted socket to
// the port's server container, which does everything else.
#ifndef GATEWAY_SIM_LISTENER_H
#define GATEWAY_SIM_LISTENER_H

#include "libKelThread.h"

#include <atomic>
#include <string>

class CKelIPServerContainer;

namespace GatewaySim
{

class CSimListener
{
public:
    explicit CSimListener(CKelIPServerContainer& oContainer);
    ~CSimListener();

    CSimListener(const CSimListener&) = delete;
    CSimListener& operator=(const CSimListener&) = delete;

    // Binds sAddress:nPort (port 0: the system chooses) and listens; peers
    // wait in the backlog until Start. False with sError set on failure.
    bool Open(const std::string& sAddress, unsigned short nPort, int nBacklog, std::string& sError);
    // Starts handing accepted sockets to the container.
    bool Start();
    // Stops accepting and closes the socket.
    void Close();
    unsigned short BoundPort() const { return m_nBoundPort; }

private:
    class CAcceptThread : public CKelThread
    {
    public:
        explicit CAcceptThread(CSimListener& oOwner) : m_roOwner(oOwner) {}
        ~CAcceptThread() override { Terminate(); }

    protected:
        void Run() override { m_roOwner.AcceptLoop(); }

    private:
        CSimListener& m_roOwner;
    };

    void AcceptLoop();

    CKelIPServerContainer& m_roContainer;
    int m_nSocket = -1;
    unsigned short m_nBoundPort = 0;
    std::atomic<bool> m_bStop{false};
    CAcceptThread m_oThread;
};

} // namespace GatewaySim

#endif
