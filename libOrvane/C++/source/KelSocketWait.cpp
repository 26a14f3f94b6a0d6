#include "KelSocketWait.h"

#include "libKelMutex.h"

#include <errno.h>
#include <poll.h>

#include <climits>

CKelDeadline::CKelDeadline(unsigned int timeoutMs) : m_bInfinite(timeoutMs == KEL_INFINITE)
{
    if (!m_bInfinite)
        m_oEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
}

bool CKelDeadline::HasPassed() const
{
    return !m_bInfinite && std::chrono::steady_clock::now() >= m_oEnd;
}

int CKelDeadline::RemainingPollMs() const
{
    if (m_bInfinite)
        return -1;
    const auto left = m_oEnd - std::chrono::steady_clock::now();
    if (left <= std::chrono::steady_clock::duration::zero())
        return 0;
    const long long ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

unsigned int CKelDeadline::RemainingMs() const
{
    if (m_bInfinite)
        return KEL_INFINITE;
    return static_cast<unsigned int>(RemainingPollMs());
}

int KelPollTimeout(unsigned int timeoutMs)
{
    if (timeoutMs == KEL_INFINITE)
        return -1;
    return timeoutMs > static_cast<unsigned int>(INT_MAX) ? INT_MAX : static_cast<int>(timeoutMs);
}

int KelWaitForSocket(int socket, short events, int timeoutMs)
{
    if (socket < 0)
        return -1;
    pollfd entry{socket, events, 0};
    for (;;)
    {
        const int result = poll(&entry, 1, timeoutMs);
        if (result < 0 && errno == EINTR)
            continue;
        if (result <= 0)
            return result;
        return (entry.revents & POLLNVAL) != 0 ? -1 : 1;
    }
}
