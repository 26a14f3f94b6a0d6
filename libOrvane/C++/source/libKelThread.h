// Base class of every worker thread of the library.
//
// A derived class implements Run() and polls IsTerminationRequested() (or
// waits on the termination event) so that Terminate() and the destructor can
// end it cooperatively. A derived class whose Run uses its own members must
// call Terminate() in its own destructor, before those members are gone.
//
// Exceptions: Run and Initialize may reach foreign code (application
// callbacks). An exception that escapes them does not end the process; it
// ends the thread only: one line goes to stderr,
//   +++ error: thread <class of the thread> ended by an exception: <what()>
// and the thread finishes as if Run had returned: the state becomes
// finished, Terminate and the destructor join it as usual, and Start may
// begin it again. Start returns false when Initialize threw (Run is then not
// called). Whatever the thread was doing for its owner stops with it, so
// foreign code that must not end its thread catches its own exceptions.
// pthread_exit and cancellation unwind through Run as usual.
#ifndef LIB_KEL_THREAD_H
#define LIB_KEL_THREAD_H

#include "libKelMutex.h"

#include <pthread.h>

#include <atomic>

class CKelThread
{
public:
    enum EThreadState
    {
        eCreated = 0,
        eStarting = 1,
        eRunning = 2,
        eFinished = 3
    };

    // nStackSize 0 keeps the system's default stack size.
    explicit CKelThread(unsigned int nStackSize = 0);
    virtual ~CKelThread();

    CKelThread(const CKelThread&) = delete;
    CKelThread& operator=(const CKelThread&) = delete;

    // Creates the thread and returns once its Initialize() has run. False
    // when the thread is already starting or running, cannot be created, or
    // its Initialize() ended by an exception.
    bool Start();
    // Requests termination and joins the thread; nothing when none exists.
    void Terminate();
    // Consumes a pending termination request: true once per request.
    bool IsTerminationRequested();

    bool IsRunning() const { return GetState() == eRunning; }
    // The state is a hint: it is written by the starter and the new thread.
    int GetState() const { return m_nState.load(std::memory_order_relaxed); }

    void Suspend() {}
    void Resume() {}

    static void Sleep(long nSeconds, long nMilliseconds);
    // The wall clock now (microsecond resolution), and now plus an offset,
    // for time stamps. Not for deadlines: the wall clock may be stepped, so
    // waits take a relative time-out (CKelEvent, CKelMutex, CKelDeadline),
    // which is measured on the monotonic clock.
    static void GetTimeCurrent(long* pnSeconds, long* pnNanoseconds);
    static void GetTime(long* pnSeconds, long* pnNanoseconds, long nAddSeconds, long nAddNanoseconds);
    static void* ThreadProc(CKelThread* poThread);

protected:
    virtual void Run() = 0;
    virtual void Initialize() {}

    // Signalled by Terminate and the destructor; Run may wait on it.
    CKelEvent m_oTerminationEvent;

private:
    // Calls Initialize or Run; false when it ended by an exception, which is
    // then reported on stderr.
    bool CallGuarded(void (CKelThread::*pStep)());
    void JoinThread();
    void InitAttributes();

    pthread_t m_hThread;
    pthread_attr_t m_oAttributes;
    bool m_bAttributesValid;
    unsigned int m_nStackSize;
    CKelEvent m_oStartedEvent;
    bool m_bInitializeFailed = false; // set by the new thread before it signals m_oStartedEvent
    std::atomic<int> m_nState;
};

#endif
