// Every timed wait of the library runs its full time-out whatever the wall
// clock does. The process's wall-clock reads are answered with the kernel's
// value plus an offset, optionally from the second read on (the machine's
// clock is never touched): a wait that takes its deadline from the wall clock
// sees the step between two reads or while it waits, and -1 h cuts it to
// nothing, +1 h stretches it by an hour.
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
