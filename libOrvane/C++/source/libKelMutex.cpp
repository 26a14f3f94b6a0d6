#include "libKelMutex.h"

#include <errno.h>
#include <sys/time.h>
#include <unistd.h>

namespace
{
// Absolute wall-clock deadline `timeoutMs` from now, as the POSIX timed
// waits expect it. False when the clock cannot be read.
bool DeadlineFromNow(unsigned int timeoutMs, timespec& deadline)
{
    timeval now;
    if (gettimeofday(&now, nullptr) != 0)
        return false;
    long long micro = static_cast<long long>(now.tv_usec) + (timeoutMs % 1000) * 1000LL;
    long long seconds = static_cast<long long>(now.tv_sec) + timeoutMs / 1000;
    if (micro > 999999)
    {
        seconds += 1;
        micro -= 1000000;
    }
    deadline.tv_sec = static_cast<time_t>(seconds);
    deadline.tv_nsec = static_cast<long>(micro * 1000);
    return true;
}

bool IsPast(const timespec& deadline)
{
    timeval now;
    gettimeofday(&now, nullptr);
    if (now.tv_sec != deadline.tv_sec)
        return now.tv_sec > deadline.tv_sec;
    return now.tv_usec * 1000L >= deadline.tv_nsec;
}

const useconds_t kPollPauseUs = 10 * 1000;
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

bool CKelMutex::Lock(unsigned int timeoutMs)
{
    if (timeoutMs == KEL_INFINITE)
        return pthread_mutex_lock(&m_oMutex) == 0;

    timespec deadline;
    if (!DeadlineFromNow(timeoutMs, deadline))
        return false;
    return pthread_mutex_timedlock(&m_oMutex, &deadline) == 0;
}

bool CKelMutex::Unlock()
{
    return pthread_mutex_unlock(&m_oMutex) == 0;
}

// ---------------------------------------------------------------- CKelEvent

CKelEvent::CKelEvent() : m_poCondition(new pthread_cond_t), m_nSignalled(0), m_nSignalCount(0)
{
    pthread_cond_init(m_poCondition, nullptr);
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

bool CKelEvent::Wait(unsigned int timeoutMs)
{
    m_oGuard.Lock(KEL_INFINITE);
    const unsigned int countAtEntry = m_nSignalCount;
    auto released = [&] { return m_nSignalled.load(std::memory_order_relaxed) != 0 || m_nSignalCount != countAtEntry; };

    if (timeoutMs == KEL_INFINITE)
    {
        while (!released())
            pthread_cond_wait(m_poCondition, &m_oGuard.m_oMutex);
    }
    else if (timeoutMs == 0)
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
            DeadlineFromNow(timeoutMs, deadline);
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

int CKelEvent::Wait(std::vector<CKelEvent*>& events, unsigned int timeoutMs)
{
    const bool finite = timeoutMs != KEL_INFINITE;
    timespec deadline{};
    if (finite)
        DeadlineFromNow(timeoutMs, deadline);

    for (;;)
    {
        // A zero-length wait tests and consumes one event; the lowest index wins.
        for (size_t i = 0; i < events.size(); ++i)
        {
            if (events[i]->Wait(0))
                return static_cast<int>(i);
        }
        if (finite && IsPast(deadline))
            return -1;
        usleep(kPollPauseUs);
    }
}
