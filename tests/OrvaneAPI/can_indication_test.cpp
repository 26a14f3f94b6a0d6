// Frame and PDO decoders on telegrams whose payload bytes are written out by
// hand: time stamp step, length limits, short payloads. The other kinds are
// pinned through the CAN client (can_client_dll_test).
#include "OrvaneCanIndication.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace OrvaneCan;

namespace
{

COrvaneMsg Ind(unsigned short nCode, const std::vector<unsigned char>& anPayload)
{
    return COrvaneMsg(nCode, 0, anPayload.data(), static_cast<unsigned short>(anPayload.size()));
}

std::string Str(const char* pcData, int nLength)
{
    return std::string(pcData, static_cast<std::size_t>(nLength));
}

TEST(CanIndicationDecode, FrameWithAndWithoutTimeStamp)
{
    struct SCase
    {
        const char* pName;
        std::vector<unsigned char> anPayload;
        unsigned int nIdentifier;
        int nFlags;
        std::string sData;
        int nRawLength;
        long nSeconds, nMicroseconds;
    };
    const SCase aoCases[] = {
        // Identifier 0x18FF0001, flags 0x05 (extended, time stamp), data 11 22 33,
        // seconds 0x01020304, microseconds 999999 = 0x0F423F.
        {"stamped",
         {0x01, 0x00, 0xFF, 0x18, 0x05, 0x11, 0x22, 0x33, 0x04, 0x03, 0x02, 0x01, 0x3F, 0x42, 0x0F, 0x00},
         0x18FF0001,
         0x05,
         "\x11\x22\x33",
         11,
         0x01020304,
         999999},
        // 0x123, flags 0x00, data AA BB: no stamp, 0/0.
        {"plain", {0x23, 0x01, 0x00, 0x00, 0x00, 0xAA, 0xBB}, 0x123, 0, "\xAA\xBB", 2, 0, 0},
        // The flags byte is sign-extended: 0x84 reads as -124, stamp bit set,
        // only 3 bytes behind the header: length 0, stamp left as it was.
        {"short stamp", {0x7F, 0x00, 0x00, 0x00, 0x84, 0x01, 0x02, 0x03}, 0x7F, -124, "", 3, 0, 0},
        // Remote frame without data.
        {"empty", {0x00, 0x02, 0x00, 0x00, 0x02}, 0x200, 0x02, "", 0, 0, 0},
    };
    for (const SCase& oCase : aoCases)
    {
        SFrameInd oInd;
        const COrvaneMsg oMsg = Ind(eIndFrame, oCase.anPayload);
        ASSERT_TRUE(DecodeFrame(oMsg, oInd)) << oCase.pName;
        EXPECT_EQ(oInd.nIdentifier, oCase.nIdentifier) << oCase.pName;
        EXPECT_EQ(oInd.nFlags, oCase.nFlags) << oCase.pName;
        EXPECT_EQ(Str(oInd.pcData, oInd.nLength), oCase.sData) << oCase.pName;
        EXPECT_EQ(oInd.nRawLength, oCase.nRawLength) << oCase.pName;
        EXPECT_EQ(oInd.oTime.tv_sec, oCase.nSeconds) << oCase.pName;
        EXPECT_EQ(oInd.oTime.tv_usec, oCase.nMicroseconds) << oCase.pName;
    }
}

TEST(CanIndicationDecode, FrameLengthLimitCountsAfterTheTimeStamp)
{
    std::vector<unsigned char> anHeader = {0x01, 0x00, 0x00, 0x00, 0x00};
    auto Frame = [&](unsigned char nFlags, std::size_t nBytes) {
        std::vector<unsigned char> anPayload = anHeader;
        anPayload[4] = nFlags;
        anPayload.resize(anPayload.size() + nBytes, 0x5A);
        return Ind(eIndFrame, anPayload);
    };
    SFrameInd oInd;
    EXPECT_TRUE(DecodeFrame(Frame(0x00, 64), oInd));
    EXPECT_FALSE(DecodeFrame(Frame(0x00, 65), oInd));
    EXPECT_TRUE(DecodeFrame(Frame(0x04, 72), oInd)); // 64 data bytes + stamp
    EXPECT_EQ(oInd.nLength, 64);
    EXPECT_FALSE(DecodeFrame(Frame(0x04, 73), oInd));
    EXPECT_FALSE(DecodeFrame(Ind(eIndFrame, {0x01, 0x00, 0x00, 0x00}), oInd)) << "shorter than the header";
}

TEST(CanIndicationDecode, GetTimeKeepsStampWhenTooShortAndClearsItWithoutFlag)
{
    const char acStamp[] = {0x10, 0x00, 0x00, 0x00, 0x20, 0x00, 0x00, 0x00};
    timeval oTime = {7, 8};
    int nLength = 7;
    EXPECT_TRUE(GetTime(FRAME_FLAG_TIMESTAMP, acStamp, nLength, oTime));
    EXPECT_EQ(nLength, 0);
    EXPECT_EQ(oTime.tv_sec, 7);
    EXPECT_EQ(oTime.tv_usec, 8);
    nLength = 8;
    EXPECT_TRUE(GetTime(FRAME_FLAG_TIMESTAMP | FRAME_FLAG_EXTENDED, acStamp, nLength, oTime));
    EXPECT_EQ(nLength, 0);
    EXPECT_EQ(oTime.tv_sec, 0x10);
    EXPECT_EQ(oTime.tv_usec, 0x20);
    nLength = 8;
    EXPECT_FALSE(GetTime(FRAME_FLAG_EXTENDED, acStamp, nLength, oTime));
    EXPECT_EQ(nLength, 8);
    EXPECT_EQ(oTime.tv_sec, 0);
    EXPECT_EQ(oTime.tv_usec, 0);
}

TEST(CanIndicationDecode, PDOLengthIsCappedAtEightAndAtTheBytesPresent)
{
    struct SCase
    {
        std::vector<unsigned char> anPayload;
        std::string sData;
    };
    const SCase aoCases[] = {
        {{0x05, 0x01, 0x02, 0xA1, 0xA2}, "\xA1\xA2"},
        {{0x05, 0x01, 0x09, 1, 2, 3, 4, 5, 6, 7, 8, 9}, "\x01\x02\x03\x04\x05\x06\x07\x08"},
        {{0x05, 0x01, 0x04, 0xA1}, "\xA1"},
        {{0x05, 0x01}, ""},
    };
    for (const SCase& oCase : aoCases)
    {
        SPDOInd oPdo;
        const COrvaneMsg oMsg = Ind(eIndPDO, oCase.anPayload);
        DecodePDO(oMsg, oPdo);
        EXPECT_EQ(oPdo.nNodeID, 5);
        EXPECT_EQ(oPdo.nPDOType, 1);
        EXPECT_EQ(Str(oPdo.pcData, oPdo.nLength), oCase.sData);
    }
}

} // namespace
