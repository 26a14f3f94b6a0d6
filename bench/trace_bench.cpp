// Cost of CTraceServer::SendTraceMessage, which every request function calls:
// while tracing is inactive it must cost a few comparisons and allocate
// nothing; an active send to a loopback viewer is measured for reference.
// Each benchmark reports the heap allocations per call ("allocs/call").
#include "TraceServer.h"

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <vector>

namespace
{
std::atomic<unsigned long> g_nAllocations{0};
} // namespace

// Counting allocator for this program (plain builds only; the benchmarks are
// not built with sanitizers). Kept out of line so that the compiler does not
// pair the inlined malloc with a delete elsewhere.
__attribute__((noinline)) void* operator new(std::size_t size)
{
    g_nAllocations.fetch_add(1, std::memory_order_relaxed);
    if (void* memory = std::malloc(size == 0 ? 1 : size))
        return memory;
    throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* memory) noexcept
{
    std::free(memory);
}
__attribute__((noinline)) void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

namespace
{
const unsigned char kRequestLevel = 0x10;
const unsigned char kRequestCategory = 3;
const unsigned int kRequestMask = 0xFFFFFFFF;

// A viewer socket on 127.0.0.1 that activates the given level for category 3
// (plus the server's own activation trace, which it waits for).
class CBenchViewer
{
public:
    explicit CBenchViewer(unsigned char level) : m_nSocket(socket(AF_INET, SOCK_DGRAM, 0))
    {
        sockaddr_in address = Loopback(0);
        bind(m_nSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        // data: level, 4 masks, CRC; masks: category 1 bit 2, category 3 all
        std::vector<unsigned char> request = {
            0x17, 0x00, 0x01, 0x00, 0x00, 0x00, static_cast<unsigned char>(level | 0x04), 4};
        for (unsigned int mask : {0u, 0x02u, 0u, kRequestMask})
            for (int shift = 0; shift < 32; shift += 8)
                request.push_back(static_cast<unsigned char>(mask >> shift));
        unsigned char crc = 0;
        for (unsigned char byte : request)
            crc ^= byte;
        request.push_back(crc);
        const sockaddr_in server = Loopback(CTraceServer::m_nServerUdpPort);
        sendto(m_nSocket, request.data(), request.size(), 0, reinterpret_cast<const sockaddr*>(&server),
               sizeof(server));
        pollfd readable = {m_nSocket, POLLIN, 0};
        m_bActive = poll(&readable, 1, 5000) == 1;
    }
    ~CBenchViewer() { close(m_nSocket); }
    bool IsActive() const { return m_bActive; }

private:
    static sockaddr_in Loopback(unsigned short port)
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

    int m_nSocket;
    bool m_bActive;
};

void RunSends(benchmark::State& state, int expected)
{
    const unsigned long allocationsBefore = g_nAllocations.load();
    int result = 0;
    for (auto _ : state)
    {
        result = CTraceServer::SendTraceMessage(kRequestLevel, kRequestCategory, kRequestMask, __LINE__, __FILE__,
                                                "CANWrite requested to 127.0.0.1:5201", 0);
        benchmark::DoNotOptimize(result);
    }
    state.counters["allocs/call"] = benchmark::Counter(static_cast<double>(g_nAllocations.load() - allocationsBefore),
                                                       benchmark::Counter::kAvgIterations);
    if (result != expected)
        state.SkipWithError("unexpected SendTraceMessage result");
}

// The bridge's case: no Init, the first test returns -1.
void BM_SendTraceMessage_NotInitialised(benchmark::State& state)
{
    RunSends(state, -1);
}
BENCHMARK(BM_SendTraceMessage_NotInitialised);

// Server running and a viewer known, but the request level not activated: -3.
void BM_SendTraceMessage_LevelInactive(benchmark::State& state)
{
    if (CTraceServer::Init(0) != 0)
    {
        state.SkipWithError("Init failed");
        return;
    }
    {
        CBenchViewer viewer(0x01);
        if (viewer.IsActive())
            RunSends(state, -3);
        else
            state.SkipWithError("viewer not activated");
    }
    CTraceServer::Disable();
}
BENCHMARK(BM_SendTraceMessage_LevelInactive);

// Reference: a full send (telegram built, serialised, one sendto) to a
// loopback viewer that does not read (the kernel drops what does not fit).
void BM_SendTraceMessage_ActiveLoopback(benchmark::State& state)
{
    if (CTraceServer::Init(0) != 0)
    {
        state.SkipWithError("Init failed");
        return;
    }
    {
        CBenchViewer viewer(kRequestLevel);
        if (viewer.IsActive())
            RunSends(state, 0);
        else
            state.SkipWithError("viewer not activated");
    }
    CTraceServer::Disable();
}
BENCHMARK(BM_SendTraceMessage_ActiveLoopback);
} // namespace

BENCHMARK_MAIN();
