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

template <typename T> T Parse(const Bytes& bytes)
{
    return T(static_cast<unsigned short>(bytes.size()), reinterpret_cast<const char*>(bytes.data()));
}

void PutU32(Bytes& out, unsigned int value)
{
    for (int shift = 0; shift < 32; shift += 8)
        out.push_back(static_cast<unsigned char>(value >> shift));
}

// An activate request frame around the given data (length field from its size).
Bytes ActivateFrame(const Bytes& data, unsigned short counter = 0)
{
    const unsigned short length = static_cast<unsigned short>(data.size() + 4);
    Bytes out = {static_cast<unsigned char>(length), static_cast<unsigned char>(length >> 8), 0x01, 0x00,
                 static_cast<unsigned char>(counter), static_cast<unsigned char>(counter >> 8)};
    for (unsigned char byte : data)
        out.push_back(byte);
    return out;
}
} // namespace

TEST(TraceFrame, ShortDatagramsParseAsEmptyTelegramOfTypeZero)
{
    const Bytes six = {0x05, 0x00, 0x02, 0x00, 0x07, 0x00};
    const CTraceTelegram frame = Parse<CTraceTelegram>(six);
    EXPECT_EQ(0, frame.GetType());
    EXPECT_EQ(0, frame.GetCounter());
    EXPECT_EQ(0, frame.GetDataLen());
    EXPECT_EQ(0, CTraceTelegram(10, nullptr).GetType());
}

TEST(TraceFrame, DataLengthFollowsLengthFieldButNeverPassesReceivedBytes)
{
    const Bytes exact = {0x06, 0x00, 0x02, 0x80, 0x34, 0x12, 0xAA, 0xBB, 0xCC};
    const CTraceTelegram frame = Parse<CTraceTelegram>(exact);
    EXPECT_EQ(0x8002, frame.GetType());
    EXPECT_EQ(0x1234, frame.GetCounter());
    EXPECT_EQ((Bytes{0xAA, 0xBB}), DataOf(frame)); // trailing byte beyond the length field dropped

    const Bytes overstated = {0x40, 0x00, 0x01, 0x00, 0x00, 0x00, 0xAA, 0xBB};
    EXPECT_EQ((Bytes{0xAA, 0xBB}), DataOf(Parse<CTraceTelegram>(overstated)));

    const Bytes understated = {0x02, 0x00, 0x01, 0x00, 0x00, 0x00, 0xAA};
    EXPECT_EQ(0, Parse<CTraceTelegram>(understated).GetDataLen());
    EXPECT_EQ(1, Parse<CTraceTelegram>(understated).GetType());
}

TEST(TraceFrame, CopyAssignAndSwapCarryAllFields)
{
    const CTraceTelegram a = Parse<CTraceTelegram>({0x06, 0x00, 0x02, 0x80, 0x34, 0x12, 0xAA, 0xBB});
    const CTraceTelegram b = Parse<CTraceTelegram>({0x05, 0x00, 0x01, 0x40, 0x02, 0x00, 0xCC});
    CTraceTelegram copy(a);
    EXPECT_EQ(Wire(a), Wire(copy));
    copy = b;
    EXPECT_EQ(Wire(b), Wire(copy));
    CTraceTelegram other(a);
    swap(copy, other);
    EXPECT_EQ(Wire(a), Wire(copy));
    EXPECT_EQ(Wire(b), Wire(other));
}

TEST(TraceActivateRequest, ReadsLevelMasksAndCrc)
{
    // length 15, type 1, counter 0; level 0x14; masks 2 and 0xFFFFFFFF.
    // CRC = 0x0F ^ 0x01 ^ 0x14 ^ 0x02 ^ 0x02 ^ (0xFF x4) = 0x1A
    const Bytes data = {0x14, 0x02, 0x02, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0x1A};
    const CTraceActivateReqTelegram request = Parse<CTraceActivateReqTelegram>(ActivateFrame(data));
    EXPECT_EQ(TRACE_ACTIVATE_REQ, request.GetType());
    EXPECT_EQ(0x14, request.GetTraceLevel());
    EXPECT_EQ(2, request.GetBitmaskCount());
    EXPECT_EQ(0x00000002u, request.GetFilterBitmask(0));
    EXPECT_EQ(0xFFFFFFFFu, request.GetFilterBitmask(1));
    EXPECT_EQ(0u, request.GetFilterBitmask(2));
    EXPECT_EQ(0x1A, request.GetCrc());
    EXPECT_EQ(0x1A, request.CalcCrc());
}

TEST(TraceActivateRequest, CrcCoversCounterAndEveryDataByteButTheLast)
{
    const Bytes data = {0x14, 0x02, 0x02, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
    // Counter 0x1234 adds 0x12 ^ 0x34 = 0x26; the CRC byte itself is not covered.
    EXPECT_EQ(0x3C, Parse<CTraceActivateReqTelegram>(ActivateFrame(data, 0x1234)).CalcCrc());
    Bytes changed = data;
    changed[5] = 0x80; // high byte of the first mask
    EXPECT_EQ(0x9A, Parse<CTraceActivateReqTelegram>(ActivateFrame(changed)).CalcCrc());
}

TEST(TraceActivateRequest, UsableMaskCountIsLimitedByDataAndBy32)
{
    // Count says 5, data holds 3 masks and one more byte: 3 masks, CRC
    // position (2 + 20) lies beyond the data and reads 0.
    Bytes data = {0x01, 0x05};
    for (unsigned int mask : {0x11111111u, 0x22222222u, 0x33333333u})
        PutU32(data, mask);
    data.push_back(0x5A);
    const CTraceActivateReqTelegram three = Parse<CTraceActivateReqTelegram>(ActivateFrame(data));
    EXPECT_EQ(3, three.GetBitmaskCount());
    EXPECT_EQ(0x33333333u, three.GetFilterBitmask(2));
    EXPECT_EQ(0u, three.GetFilterBitmask(3));
    EXPECT_EQ(0, three.GetCrc());

    // Count 40 with 40 masks: 32 are used and the CRC is read right after them.
    Bytes forty = {0x02, 40};
    for (unsigned int i = 0; i < 40; ++i)
        PutU32(forty, 0xA0000000u + i);
    forty.push_back(0x00);
    const CTraceActivateReqTelegram capped = Parse<CTraceActivateReqTelegram>(ActivateFrame(forty));
    EXPECT_EQ(32, capped.GetBitmaskCount());
    EXPECT_EQ(0xA000001Fu, capped.GetFilterBitmask(31));
    EXPECT_EQ(0u, capped.GetFilterBitmask(32));
    EXPECT_EQ(0x20, capped.GetCrc()); // low byte of mask 32
}

TEST(TraceActivateRequest, LevelReadsZeroWhenDataIsShorterThanSixBytes)
{
    const CTraceActivateReqTelegram request = Parse<CTraceActivateReqTelegram>(ActivateFrame({0x1F, 0x01, 0x07}));
    EXPECT_EQ(0, request.GetTraceLevel());
    EXPECT_EQ(0, request.GetBitmaskCount());
    EXPECT_EQ(0, request.GetCrc());
    EXPECT_EQ(TRACE_ACTIVATE_REQ, CTraceActivateReqTelegram().GetType());
    EXPECT_EQ(0, CTraceActivateReqTelegram().GetDataLen());
}

TEST(TraceActivateConfirmation, HoldsFFUntilACodeIsSet)
{
    CTraceActivateCnfTelegram confirmation;
    EXPECT_EQ((Bytes{0x05, 0x00, 0x01, 0x80, 0x00, 0x00, 0xFF}), Wire(confirmation));
    confirmation.SetReturnCode(0);
    confirmation.SetCounter(0x0102);
    EXPECT_EQ((Bytes{0x05, 0x00, 0x01, 0x80, 0x02, 0x01, 0x00}), Wire(confirmation));
    EXPECT_EQ(0, Parse<CTraceActivateCnfTelegram>(Wire(confirmation)).GetReturnCode());
}

TEST(TraceGetCategoriesConfirmation, ListsNamesUpToTheHighestNonEmptyOne)
{
    CTraceGetCategoriesCnfTelegram confirmation;
    EXPECT_EQ(0, confirmation.GetCategoriesCount());
    EXPECT_EQ((Bytes{0x00}), DataOf(confirmation));

    confirmation.SetCategoryName(0, 3, "Gen");
    confirmation.SetCategoryName(2, 5, "Trace and more");
    confirmation.SetCategoryName(32, 3, "Out"); // ignored
    EXPECT_EQ(3, confirmation.GetCategoriesCount());
    EXPECT_EQ((Bytes{0x03, 0x03, 'G', 'e', 'n', 0x00, 0x05, 'T', 'r', 'a', 'c', 'e'}), DataOf(confirmation));

    const CTraceGetCategoriesCnfTelegram parsed = Parse<CTraceGetCategoriesCnfTelegram>(Wire(confirmation));
    EXPECT_EQ(TRACE_GET_CATEGORIES_CNF, parsed.GetType());
    EXPECT_EQ(3, parsed.GetCategoriesCount());
    EXPECT_EQ("Trace", parsed.GetCategoryName(2));

    confirmation.SetCategoryName(2, 0, "x");
    confirmation.SetCategoryName(0, 5, nullptr);
    EXPECT_EQ((Bytes{0x00}), DataOf(confirmation));
}

TEST(TraceGetCategoriesConfirmation, NamesAreCutTo32Bytes)
{
    const std::string longName(40, 'n');
    CTraceGetCategoriesCnfTelegram confirmation;
    confirmation.SetCategoryName(1, static_cast<unsigned char>(longName.size()), longName.c_str());
    EXPECT_EQ(std::string(32, 'n'), confirmation.GetCategoryName(1));
    const Bytes data = DataOf(confirmation);
    ASSERT_EQ(1u + 1u + 1u + 32u, data.size()); // count, empty entry 0, entry 1
    EXPECT_EQ(0x02, data[0]);
    EXPECT_EQ(0x00, data[1]);
    EXPECT_EQ(32, data[2]);
}

TEST(StatusRequest, ReadsCategoryAndMaskOnlyFromExactlyFiveBytes)
{
    const Bytes five = {0x09, 0x00, 0x03, 0x00, 0x00, 0x00, 0x07, 0x78, 0x56, 0x34, 0x12};
    const CStatusReqTelegram request = Parse<CStatusReqTelegram>(five);
    EXPECT_EQ(TRACE_STATUS_REQ, request.GetType());
    EXPECT_EQ(7, request.GetCategory());
    EXPECT_EQ(0x12345678u, request.GetFilterBitmask());

    const Bytes four = {0x08, 0x00, 0x03, 0x00, 0x00, 0x00, 0x07, 0x78, 0x56, 0x34};
    EXPECT_EQ(0, Parse<CStatusReqTelegram>(four).GetCategory());
    Bytes six = {0x0A, 0x00, 0x03, 0x00, 0x00, 0x00, 0x07, 0x78, 0x56, 0x34, 0x12, 0x00};
    EXPECT_EQ(0u, Parse<CStatusReqTelegram>(six).GetFilterBitmask());
}

TEST(StatusConfirmation, LayoutAndTolerantParse)
{
    CStatusCnfTelegram confirmation;
    confirmation.SetTime(0x01020304, 0x000A0B0C);
    confirmation.SetCategory(5);
    confirmation.SetFilterBitmask(0x11223344);
    confirmation.SetStatusValue(0xCAFEBABE);
    confirmation.SetName(2, "ab");
    confirmation.SetValue(3, "xyz");
    const Bytes expected = {0x1E, 0x00, 0x03, 0x80, 0x00, 0x00,                   // header, data 26
                            0x04, 0x03, 0x02, 0x01, 0x0C, 0x0B, 0x0A, 0x00, 0x05, // time, category
                            0x44, 0x33, 0x22, 0x11, 0xBE, 0xBA, 0xFE, 0xCA,       // mask, value
                            0x02, 0x00, 'a', 'b', 0x03, 0x00, 'x', 'y', 'z'};
    EXPECT_EQ(expected, Wire(confirmation));

    // Cut inside the value text: the value keeps what is there.
    Bytes cut(expected.begin(), expected.end() - 1);
    cut[0] = static_cast<unsigned char>(cut.size() - 2);
    const CStatusCnfTelegram parsed = Parse<CStatusCnfTelegram>(cut);
    EXPECT_EQ(0xCAFEBABEu, parsed.GetStatusValue());
    EXPECT_EQ("ab", parsed.GetName());
    EXPECT_EQ("xy", parsed.GetValue());
    // Cut inside the filter mask: it and later fields read 0.
    Bytes early(expected.begin(), expected.begin() + 16);
    early[0] = static_cast<unsigned char>(early.size() - 2);
    const CStatusCnfTelegram partial = Parse<CStatusCnfTelegram>(early);
    EXPECT_EQ(0x000A0B0Cu, partial.GetMicroseconds());
    EXPECT_EQ(0u, partial.GetFilterBitmask());
    EXPECT_EQ("", partial.GetName());
}

TEST(TraceMessage, LayoutOfEveryField)
{
    CTraceMessageTelegram message;
    EXPECT_EQ(21, message.GetDataLen());
    EXPECT_EQ(Bytes(21, 0x00), DataOf(message));

    message.SetCounter(0xBEEF);
    message.SetTime(0x65000001, 999999);
    message.SetTraceLevel(0x10);
    message.SetCategory(3);
    message.SetFilterBitmask(0x80000001);
    message.SetFlags(0x01);
    message.SetLine(0x1234);
    message.SetFileName(3, "f.c");
    message.SetMessageText(2, "hi");
    const Bytes expected = {0x1E, 0x00, 0x01, 0x40, 0xEF, 0xBE,   // length 30 = 21 + 3 + 2 + 4
                            0x01, 0x00, 0x00, 0x65,               // seconds
                            0x3F, 0x42, 0x0F, 0x00,               // microseconds 999999
                            0x10, 0x03,                           // level, category
                            0x01, 0x00, 0x00, 0x80,               // filter mask
                            0x01, 0x34, 0x12,                     // flags, line
                            0x03, 0x00, 'f', '.', 'c', 0x02, 0x00, 'h', 'i'};
    EXPECT_EQ(expected, Wire(message));
    EXPECT_EQ(27u + 3u + 2u, expected.size());

    const CTraceMessageTelegram parsed = Parse<CTraceMessageTelegram>(expected);
    EXPECT_EQ(0xBEEF, parsed.GetCounter());
    EXPECT_EQ(0x65000001u, parsed.GetSeconds());
    EXPECT_EQ(999999u, parsed.GetMicroseconds());
    EXPECT_EQ(0x10, parsed.GetTraceLevel());
    EXPECT_EQ(3, parsed.GetCategory());
    EXPECT_EQ(0x80000001u, parsed.GetFilterBitmask());
    EXPECT_EQ(0x01, parsed.GetFlags());
    EXPECT_EQ(0x1234, parsed.GetLine());
    EXPECT_EQ("f.c", parsed.GetFileName());
    EXPECT_EQ("hi", parsed.GetMessageText());
    EXPECT_EQ(expected, Wire(parsed));
}

TEST(TraceMessage, CopiesAndSwapsAreIndependent)
{
    CTraceMessageTelegram a;
    a.SetMessageText(3, "one");
    CTraceMessageTelegram b(a);
    b.SetMessageText(3, "two");
    EXPECT_EQ("one", CTraceMessageTelegram(a).GetMessageText());
    const Bytes wireA = Wire(a);
    const Bytes wireB = Wire(b);
    swap(a, b);
    EXPECT_EQ(wireB, Wire(a));
    EXPECT_EQ(wireA, Wire(b));
    a = b;
    EXPECT_EQ(wireA, Wire(a));
}

TEST(TraceMessage, OversizedTextIsCutToFitTheLengthField)
{
    const std::string file(100, 'f');
    const std::string text(0xFFFF, 't');
    CTraceMessageTelegram message;
    message.SetFileName(static_cast<unsigned short>(file.size()), file.c_str());
    message.SetMessageText(static_cast<unsigned short>(text.size()), text.c_str());
    EXPECT_EQ(CTraceTelegram::kMaxDataLen, message.GetDataLen());
    const CTraceMessageTelegram parsed = Parse<CTraceMessageTelegram>(Wire(message));
    EXPECT_EQ(file, parsed.GetFileName());
    EXPECT_EQ(CTraceTelegram::kMaxDataLen - 21u - 100u, parsed.GetMessageText().size());
}
