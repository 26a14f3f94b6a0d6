// COrvaneMsgQueue: a bounded first-in first-out queue of received telegrams,
// one per indication kind of a CAN client. The receive thread appends, any
// application thread polls; each call takes the queue's own mutex.
//
// When the queue is full a new telegram is dropped: the oldest are kept, so
// a slow poller sees a gap at the end, never in the middle.
#ifndef ORVANE_MSG_QUEUE_H
#define ORVANE_MSG_QUEUE_H

#include "OrvaneMsg.h"
#include "libKelMutex.h"

#include <atomic>
#include <deque>

class COrvaneMsgQueue
{
public:
    static constexpr unsigned int DEFAULT_MAX_SIZE = 1000;

    COrvaneMsgQueue() = default;
    COrvaneMsgQueue(const COrvaneMsgQueue&) = delete;
    COrvaneMsgQueue& operator=(const COrvaneMsgQueue&) = delete;

    // Appends the telegram unless the queue holds its maximum already; false
    // when it was dropped.
    bool Push(const COrvaneMsg& oMsg);
    bool Push(COrvaneMsg&& oMsg);
    // Takes the oldest telegram: the number still queued after it, or -1 when
    // the queue was empty (oMsg untouched).
    int Pop(COrvaneMsg& oMsg);
    void Clear();
    int Size();

    // The maximum is a single word read by Push under the mutex; a change
    // applies from the next Push on. Telegrams above a lowered maximum stay.
    void SetMaxSize(unsigned int nMaxSize) { m_nMaxSize.store(nMaxSize, std::memory_order_relaxed); }
    unsigned int GetMaxSize() const { return m_nMaxSize.load(std::memory_order_relaxed); }

private:
    template <typename T>
    bool Append(T&& oMsg);

    std::atomic<unsigned int> m_nMaxSize{DEFAULT_MAX_SIZE};
    CKelMutex m_oMutex;
    std::deque<COrvaneMsg> m_aoMsgs;
};

#endif
