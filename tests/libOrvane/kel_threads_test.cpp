// Mutex, event and thread primitives, exercised with real threads.
#include "libKelMutex.h"
#include "libKelThread.h"

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

namespace
{
using Clock = std::chrono::steady_clock;

long ElapsedMs(Clock::time_point since)
{
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

// Polls a condition (1 ms steps) for up to ten seconds.
bool Eventually(const std::function<bool()>& condition)
{
    const auto start = Clock::now();
    while (!condition())
    {
        if (ElapsedMs(start) > 10000)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// True once the kernel reports the thread as sleeping, i.e. blocked in the
// wait it entered after publishing its id.
bool IsBlocked(pid_t tid)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    std::getline(stat, line);
    const auto close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'S';
}

// A thread blocked in event.Wait(timeoutMs); constructed once it is blocked.
struct Waiter
{
    explicit Waiter(CKelEvent& target, unsigned int timeoutMs = KEL_INFINITE)
        : event(target), thread([this, &target, timeoutMs] {
              tid = static_cast<pid_t>(syscall(SYS_gettid));
              result = target.Wait(timeoutMs) ? 1 : 0;
          })
    {
        EXPECT_TRUE(Eventually([this] { return tid.load() != 0 && IsBlocked(tid.load()); }));
    }
    // 1 released, 0 timed out, -1 still waiting after ten seconds.
    int Released()
    {
        Eventually([this] { return result.load() != -1; });
        return result.load();
    }
    ~Waiter()
    {
        // A waiter that was never released is freed so that the test ends.
        while (result.load() == -1)
        {
            event.Signal();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        thread.join();
    }
    CKelEvent& event;
    std::atomic<pid_t> tid{0};
    std::atomic<int> result{-1};
    std::thread thread;
};
} // namespace

TEST(KelMutex, LockWaitsForTheHolderOrGivesUpAtItsTimeout)
{
    CKelMutex mutex;
    ASSERT_TRUE(mutex.Lock(KEL_INFINITE));

    std::atomic<int> zeroTimeout{-1}, timed{-1}, acquired{-1};
    std::atomic<long> timedMs{-1};
    std::thread other([&] {
        zeroTimeout = mutex.Lock(0);
        const auto start = Clock::now();
        timed = mutex.Lock(150);
        timedMs = ElapsedMs(start);
        acquired = mutex.Lock(KEL_INFINITE);
        mutex.Unlock();
    });
    ASSERT_TRUE(Eventually([&] { return timedMs.load() >= 0; }));
    EXPECT_EQ(zeroTimeout.load(), 0);
    EXPECT_EQ(timed.load(), 0);
    EXPECT_GE(timedMs.load(), 140);
    EXPECT_EQ(acquired.load(), -1); // still blocked behind the holder

    EXPECT_TRUE(mutex.Unlock());
    other.join();
    EXPECT_EQ(acquired.load(), 1);
    EXPECT_TRUE(mutex.Lock(1500));
    EXPECT_TRUE(mutex.Unlock());
}

TEST(KelEvent, SignalIsStickyAndConsumedByOneWait)
{
    CKelEvent event;
    EXPECT_FALSE(event.Wait(0));

    event.Signal();
    EXPECT_TRUE(event.Wait(KEL_INFINITE)); // returns at once: nobody waited, the flag stayed
    EXPECT_FALSE(event.Wait(0));

    event.Signal();
    EXPECT_TRUE(event.Wait(0));
    EXPECT_FALSE(event.Wait(0));

    event.Signal();
    event.Reset();
    EXPECT_FALSE(event.Wait(0));

    const auto start = Clock::now();
    EXPECT_FALSE(event.Wait(120));
    EXPECT_GE(ElapsedMs(start), 110);
}

TEST(KelEvent, FiniteWaitWakesOnSignalFromAnotherThread)
{
    CKelEvent event;
    Waiter waiter(event, 20000);
    event.Signal();
    EXPECT_EQ(waiter.Released(), 1);
}

TEST(KelEvent, SignalFollowedByResetStillReleasesTheWaitingThread)
{
    CKelEvent event;
    Waiter waiter(event);
    // The flag is gone before the waiter runs; the signal count must still
    // release it.
    event.Signal();
    event.Reset();
    EXPECT_EQ(waiter.Released(), 1);
}

TEST(KelEvent, OneSignalReleasesEveryThreadWaitingAtThatTime)
{
    CKelEvent event;
    Waiter first(event);
    Waiter second(event);
    event.Signal();
    EXPECT_EQ(first.Released(), 1);
    EXPECT_EQ(second.Released(), 1);
    EXPECT_FALSE(event.Wait(0)); // the flag was consumed
}

TEST(KelEvent, MultiWaitTakesTheLowestSignalledIndexOrTimesOut)
{
    CKelEvent a, b, c;
    std::vector<CKelEvent*> events{&a, &b, &c};
    c.Signal();
    b.Signal();
    EXPECT_EQ(CKelEvent::Wait(events, 0), 1);
    EXPECT_EQ(CKelEvent::Wait(events, 0), 2);
    EXPECT_EQ(CKelEvent::Wait(events, 0), -1);

    std::vector<CKelEvent*> none;
    const auto start = Clock::now();
    EXPECT_EQ(CKelEvent::Wait(none, 60), -1);
    EXPECT_GE(ElapsedMs(start), 55);

    std::atomic<int> index{-2};
    std::thread waiter([&] { index = CKelEvent::Wait(events, 20000); });
    b.Signal();
    waiter.join();
    EXPECT_EQ(index.load(), 1);
}

namespace
{
// Counts its runs; loops until termination is requested unless told to
// return by itself. Records its stack size and what a second termination
// test sees.
class CountingThread : public CKelThread
{
public:
    explicit CountingThread(unsigned int requestedStackSize = 0, bool loop = true)
        : CKelThread(requestedStackSize), m_bLoop(loop)
    {
    }
    ~CountingThread() override { Terminate(); }

    bool WaitFinished()
    {
        return Eventually([this] { return GetState() == eFinished; });
    }

    std::atomic<int> initialized{0};
    std::atomic<int> runs{0};
    std::atomic<int> secondTestAfterRequest{-1};
    std::atomic<size_t> stackSize{0};

protected:
    void Initialize() override { ++initialized; }
    void Run() override
    {
        ++runs;
        pthread_attr_t attributes;
        if (pthread_getattr_np(pthread_self(), &attributes) == 0)
        {
            size_t size = 0;
            pthread_attr_getstacksize(&attributes, &size);
            stackSize = size;
            pthread_attr_destroy(&attributes);
        }
        if (!m_bLoop)
            return;
        while (!IsTerminationRequested())
            usleep(1000);
        secondTestAfterRequest = IsTerminationRequested() ? 1 : 0;
    }

private:
    bool m_bLoop;
};
} // namespace

TEST(KelThread, StartHandshakeTerminationAndRestart)
{
    CountingThread thread;
    thread.Terminate(); // no thread yet: nothing happens
    EXPECT_EQ(thread.GetState(), CKelThread::eCreated);

    ASSERT_TRUE(thread.Start());
    EXPECT_EQ(thread.initialized.load(), 1); // visible as soon as Start returns
    EXPECT_TRUE(Eventually([&] { return thread.IsRunning(); }));
    EXPECT_FALSE(thread.Start());

    thread.Terminate();
    EXPECT_EQ(thread.GetState(), CKelThread::eFinished);
    EXPECT_EQ(thread.secondTestAfterRequest.load(), 0); // the request is consumed once

    ASSERT_TRUE(thread.Start());
    thread.Terminate();
    EXPECT_EQ(thread.runs.load(), 2);

    // A thread whose Run returned by itself can be started again as well.
    CountingThread once(0, false);
    ASSERT_TRUE(once.Start());
    ASSERT_TRUE(once.WaitFinished());
    ASSERT_TRUE(once.Start());
    ASSERT_TRUE(once.WaitFinished());
    EXPECT_EQ(once.runs.load(), 2);

    // The destructor ends a running thread.
    auto* running = new CountingThread;
    ASSERT_TRUE(running->Start());
    delete running;
}

TEST(KelThread, StackSizeIsAppliedOnlyWhenGiven)
{
    pthread_attr_t defaults;
    pthread_attr_init(&defaults);
    size_t defaultSize = 0;
    pthread_attr_getstacksize(&defaults, &defaultSize);
    pthread_attr_destroy(&defaults);

    // glibc may hand a thread a cached stack that is larger than asked for,
    // so only lower bounds are reliable.
    CountingThread withDefault(0, false);
    ASSERT_TRUE(withDefault.Start());
    ASSERT_TRUE(withDefault.WaitFinished());
    EXPECT_GE(withDefault.stackSize.load(), defaultSize);

    const unsigned int custom = 4 * static_cast<unsigned int>(defaultSize);
    CountingThread withCustom(custom, false);
    ASSERT_TRUE(withCustom.Start());
    ASSERT_TRUE(withCustom.WaitFinished());
    EXPECT_GE(withCustom.stackSize.load(), custom);
}

TEST(KelThread, TimeHelpersNormaliseNanoseconds)
{
    long s0 = 0, ns0 = 0;
    CKelThread::GetTimeCurrent(&s0, &ns0);
    EXPECT_EQ(ns0 % 1000, 0); // microsecond resolution

    long s = 0, ns = 0;
    CKelThread::GetTime(&s, &ns, 2, 1999999999L);
    EXPECT_GE(ns, 0);
    EXPECT_LT(ns, 1000000000L);
    // now + 3.999999999 s, give or take the time between the two reads
    const long long target = (static_cast<long long>(s0) + 3) * 1000000000LL + ns0 + 999999999LL;
    const long long got = static_cast<long long>(s) * 1000000000LL + ns;
    EXPECT_GE(got, target);
    EXPECT_LT(got - target, 5000000000LL);
}

namespace
{
// Leaves Initialize or Run in one of the ways foreign code might.
class EscapingThread : public CKelThread
{
public:
    enum EWay
    {
        eStdExceptionFromRun,
        eOtherExceptionFromRun,
        eStdExceptionFromInitialize,
        ePthreadExitFromRun
    };

    explicit EscapingThread(EWay way) : m_eWay(way) {}
    ~EscapingThread() override { Terminate(); }

    std::atomic<int> runs{0};

protected:
    void Initialize() override
    {
        if (m_eWay == eStdExceptionFromInitialize)
            throw std::runtime_error("no resources");
    }
    void Run() override
    {
        ++runs;
        if (m_eWay == eStdExceptionFromRun)
            throw std::runtime_error("callback failed");
        if (m_eWay == eOtherExceptionFromRun)
            throw 42;
        pthread_exit(nullptr);
    }

private:
    EWay m_eWay;
};
} // namespace

TEST(KelThread, EscapingExceptionEndsOnlyTheThreadWithOneLineOnStderr)
{
    const std::string prefix = "+++ error: thread (anonymous namespace)::EscapingThread ended by an exception: ";
    const struct
    {
        EscapingThread::EWay way;
        bool started; // what Start returns
        int runs;     // Run calls per start
        std::string log;
    } rows[] = {
        {EscapingThread::eStdExceptionFromRun, true, 1, prefix + "callback failed\n"},
        {EscapingThread::eOtherExceptionFromRun, true, 1, prefix + "unknown exception\n"},
        {EscapingThread::eStdExceptionFromInitialize, false, 0, prefix + "no resources\n"},
        {EscapingThread::ePthreadExitFromRun, true, 1, ""}, // an unwind, not an error
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(static_cast<int>(row.way));
        EscapingThread thread(row.way);
        // Twice: a thread that ended this way can be started again.
        for (int start = 1; start <= 2; ++start)
        {
            testing::internal::CaptureStderr();
            const bool started = thread.Start();
            const bool finished = Eventually([&] { return thread.GetState() == CKelThread::eFinished; });
            const std::string log = testing::internal::GetCapturedStderr();
            EXPECT_EQ(row.started, started);
            EXPECT_TRUE(finished);
            EXPECT_EQ(row.log, log);
            EXPECT_EQ(row.runs * start, thread.runs.load());
        }
        thread.Terminate();
        EXPECT_EQ(CKelThread::eFinished, thread.GetState());
    }
}
