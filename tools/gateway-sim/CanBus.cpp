#include "CanBus.h"

#include <algorithm>

namespace GatewaySim
{

void CCanBus::Attach(ICanBusMember* pMember)
{
    CKelLockGuard oLock(m_oMutex);
    if (std::find(m_apMembers.begin(), m_apMembers.end(), pMember) == m_apMembers.end())
        m_apMembers.push_back(pMember);
}

void CCanBus::Detach(ICanBusMember* pMember)
{
    CKelLockGuard oLock(m_oMutex);
    m_apMembers.erase(std::remove(m_apMembers.begin(), m_apMembers.end(), pMember), m_apMembers.end());
}

void CCanBus::Transmit(const SCanFrame& oFrame, const STimeStamp& oTime, const ICanBusMember* pSender)
{
    ++m_roCounters.nFramesIn;
    CKelLockGuard oLock(m_oMutex);
    for (ICanBusMember* pMember : m_apMembers)
        if (pMember != pSender)
            pMember->OnBusFrame(oFrame, oTime);
}

namespace
{
thread_local bool t_bWritesHeld = false;
}

void CCanBus::HoldWrites()
{
    t_bWritesHeld = true;
}

bool CCanBus::WritesHeld()
{
    return t_bWritesHeld;
}

void CCanBus::Flush()
{
    t_bWritesHeld = false;
    CKelLockGuard oLock(m_oMutex);
    for (ICanBusMember* pMember : m_apMembers)
        pMember->OnBusFlush();
}

std::size_t CCanBus::MemberCount() const
{
    CKelLockGuard oLock(m_oMutex);
    return m_apMembers.size();
}

} // namespace GatewaySim
