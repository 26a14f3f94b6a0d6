// The trace server, driven over UDP on 127.0.0.1 by a test viewer.
#include "TraceServer.h"

#include "libKelMutex.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace
{
using Bytes = std::vector<unsigned char>;

const int kReplyTimeoutMs = 5000;
const char* const kActivationText = "CTraceServer::CReceiveThread::Run(): received ActivateRequest";
const char* const kActivationFile = "libOrvane/C++/source/TraceServer";

unsigned short U16At(const Bytes& bytes, size_t pos)
{
    return static_cast<unsigned short>(bytes[pos] | (bytes[pos + 1] << 8));
}

unsigned int U32At(const Bytes& bytes, size_t pos)
{
    return static_cast<unsigned int>(bytes[pos]) | (static_cast<unsigned int>(bytes[pos + 1]) << 8) |
           (static_cast<unsigned int>(bytes[pos + 2]) << 16) | (static_cast<unsigned int>(bytes[pos + 3]) << 24);
}

void PutU16(Bytes& out, unsigned short value)
{
    out.push_back(static_cast<unsigned char>(value));
    out.push_back(static_cast<unsigned char>(value >> 8));
}

void PutU32(Bytes& out, unsigned int value)
{
    for (int shift = 0; shift < 32; shift += 8)
        out.push_back(static_cast<unsigned char>(value >> shift));
}

sockaddr_in Loopback(unsigned short port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// Distinct UDP ports on 127.0.0.1 that were free a moment ago (the probes
// are held open together so that the system hands out different ones).
std::vector<unsigned short> FreePorts(size_t count)
{
    std::vector<int> probes;
    std::vector<unsigned short> ports;
    for (size_t i = 0; i < count; ++i)
    {
        const int probe = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in address = Loopback(0);
        bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        socklen_t length = sizeof(address);
        getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
        probes.push_back(probe);
        ports.push_back(ntohs(address.sin_port));
    }
    for (int probe : probes)
        close(probe);
    return ports;
}

unsigned short FreePort()
{
    return FreePorts(1)[0];
}

// Activate request with the CRC computed here, independently of the server:
// XOR of the length, type and counter bytes and of every data byte but the last.
Bytes ActivateRequest(unsigned char level, const std::vector<unsigned int>& masks, unsigned char count,
                      bool corruptCrc = false)
{
    Bytes data = {level, count};
    for (unsigned int mask : masks)
        PutU32(data, mask);
    data.push_back(0); // CRC placeholder
    Bytes frame;
    PutU16(frame, static_cast<unsigned short>(data.size() + 4));
    PutU16(frame, 0x0001);
    PutU16(frame, 0x0000);
    for (unsigned char byte : data)
        frame.push_back(byte);
    unsigned char crc = 0;
    for (size_t i = 0; i + 1 < frame.size(); ++i)
        crc ^= frame[i];
    frame.back() = static_cast<unsigned char>(corruptCrc ? crc ^ 0x01 : crc);
    return frame;
}

Bytes ActivateRequest(unsigned char level, const std::vector<unsigned int>& masks)
{
    return ActivateRequest(level, masks, static_cast<unsigned char>(masks.size()));
}

// The get-categories request is a bare frame, but datagrams shorter than 7
// bytes are not parsed at all, so the viewer adds one byte after it.
const Bytes kGetCategoriesRequest = {0x04, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00};

// The remote viewer: its own UDP socket on 127.0.0.1.
class CTestViewer
{
public:
    CTestViewer() : m_nSocket(socket(AF_INET, SOCK_DGRAM, 0))
    {
        sockaddr_in address = Loopback(0);
        bind(m_nSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        socklen_t length = sizeof(address);
        getsockname(m_nSocket, reinterpret_cast<sockaddr*>(&address), &length);
        m_nPort = ntohs(address.sin_port);
    }
    ~CTestViewer() { close(m_nSocket); }

    unsigned short Port() const { return m_nPort; }

    void Send(const Bytes& bytes)
    {
        const sockaddr_in server = Loopback(CTraceServer::m_nServerUdpPort);
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
                  sendto(m_nSocket, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&server),
                         sizeof(server)));
    }

    // The next datagram, or an empty one after the time-out.
    Bytes Receive(int timeoutMs = kReplyTimeoutMs)
    {
        pollfd readable = {m_nSocket, POLLIN, 0};
        if (poll(&readable, 1, timeoutMs) != 1)
            return Bytes();
        Bytes buffer(65536);
        const ssize_t received = recv(m_nSocket, buffer.data(), buffer.size(), 0);
        buffer.resize(received > 0 ? static_cast<size_t>(received) : 0);
        return buffer;
    }

    bool NothingPending() { return Receive(0).empty(); }

    // Requests the categories and returns the answer. The server handles
    // datagrams in order, so the answer also proves that everything sent
    // before has been processed.
    Bytes RoundTrip()
    {
        Send(kGetCategoriesRequest);
        return Receive();
    }

private:
    int m_nSocket;
    unsigned short m_nPort;
};

struct SParsedMessage
{
    unsigned short length, type, counter;
    unsigned int seconds, microseconds;
    unsigned char level, category;
    unsigned int mask;
    unsigned char flags;
    unsigned short line;
    std::string file, text;
};

// Reads a trace message datagram field by field, checking the length words.
SParsedMessage ParseMessage(const Bytes& bytes)
{
    SParsedMessage m = {};
    EXPECT_GE(bytes.size(), 27u);
    if (bytes.size() < 27)
        return m;
    m.length = U16At(bytes, 0);
    m.type = U16At(bytes, 2);
    m.counter = U16At(bytes, 4);
    m.seconds = U32At(bytes, 6);
    m.microseconds = U32At(bytes, 10);
    m.level = bytes[14];
    m.category = bytes[15];
    m.mask = U32At(bytes, 16);
    m.flags = bytes[20];
    m.line = U16At(bytes, 21);
    const unsigned short fileLen = U16At(bytes, 23);
    m.file.assign(bytes.begin() + 25, bytes.begin() + 25 + fileLen);
    const unsigned short textLen = U16At(bytes, 25 + fileLen);
    m.text.assign(bytes.begin() + 27 + fileLen, bytes.begin() + 27 + fileLen + textLen);
    EXPECT_EQ(bytes.size(), 27u + fileLen + textLen);
    EXPECT_EQ(m.length, bytes.size() - 2);
    return m;
}

unsigned int NowSeconds()
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    return static_cast<unsigned int>(now.tv_sec);
}

class TraceServerTest : public ::testing::Test
{
protected:
    void TearDown() override
    {
        CTraceServer::Disable();
        for (unsigned char category = 0; category < 32; ++category)
            CTraceServer::SetCategoryName(category, 0, nullptr);
    }

    void StartServer() { ASSERT_EQ(0, CTraceServer::Init(0)); }

    // Activates with the server's own activation trace switched on (level 4,
    // category 1 mask 2) and consumes that trace message.
    void Activate(CTestViewer& viewer, unsigned char level, std::vector<unsigned int> masks)
    {
        level |= 0x04;
        if (masks.size() < 2)
            masks.resize(2, 0);
        masks[1] |= 0x02;
        viewer.Send(ActivateRequest(level, masks));
        const SParsedMessage m = ParseMessage(viewer.Receive());
        ASSERT_EQ(kActivationText, m.text);
    }

    static std::string ClientHost()
    {
        CKelLockGuard lock(CTraceServer::m_oTelegramCounterMutex);
        return CTraceServer::m_sClientHost;
    }

    static unsigned short ClientPort()
    {
        CKelLockGuard lock(CTraceServer::m_oTelegramCounterMutex);
        return CTraceServer::m_nClientUdpPort;
    }
};
} // namespace

TEST_F(TraceServerTest, DormantServerRefusesEverything)
{
    EXPECT_EQ(-1, CTraceServer::SendTraceMessage(0x10, 3, 0xFFFFFFFF, 1, "f", "t", 0));
    EXPECT_EQ(-1, CTraceServer::Disable());
    EXPECT_EQ(-1, CTraceServer::RegisterStatusSource(nullptr, 0, 0xFFFFFFFF));
    EXPECT_EQ(-1, CTraceServer::UnRegisterStatusSource(nullptr));
    EXPECT_EQ(-1, CTraceServer::SetCategoryName(32, 1, "x"));
    EXPECT_EQ(0, CTraceServer::SetCategoryName(31, 1, "x"));
}

TEST_F(TraceServerTest, ActivationTracesItselfToTheViewerWithEveryFieldSet)
{
    StartServer();
    EXPECT_NE(0, CTraceServer::m_nServerUdpPort);
    EXPECT_EQ(-2, CTraceServer::SendTraceMessage(0x10, 3, 0xFFFFFFFF, 1, "f", "t", 0)); // no viewer yet

    CTestViewer viewer;
    const unsigned int before = NowSeconds();
    viewer.Send(ActivateRequest(0x14, {0x00000000, 0x00000002, 0x00000000, 0xFFFFFFFF}));
    const Bytes bytes = viewer.Receive();
    const SParsedMessage m = ParseMessage(bytes);
    EXPECT_EQ(0x4001, m.type);
    EXPECT_EQ(0, m.counter);
    EXPECT_LE(before, m.seconds);
    EXPECT_GE(NowSeconds(), m.seconds);
    EXPECT_LT(m.microseconds, 1000000u);
    EXPECT_EQ(0x04, m.level);
    EXPECT_EQ(1, m.category);
    EXPECT_EQ(0x02u, m.mask);
    EXPECT_EQ(0, m.flags);
    EXPECT_EQ(460, m.line);
    EXPECT_EQ(kActivationFile, m.file);
    EXPECT_EQ(kActivationText, m.text);
    EXPECT_TRUE(viewer.NothingPending()); // no activate confirmation

    EXPECT_EQ(0x14, CTraceServer::m_nActiveLevels.load());
    EXPECT_EQ(0x02u, CTraceServer::m_anCategoryFilters[1].load());
    EXPECT_EQ(0xFFFFFFFFu, CTraceServer::m_anCategoryFilters[3].load());
    EXPECT_EQ(0u, CTraceServer::m_anCategoryFilters[4].load());
    EXPECT_EQ("127.0.0.1", ClientHost());
    EXPECT_EQ(viewer.Port(), ClientPort());
}

TEST_F(TraceServerTest, SendTraceMessageFiltersThenSendsWithRisingCounter)
{
    StartServer();
    CTestViewer viewer;
    Activate(viewer, 0x10, {0, 0, 0, 0xFFFFFFFF});

    EXPECT_EQ(0, CTraceServer::SendTraceMessage(0x10, 3, 0x00000001, 0xBEEF, "dev.cpp", "Open requested to", 0x5A));
    const SParsedMessage m = ParseMessage(viewer.Receive());
    EXPECT_EQ(0x4001, m.type);
    EXPECT_EQ(1, m.counter); // the activation trace took 0
    EXPECT_EQ(0x10, m.level);
    EXPECT_EQ(3, m.category);
    EXPECT_EQ(0x00000001u, m.mask);
    EXPECT_EQ(0x5A, m.flags);
    EXPECT_EQ(0xBEEF, m.line);
    EXPECT_EQ("dev.cpp", m.file);
    EXPECT_EQ("Open requested to", m.text);

    EXPECT_EQ(0, CTraceServer::SendTraceMessage(0x10, 3, 0xFFFFFFFF, 7, nullptr, nullptr, 0));
    const Bytes empty = viewer.Receive();
    EXPECT_EQ(27u, empty.size());
    EXPECT_EQ(2, ParseMessage(empty).counter);

    EXPECT_EQ(-3, CTraceServer::SendTraceMessage(0x01, 3, 0xFFFFFFFF, 1, "f", "t", 0));
    EXPECT_EQ(-4, CTraceServer::SendTraceMessage(0x10, 32, 0xFFFFFFFF, 1, "f", "t", 0));
    EXPECT_EQ(-5, CTraceServer::SendTraceMessage(0x10, 2, 0xFFFFFFFF, 1, "f", "t", 0));
    EXPECT_TRUE(viewer.NothingPending());
}

TEST_F(TraceServerTest, CategoryAbove31IsRefusedEvenWithEverythingActive)
{
    StartServer();
    CTestViewer viewer;
    Activate(viewer, 0xFF, std::vector<unsigned int>(32, 0xFFFFFFFF));
    EXPECT_EQ(0, CTraceServer::SendTraceMessage(0x80, 31, 0x80000000, 1, "f", "t", 0));
    EXPECT_EQ(-4, CTraceServer::SendTraceMessage(0xFF, 32, 0xFFFFFFFF, 1, "f", "t", 0));
    EXPECT_EQ(-4, CTraceServer::SendTraceMessage(0xFF, 255, 0xFFFFFFFF, 1, "f", "t", 0));
}

TEST_F(TraceServerTest, GetCategoriesAnswersTheRequesterWithNamesUpToTheLastNonEmpty)
{
    StartServer();
    CTraceServer::SetCategoryName(0, 7, "General");
    CTraceServer::SetCategoryName(3, 13, "Device client and more");
    CTestViewer viewer;
    const Bytes reply = viewer.RoundTrip();
    const Bytes expected = {0x1D, 0x00, 0x02, 0x80, 0x00, 0x00, // length 29, type, counter 0
                            0x04, 0x07, 'G',  'e',  'n',  'e',  'r',  'a',  'l', 0x00, 0x00, 0x0D, 'D',
                            'e',  'v',  'i',  'c',  'e',  ' ',  'c',  'l',  'i', 'e',  'n',  't'};
    EXPECT_EQ(expected, reply);
    // No viewer was needed, and asking did not make the requester one.
    EXPECT_EQ(0, CTraceServer::m_nAddrLen.load());

    CTraceServer::SetCategoryName(3, 0, nullptr);
    const Bytes smaller = viewer.RoundTrip();
    EXPECT_EQ((Bytes{0x0D, 0x00, 0x02, 0x80, 0x01, 0x00, 0x01, 0x07, 'G', 'e', 'n', 'e', 'r', 'a', 'l'}), smaller);

    CTraceServer::SetCategoryName(0, 0, nullptr);
    EXPECT_EQ((Bytes{0x05, 0x00, 0x02, 0x80, 0x02, 0x00, 0x00}), viewer.RoundTrip());
}

TEST_F(TraceServerTest, ActivateRequestWithInvalidCrcChangesNothing)
{
    StartServer();
    CTestViewer viewer;
    Activate(viewer, 0x10, {0, 0, 0, 0x0000FFFF});

    CTestViewer intruder;
    const Bytes bad = ActivateRequest(0xFF, std::vector<unsigned int>(32, 0xFFFFFFFF), 32, true);
    const unsigned char sentCrc = bad.back();
    testing::internal::CaptureStderr();
    intruder.Send(bad);
    ASSERT_FALSE(intruder.RoundTrip().empty());
    const std::string errors = testing::internal::GetCapturedStderr();
    char expected[160];
    std::snprintf(expected, sizeof(expected),
                  "received activate request telegram with invalid CRC\nreceived CRC=%02x\tcalculated CRC=%02x\n",
                  sentCrc, sentCrc ^ 0x01);
    EXPECT_EQ(expected, errors);

    EXPECT_EQ(0x14, CTraceServer::m_nActiveLevels.load());
    EXPECT_EQ(0x0000FFFFu, CTraceServer::m_anCategoryFilters[3].load());
    EXPECT_EQ(0u, CTraceServer::m_anCategoryFilters[5].load());
    EXPECT_EQ(viewer.Port(), ClientPort());
    EXPECT_EQ(0, CTraceServer::SendTraceMessage(0x10, 3, 0x1, 1, "f", "t", 0));
    EXPECT_FALSE(viewer.Receive().empty());
    EXPECT_TRUE(intruder.NothingPending());
}

TEST_F(TraceServerTest, FortyMasksSetOnlyTheFirst32AndFewerMasksClearTheRest)
{
    StartServer();
    CTestViewer viewer;
    // 40 masks: the CRC is read from offset 130 of the data, the low byte of
    // mask 32, while it is computed over every byte but the last. Mask 33 is
    // tuned so that both agree.
    std::vector<unsigned int> masks;
    for (unsigned int i = 0; i < 40; ++i)
        masks.push_back(0x01000000u * (i + 1) + i);
    masks[1] |= 0x02;
    Bytes request = ActivateRequest(0x04, masks, 40);
    const size_t crcPos = 6 + 2 + 4 * 32;
    unsigned char others = 0;
    for (size_t i = 0; i + 1 < request.size(); ++i)
        if (i != crcPos)
            others ^= request[i];
    request[crcPos + 4] ^= others; // low byte of mask 33: XOR of the others becomes 0
    request[crcPos] = 0x5C;        // so any CRC byte equals its own contribution
    viewer.Send(request);
    ASSERT_EQ(kActivationText, ParseMessage(viewer.Receive()).text);
    for (unsigned int i = 0; i < 32; ++i)
        EXPECT_EQ(masks[i], CTraceServer::m_anCategoryFilters[i].load()) << "category " << i;

    Activate(viewer, 0x04, {0x11, 0x22});
    EXPECT_EQ(0x11u, CTraceServer::m_anCategoryFilters[0].load());
    for (unsigned int i = 2; i < 32; ++i)
        EXPECT_EQ(0u, CTraceServer::m_anCategoryFilters[i].load()) << "category " << i;
}

TEST_F(TraceServerTest, UnexpectedTelegramsAreReported)
{
    StartServer();
    CTestViewer viewer;
    testing::internal::CaptureStderr();
    viewer.Send({0x04, 0x00, 0x01, 0x00, 0x00, 0x00});                   // 6 bytes: type 0
    viewer.Send({0x04, 0x00, 0x02, 0x00, 0x00, 0x00});                   // unpadded, likewise
    viewer.Send({0x09, 0x00, 0x03, 0x00, 0x00, 0x00, 0x03, 0, 0, 0, 1}); // status request
    viewer.Send({0x05, 0x00, 0x01, 0x40, 0x00, 0x00, 0x00});             // a trace message
    ASSERT_FALSE(viewer.RoundTrip().empty());
    EXPECT_EQ("received unexpected telegram with type 0x00\n"
              "received unexpected telegram with type 0x00\n"
              "received unexpected telegram with type 0x03\n"
              "received unexpected telegram with type 0x4001\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(0, CTraceServer::m_nAddrLen.load());
}

TEST_F(TraceServerTest, LevelZeroSwitchesTracingOffButKeepsTheViewer)
{
    StartServer();
    CTestViewer viewer;
    Activate(viewer, 0x10, {0, 0, 0, 0xFFFFFFFF});
    viewer.Send(ActivateRequest(0x00, {0, 0, 0, 0xFFFFFFFF}));
    ASSERT_FALSE(viewer.RoundTrip().empty());
    EXPECT_EQ(-3, CTraceServer::SendTraceMessage(0x10, 3, 0xFFFFFFFF, 1, "f", "t", 0));
    EXPECT_EQ(viewer.Port(), ClientPort());
}

TEST_F(TraceServerTest, ConcurrentSendersWhileTheViewerReactivates)
{
    StartServer();
    CTestViewer viewer;
    Activate(viewer, 0x10, {0, 0, 0, 0xFFFFFFFF});

    const int kSenders = 4;
    const int kSendsEach = 300;
    const int kActivations = 20;
    std::atomic<int> sent{0};
    std::atomic<int> unexpected{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < kSenders; ++t)
    {
        senders.emplace_back([&] {
            for (int i = 0; i < kSendsEach; ++i)
            {
                const int result = CTraceServer::SendTraceMessage(0x10, 3, 0x1, 1, "f", "t", 0);
                if (result == 0 || result == -6) // -6: stamped, but the socket buffer was full
                    ++sent;
                else if (result != -3)
                    ++unexpected;
            }
        });
    }
    // Level 0x10 on and off while the senders run; 0x04 stays on, so every
    // activation traces itself.
    for (int i = 0; i < kActivations; ++i)
        viewer.Send(ActivateRequest(i % 2 == 0 ? 0x04 : 0x14, {0, 0x02, 0, 0xFFFFFFFF}));
    for (std::thread& sender : senders)
        sender.join();
    // The viewer's socket is full of trace messages, so ask from elsewhere;
    // the answer comes after all activations were handled.
    CTestViewer asker;
    ASSERT_FALSE(asker.RoundTrip().empty());

    EXPECT_EQ(0, unexpected.load());
    {
        // Every telegram took exactly one counter value: the sends, the first
        // activation, the later ones and the categories answer.
        CKelLockGuard lock(CTraceServer::m_oTelegramCounterMutex);
        EXPECT_EQ(static_cast<unsigned short>(sent.load() + 1 + kActivations + 1), CTraceServer::m_nTelegramCounter);
    }
    // Whatever arrived (a full receive buffer drops datagrams) has distinct counters.
    std::set<unsigned short> counters;
    for (Bytes bytes = viewer.Receive(0); !bytes.empty(); bytes = viewer.Receive(0))
        EXPECT_TRUE(counters.insert(U16At(bytes, 4)).second);
}

TEST_F(TraceServerTest, DisableResetsEverything)
{
    StartServer();
    CTestViewer viewer;
    Activate(viewer, 0x10, std::vector<unsigned int>(32, 0xFFFFFFFF));
    ASSERT_EQ(0, CTraceServer::SendTraceMessage(0x10, 3, 0xFFFFFFFF, 1, "f", "t", 0));

    EXPECT_EQ(0, CTraceServer::Disable());
    EXPECT_EQ(-1, CTraceServer::m_nSocket.load());
    EXPECT_EQ(0, CTraceServer::m_nServerUdpPort);
    EXPECT_EQ(nullptr, CTraceServer::m_poReceiveThread);
    EXPECT_EQ(0, CTraceServer::m_nAddrLen.load());
    EXPECT_EQ("", ClientHost());
    EXPECT_EQ(0, ClientPort());
    EXPECT_EQ(0, CTraceServer::m_nTelegramCounter);
    EXPECT_EQ(0, CTraceServer::m_nActiveLevels.load());
    for (unsigned int i = 0; i < 32; ++i)
        EXPECT_EQ(0u, CTraceServer::m_anCategoryFilters[i].load());
    EXPECT_EQ(-1, CTraceServer::SendTraceMessage(0x10, 3, 0xFFFFFFFF, 1, "f", "t", 0));
    EXPECT_EQ(-1, CTraceServer::Disable());

    // A new start begins with counter 0 again and no viewer.
    StartServer();
    EXPECT_EQ(-2, CTraceServer::SendTraceMessage(0x10, 3, 0xFFFFFFFF, 1, "f", "t", 0));
    CTestViewer next;
    next.Send(ActivateRequest(0x04, {0, 0x02}));
    EXPECT_EQ(0, ParseMessage(next.Receive()).counter);
}

TEST_F(TraceServerTest, InitReportsAPortThatCannotBeBound)
{
    const int holder = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address = Loopback(0);
    ASSERT_EQ(0, bind(holder, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    socklen_t length = sizeof(address);
    getsockname(holder, reinterpret_cast<sockaddr*>(&address), &length);
    const unsigned short taken = ntohs(address.sin_port);

    testing::internal::CaptureStderr();
    EXPECT_EQ(-2, CTraceServer::Init(taken));
    EXPECT_EQ("CTraceServer: Could not bind to port " + std::to_string(taken) + ".\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(-1, CTraceServer::m_nSocket.load());
    close(holder);
}

// ------------------------------------------------------------ "-traceport"

namespace
{
struct SInitResult
{
    int result;
    unsigned short port;
    std::string out, err;
};

SInitResult InitWith(unsigned short defaultPort, std::vector<const char*> args)
{
    args.insert(args.begin(), "program");
    SInitResult r;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    r.result = CTraceServer::Init(defaultPort, static_cast<int>(args.size()), args.data());
    r.out = testing::internal::GetCapturedStdout();
    r.err = testing::internal::GetCapturedStderr();
    r.port = CTraceServer::m_nServerUdpPort;
    CTraceServer::Disable();
    return r;
}

std::string Found(unsigned long port, unsigned short defaultPort)
{
    return "CTraceServer: Found traceport parameter: Using port " + std::to_string(port) +
           " instead of the default of " + std::to_string(defaultPort) + ".\n";
}

std::string Invalid(const std::string& value, unsigned short defaultPort)
{
    return "CTraceServer: Invalid trace port " + value + ": valid values are 1-65535. Using default value of " +
           std::to_string(defaultPort) + " instead.\n";
}

std::string Hex(unsigned short port)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%X", port);
    return text;
}

std::string Octal(unsigned short port)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0%o", port);
    return text;
}
} // namespace

TEST_F(TraceServerTest, TraceportOutOfRangeKeepsTheDefault)
{
    const unsigned short defaultPort = FreePort();
    for (const char* value : {"0", "70000", "abc"})
    {
        const SInitResult r = InitWith(defaultPort, {"-traceport", value});
        EXPECT_EQ(0, r.result) << value;
        EXPECT_EQ(defaultPort, r.port) << value;
        EXPECT_EQ("", r.out) << value;
        EXPECT_EQ(Invalid(value, defaultPort), r.err);
    }
}

TEST_F(TraceServerTest, TraceportAcceptsDecimalHexAndOctal)
{
    const std::vector<unsigned short> ports = FreePorts(2);
    const unsigned short defaultPort = ports[0];
    const unsigned short wanted = ports[1];
    for (const std::string& value : {std::to_string(wanted), Hex(wanted), Octal(wanted)})
    {
        const SInitResult r = InitWith(defaultPort, {"-v", "-traceport", value.c_str(), "-x"});
        EXPECT_EQ(0, r.result) << value;
        EXPECT_EQ(wanted, r.port) << value;
        EXPECT_EQ(Found(wanted, defaultPort), r.out) << value;
        EXPECT_EQ("", r.err) << value;
    }
}

TEST_F(TraceServerTest, Traceport0x1F90SelectsPort8080)
{
    const SInitResult r = InitWith(1234, {"-traceport", "0x1F90"});
    EXPECT_EQ(Found(8080, 1234), r.out);
    if (r.result == 0)
        EXPECT_EQ(8080, r.port);
    else // something else on this machine holds 8080; the attempt still names it
        EXPECT_EQ("CTraceServer: Could not bind to port 8080.\n", r.err);
}

TEST_F(TraceServerTest, TraceportLastArgumentAndShortCommandLinesAreIgnored)
{
    const unsigned short defaultPort = FreePort();
    for (const std::vector<const char*>& args : {std::vector<const char*>{"-traceport"},
                                                 std::vector<const char*>{"-v", "-traceport"},
                                                 std::vector<const char*>{"-tracePort", "1"},
                                                 std::vector<const char*>{}})
    {
        const SInitResult r = InitWith(defaultPort, args);
        EXPECT_EQ(0, r.result);
        EXPECT_EQ(defaultPort, r.port);
        EXPECT_EQ("", r.out);
        EXPECT_EQ("", r.err);
    }
}

TEST_F(TraceServerTest, LaterTraceportOverridesEarlierAndInvalidKeepsThePrevious)
{
    const std::vector<unsigned short> ports = FreePorts(3);
    const unsigned short defaultPort = ports[0];
    const unsigned short first = ports[1];
    const unsigned short second = ports[2];
    const std::string a = std::to_string(first);
    const std::string b = std::to_string(second);

    const SInitResult later = InitWith(defaultPort, {"-traceport", a.c_str(), "-traceport", b.c_str()});
    EXPECT_EQ(0, later.result);
    EXPECT_EQ(second, later.port);
    EXPECT_EQ(Found(first, defaultPort) + Found(second, defaultPort), later.out);

    const SInitResult kept = InitWith(defaultPort, {"-traceport", a.c_str(), "-traceport", "70000"});
    EXPECT_EQ(0, kept.result);
    EXPECT_EQ(first, kept.port);
    EXPECT_EQ(Found(first, defaultPort), kept.out);
    EXPECT_EQ(Invalid("70000", defaultPort), kept.err);

    // The value after "-traceport" is consumed, never read as an option.
    const SInitResult consumed = InitWith(defaultPort, {"-traceport", "-traceport", a.c_str()});
    EXPECT_EQ(defaultPort, consumed.port);
    EXPECT_EQ(Invalid("-traceport", defaultPort), consumed.err);
    EXPECT_EQ("", consumed.out);
}
