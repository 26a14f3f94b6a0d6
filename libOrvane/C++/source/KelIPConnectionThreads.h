// The two worker threads of a CKelIPConnection (internal to the transport):
// the read thread that cuts the received bytes into whole messages and hands
// them to BaseDataInd, and the alive thread that watches the line.
#ifndef KEL_IP_CONNECTION_THREADS_H
#define KEL_IP_CONNECTION_THREADS_H

#include "KelIPConnection.h"
#include "libKelThread.h"

#include <sys/types.h>

#include <memory>

class CKelIPConnection::CReadThread : public CKelThread
{
public:
    explicit CReadThread(CKelIPConnection* owner);
    ~CReadThread() override;

protected:
    // Datagram server endpoint, datagram client or stream loop.
    void Run() override;

private:
    enum EWaitResult
    {
        eLeave,
        eAgain,
        eReadable
    };

    EWaitResult WaitConnected(int& socket);
    ssize_t Receive(int socket, char* buffer, size_t size, sockaddr_storage* from, socklen_t* fromLength);
    void RunStream();
    void RunDatagramClient();
    void RunDatagramServer();
    void CutDatagram(size_t received, const sockaddr_storage* from, unsigned int fromLength);

    CKelIPConnection* m_poOwner;
    std::unique_ptr<char[]> m_oBuffer; // allocated once, reused by every pass
};

class CKelIPConnection::CAliveThread : public CKelThread
{
public:
    explicit CAliveThread(CKelIPConnection* owner);
    ~CAliveThread() override;

    // One pass of the thread: a quarter of the period, at least 10 ms.
    static unsigned int TickMs(unsigned int periodMs);

protected:
    void Run() override;

private:
    // Sleeps; true when termination was requested meanwhile.
    bool Pause(unsigned int ms);

    CKelIPConnection* m_poOwner;
};

#endif
