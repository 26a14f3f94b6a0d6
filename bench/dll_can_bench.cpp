// Received frames per second through the application interface, on
// loopback: the simulator's load generator puts frames on the bus as fast as
// it is asked, and they are counted where the application gets them:
//   - FramesToExtendedCallback: in a callback set with CANSetCallbackEx;
//   - FramesThroughQueue: polled with CANGetMessage from the frame queue.
// Frames the client cannot take in time are dropped by the simulator, so
// the figure (items_per_second) is what the receive path sustains.
//
// Run: build/bench/dll_can_bench [--benchmark_min_time=3]
#include "OrvaneDllCan.h"
#include "support/ApiSim.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace
{

constexpr unsigned int LOAD_RATE = 1000000; // the generator's maximum
constexpr long long BATCH = 20000;

std::atomic<long long> g_nFrames{0};

void CountFrame(unsigned int, const char*, int, int, int, int, int)
{
    g_nFrames.fetch_add(1, std::memory_order_relaxed);
}

GatewaySim::SSimOptions LoadOptions()
{
    GatewaySim::SSimOptions oOptions;
    oOptions.nLoadRate = LOAD_RATE;
    return oOptions;
}

void FramesToExtendedCallback(benchmark::State& oState)
{
    ApiTest::CApiSim oSim(LoadOptions());
    int nHandle = -1;
    if (!oSim.Started() || CANOpenDevice(&nHandle, 0, 0, oSim.CanPort(), ApiTest::HOST, 5000) != 0)
    {
        oState.SkipWithError("simulator or open failed");
        return;
    }
    CANSetCallbackEx(nHandle, CountFrame);
    long long nCounted = 0;
    for (auto _ : oState)
    {
        const long long nStart = g_nFrames.load();
        while (g_nFrames.load() < nStart + BATCH)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        nCounted += g_nFrames.load() - nStart;
    }
    oState.SetItemsProcessed(nCounted);
    CANCloseDevice(nHandle);
}

void FramesThroughQueue(benchmark::State& oState)
{
    ApiTest::CApiSim oSim(LoadOptions());
    int nHandle = -1;
    if (!oSim.Started() || CANOpenDevice(&nHandle, 0, 0, oSim.CanPort(), ApiTest::HOST, 5000) != 0)
    {
        oState.SkipWithError("simulator or open failed");
        return;
    }
    CANSetMaxSizePerQueue(nHandle, 100000);
    int nId = 0, nFlags = 0, nSeconds = 0, nMicroseconds = 0, nAvailable = 0;
    unsigned char nLength = 0;
    char acData[72];
    for (auto _ : oState)
    {
        for (long long n = 0; n < BATCH;)
        {
            CANGetMessage(nHandle, &nAvailable, &nId, acData, &nLength, &nFlags, &nSeconds, &nMicroseconds);
            if (nAvailable >= 0)
                ++n;
            else
                std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }
    oState.SetItemsProcessed(oState.iterations() * BATCH);
    CANCloseDevice(nHandle);
}

} // namespace

BENCHMARK(FramesToExtendedCallback)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(FramesThroughQueue)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
