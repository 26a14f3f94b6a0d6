// Mutex, event and thread primitives, exercised with real threads, and
// every timed wait of the library running its full time-out whatever the
// wall clock does (see the wall-clock section at the end).
#include "KelSendTurns.h"
#include "KelSocketWait.h"
#include "libKelMutex.h"
#include "libKelThread.h"
#include "support/Wait.h"

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using OrvaneTest::WaitUntil;

namespace
{
// A thread blocked in event.Wait(timeoutMs); constructed once the kernel
// reports it sleeping in that wait.
struct Waiter
{
    Waiter(CKelEvent& target, unsigned int timeoutMs)
        : event(target), thread([this, timeoutMs] {
              tid = static_cast<pid_t>(syscall(SYS_gettid));
              result = event.Wait(timeoutMs) ? 1 : 0;
          })
    {
        EXPECT_TRUE(WaitUntil([this] {
            std::ifstream stat("/proc/self/task/" + std::to_string(tid.load()) + "/stat");
            std::string line;
            std::getline(stat, line);
            const auto close = line.rfind(')');
            return tid.load() != 0 && close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'S';
        }));
    }
    ~Waiter()
    {
        while (result.load() == -1) // never released: freed so that the test ends
        {
            event.Signal();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        thread.join();
    }
    CKelEvent& event;
    std::atomic<pid_t> tid{0};
    std::atomic<int> result{-1}; // 1 released, 0 timed out
    std::thread thread;
};
} // namespace

TEST(KelMutex, LockWaitsForTheHolderOrGivesUpAtItsTimeout)
{
    CKelMutex mutex;
    ASSERT_TRUE(mutex.Lock(KEL_INFINITE));
    // A finite lock that times out is checked with the wall clock below.
    std::atomic<int> zeroTimeout{-1}, acquired{-1};
    std::thread other([&] {
        zeroTimeout = mutex.Lock(0);
        acquired = mutex.Lock(KEL_INFINITE);
        mutex.Unlock();
    });
    ASSERT_TRUE(WaitUntil([&] { return zeroTimeout.load() != -1; }));
    EXPECT_EQ(0, zeroTimeout.load());
    EXPECT_EQ(-1, acquired.load()); // still blocked behind the holder
    EXPECT_TRUE(mutex.Unlock());
    other.join();
    EXPECT_EQ(1, acquired.load());
    EXPECT_TRUE(mutex.Lock(1500));
    EXPECT_TRUE(mutex.Unlock());
}

TEST(KelEvent, SignalIsStickyConsumedOnceAndReleasesEveryWaiter)
{
    CKelEvent event;
    EXPECT_FALSE(event.Wait(0));
    event.Signal();
    EXPECT_TRUE(event.Wait(KEL_INFINITE)); // nobody waited: the flag stayed
    EXPECT_FALSE(event.Wait(0));
    event.Signal();
    event.Reset();
    EXPECT_FALSE(event.Wait(0));

    {
        // One signal releases every thread waiting at that time, finite or not.
        Waiter finite(event, 20000), infinite(event, KEL_INFINITE);
        event.Signal();
        EXPECT_TRUE(WaitUntil([&] { return finite.result.load() == 1 && infinite.result.load() == 1; }));
    }
    EXPECT_FALSE(event.Wait(0)); // the flag was consumed

    // The flag is gone before the waiter runs; the signal count still releases it.
    Waiter waiter(event, KEL_INFINITE);
    event.Signal();
    event.Reset();
    EXPECT_TRUE(WaitUntil([&] { return waiter.result.load() == 1; }));
}

TEST(KelEvent, MultiWaitTakesTheLowestSignalledIndexOrTimesOut)
{
    CKelEvent a, b, c;
    std::vector<CKelEvent*> events{&a, &b, &c};
    c.Signal();
    b.Signal();
    EXPECT_EQ(1, CKelEvent::Wait(events, 0));
    EXPECT_EQ(2, CKelEvent::Wait(events, 0));
    EXPECT_EQ(-1, CKelEvent::Wait(events, 0));

    std::atomic<int> index{-2};
    std::thread waiter([&] { index = CKelEvent::Wait(events, 20000); });
    b.Signal();
    waiter.join();
    EXPECT_EQ(1, index.load());
}

namespace
{
// Loops until termination is requested, returns, or leaves Initialize or
// Run in one of the ways foreign code might. Records its runs and what a
// second termination test sees.
class CTestThread : public CKelThread
{
public:
    enum EWay
    {
        eLoop,
        eReturn,
        eThrowStd,
        eThrowOther,
        eThrowInInitialize,
        ePthreadExit
    };
    explicit CTestThread(EWay way) : m_eWay(way) {}
    ~CTestThread() override { Terminate(); }
    bool WaitFinished()
    {
        return WaitUntil([this] { return GetState() == eFinished; });
    }

    std::atomic<int> initialized{0}, runs{0}, secondTestAfterRequest{-1};

protected:
    void Initialize() override
    {
        ++initialized;
        if (m_eWay == eThrowInInitialize)
            throw std::runtime_error("no resources");
    }
    void Run() override
    {
        ++runs;
        if (m_eWay == eThrowStd)
            throw std::runtime_error("callback failed");
        if (m_eWay == eThrowOther)
            throw 42;
        if (m_eWay == ePthreadExit)
            pthread_exit(nullptr);
        while (m_eWay == eLoop && !IsTerminationRequested())
            usleep(1000);
        secondTestAfterRequest = IsTerminationRequested() ? 1 : 0;
    }

private:
    const EWay m_eWay;
};
} // namespace

TEST(KelThread, StartHandshakeTerminationAndRestart)
{
    CTestThread thread(CTestThread::eLoop);
    thread.Terminate(); // no thread yet: nothing happens
    EXPECT_EQ(CKelThread::eCreated, thread.GetState());
    ASSERT_TRUE(thread.Start());
    EXPECT_EQ(1, thread.initialized.load()); // visible as soon as Start returns
    EXPECT_TRUE(WaitUntil([&] { return thread.IsRunning(); }));
    EXPECT_FALSE(thread.Start());
    thread.Terminate();
    EXPECT_EQ(CKelThread::eFinished, thread.GetState());
    EXPECT_EQ(0, thread.secondTestAfterRequest.load()); // the request is consumed once
    ASSERT_TRUE(thread.Start());
    thread.Terminate();
    EXPECT_EQ(2, thread.runs.load());

    // A thread whose Run returned by itself starts again as well.
    CTestThread once(CTestThread::eReturn);
    for (int start = 1; start <= 2; ++start)
    {
        ASSERT_TRUE(once.Start());
        ASSERT_TRUE(once.WaitFinished());
    }
    EXPECT_EQ(2, once.runs.load());
}

TEST(KelThread, TimeHelpersNormaliseNanoseconds)
{
    long s0 = 0, ns0 = 0, s = 0, ns = 0;
    CKelThread::GetTimeCurrent(&s0, &ns0);
    EXPECT_EQ(0, ns0 % 1000);                    // microsecond resolution
    CKelThread::GetTime(&s, &ns, 0, 999999999L); // a carry for every reading but one
    EXPECT_TRUE(ns >= 0 && ns < 1000000000L) << ns;
    CKelThread::GetTime(&s, &ns, 2, 1999999999L);
    EXPECT_TRUE(ns >= 0 && ns < 1000000000L) << ns;
    // now + 3.999999999 s, give or take the time between the two reads
    const long long target = (static_cast<long long>(s0) + 3) * 1000000000LL + ns0 + 999999999LL;
    const long long got = static_cast<long long>(s) * 1000000000LL + ns;
    EXPECT_GE(got, target);
    EXPECT_LT(got - target, 5000000000LL);
}

TEST(KelThread, EscapingExceptionEndsOnlyTheThreadWithOneLineOnStderr)
{
    const std::string prefix = "+++ error: thread (anonymous namespace)::CTestThread ended by an exception: ";
    const struct
    {
        CTestThread::EWay way;
        bool started; // what Start returns
        int runs;     // Run calls per start
        std::string log;
    } rows[] = {
        {CTestThread::eThrowStd, true, 1, prefix + "callback failed\n"},
        {CTestThread::eThrowOther, true, 1, prefix + "unknown exception\n"},
        {CTestThread::eThrowInInitialize, false, 0, prefix + "no resources\n"},
        {CTestThread::ePthreadExit, true, 1, ""}, // an unwind, not an error
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(static_cast<int>(row.way));
        CTestThread thread(row.way);
        for (int start = 1; start <= 2; ++start) // a thread that ended this way starts again
        {
            testing::internal::CaptureStderr();
            const bool started = thread.Start();
            const bool finished = thread.WaitFinished();
            EXPECT_EQ(row.log, testing::internal::GetCapturedStderr());
            EXPECT_EQ(row.started, started);
            EXPECT_TRUE(finished);
            EXPECT_EQ(row.runs * start, thread.runs.load());
        }
        thread.Terminate();
        EXPECT_EQ(CKelThread::eFinished, thread.GetState());
    }
}

// ------------------------------------------------------------------ wall clock
// Every timed wait of the library runs its full time-out whatever the wall
// clock does. The process's wall-clock reads are answered with the kernel's
// value plus an offset, optionally from the second read on (the machine's
// clock is never touched): a wait that takes its deadline from the wall clock
// sees the step between two reads or while it waits, and -1 h cuts it to
// nothing, +1 h stretches it by an hour.

namespace
{
std::atomic<long long> g_nWallOffsetSeconds{0};
std::atomic<int> g_nUnshiftedReads{0}; // wall-clock reads still answered with the true time

time_t WallOffset()
{
    int unshifted = g_nUnshiftedReads.load();
    while (unshifted > 0)
    {
        if (g_nUnshiftedReads.compare_exchange_weak(unshifted, unshifted - 1))
            return 0;
    }
    return static_cast<time_t>(g_nWallOffsetSeconds.load());
}
} // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    const long result = syscall(SYS_clock_gettime, clock, now);
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE))
        now->tv_sec += WallOffset();
    return static_cast<int>(result);
}

extern "C" int gettimeofday(timeval* now, void* zone) noexcept
{
    const long result = syscall(SYS_gettimeofday, now, zone);
    if (result == 0)
        now->tv_sec += WallOffset();
    return static_cast<int>(result);
}

namespace
{
using Clock = std::chrono::steady_clock;
const unsigned int kTimeoutMs = 200;
const long long kHourSeconds = 3600;

struct SPrimitives
{
    CKelMutex mutex;
    CKelEvent event;
    CKelSendTurns turns;
};

class WallClockOffset
{
public:
    explicit WallClockOffset(long long seconds, int unshiftedReads = 0)
    {
        g_nUnshiftedReads.store(unshiftedReads);
        g_nWallOffsetSeconds.store(seconds);
    }
    ~WallClockOffset()
    {
        g_nWallOffsetSeconds.store(0);
        g_nUnshiftedReads.store(0);
    }
};
} // namespace

TEST(KelWallClock, TimedWaitsRunTheirFullTimeOutWhateverTheWallClockSays)
{
    {
        // Without this the rest would pass for any implementation.
        timeval before;
        syscall(SYS_gettimeofday, &before, nullptr);
        WallClockOffset offset(kHourSeconds);
        timeval shifted;
        gettimeofday(&shifted, nullptr);
        ASSERT_GE(shifted.tv_sec, before.tv_sec + kHourSeconds);
        const auto systemNow = std::chrono::system_clock::now().time_since_epoch();
        ASSERT_GE(std::chrono::duration_cast<std::chrono::seconds>(systemNow).count(), before.tv_sec + kHourSeconds);
    }

    // `hold` makes the wait block, `wait` waits kTimeoutMs on a thread of its
    // own (true: it got through), `release` frees the hold or the wait.
    const struct
    {
        const char* name;
        std::function<void(SPrimitives&)> hold;
        std::function<bool(SPrimitives&)> wait;
        std::function<void(SPrimitives&)> release;
    } cases[] = {
        {"CKelMutex::Lock", [](SPrimitives& p) { p.mutex.Lock(KEL_INFINITE); },
         [](SPrimitives& p) { return p.mutex.Lock(kTimeoutMs) && p.mutex.Unlock(); },
         [](SPrimitives& p) { p.mutex.Unlock(); }},
        {"CKelEvent::Wait", [](SPrimitives&) {}, [](SPrimitives& p) { return p.event.Wait(kTimeoutMs); },
         [](SPrimitives& p) { p.event.Signal(); }},
        {"CKelEvent::Wait on several", [](SPrimitives&) {},
         [](SPrimitives& p) {
             std::vector<CKelEvent*> events{&p.event};
             return CKelEvent::Wait(events, kTimeoutMs) != -1;
         },
         [](SPrimitives& p) { p.event.Signal(); }},
        {"CKelSendTurns::Begin", [](SPrimitives& p) { p.turns.Begin(CKelDeadline(KEL_INFINITE)); },
         [](SPrimitives& p) {
             const bool turn = p.turns.Begin(CKelDeadline(kTimeoutMs));
             if (turn)
                 p.turns.End();
             return turn;
         },
         [](SPrimitives& p) { p.turns.End(); }},
    };
    for (const auto& row : cases)
        for (const int unshiftedReads : {0, 1})
            for (const long long offsetSeconds : {-kHourSeconds, kHourSeconds})
            {
                SCOPED_TRACE(std::string(row.name) + ": wall clock " + std::to_string(offsetSeconds) + " s from read " +
                             std::to_string(unshiftedReads + 1));
                SPrimitives primitives;
                row.hold(primitives);
                std::atomic<int> result{-1};
                std::atomic<long long> elapsedMs{-1};
                bool finished = false;
                {
                    WallClockOffset offset(offsetSeconds, unshiftedReads);
                    std::thread waiter([&] {
                        const auto start = Clock::now();
                        const bool through = row.wait(primitives);
                        elapsedMs = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
                        result = through ? 1 : 0;
                    });
                    finished = WaitUntil([&] { return result.load() != -1; });
                    row.release(primitives);
                    waiter.join();
                }
                EXPECT_TRUE(finished) << "the wait was stretched";
                EXPECT_EQ(0, result.load()) << "the wait did not time out";
                EXPECT_GE(elapsedMs.load(), static_cast<long long>(kTimeoutMs) - 5) << "the wait was cut";
            }
}
