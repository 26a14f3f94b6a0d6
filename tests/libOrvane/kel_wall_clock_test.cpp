// Every timed wait of the library runs its full time-out whatever the wall
// clock does.
//
// This program replaces the process's wall-clock reads (gettimeofday,
// clock_gettime on the realtime clocks) by the kernel's value plus an offset,
// optionally only from the second read on. The machine's clock itself is
// never touched. Two kinds of step result:
// - offset from the first read: a wait that takes its deadline from the wall
//   clock and lets the kernel measure it sees the step between the two;
// - offset from the second read: a wait that compares the wall clock with its
//   deadline itself sees the step while it waits.
// Either way an offset of -1 h cuts a wall-clock wait to nothing, +1 h
// stretches it by an hour.
#include "KelSendTurns.h"
#include "KelSocketWait.h"
#include "libKelMutex.h"

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace
{
std::atomic<long long> g_nWallOffsetSeconds{0};
// Wall-clock reads still to be answered with the true time.
std::atomic<int> g_nUnshiftedReads{0};

bool IsWallClock(clockid_t clock)
{
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
}

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
    if (result == 0 && IsWallClock(clock))
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

// Fresh primitives for every case.
struct SPrimitives
{
    CKelMutex mutex;
    CKelEvent event;
    CKelSendTurns turns;
};

// `hold` makes the wait block (on the test's thread), `wait` runs on a
// thread of its own and waits kTimeoutMs (true: it got through), `release`
// frees whatever `hold` took or a wait that is still blocked.
struct SWaitCase
{
    const char* name;
    std::function<void(SPrimitives&)> hold;
    std::function<bool(SPrimitives&)> wait;
    std::function<void(SPrimitives&)> release;
};

const std::vector<SWaitCase>& WaitCases()
{
    static const std::vector<SWaitCase> cases{
        {"CKelMutex::Lock", [](SPrimitives& p) { p.mutex.Lock(KEL_INFINITE); },
         [](SPrimitives& p) {
             const bool locked = p.mutex.Lock(kTimeoutMs);
             if (locked)
                 p.mutex.Unlock();
             return locked;
         },
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
    return cases;
}

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

// Without this the test below would pass for any implementation.
TEST(KelWallClock, OffsetReachesEveryWallClockRead)
{
    timeval before;
    syscall(SYS_gettimeofday, &before, nullptr);
    WallClockOffset offset(kHourSeconds);

    timeval shifted;
    gettimeofday(&shifted, nullptr);
    EXPECT_GE(shifted.tv_sec, before.tv_sec + kHourSeconds);
    const long long systemNow =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
    EXPECT_GE(systemNow, before.tv_sec + kHourSeconds);
}

TEST(KelWallClock, TimedWaitsRunTheirFullTimeOutWhateverTheWallClockSays)
{
    struct SStep
    {
        int unshiftedReads;
        long long offsetSeconds;
    };
    const SStep steps[] = {{0, -kHourSeconds}, {0, kHourSeconds}, {1, -kHourSeconds}, {1, kHourSeconds}};

    for (const SWaitCase& row : WaitCases())
    {
        for (const SStep& step : steps)
        {
            SCOPED_TRACE(std::string(row.name) + ": wall clock " + std::to_string(step.offsetSeconds) +
                         " s from read " + std::to_string(step.unshiftedReads + 1));
            SPrimitives primitives;
            row.hold(primitives);
            std::atomic<int> result{-1};
            std::atomic<long long> elapsedMs{-1};
            bool finished = false;
            {
                WallClockOffset offset(step.offsetSeconds, step.unshiftedReads);
                std::thread waiter([&] {
                    const auto start = Clock::now();
                    const bool through = row.wait(primitives);
                    elapsedMs = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
                    result = through ? 1 : 0;
                });
                const auto limit = Clock::now() + std::chrono::seconds(5);
                while (result.load() == -1 && Clock::now() < limit)
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                finished = result.load() != -1;
                row.release(primitives);
                waiter.join();
            }
            EXPECT_TRUE(finished) << "the wait was stretched";
            EXPECT_EQ(0, result.load()) << "the wait did not time out";
            EXPECT_GE(elapsedMs.load(), static_cast<long long>(kTimeoutMs) - 5) << "the wait was cut";
        }
    }
}
