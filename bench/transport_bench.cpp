// Transport speed on loopback, each figure beside a plain blocking TCP
// program measured in the same run:
//   - round trip of a 13-byte request answered by the peer's read thread
//     (CKelIPConnection client -> server container connection that answers
//     from DataInd -> client read thread -> waiting caller), against a plain
//     blocking ping-pong;
//   - one-way throughput of 13-byte messages through a connected pair
//     (DataReq -> read thread -> DataInd), against plain blocking send/recv.
// After the table it prints the ratios transport / plain.
//
// Run: build/bench/transport_bench [--benchmark_repetitions=5]
//      taskset -c 0 build/bench/transport_bench   (everything on one core)
// With repetitions the ratios use the medians.
#include "KelIPConnection.h"
#include "KelIPServerContainer.h"
#include "libKelMutex.h"

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <thread>

namespace
{
const unsigned char kId = 2;
const size_t kMessageSize = 13;
const int kBatch = 20000;

// A 13-byte message with its length word (11) in front.
std::string Message()
{
    std::string bytes(kMessageSize, '\x5A');
    bytes[0] = static_cast<char>(kMessageSize - 2);
    bytes[1] = 0;
    bytes[2] = 0x03; // a command that is not a connection message
    bytes[3] = 0x02;
    return bytes;
}

// ------------------------------------------------------------------ plain TCP

struct CPlainPair
{
    int client = -1;
    int server = -1;

    CPlainPair()
    {
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        socklen_t length = sizeof(address);
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
        listen(listener, 1);
        client = socket(AF_INET, SOCK_STREAM, 0);
        connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        server = accept(listener, nullptr, nullptr);
        close(listener);
        const int on = 1;
        setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    }
    ~CPlainPair()
    {
        close(client);
        close(server);
    }
};

bool ReadExactly(int socket, char* buffer, size_t count)
{
    size_t got = 0;
    while (got < count)
    {
        const ssize_t result = recv(socket, buffer + got, count - got, 0);
        if (result <= 0)
            return false;
        got += static_cast<size_t>(result);
    }
    return true;
}

void BM_PlainPingPong(benchmark::State& state)
{
    CPlainPair pair;
    std::thread echo([&] {
        char buffer[kMessageSize];
        while (ReadExactly(pair.server, buffer, kMessageSize))
            send(pair.server, buffer, kMessageSize, MSG_NOSIGNAL);
    });
    const std::string message = Message();
    char reply[kMessageSize];
    for (auto _ : state)
    {
        send(pair.client, message.data(), kMessageSize, MSG_NOSIGNAL);
        ReadExactly(pair.client, reply, kMessageSize);
    }
    shutdown(pair.client, SHUT_RDWR);
    echo.join();
}

void BM_PlainOneWay(benchmark::State& state)
{
    CPlainPair pair;
    std::atomic<long long> received{0};
    std::thread reader([&] {
        char buffer[65536];
        ssize_t result;
        long long bytes = 0;
        while ((result = recv(pair.server, buffer, sizeof(buffer), 0)) > 0)
        {
            bytes += result;
            received.store(bytes / static_cast<long long>(kMessageSize), std::memory_order_release);
        }
    });
    const std::string message = Message();
    long long sent = 0;
    for (auto _ : state)
    {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < kBatch; ++i)
            send(pair.client, message.data(), kMessageSize, MSG_NOSIGNAL);
        sent += kBatch;
        while (received.load(std::memory_order_acquire) < sent)
            std::this_thread::yield();
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    state.SetItemsProcessed(sent);
    shutdown(pair.client, SHUT_RDWR);
    reader.join();
}

// ------------------------------------------------------------------ transport

// Server side: answers every message from its read thread.
class CEchoConnection : public CKelIPConnection
{
public:
    using CKelIPConnection::CKelIPConnection;
    ~CEchoConnection() override { Shutdown(); }
    void DataInd(const char* data, unsigned short length) override { DataReq(data, length, 1000); }
};

// Server side: counts what arrives.
class CCountingConnection : public CKelIPConnection
{
public:
    using CKelIPConnection::CKelIPConnection;
    ~CCountingConnection() override { Shutdown(); }
    void DataInd(const char*, unsigned short) override { m_nReceived.fetch_add(1, std::memory_order_release); }
    std::atomic<long long> m_nReceived{0};
};

class CBenchContainer : public CKelIPServerContainer
{
public:
    explicit CBenchContainer(bool echo) : CKelIPServerContainer(kId, 4, 0, false), m_bEcho(echo) {}
    ~CBenchContainer() override { Shutdown(); }
    CCountingConnection* m_poCounter = nullptr;

protected:
    CKelIPConnection* CreateNewClass(CKelIPBase::EProtocol protocol, int socket) override
    {
        if (m_bEcho)
            return new CEchoConnection(this, GetId(), protocol, socket, true);
        m_poCounter = new CCountingConnection(this, GetId(), protocol, socket, true);
        return m_poCounter;
    }

private:
    bool m_bEcho;
};

// Client side: the caller waits on an event that its read thread signals,
// the way a requester waits for its confirmation.
class CWaitingClient : public CKelIPConnection
{
public:
    ~CWaitingClient() override { Shutdown(); }
    void DataInd(const char*, unsigned short) override { m_oReply.Signal(); }
    CKelEvent m_oReply;
};

void BM_TransportRoundTrip(benchmark::State& state)
{
    CBenchContainer container(true);
    container.StartListening();
    CWaitingClient client;
    if (client.ConnectReq("127.0.0.1", container.GetPort(), 5000, kId, CKelIPBase::eTCP, "", true) != eKelIPSuccess)
    {
        state.SkipWithError("connect failed");
        return;
    }
    const std::string message = Message();
    for (auto _ : state)
    {
        client.DataReq(message.data(), kMessageSize, 1000);
        if (!client.m_oReply.Wait(5000))
        {
            state.SkipWithError("reply missing");
            break;
        }
    }
}

void BM_TransportOneWay(benchmark::State& state)
{
    CBenchContainer container(false);
    container.StartListening();
    CKelIPConnection client;
    if (client.ConnectReq("127.0.0.1", container.GetPort(), 5000, kId, CKelIPBase::eTCP, "", true) != eKelIPSuccess ||
        container.m_poCounter == nullptr)
    {
        state.SkipWithError("connect failed");
        return;
    }
    std::atomic<long long>& received = container.m_poCounter->m_nReceived;
    const std::string message = Message();
    long long sent = 0;
    for (auto _ : state)
    {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < kBatch; ++i)
            client.DataReq(message.data(), kMessageSize, 1000);
        sent += kBatch;
        while (received.load(std::memory_order_acquire) < sent)
            std::this_thread::yield();
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    state.SetItemsProcessed(sent);
}

BENCHMARK(BM_PlainPingPong)->UseRealTime();
BENCHMARK(BM_TransportRoundTrip)->UseRealTime();
BENCHMARK(BM_PlainOneWay)->UseManualTime();
BENCHMARK(BM_TransportOneWay)->UseManualTime();

// Console output plus the figures needed for the ratios.
class CRatioReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs)
        {
            // With repetitions only the median counts; without, the one run.
            const bool aggregate = run.run_type == Run::RT_Aggregate;
            if (run.error_occurred || run.iterations == 0 || (aggregate && run.aggregate_name != "median") ||
                (!aggregate && run.repetitions > 1))
                continue;
            const std::string name = run.run_name.function_name;
            const double seconds = run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
            m_aoSeconds[name] = seconds;
            auto items = run.counters.find("items_per_second");
            if (items != run.counters.end())
                m_aoRates[name] = items->second.value;
        }
    }

    void PrintRatios() const
    {
        auto seconds = [this](const char* name) {
            auto it = m_aoSeconds.find(name);
            return it == m_aoSeconds.end() ? 0.0 : it->second;
        };
        auto rate = [this](const char* name) {
            auto it = m_aoRates.find(name);
            return it == m_aoRates.end() ? 0.0 : it->second;
        };
        const double plainRtt = seconds("BM_PlainPingPong");
        const double rtt = seconds("BM_TransportRoundTrip");
        if (plainRtt > 0 && rtt > 0)
            std::printf("round trip: transport %.1f us, plain %.1f us, ratio %.2f (target <= 1.5)\n", rtt * 1e6,
                        plainRtt * 1e6, rtt / plainRtt);
        const double plainRate = rate("BM_PlainOneWay");
        const double oneWay = rate("BM_TransportOneWay");
        if (plainRate > 0 && oneWay > 0)
            std::printf("one-way 13-byte messages: transport %.0f/s, plain %.0f/s, ratio %.2f (target >= 100000/s)\n",
                        oneWay, plainRate, oneWay / plainRate);
    }

private:
    std::map<std::string, double> m_aoSeconds;
    std::map<std::string, double> m_aoRates;
};
} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    CRatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatios();
    benchmark::Shutdown();
    return 0;
}
