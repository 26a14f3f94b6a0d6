// The trace server, driven over UDP on 127.0.0.1 by a test viewer, and the
// trace telegrams' wire layouts.
#include "KelByteOrder.h"
#include "TraceServer.h"
#include "TraceTelegram.h"

#include "support/Bytes.h"
#include "support/TraceViewer.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace
{
using Bytes = std::string;
using OrvaneTest::Byte;
using OrvaneTest::CTraceViewer;
using OrvaneTest::Frame;
using OrvaneTest::FromHex;
using OrvaneTest::U32;

// A received trace message, parsed by the telegram class (its layout is
// pinned byte for byte at the end of this file).
CTraceMessageTelegram Parsed(const Bytes& bytes)
{
    return CTraceMessageTelegram(static_cast<unsigned short>(bytes.size()), bytes.data());
}

// Every field of a trace message but its time: "type counter level category
// mask flags line" in hex, then "file|text".
std::string Fields(const Bytes& bytes)
{
    const CTraceMessageTelegram m = Parsed(bytes);
    char head[80];
    std::snprintf(head, sizeof(head), "%x %x %x %x %x %x %x ", m.GetType(), m.GetCounter(), m.GetTraceLevel(),
                  m.GetCategory(), m.GetFilterBitmask(), m.GetFlags(), m.GetLine());
    return head + m.GetFileName() + "|" + m.GetMessageText();
}

int Send(unsigned char level, unsigned char category, unsigned int mask)
{
    return CTraceServer::SendTraceMessage(level, category, mask, 1, "f", "t", 0);
}

class TraceServerTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_EQ(0, CTraceServer::Init(0)); }
    void TearDown() override { CTraceServer::Disable(); }

    CTraceViewer m_oViewer;
};
} // namespace

TEST_F(TraceServerTest, ActivationAndSendTraceMessageOverUdp)
{
    EXPECT_EQ(-2, Send(0x10, 3, 0xFFFFFFFF)); // no viewer yet
    EXPECT_FALSE(CTraceServer::IsActive(0x10, 3, 0xFFFFFFFF));
    const unsigned int before = static_cast<unsigned int>(time(nullptr));
    m_oViewer.Send(CTraceViewer::ActivateRequest(0x14, {0x00000000, 0x00000002, 0x00000000, 0x0000FFFF}));
    const Bytes m = m_oViewer.Receive();
    EXPECT_EQ("4001 0 4 1 2 0 1cc libOrvane/C++/source/TraceServer|"
              "CTraceServer::CReceiveThread::Run(): received ActivateRequest",
              Fields(m));
    EXPECT_LE(before, Parsed(m).GetSeconds());
    EXPECT_GE(static_cast<unsigned int>(time(nullptr)), Parsed(m).GetSeconds());
    EXPECT_LT(Parsed(m).GetMicroseconds(), 1000000u);

    EXPECT_EQ(-3, Send(0x01, 3, 0xFFFFFFFF));
    EXPECT_EQ(-4, Send(0x10, 32, 0xFFFFFFFF));
    EXPECT_EQ(-5, Send(0x10, 3, 0xFFFF0000));
    // IsActive answers as those sends did, without sending.
    EXPECT_TRUE(CTraceServer::IsActive(0x10, 3, 0x00000001));
    EXPECT_FALSE(CTraceServer::IsActive(0x01, 3, 0xFFFFFFFF) || CTraceServer::IsActive(0x10, 32, 0xFFFFFFFF) ||
                 CTraceServer::IsActive(0x10, 3, 0xFFFF0000));
    // Counter 1 also shows that neither an activate confirmation nor a filtered message was sent.
    EXPECT_EQ(0, CTraceServer::SendTraceMessage(0x10, 3, 0x00000001, 0xBEEF, "dev.cpp", "Open requested to", 0x5A));
    EXPECT_EQ("4001 1 10 3 1 5a beef dev.cpp|Open requested to", Fields(m_oViewer.Receive()));
    EXPECT_EQ(0, CTraceServer::SendTraceMessage(0x10, 3, 0xFFFFFFFF, 7, nullptr, nullptr, 0));
    EXPECT_EQ("4001 2 10 3 ffffffff 0 7 |", Fields(m_oViewer.Receive()));
}

TEST_F(TraceServerTest, InvalidCrcChangesNothingAndReactivationReplacesEverything)
{
    ASSERT_TRUE(m_oViewer.Activate(0x10, {0, 0, 0, 0x0000FFFF}));
    CTraceViewer intruder;
    // Level 0x0D makes the CRC 0xAB, so both CRCs print with letters.
    const Bytes bad = CTraceViewer::ActivateRequest(0x0D, std::vector<unsigned int>(32, 0xFFFFFFFF), true);
    testing::internal::CaptureStderr();
    intruder.Send(bad);
    ASSERT_FALSE(intruder.RoundTrip().empty());
    char expected[160];
    std::snprintf(expected, sizeof(expected),
                  "received activate request telegram with invalid CRC\nreceived CRC=%02x\tcalculated CRC=%02x\n",
                  static_cast<unsigned char>(bad.back()), static_cast<unsigned char>(bad.back()) ^ 0x01);
    EXPECT_EQ(expected, testing::internal::GetCapturedStderr());
    EXPECT_EQ(-3, Send(0x08, 3, 0xFFFFFFFF));
    EXPECT_EQ(-5, Send(0x10, 5, 0xFFFFFFFF));
    EXPECT_EQ(0, Send(0x10, 3, 0x1));
    EXPECT_FALSE(m_oViewer.Receive().empty());
    EXPECT_TRUE(intruder.Receive(0).empty());

    ASSERT_TRUE(m_oViewer.Activate(0x10, {0x11})); // fewer masks: category 3 is switched off
    EXPECT_EQ(-5, Send(0x10, 3, 0xFFFFFFFF));
    m_oViewer.Send(CTraceViewer::ActivateRequest(0x00, {0, 0, 0, 0xFFFFFFFF}));
    ASSERT_FALSE(m_oViewer.RoundTrip().empty());
    EXPECT_EQ(-3, Send(0x10, 3, 0xFFFFFFFF)); // level 0: all off, but the viewer stays (not -2)
}

TEST_F(TraceServerTest, OtherRequestsAnswerOrReportButMakeNoViewer)
{
    CTraceServer::SetCategoryName(0, 7, "General");
    CTraceServer::SetCategoryName(3, 13, "Device client and more");
    // Length 29, type, counter 0, then per named category: number, name length, name.
    const Bytes expected = FromHex("1D 00 02 80 00 00 04 07") + "General" + FromHex("00 00 0D") + "Device client";
    EXPECT_EQ(expected, m_oViewer.RoundTrip());
    CTraceServer::SetCategoryName(0, 0, nullptr);
    CTraceServer::SetCategoryName(3, 0, nullptr);
    EXPECT_EQ(-1, CTraceServer::SetCategoryName(32, 1, "x"));
    EXPECT_EQ(FromHex("05 00 02 80 01 00 00"), m_oViewer.RoundTrip());

    testing::internal::CaptureStderr();
    m_oViewer.Send(FromHex("04 00 01 00 00 00"));    // 6 bytes: type 0
    m_oViewer.Send(FromHex("05 00 01 40 00 00 00")); // a trace message
    ASSERT_FALSE(m_oViewer.RoundTrip().empty());
    EXPECT_EQ("received unexpected telegram with type 0x00\n"
              "received unexpected telegram with type 0x4001\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(-2, Send(0x10, 3, 0xFFFFFFFF));
}

TEST_F(TraceServerTest, DisableResetsEverything)
{
    ASSERT_TRUE(m_oViewer.Activate(0x10, std::vector<unsigned int>(32, 0xFFFFFFFF)));
    EXPECT_EQ(0, CTraceServer::Disable());
    EXPECT_EQ(-1, Send(0x10, 3, 0xFFFFFFFF));
    EXPECT_EQ(-1, CTraceServer::Disable());

    // A new start has no viewer and counts from 0 again.
    SetUp();
    EXPECT_EQ(-2, Send(0x10, 3, 0xFFFFFFFF));
    CTraceViewer next;
    next.Send(CTraceViewer::ActivateRequest(0x04, {0, 0x02}));
    EXPECT_EQ(0, Parsed(next.Receive()).GetCounter());
}

TEST_F(TraceServerTest, InitMessagesAndTraceportOption)
{
    CTraceServer::Disable();
    unsigned short def = 0, p1 = 0, p2 = 0; // free a moment ago: the probes are held open together
    {
        CTraceViewer probes[3];
        def = probes[0].Port(), p1 = probes[1].Port(), p2 = probes[2].Port();
    }
    char octal[16];
    std::snprintf(octal, sizeof(octal), "0%o", p1);
    const std::string a = std::to_string(p1), b = std::to_string(p2);
    const struct
    {
        std::vector<std::string> args;
        unsigned short port;
        std::vector<unsigned short> found; // ports announced on standard output
        std::vector<std::string> invalid;  // values reported on standard error
    } cases[] = {
        {{"-traceport", "0"}, def, {}, {"0"}},
        {{"-v", "-traceport", a, "-x"}, p1, {p1}, {}},
        {{"-traceport", octal}, p1, {p1}, {}},
        {{"-v", "-traceport"}, def, {}, {}}, // the last argument is never the option
        {{"-traceport", a, "-traceport", b}, p2, {p1, p2}, {}},
        {{"-traceport", a, "-traceport", "70000"}, p1, {p1}, {"70000"}},
        {{"-traceport", "-traceport", a}, def, {}, {"-traceport"}}, // the value is consumed
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(testing::PrintToString(c.args));
        std::string out, err;
        for (unsigned short p : c.found)
            out += "CTraceServer: Found traceport parameter: Using port " + std::to_string(p) +
                " instead of the default of " + std::to_string(def) + ".\n";
        for (const std::string& value : c.invalid)
            err += "CTraceServer: Invalid trace port " + value + ": valid values are 1-65535. Using default value of " +
                std::to_string(def) + " instead.\n";
        std::vector<const char*> argv = {"program"};
        for (const std::string& arg : c.args)
            argv.push_back(arg.c_str());
        argv.push_back(nullptr); // as in a real command line
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        EXPECT_EQ(0, CTraceServer::Init(def, static_cast<int>(argv.size() - 1), argv.data()));
        EXPECT_EQ(out, testing::internal::GetCapturedStdout());
        EXPECT_EQ(err, testing::internal::GetCapturedStderr());
        EXPECT_EQ(c.port, CTraceServer::m_nServerUdpPort);
        CTraceServer::Disable();
    }

    const CTraceViewer holder; // its port is taken
    testing::internal::CaptureStderr();
    EXPECT_EQ(-2, CTraceServer::Init(holder.Port()));
    EXPECT_EQ("CTraceServer: Could not bind to port " + std::to_string(holder.Port()) + ".\n",
              testing::internal::GetCapturedStderr());
}

TEST_F(TraceServerTest, DisableNeverLetsASenderUseTheClosedDescriptor)
{
    // Long texts keep senders between their filter tests and their send when
    // Disable closes the socket; a stale send on the socket that takes the
    // freed number next would bind it to a port.
    struct SSenders
    {
        std::atomic<bool> stop{false};
        std::atomic<int> unexpected{0};
        std::atomic<unsigned int> calls[3] = {};
        std::vector<std::thread> threads;
        ~SSenders()
        {
            stop = true;
            for (std::thread& thread : threads)
                thread.join();
        }
    } senders;
    const std::string text(60000, 't');
    for (std::atomic<unsigned int>& count : senders.calls)
        senders.threads.emplace_back([&] {
            while (!senders.stop)
            {
                const int result = CTraceServer::SendTraceMessage(0x10, 3, 0x1, 1, "f", text.c_str(), 0);
                if (result != 0 && result != -1 && result != -2 && result != -6)
                    ++senders.unexpected;
                ++count;
            }
        });
    for (int round = 0; round < 20 && !HasFailure(); ++round)
    {
        CTraceViewer viewer;
        viewer.Send(CTraceViewer::ActivateRequest(0x14, {0, 0x02, 0, 0x1}));
        ASSERT_FALSE(viewer.Receive().empty());
        ASSERT_EQ(0, CTraceServer::Disable());
        const int victim = socket(AF_INET, SOCK_DGRAM, 0);
        // Each sender finishes the call it was in and makes one more.
        for (std::atomic<unsigned int>& count : senders.calls)
            for (const unsigned int seen = count.load(); count.load() < seen + 2;)
                std::this_thread::yield();
        sockaddr_in address = {};
        socklen_t length = sizeof(address);
        getsockname(victim, reinterpret_cast<sockaddr*>(&address), &length);
        close(victim);
        EXPECT_EQ(0, address.sin_port) << "round " << round << ": a trace message went out on a closed socket";
        ASSERT_EQ(0, CTraceServer::Init(0)); // for the next round, and for TearDown
    }
    EXPECT_EQ(0, senders.unexpected.load());
}

// ------------------------------------------------------------------ telegrams
// Wire layouts, parse rules and CRC, checked against bytes written out by hand.

namespace
{
Bytes Wire(const CTraceTelegram& telegram)
{
    const std::vector<char> bytes = telegram.Serialize();
    return Bytes(bytes.begin(), bytes.end());
}

Bytes DataOf(const CTraceTelegram& telegram)
{
    return Bytes(telegram.GetData(), telegram.GetDataLen());
}

template <typename T>
T Parse(const Bytes& bytes)
{
    return T(static_cast<unsigned short>(bytes.size()), bytes.data());
}

// A parsed activate request: level, mask count, masks, then `tail` bytes.
CTraceActivateReqTelegram ActivateRequest(unsigned char level, unsigned char count,
                                          const std::vector<unsigned int>& masks, const Bytes& tail,
                                          unsigned short counter = 0)
{
    Bytes data = FromHex("01 00") + KelToLE(counter) + Byte(level) + Byte(count);
    for (unsigned int mask : masks)
        data += U32(mask);
    return Parse<CTraceActivateReqTelegram>(Frame(data + tail));
}
} // namespace

TEST(TraceFrame, DataIsBoundedByTheLengthFieldAndTheReceivedBytes)
{
    const struct
    {
        Bytes datagram;
        unsigned short type, counter;
        Bytes data;
    } cases[] = {
        {FromHex("05 00 02 00 07 00"), 0, 0, ""}, // 6 bytes: an empty telegram of type 0
        {FromHex("06 00 02 80 34 12 AA BB CC"), 0x8002, 0x1234, FromHex("AA BB")},
        {FromHex("40 00 01 00 00 00 AA BB"), 0x0001, 0, FromHex("AA BB")}, // length overstated
        {FromHex("02 00 01 00 00 00 AA"), 0x0001, 0, ""},                  // length below 4
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(OrvaneTest::ToHex(c.datagram));
        const CTraceTelegram frame = Parse<CTraceTelegram>(c.datagram);
        EXPECT_EQ(c.type, frame.GetType());
        EXPECT_EQ(c.counter, frame.GetCounter());
        EXPECT_EQ(c.data, DataOf(frame));
    }
    EXPECT_EQ(0, CTraceTelegram(10, nullptr).GetType());
}

TEST(TraceActivateRequest, CrcCoversHeaderAndEveryDataByteButTheLast)
{
    // 0x0F ^ 0x01 (length, type) ^ 0x14 ^ 0x02 (level, count) ^ 0x02 ^ 0xFF x4 (masks) = 0x1A
    const CTraceActivateReqTelegram request = ActivateRequest(0x14, 2, {0x00000002, 0xFFFFFFFF}, Byte(0x1A));
    EXPECT_EQ(0x1A, request.GetCrc());
    EXPECT_EQ(0x1A, request.CalcCrc());
    // The counter counts (0x12 ^ 0x34), the CRC byte itself does not.
    EXPECT_EQ(0x1A ^ 0x26, ActivateRequest(0x14, 2, {0x00000002, 0xFFFFFFFF}, Byte(0), 0x1234).CalcCrc());
    EXPECT_EQ(0x1A ^ 0x80, ActivateRequest(0x14, 2, {0x80000002, 0xFFFFFFFF}, Byte(0)).CalcCrc());
}

TEST(TraceActivateRequest, MaskCountIsLimitedByTheDataAndBy32)
{
    // Count 5, but 3 masks and one byte: the CRC position (2 + 20) lies beyond the data.
    const CTraceActivateReqTelegram three = ActivateRequest(0x01, 5, {0x11111111, 0x22222222, 0x33333333}, Byte(0x5A));
    EXPECT_EQ(3, three.GetBitmaskCount());
    EXPECT_EQ(0x33333333u, three.GetFilterBitmask(2));
    EXPECT_EQ(0u, three.GetFilterBitmask(3));
    EXPECT_EQ(0, three.GetCrc());

    // Count 40 with 40 masks: 32 are used and the CRC is read right after them.
    std::vector<unsigned int> masks;
    for (unsigned int i = 0; i < 40; ++i)
        masks.push_back(0xA0000000u + i);
    const CTraceActivateReqTelegram capped = ActivateRequest(0x02, 40, masks, Byte(0));
    EXPECT_EQ(32, capped.GetBitmaskCount());
    EXPECT_EQ(0xA000001Fu, capped.GetFilterBitmask(31));
    EXPECT_EQ(0u, capped.GetFilterBitmask(32));
    EXPECT_EQ(0x20, capped.GetCrc()); // low byte of mask 32

    EXPECT_EQ(0, ActivateRequest(0x1F, 1, {}, Byte(0x07)).GetTraceLevel()); // the level needs 6 data bytes
}

TEST(TraceConfirmations, ActivateAndGetCategoriesLayouts)
{
    CTraceActivateCnfTelegram activate;
    EXPECT_EQ(FromHex("05 00 01 80 00 00 FF"), Wire(activate)); // 0xFF until a code is set
    activate.SetReturnCode(0);
    EXPECT_EQ(FromHex("05 00 01 80 00 00 00"), Wire(activate));
    EXPECT_EQ(0x00, Parse<CTraceActivateCnfTelegram>(Wire(activate)).GetReturnCode());
    EXPECT_EQ(0xFF, Parse<CTraceActivateCnfTelegram>(FromHex("04 00 01 80 00 00 00")).GetReturnCode());

    CTraceGetCategoriesCnfTelegram categories;
    categories.SetCategoryName(0, 3, "Gen");
    categories.SetCategoryName(2, 40, std::string(40, 'n').c_str()); // cut to 32 bytes
    categories.SetCategoryName(32, 3, "Out");                        // ignored
    EXPECT_EQ(FromHex("03 03") + "Gen" + FromHex("00 20") + std::string(32, 'n'), DataOf(categories));
    const CTraceGetCategoriesCnfTelegram parsed = Parse<CTraceGetCategoriesCnfTelegram>(Wire(categories));
    EXPECT_EQ(3, parsed.GetCategoriesCount());
    EXPECT_EQ(std::string(32, 'n'), parsed.GetCategoryName(2));
}

TEST(TraceStatusTelegrams, LayoutAndTolerantParse)
{
    Bytes request = FromHex("09 00 03 00 00 00 07 78 56 34 12");
    EXPECT_EQ(7, Parse<CStatusReqTelegram>(request).GetCategory());
    EXPECT_EQ(0x12345678u, Parse<CStatusReqTelegram>(request).GetFilterBitmask());
    request[0] = 0x0A;
    request += Byte(0);
    EXPECT_EQ(0u, Parse<CStatusReqTelegram>(request).GetFilterBitmask()); // only exactly 5 data bytes count

    const Bytes expected = FromHex("1E 00 03 80 00 00"            // header, data 26
                                   "04 03 02 01 0C 0B 0A 00 05"   // time, category
                                   "44 33 22 11 BE BA FE CA"      // mask, value
                                   "02 00 61 62 03 00 78 79 7A"); // name "ab", value text "xyz"
    CStatusCnfTelegram confirmation = Parse<CStatusCnfTelegram>(expected);
    confirmation.SetCategory(5); // the same value: rebuilds the bytes from the parsed fields
    EXPECT_EQ(expected, Wire(confirmation));

    Bytes cut = expected.substr(0, expected.size() - 1); // inside the value text: it keeps what is there
    --cut[0];
    EXPECT_EQ("xy", Parse<CStatusCnfTelegram>(cut).GetValue());
    cut.resize(16); // inside the mask: it and later fields read 0
    cut[0] = 14;
    const CStatusCnfTelegram early = Parse<CStatusCnfTelegram>(cut);
    EXPECT_EQ(0x000A0B0Cu, early.GetMicroseconds());
    EXPECT_TRUE(early.GetFilterBitmask() == 0 && early.GetStatusValue() == 0 && early.GetName().empty());

    // A name too long for the length field is cut and leaves the value no
    // room (a cut value is checked with the trace message); each length word
    // counts exactly the bytes that follow it.
    const std::string name(0xFFFF, 'n');
    CStatusCnfTelegram big;
    big.SetName(0xFFFF, name.c_str());
    big.SetValue(5, "value");
    const Bytes data = DataOf(big);
    ASSERT_EQ(CTraceTelegram::MAX_DATA_LEN, data.size());
    EXPECT_EQ(CTraceTelegram::MAX_DATA_LEN - 21, KelGetLE<unsigned short>(&data[17]));
    EXPECT_EQ(0, KelGetLE<unsigned short>(&data[data.size() - 2]));
}

TEST(TraceMessage, LayoutParseAndCut)
{
    CTraceMessageTelegram message;
    EXPECT_EQ(Bytes(21, '\0'), DataOf(message)); // empty: the 21 fixed bytes

    const Bytes expected = FromHex("1E 00 01 40 EF BE"            // length 30, type, counter
                                   "01 00 00 65 3F 42 0F 00"      // seconds, microseconds
                                   "10 03 01 00 00 80"            // level, category, filter mask
                                   "01 34 12"                     // flags, line
                                   "03 00 66 2E 63 02 00 68 69"); // "f.c", "hi"
    message = Parse<CTraceMessageTelegram>(expected);
    message.SetFlags(0x01); // the same value: rebuilds the bytes from the parsed fields
    EXPECT_EQ(expected, Wire(message));

    const std::string file(100, 'f');
    const std::string text(0xFFFF, 't');
    message.SetFileName(static_cast<unsigned short>(file.size()), file.c_str());
    message.SetMessageText(static_cast<unsigned short>(text.size()), text.c_str());
    EXPECT_EQ(CTraceTelegram::MAX_DATA_LEN, message.GetDataLen()); // cut to fit the length field
    const CTraceMessageTelegram cut = Parse<CTraceMessageTelegram>(Wire(message));
    EXPECT_EQ(file, cut.GetFileName());
    EXPECT_EQ(CTraceTelegram::MAX_DATA_LEN - 21u - 100u, cut.GetMessageText().size());
}
