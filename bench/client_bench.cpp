// Client speed on loopback:
//   - BM_ClientGetGlobals: one GetGlobals request (7 bytes) and its
//     confirmation (16 bytes) through COrvaneClientCAN, answered by a plain
//     blocking responder thread, beside BM_PlainPingPong, the same sizes
//     between two plain blocking sockets. The ratio client / plain is printed
//     at the end (target: at most 1.5).
//   - BM_WriteNoConfirm: Write with data confirmations off into a socket that
//     a thread drains: frames per second and heap allocations per call
//     (counted by the replaced global operator new).
//   - BM_WriteBatchToSim: WriteBatch of 64 frames at a time (what one wake-up
//     of the bridge hands on under load) to the gateway simulator running
//     in-process, 100 batches and then one request round trip per
//     iteration, so the frames counted are frames the simulator has handled
//     (target: at least 1,000,000 frames/s).
//
// Run: build/bench/client_bench --benchmark_repetitions=10
//        --benchmark_enable_random_interleaving=true --benchmark_min_time=0.2
// On a shared machine the speed drifts within seconds; interleaving the
// repetitions lets both sides of the ratio see the same conditions. The
// ratios use the medians; process_cpu_ns counts the CPU time of every thread.
#include "KelByteOrder.h"
#include "OrvaneClientCAN.h"
#include "OrvaneProtocol.h"
#include "support/ApiSim.h"

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace
{
std::atomic<unsigned long long> g_nAllocations{0};
}

// GCC sees the replaced operator new and delete inlined into their callers and
// takes the malloc/free pair inside them for a mismatch.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void* operator new(std::size_t nSize)
{
    g_nAllocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(nSize == 0 ? 1 : nSize))
        return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept
{
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept
{
    std::free(p);
}

namespace
{

constexpr std::size_t REQUEST_SIZE = 7;       // GET_GLOBALS request: no payload
constexpr std::size_t CONFIRMATION_SIZE = 16; // result + 8 bytes of globals

// CPU time of the whole process (every thread) in nanoseconds: unlike the
// wall time it hardly depends on what else the machine runs.
double ProcessCpuNs()
{
    timespec oNow{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &oNow);
    return static_cast<double>(oNow.tv_sec) * 1e9 + static_cast<double>(oNow.tv_nsec);
}

void CountProcessCpu(benchmark::State& state, double nStartNs)
{
    state.counters["process_cpu_ns"] =
        (ProcessCpuNs() - nStartNs) / static_cast<double>(std::max<int64_t>(1, state.iterations()));
}

bool ReadExactly(int nSocket, char* pcBuffer, std::size_t nCount)
{
    std::size_t nGot = 0;
    while (nGot < nCount)
    {
        const ssize_t n = recv(nSocket, pcBuffer + nGot, nCount - nGot, 0);
        if (n <= 0)
            return false;
        nGot += static_cast<std::size_t>(n);
    }
    return true;
}

void NoDelay(int nSocket)
{
    const int nOn = 1;
    setsockopt(nSocket, IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof(nOn));
}

// A listening socket on 127.0.0.1 with a port of the system's choice.
struct CListener
{
    int m_nSocket = socket(AF_INET, SOCK_STREAM, 0);
    unsigned short m_nPort = 0;

    CListener()
    {
        sockaddr_in oAddr{};
        oAddr.sin_family = AF_INET;
        oAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(m_nSocket, reinterpret_cast<sockaddr*>(&oAddr), sizeof(oAddr));
        socklen_t nLen = sizeof(oAddr);
        getsockname(m_nSocket, reinterpret_cast<sockaddr*>(&oAddr), &nLen);
        listen(m_nSocket, 1);
        m_nPort = ntohs(oAddr.sin_port);
    }
    ~CListener() { close(m_nSocket); }
    int Accept()
    {
        const int nSocket = accept(m_nSocket, nullptr, nullptr);
        NoDelay(nSocket);
        return nSocket;
    }
};

// The GET_GLOBALS confirmation for a request (its ID at bytes 4..5).
void Confirm(const char* pcRequest, char* pcConfirmation)
{
    const unsigned short nCode = OrvaneCan::eCmdGetGlobals | COrvaneMsg::CONFIRMATION_FLAG;
    const short nId = KelGetLE<short>(pcRequest + 4);
    const char acPayload[9] = {0, 0, 0x20, static_cast<char>(0xA1), 0x07, 0, 1, 0, 0};
    COrvaneMsg(nCode, nId, acPayload, sizeof(acPayload)).CopyMessageData(pcConfirmation, CONFIRMATION_SIZE);
}

void BM_PlainPingPong(benchmark::State& state)
{
    CListener oListener;
    const int nClient = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in oAddr{};
    oAddr.sin_family = AF_INET;
    oAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    oAddr.sin_port = htons(oListener.m_nPort);
    connect(nClient, reinterpret_cast<sockaddr*>(&oAddr), sizeof(oAddr));
    NoDelay(nClient);
    const int nServer = oListener.Accept();
    std::thread oResponder([&] {
        char acRequest[REQUEST_SIZE], acConfirmation[CONFIRMATION_SIZE];
        while (ReadExactly(nServer, acRequest, REQUEST_SIZE))
        {
            Confirm(acRequest, acConfirmation);
            send(nServer, acConfirmation, CONFIRMATION_SIZE, MSG_NOSIGNAL);
        }
    });
    const std::string sRequest = COrvaneMsg(OrvaneCan::eCmdGetGlobals, 7, nullptr, 0).GetMessageData();
    char acReply[CONFIRMATION_SIZE];
    const double nCpu = ProcessCpuNs();
    for (auto _ : state)
    {
        send(nClient, sRequest.data(), REQUEST_SIZE, MSG_NOSIGNAL);
        ReadExactly(nClient, acReply, CONFIRMATION_SIZE);
    }
    CountProcessCpu(state, nCpu);
    shutdown(nClient, SHUT_RDWR);
    oResponder.join();
    close(nClient);
    close(nServer);
}

void BM_ClientGetGlobals(benchmark::State& state)
{
    CListener oListener;
    int nServer = -1;
    std::thread oAccept([&] { nServer = oListener.Accept(); });
    COrvaneClientCAN oClient(5000);
    if (oClient.Connect("127.0.0.1", oListener.m_nPort, CKelIPBase::eTCP, false) != 0)
    {
        oAccept.join();
        state.SkipWithError("connect failed");
        return;
    }
    oAccept.join();
    std::thread oResponder([&] {
        char acRequest[REQUEST_SIZE], acConfirmation[CONFIRMATION_SIZE];
        while (ReadExactly(nServer, acRequest, REQUEST_SIZE))
        {
            Confirm(acRequest, acConfirmation);
            send(nServer, acConfirmation, CONFIRMATION_SIZE, MSG_NOSIGNAL);
        }
    });
    unsigned int nBaud;
    unsigned char nMode;
    bool bTerm, bHigh, bStamp;
    const double nCpu = ProcessCpuNs();
    for (auto _ : state)
    {
        if (oClient.GetGlobals(nBaud, nMode, bTerm, bHigh, bStamp) != 0)
        {
            state.SkipWithError("request failed");
            break;
        }
    }
    CountProcessCpu(state, nCpu);
    oClient.Close();
    shutdown(nServer, SHUT_RDWR);
    oResponder.join();
    close(nServer);
}

void BM_WriteNoConfirm(benchmark::State& state)
{
    CListener oListener;
    int nServer = -1;
    std::thread oAccept([&] { nServer = oListener.Accept(); });
    COrvaneClientCAN oClient(5000);
    if (oClient.Connect("127.0.0.1", oListener.m_nPort, CKelIPBase::eTCP, false) != 0)
    {
        oAccept.join();
        state.SkipWithError("connect failed");
        return;
    }
    oAccept.join();
    std::thread oSink([&] {
        char acBuffer[65536];
        while (recv(nServer, acBuffer, sizeof(acBuffer), 0) > 0)
        {
        }
    });
    const char acData[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    int nSeconds, nMicroseconds;
    oClient.Write(0x123, acData, 8, 0, &nSeconds, &nMicroseconds); // first call sizes the thread's telegram
    const unsigned long long nBefore = g_nAllocations.load();
    const double nCpu = ProcessCpuNs();
    for (auto _ : state)
        benchmark::DoNotOptimize(oClient.Write(0x123, acData, 8, 0, &nSeconds, &nMicroseconds));
    CountProcessCpu(state, nCpu);
    const unsigned long long nAllocations = g_nAllocations.load() - nBefore;
    state.SetItemsProcessed(state.iterations());
    state.counters["allocs_per_call"] =
        static_cast<double>(nAllocations) / static_cast<double>(std::max<int64_t>(1, state.iterations()));
    oClient.Close();
    shutdown(nServer, SHUT_RDWR);
    oSink.join();
    close(nServer);
}

void BM_WriteBatchToSim(benchmark::State& state)
{
    constexpr int BATCH = 64, BATCHES = 100;
    ApiTest::CApiSim oSim;
    COrvaneClientCAN oClient(5000);
    if (!oSim.Started() ||
        oClient.Connect(ApiTest::HOST, static_cast<unsigned short>(OrvaneTcpPort(eOrvaneCAN, oSim.CanPort())),
                        CKelIPBase::eTCP, true) != 0 ||
        oClient.Open(false, false) != 0)
    {
        state.SkipWithError("simulator or connect failed");
        return;
    }
    SCANFrame aoFrames[BATCH];
    for (int i = 0; i < BATCH; ++i)
        aoFrames[i] = SCANFrame{0x123u + static_cast<unsigned int>(i), 0, 8, {1, 2, 3, 4, 5, 6, 7, 8}};
    bool bConfirm = false, bMonitor = false;
    const double nCpu = ProcessCpuNs();
    for (auto _ : state)
    {
        int nWritten = 0;
        for (int n = 0; n < BATCHES; ++n)
            if (oClient.WriteBatch(aoFrames, BATCH, nWritten) != 0)
                state.SkipWithError("batch write failed");
        // In order behind the frames: once answered, every frame was handled.
        if (oClient.GetConfig(bConfirm, bMonitor) != 0)
            state.SkipWithError("request failed");
    }
    CountProcessCpu(state, nCpu);
    state.SetItemsProcessed(state.iterations() * BATCH * BATCHES);
    oClient.Close();
}

BENCHMARK(BM_PlainPingPong)->UseRealTime();
BENCHMARK(BM_ClientGetGlobals)->UseRealTime();
BENCHMARK(BM_WriteNoConfirm)->UseRealTime();
BENCHMARK(BM_WriteBatchToSim)->UseRealTime();

// Keeps the real time per call of each run (median of repetitions if any).
class CRatioReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run>& aoRuns) override
    {
        ConsoleReporter::ReportRuns(aoRuns);
        for (const Run& oRun : aoRuns)
        {
            if (oRun.run_type == Run::RT_Aggregate && oRun.aggregate_name != "median")
                continue;
            const std::string sName = oRun.run_name.function_name;
            m_aoNs[sName] = oRun.GetAdjustedRealTime();
            const auto itCpu = oRun.counters.find("process_cpu_ns");
            if (itCpu != oRun.counters.end())
                m_aoCpuNs[sName] = itCpu->second.value;
        }
    }
    std::map<std::string, double> m_aoNs;
    std::map<std::string, double> m_aoCpuNs;
};

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    CRatioReporter oReporter;
    benchmark::RunSpecifiedBenchmarks(&oReporter);
    const auto itPlain = oReporter.m_aoNs.find("BM_PlainPingPong");
    const auto itClient = oReporter.m_aoNs.find("BM_ClientGetGlobals");
    if (itPlain != oReporter.m_aoNs.end() && itClient != oReporter.m_aoNs.end() && itPlain->second > 0)
    {
        std::printf("round trip ratio client / plain: %.2f (target <= 1.5)\n", itClient->second / itPlain->second);
        const double nPlainCpu = oReporter.m_aoCpuNs["BM_PlainPingPong"];
        if (nPlainCpu > 0)
            std::printf("process CPU per round trip, client / plain: %.2f\n",
                        oReporter.m_aoCpuNs["BM_ClientGetGlobals"] / nPlainCpu);
    }
    const auto itWrite = oReporter.m_aoNs.find("BM_WriteNoConfirm");
    if (itWrite != oReporter.m_aoNs.end() && itWrite->second > 0)
        std::printf("Write without confirmation: %.0f frames/s (target >= 150000)\n", 1e9 / itWrite->second);
    const auto itBatch = oReporter.m_aoNs.find("BM_WriteBatchToSim");
    if (itBatch != oReporter.m_aoNs.end() && itBatch->second > 0)
        std::printf("WriteBatch to the simulator: %.0f frames/s (target >= 1000000)\n", 6400 * 1e9 / itBatch->second);
    benchmark::Shutdown();
    return 0;
}
