#include "KelSendTurns.h"

#include <algorithm>
#include <mutex>

bool CKelSendTurns::Begin(const CKelDeadline& deadline)
{
    SLockable lockable{m_oGuard};
    std::unique_lock<SLockable> lock(lockable);
    if (!m_bBusy && m_anWaiting.empty())
    {
        m_bBusy = true;
        return true;
    }

    const unsigned long long ticket = m_nNextTicket++;
    m_anWaiting.push_back(ticket);
    const auto myTurn = [&] { return !m_bBusy && m_anWaiting.front() == ticket; };
    const bool turn = deadline.IsInfinite() ? (m_oChanged.wait(lock, myTurn), true)
                                            : m_oChanged.wait_until(lock, deadline.End(), myTurn);
    if (!turn)
    {
        // Given up: whoever is next in line may be free to go now.
        m_anWaiting.erase(std::find(m_anWaiting.begin(), m_anWaiting.end(), ticket));
        lock.unlock();
        m_oChanged.notify_all();
        return false;
    }
    m_anWaiting.pop_front();
    m_bBusy = true;
    return true;
}

void CKelSendTurns::End()
{
    bool waiting;
    {
        CKelLockGuard guard(m_oGuard);
        m_bBusy = false;
        waiting = !m_anWaiting.empty();
    }
    if (waiting)
        m_oChanged.notify_all();
}
