// A client's send queue: order, the bound on indications, close after the
// queued telegrams, and a lost link.
#include "Outbox.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

using namespace GatewaySim;

namespace
{

using CStrings = std::vector<std::string>;

// A link whose sends block while it is held, so a test can fill the queue; it
// records its closing among the sent telegrams.
class CHeldLink : public ITelegramLink
{
public:
    bool SendBytes(const std::string& sBytes) override
    {
        std::unique_lock<std::mutex> oLock(m_oMutex);
        m_bEntered = true;
        m_oChanged.notify_all();
        m_oChanged.wait(oLock, [&] { return !m_bHeld; });
        m_asSent.push_back(sBytes);
        m_oChanged.notify_all();
        return m_bAccept;
    }
    void CloseLink() override
    {
        Change([&] { m_asSent.push_back("<closed>"); });
    }
    template <class F>
    void Change(F fChange)
    {
        std::lock_guard<std::mutex> oLock(m_oMutex);
        fChange();
        m_oChanged.notify_all();
    }
    // Waits (at most 5 s) until fCondition holds under the lock.
    template <class F>
    bool WaitUntil(F fCondition)
    {
        std::unique_lock<std::mutex> oLock(m_oMutex);
        return m_oChanged.wait_for(oLock, std::chrono::seconds(5), fCondition);
    }

    std::mutex m_oMutex;
    std::condition_variable m_oChanged;
    bool m_bHeld = true;
    bool m_bEntered = false;
    bool m_bAccept = true;
    CStrings m_asSent;
};

TEST(Outbox, DropsIndicationsBeyondItsBoundButNeverConfirmationsAndClosesInOrder)
{
    CHeldLink oLink;
    SSimCounters oCounters;
    COutbox oOutbox(oLink, oCounters, 3);
    ASSERT_TRUE(oOutbox.Start());
    ASSERT_TRUE(oOutbox.PostIndication("i0"));
    ASSERT_TRUE(oLink.WaitUntil([&] { return oLink.m_bEntered; })); // the writer holds i0, the queue is empty
    for (const char* pIndication : {"i1", "i2", "i3"})
        EXPECT_TRUE(oOutbox.PostIndication(pIndication));
    EXPECT_FALSE(oOutbox.PostIndication("i4"));
    oOutbox.PostConfirmation("c1");
    oOutbox.PostClose();
    oOutbox.PostConfirmation("after close");
    EXPECT_EQ(oCounters.nFramesDropped.load(), 1u);

    // What was queued while the link was busy leaves in one send, in order.
    oLink.Change([&] { oLink.m_bHeld = false; });
    ASSERT_TRUE(oLink.WaitUntil([&] { return oLink.m_asSent.size() == 3u; }));
    oOutbox.Stop();
    EXPECT_EQ(oLink.m_asSent, (CStrings{"i0", "i1i2i3c1", "<closed>"}));
    EXPECT_EQ(oCounters.nFramesOut.load(), 4u);
    EXPECT_EQ(oCounters.nConfirmations.load(), 1u);
}

TEST(Outbox, LostLinkStopsSendingAndCountsTheError)
{
    CHeldLink oLink;
    oLink.m_bHeld = false;
    oLink.m_bAccept = false;
    SSimCounters oCounters;
    COutbox oOutbox(oLink, oCounters, 10);
    ASSERT_TRUE(oOutbox.Start());
    oOutbox.PostConfirmation("c1");
    ASSERT_TRUE(oLink.WaitUntil([&] { return oLink.m_asSent.size() == 1u; }));
    oOutbox.Stop();
    EXPECT_FALSE(oOutbox.PostIndication("i1"));
    EXPECT_EQ(oCounters.nSendErrors.load(), 1u);
    EXPECT_EQ(oCounters.nConfirmations.load(), 0u);
    EXPECT_EQ(oLink.m_asSent.size(), 1u);
}

} // namespace
