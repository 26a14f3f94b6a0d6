#include "Outbox.h"

#include <utility>

namespace GatewaySim
{

COutbox::COutbox(ITelegramLink& oLink, SSimCounters& oCounters, std::size_t nMaxQueued)
    : m_roLink(oLink), m_roCounters(oCounters), m_nMaxQueued(nMaxQueued), m_oWriter(*this)
{
}

COutbox::~COutbox()
{
    Stop();
}

bool COutbox::Start()
{
    return m_oWriter.Start();
}

void COutbox::PostConfirmation(const std::string& sBytes)
{
    Post(EKind::eConfirmation, sBytes);
}

bool COutbox::PostIndication(const std::string& sBytes)
{
    bool bWake;
    {
        CKelLockGuard oLock(m_oMutex);
        if (m_bStop.load())
            return false;
        if (m_aoQueue.size() >= m_nMaxQueued)
        {
            ++m_roCounters.nFramesDropped;
            return false;
        }
        // The writer takes the whole queue at each wake-up: one that is not
        // empty has been signalled already.
        bWake = m_aoQueue.empty();
        m_aoQueue.push_back(SItem{EKind::eIndication, sBytes});
    }
    if (bWake)
        m_oWake.Signal();
    return true;
}

void COutbox::PostClose()
{
    Post(EKind::eClose, std::string());
}

void COutbox::Post(EKind eKind, const std::string& sBytes)
{
    {
        CKelLockGuard oLock(m_oMutex);
        if (m_bStop.load())
            return;
        m_aoQueue.push_back(SItem{eKind, sBytes});
    }
    m_oWake.Signal();
}

bool COutbox::OnWriterThread() const
{
    return m_bWriterKnown.load() && pthread_equal(pthread_self(), m_hWriter) != 0;
}

void COutbox::Stop()
{
    {
        CKelLockGuard oLock(m_oMutex);
        m_bStop.store(true);
        m_aoQueue.clear();
    }
    m_oWake.Signal();
    if (OnWriterThread())
        return;
    // The read thread (connection lost) and the owner (connection destroyed)
    // may both stop the outbox; one joins the writer at a time.
    CKelLockGuard oLock(m_oJoinMutex);
    m_oWriter.Terminate();
}

void COutbox::WriterLoop()
{
    m_hWriter = pthread_self();
    m_bWriterKnown.store(true);
    // Everything queued at a wake-up leaves in as few sends as possible:
    // consecutive telegrams are joined up to MAX_SEND bytes.
    constexpr std::size_t MAX_SEND = 60000;
    std::deque<SItem> aoBatch;
    std::string sSend;
    while (!m_bStop.load())
    {
        m_oWake.Wait(200);
        {
            CKelLockGuard oLock(m_oMutex);
            aoBatch.swap(m_aoQueue);
        }
        auto it = aoBatch.begin();
        while (it != aoBatch.end() && !m_bStop.load())
        {
            if (it->eKind == EKind::eClose)
            {
                m_bStop.store(true);
                m_roLink.CloseLink();
                break;
            }
            sSend.clear();
            std::size_t nConfirmations = 0, nFrames = 0;
            for (; it != aoBatch.end() && it->eKind != EKind::eClose &&
                 (sSend.empty() || sSend.size() + it->sBytes.size() <= MAX_SEND);
                 ++it)
            {
                sSend += it->sBytes;
                ++(it->eKind == EKind::eConfirmation ? nConfirmations : nFrames);
            }
            if (!m_roLink.SendBytes(sSend))
            {
                ++m_roCounters.nSendErrors;
                m_bStop.store(true);
                break;
            }
            m_roCounters.nConfirmations += nConfirmations;
            m_roCounters.nFramesOut += nFrames;
        }
        aoBatch.clear();
    }
}

} // namespace GatewaySim
