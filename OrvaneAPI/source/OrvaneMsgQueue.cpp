#include "OrvaneMsgQueue.h"

#include <utility>

template <typename T>
bool COrvaneMsgQueue::Append(T&& oMsg)
{
    CKelLockGuard oGuard(m_oMutex);
    if (m_aoMsgs.size() >= GetMaxSize())
        return false;
    m_aoMsgs.push_back(std::forward<T>(oMsg));
    return true;
}

bool COrvaneMsgQueue::Push(const COrvaneMsg& oMsg)
{
    return Append(oMsg);
}

bool COrvaneMsgQueue::Push(COrvaneMsg&& oMsg)
{
    return Append(std::move(oMsg));
}

int COrvaneMsgQueue::Pop(COrvaneMsg& oMsg)
{
    CKelLockGuard oGuard(m_oMutex);
    if (m_aoMsgs.empty())
        return -1;
    oMsg = std::move(m_aoMsgs.front());
    m_aoMsgs.pop_front();
    return static_cast<int>(m_aoMsgs.size());
}

void COrvaneMsgQueue::Clear()
{
    std::deque<COrvaneMsg> aoOld;
    {
        CKelLockGuard oGuard(m_oMutex);
        aoOld.swap(m_aoMsgs);
    }
}

int COrvaneMsgQueue::Size()
{
    CKelLockGuard oGuard(m_oMutex);
    return static_cast<int>(m_aoMsgs.size());
}
