// CKelSendTurns: the threads that send on one stream take turns, one whole
// message each, in the order in which they asked.
//
// A plain mutex is not enough: a thread that sends back to back would take it
// again before a woken waiter runs, and a waiting alive request or automatic
// confirmation could then miss its time-out behind a busy owner.
#ifndef KEL_SEND_TURNS_H
#define KEL_SEND_TURNS_H

#include "KelSocketWait.h"
#include "libKelMutex.h"

#include <condition_variable>
#include <deque>

class CKelSendTurns
{
public:
    CKelSendTurns() = default;
    CKelSendTurns(const CKelSendTurns&) = delete;
    CKelSendTurns& operator=(const CKelSendTurns&) = delete;

    // True once it is the caller's turn; false when the deadline passed first.
    bool Begin(const CKelDeadline& deadline);
    // Ends the caller's turn; the longest waiting caller goes next.
    void End();

private:
    // CKelMutex in the form the standard condition variable locks.
    struct SLockable
    {
        CKelMutex& mutex;
        void lock() { mutex.Lock(KEL_INFINITE); }
        void unlock() { mutex.Unlock(); }
    };

    CKelMutex m_oGuard;
    std::condition_variable_any m_oChanged;
    std::deque<unsigned long long> m_anWaiting; // tickets in the order of asking
    unsigned long long m_nNextTicket = 0;
    bool m_bBusy = false;
};

#endif
