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
    explicit CReadThread(CKelIPConnection* poOwner);
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

    EWaitResult WaitConnected(int& nSocket);
    ssize_t Receive(int nSocket, char* pcBuffer, size_t nSize, sockaddr_storage* poFrom, socklen_t* pnFromLength);
    void RunStream();
    void RunDatagramClient();
    void RunDatagramServer();
    void CutDatagram(size_t nReceived, const sockaddr_storage* poFrom, unsigned int nFromLength);

    CKelIPConnection* m_poOwner;
    std::unique_ptr<char[]> m_oBuffer; // allocated once, reused by every pass
};

class CKelIPConnection::CAliveThread : public CKelThread
{
public:
    explicit CAliveThread(CKelIPConnection* poOwner);
    ~CAliveThread() override;

    // One pass of the thread: a quarter of the period, at least 10 ms.
    static unsigned int TickMs(unsigned int nPeriodMs);

protected:
    void Run() override;

private:
    // Sleeps; true when termination was requested meanwhile.
    bool Pause(unsigned int nMs);

    CKelIPConnection* m_poOwner;
};

#endif
