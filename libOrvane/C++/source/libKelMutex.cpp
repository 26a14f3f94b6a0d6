#include "libKelMutex.h"

#include <errno.h>
#include <time.h>
#include <unistd.h>

// A timed lock that measures on the monotonic clock needs
// pthread_mutex_clocklock; pthread_mutex_timedlock only takes the wall clock.
#if !defined(__GLIBC__) || __GLIBC__ < 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ < 30)
#error "libKelMutex needs pthread_mutex_clocklock (glibc 2.30 or later)"
#endif

#if defined(__SANITIZE_THREAD__)
#define KEL_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KEL_TSAN 1
#endif
#endif
#ifdef KEL_TSAN
#include <sanitizer/tsan_interface.h>
#endif

namespace
{
// Every wait measures on CLOCK_MONOTONIC: a bridge runs for months, and a step
// of the wall clock (NTP, an operator) must neither stretch nor cut a
// time-out, an alive period or a confirmation wait.
const clockid_t WAIT_CLOCK = CLOCK_MONOTONIC;

// Absolute deadline `nTimeoutMs` from now on the wait clock. False when the
// clock cannot be read.
bool DeadlineFromNow(unsigned int nTimeoutMs, timespec& oDeadline)
{
    timespec now;
    if (clock_gettime(WAIT_CLOCK, &now) != 0)
        return false;
    long long nano = static_cast<long long>(now.tv_nsec) + (nTimeoutMs % 1000) * 1000000LL;
    long long seconds = static_cast<long long>(now.tv_sec) + nTimeoutMs / 1000;
    if (nano > 999999999LL)
    {
        seconds += 1;
        nano -= 1000000000LL;
    }
    oDeadline.tv_sec = static_cast<time_t>(seconds);
    oDeadline.tv_nsec = static_cast<long>(nano);
    return true;
}

bool IsPast(const timespec& oDeadline)
{
    timespec now{};
    clock_gettime(WAIT_CLOCK, &now);
    if (now.tv_sec != oDeadline.tv_sec)
        return now.tv_sec > oDeadline.tv_sec;
    return now.tv_nsec >= oDeadline.tv_nsec;
}

const useconds_t POLL_PAUSE_US = 10 * 1000;
} // namespace

// ---------------------------------------------------------------- CKelMutex

CKelMutex::CKelMutex()
{
    pthread_mutex_init(&m_oMutex, nullptr);
}

CKelMutex::~CKelMutex()
{
    pthread_mutex_destroy(&m_oMutex);
}

bool CKelMutex::Lock(unsigned int nTimeoutMs)
{
    if (nTimeoutMs == KEL_INFINITE)
        return pthread_mutex_lock(&m_oMutex) == 0;

    timespec deadline;
    if (!DeadlineFromNow(nTimeoutMs, deadline))
        return false;
#ifdef KEL_TSAN
    // The thread sanitizer does not know pthread_mutex_clocklock; it is told
    // about the lock as it would be about a timed lock.
    __tsan_mutex_pre_lock(&m_oMutex, __tsan_mutex_try_lock);
    const int result = pthread_mutex_clocklock(&m_oMutex, WAIT_CLOCK, &deadline);
    __tsan_mutex_post_lock(
        &m_oMutex, result == 0 ? __tsan_mutex_try_lock : __tsan_mutex_try_lock | __tsan_mutex_try_lock_failed, 0);
    return result == 0;
#else
    return pthread_mutex_clocklock(&m_oMutex, WAIT_CLOCK, &deadline) == 0;
#endif
}

bool CKelMutex::Unlock()
{
    return pthread_mutex_unlock(&m_oMutex) == 0;
}

// ---------------------------------------------------------------- CKelEvent

CKelEvent::CKelEvent() : m_poCondition(new pthread_cond_t), m_nSignalled(0), m_nSignalCount(0)
{
    // The condition's timed waits take their deadline on the wait clock.
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, WAIT_CLOCK);
    pthread_cond_init(m_poCondition, &attributes);
    pthread_condattr_destroy(&attributes);
}

CKelEvent::~CKelEvent()
{
    pthread_cond_destroy(m_poCondition);
    delete m_poCondition;
}

void CKelEvent::Signal()
{
    m_oGuard.Lock(KEL_INFINITE);
    ++m_nSignalCount;
    m_nSignalled.store(1, std::memory_order_relaxed);
    pthread_cond_broadcast(m_poCondition);
    m_oGuard.Unlock();
}

void CKelEvent::Reset()
{
    m_nSignalled.store(0, std::memory_order_relaxed);
}

bool CKelEvent::Wait(unsigned int nTimeoutMs)
{
    m_oGuard.Lock(KEL_INFINITE);
    const unsigned int countAtEntry = m_nSignalCount;
    auto released = [&] { return m_nSignalled.load(std::memory_order_relaxed) != 0 || m_nSignalCount != countAtEntry; };

    if (nTimeoutMs == KEL_INFINITE)
    {
        while (!released())
            pthread_cond_wait(m_poCondition, &m_oGuard.m_oMutex);
    }
    else if (nTimeoutMs == 0)
    {
        // A zero-length wait only tests the event. Answering here avoids the
        // timed wait, whose already expired deadline still costs the kernel's
        // timer slack (tens of microseconds) on hot polling paths.
        if (!released())
        {
            m_oGuard.Unlock();
            return false;
        }
    }
    else
    {
        while (!released())
        {
            // The deadline is taken afresh on every pass, so a spurious
            // wake-up restarts the whole time-out.
            timespec deadline{}; // stays in the past if the clock cannot be read
            DeadlineFromNow(nTimeoutMs, deadline);
            if (pthread_cond_timedwait(m_poCondition, &m_oGuard.m_oMutex, &deadline) == ETIMEDOUT && !released())
            {
                m_oGuard.Unlock();
                return false;
            }
        }
    }
    m_nSignalled.store(0, std::memory_order_relaxed);
    m_oGuard.Unlock();
    return true;
}

int CKelEvent::Wait(std::vector<CKelEvent*>& aoEvents, unsigned int nTimeoutMs)
{
    const bool finite = nTimeoutMs != KEL_INFINITE;
    timespec deadline{};
    if (finite)
        DeadlineFromNow(nTimeoutMs, deadline);

    for (;;)
    {
        // A zero-length wait tests and consumes one event; the lowest index wins.
        for (size_t i = 0; i < aoEvents.size(); ++i)
        {
            if (aoEvents[i]->Wait(0))
                return static_cast<int>(i);
        }
        if (finite && IsPast(deadline))
            return -1;
        usleep(POLL_PAUSE_US);
    }
}
