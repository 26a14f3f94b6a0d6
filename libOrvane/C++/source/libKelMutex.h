// Locks and events used by every thread of the library.
//
// All time-outs are in milliseconds; KEL_INFINITE (0xFFFFFFFF) waits for ever.
// They are measured on the monotonic clock (CLOCK_MONOTONIC): setting or
// stepping the system's wall clock neither stretches nor cuts a wait.
#ifndef LIB_KEL_MUTEX_H
#define LIB_KEL_MUTEX_H

#include <pthread.h>

#include <atomic>
#include <vector>

static const unsigned int KEL_INFINITE = 0xFFFFFFFFu;

// A plain (non-recursive) POSIX mutex with an optional time-out on Lock.
class CKelMutex
{
public:
    CKelMutex();
    virtual ~CKelMutex();

    CKelMutex(const CKelMutex&) = delete;
    CKelMutex& operator=(const CKelMutex&) = delete;

    // True when the lock is held. KEL_INFINITE waits without limit; any
    // other value is a deadline relative to now, and a time-out gives false.
    bool Lock(unsigned int nTimeoutMs);
    bool Unlock();

private:
    friend class CKelEvent;
    pthread_mutex_t m_oMutex;
};

// A sticky, auto-resetting event. A Signal stays pending until one Wait
// consumes it; a signal count lets every thread that was already waiting
// at the time of a Signal wake up, even if the flag was consumed or reset
// before it got to run.
class CKelEvent
{
public:
    CKelEvent();
    virtual ~CKelEvent();

    CKelEvent(const CKelEvent&) = delete;
    CKelEvent& operator=(const CKelEvent&) = delete;

    void Signal();
    // Clears the flag without taking the guard; meant for events that no
    // other thread is about to signal.
    void Reset();
    // True when the event was or became signalled; clears the flag.
    bool Wait(unsigned int nTimeoutMs);

    // Polls the events in order (10 ms pause between passes) and returns the
    // index of the first signalled one, or -1 once the time-out has passed.
    static int Wait(std::vector<CKelEvent*>& aoEvents, unsigned int nTimeoutMs);

private:
    CKelMutex m_oGuard;
    pthread_cond_t* m_poCondition;
    // Written under the guard except by Reset; atomic so that the unguarded
    // store is still a well-defined single-byte write.
    std::atomic<unsigned char> m_nSignalled;
    unsigned int m_nSignalCount;
};

// Locks a CKelMutex without limit for the lifetime of the guard.
class CKelLockGuard
{
public:
    explicit CKelLockGuard(CKelMutex& oMutex) : m_roMutex(oMutex) { m_roMutex.Lock(KEL_INFINITE); }
    ~CKelLockGuard() { m_roMutex.Unlock(); }

    CKelLockGuard(const CKelLockGuard&) = delete;
    CKelLockGuard& operator=(const CKelLockGuard&) = delete;

private:
    CKelMutex& m_roMutex;
};

#endif
