// Waiting helpers shared by the transport classes: a deadline for operations
// with a millisecond time-out, and a wait for one socket to become ready.
#ifndef KEL_SOCKET_WAIT_H
#define KEL_SOCKET_WAIT_H

#include <chrono>

// A point in time `timeoutMs` from its construction; KEL_INFINITE
// (0xFFFFFFFF) never passes.
class CKelDeadline
{
public:
    explicit CKelDeadline(unsigned int timeoutMs);

    bool IsInfinite() const { return m_bInfinite; }
    // The point in time itself (meaningless when infinite).
    std::chrono::steady_clock::time_point End() const { return m_oEnd; }
    bool HasPassed() const;
    // Milliseconds left, rounded up, as poll() takes them: -1 without limit,
    // 0 once passed.
    int RemainingPollMs() const;
    // Milliseconds left for CKelEvent::Wait: KEL_INFINITE without limit.
    unsigned int RemainingMs() const;

private:
    std::chrono::steady_clock::time_point m_oEnd;
    bool m_bInfinite;
};

// A millisecond time-out as poll() takes it: -1 for KEL_INFINITE, otherwise
// the value, at most INT_MAX.
int KelPollTimeout(unsigned int timeoutMs);

// Waits until `socket` is ready for `events` (POLLIN / POLLOUT) or
// `timeoutMs` has passed (-1: no limit). 1 ready (an error or hang-up on the
// socket counts as ready, so that the next call reports it), 0 time-out,
// -1 the wait failed (for example the socket is no longer open).
int KelWaitForSocket(int socket, short events, int timeoutMs);

#endif
