// Trace telegrams: wire layouts, parse rules and CRC, checked against bytes
// written out by hand.
#include "TraceTelegram.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{
using Bytes = std::vector<unsigned char>;

Bytes Wire(const CTraceTelegram& telegram)
{
    const std::vector<char> bytes = telegram.Serialize();
    return Bytes(bytes.begin(), bytes.end());
}

Bytes DataOf(const CTraceTelegram& telegram)
{
    const unsigned char* data = reinterpret_cast<const unsigned char*>(telegram.GetData());
    return Bytes(data, data + telegram.GetDataLen());
}

template <typename T>
T Parse(const Bytes& bytes)
{
    return T(static_cast<unsigned short>(bytes.size()), reinterpret_cast<const char*>(bytes.data()));
}

// A parsed activate request: level, mask count, masks, then `tail` bytes.
CTraceActivateReqTelegram ActivateRequest(unsigned char level, unsigned char count,
                                          const std::vector<unsigned int>& masks, const Bytes& tail,
                                          unsigned short counter = 0)
{
    const size_t length = 4 + 2 + 4 * masks.size() + tail.size();
    Bytes frame = {static_cast<unsigned char>(length),  static_cast<unsigned char>(length >> 8),  0x01,  0x00,
                   static_cast<unsigned char>(counter), static_cast<unsigned char>(counter >> 8), level, count};
    for (unsigned int mask : masks)
        for (int shift = 0; shift < 32; shift += 8)
            frame.push_back(static_cast<unsigned char>(mask >> shift));
    frame.insert(frame.end(), tail.begin(), tail.end());
    return Parse<CTraceActivateReqTelegram>(frame);
}
} // namespace

TEST(TraceFrame, DataIsBoundedByTheLengthFieldAndTheReceivedBytes)
{
    struct SCase
    {
        Bytes datagram;
        unsigned short type, counter;
        Bytes data;
    };
    const SCase cases[] = {
        {{0x05, 0x00, 0x02, 0x00, 0x07, 0x00}, 0, 0, {}}, // 6 bytes: an empty telegram of type 0
        {{0x06, 0x00, 0x02, 0x80, 0x34, 0x12, 0xAA, 0xBB, 0xCC}, 0x8002, 0x1234, {0xAA, 0xBB}},
        {{0x40, 0x00, 0x01, 0x00, 0x00, 0x00, 0xAA, 0xBB}, 0x0001, 0, {0xAA, 0xBB}}, // length overstated
        {{0x02, 0x00, 0x01, 0x00, 0x00, 0x00, 0xAA}, 0x0001, 0, {}},                 // length below 4
    };
    for (const SCase& c : cases)
    {
        SCOPED_TRACE(testing::PrintToString(c.datagram));
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
    const CTraceActivateReqTelegram request = ActivateRequest(0x14, 2, {0x00000002, 0xFFFFFFFF}, {0x1A});
    EXPECT_EQ(0x14, request.GetTraceLevel());
    EXPECT_EQ(2, request.GetBitmaskCount());
    EXPECT_EQ(0xFFFFFFFFu, request.GetFilterBitmask(1));
    EXPECT_EQ(0x1A, request.GetCrc());
    EXPECT_EQ(0x1A, request.CalcCrc());
    // The counter counts (0x12 ^ 0x34), the CRC byte itself does not.
    EXPECT_EQ(0x1A ^ 0x26, ActivateRequest(0x14, 2, {0x00000002, 0xFFFFFFFF}, {0x00}, 0x1234).CalcCrc());
    EXPECT_EQ(0x1A ^ 0x80, ActivateRequest(0x14, 2, {0x80000002, 0xFFFFFFFF}, {0x00}).CalcCrc());
}

TEST(TraceActivateRequest, MaskCountIsLimitedByTheDataAndBy32)
{
    // Count 5, but 3 masks and one byte: the CRC position (2 + 20) lies beyond the data.
    const CTraceActivateReqTelegram three = ActivateRequest(0x01, 5, {0x11111111, 0x22222222, 0x33333333}, {0x5A});
    EXPECT_EQ(3, three.GetBitmaskCount());
    EXPECT_EQ(0x33333333u, three.GetFilterBitmask(2));
    EXPECT_EQ(0u, three.GetFilterBitmask(3));
    EXPECT_EQ(0, three.GetCrc());

    // Count 40 with 40 masks: 32 are used and the CRC is read right after them.
    std::vector<unsigned int> masks;
    for (unsigned int i = 0; i < 40; ++i)
        masks.push_back(0xA0000000u + i);
    const CTraceActivateReqTelegram capped = ActivateRequest(0x02, 40, masks, {0x00});
    EXPECT_EQ(32, capped.GetBitmaskCount());
    EXPECT_EQ(0xA000001Fu, capped.GetFilterBitmask(31));
    EXPECT_EQ(0u, capped.GetFilterBitmask(32));
    EXPECT_EQ(0x20, capped.GetCrc()); // low byte of mask 32

    EXPECT_EQ(0, ActivateRequest(0x1F, 1, {}, {0x07}).GetTraceLevel()); // the level needs 6 data bytes
}

TEST(TraceConfirmations, ActivateAndGetCategoriesLayouts)
{
    CTraceActivateCnfTelegram activate;
    EXPECT_EQ((Bytes{0x05, 0x00, 0x01, 0x80, 0x00, 0x00, 0xFF}), Wire(activate)); // 0xFF until a code is set
    activate.SetReturnCode(0);
    EXPECT_EQ((Bytes{0x05, 0x00, 0x01, 0x80, 0x00, 0x00, 0x00}), Wire(activate));
    EXPECT_EQ(0x00, Parse<CTraceActivateCnfTelegram>(Wire(activate)).GetReturnCode());
    EXPECT_EQ(0xFF, Parse<CTraceActivateCnfTelegram>({0x04, 0x00, 0x01, 0x80, 0x00, 0x00, 0x00}).GetReturnCode());

    CTraceGetCategoriesCnfTelegram categories;
    EXPECT_EQ((Bytes{0x05, 0x00, 0x02, 0x80, 0x00, 0x00, 0x00}), Wire(categories)); // no names: count 0 alone
    categories.SetCategoryName(0, 3, "Gen");
    categories.SetCategoryName(2, 40, std::string(40, 'n').c_str()); // cut to 32 bytes
    categories.SetCategoryName(32, 3, "Out");                        // ignored
    Bytes expected = {0x03, 0x03, 'G', 'e', 'n', 0x00, 32};
    expected.insert(expected.end(), 32, 'n');
    EXPECT_EQ(expected, DataOf(categories));
    const CTraceGetCategoriesCnfTelegram parsed = Parse<CTraceGetCategoriesCnfTelegram>(Wire(categories));
    EXPECT_EQ(3, parsed.GetCategoriesCount());
    EXPECT_EQ(std::string(32, 'n'), parsed.GetCategoryName(2));
}

TEST(TraceStatusTelegrams, LayoutAndTolerantParse)
{
    Bytes request = {0x09, 0x00, 0x03, 0x00, 0x00, 0x00, 0x07, 0x78, 0x56, 0x34, 0x12};
    EXPECT_EQ(7, Parse<CStatusReqTelegram>(request).GetCategory());
    EXPECT_EQ(0x12345678u, Parse<CStatusReqTelegram>(request).GetFilterBitmask());
    request[0] = 0x0A;
    request.push_back(0x00);
    EXPECT_EQ(0u, Parse<CStatusReqTelegram>(request).GetFilterBitmask()); // only exactly 5 data bytes count

    const Bytes expected = {0x1E, 0x00, 0x03, 0x80, 0x00, 0x00,                   // header, data 26
                            0x04, 0x03, 0x02, 0x01, 0x0C, 0x0B, 0x0A, 0x00, 0x05, // time, category
                            0x44, 0x33, 0x22, 0x11, 0xBE, 0xBA, 0xFE, 0xCA,       // mask, value
                            0x02, 0x00, 'a',  'b',  0x03, 0x00, 'x',  'y',  'z'}; // name, value text
    CStatusCnfTelegram confirmation = Parse<CStatusCnfTelegram>(expected);
    confirmation.SetCategory(5); // the same value: rebuilds the bytes from the parsed fields
    EXPECT_EQ(expected, Wire(confirmation));

    Bytes cut(expected.begin(), expected.end() - 1); // inside the value text: it keeps what is there
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
    EXPECT_EQ(CTraceTelegram::MAX_DATA_LEN - 21, data[17] | data[18] << 8);
    EXPECT_EQ(0, data[data.size() - 2] | data.back() << 8);
}

TEST(TraceMessage, LayoutParseAndCut)
{
    CTraceMessageTelegram message;
    EXPECT_EQ(Bytes(21, 0x00), DataOf(message)); // empty: the 21 fixed bytes

    const Bytes expected = {0x1E, 0x00, 0x01, 0x40, 0xEF, 0xBE,             // length 30, type, counter
                            0x01, 0x00, 0x00, 0x65, 0x3F, 0x42, 0x0F, 0x00, // seconds, microseconds
                            0x10, 0x03, 0x01, 0x00, 0x00, 0x80,             // level, category, filter mask
                            0x01, 0x34, 0x12,                               // flags, line
                            0x03, 0x00, 'f',  '.',  'c',  0x02, 0x00, 'h',  'i'};
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
