// Indication decoders and the bounded receive queue, on telegrams whose
// payload bytes are written out by hand.
#include "OrvaneCanIndication.h"
#include "OrvaneMsgQueue.h"

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

TEST(CanIndicationDecode, CANopenIndications)
{
    SSYNCInd oSync;
    DecodeSYNC(Ind(eIndSYNC, {0x2A}), oSync);
    EXPECT_EQ(oSync.nCounter, 0x2A);

    // Node 5, error code 0x8130, register 0x11, data 01..05.
    SEMCYInd oEmcy;
    DecodeEMCY(Ind(eIndEMCY, {0x05, 0x30, 0x81, 0x11, 0x01, 0x02, 0x03, 0x04, 0x05}), oEmcy);
    EXPECT_EQ(oEmcy.nNodeID, 5);
    EXPECT_EQ(oEmcy.nErrorCode, 0x8130);
    EXPECT_EQ(oEmcy.nErrorRegister, 0x11);
    EXPECT_EQ(std::vector<unsigned char>(oEmcy.anData, oEmcy.anData + 5), (std::vector<unsigned char>{1, 2, 3, 4, 5}));
    // Cut short: a field the payload does not reach whole reads as 0.
    DecodeEMCY(Ind(eIndEMCY, {0x06, 0x10}), oEmcy);
    EXPECT_EQ(oEmcy.nNodeID, 6);
    EXPECT_EQ(oEmcy.nErrorCode, 0);
    EXPECT_EQ(oEmcy.anData[0], 0);

    SGUARDInd oGuard;
    DecodeGUARD(Ind(eIndGUARD, {0x7F, 0x05}), oGuard);
    EXPECT_EQ(oGuard.nNodeID, 0x7F);
    EXPECT_EQ(oGuard.nState, 0x05);

    // Undefined message: identifier 0x701 as s32, flags 0, data 7F, and its
    // first two payload bytes 01 07 on their own.
    SUndefinedInd oUndefined;
    const COrvaneMsg oMsg = Ind(eIndUndefined, {0x01, 0x07, 0x00, 0x00, 0x00, 0x7F});
    ASSERT_TRUE(DecodeUndefined(oMsg, oUndefined));
    EXPECT_EQ(oUndefined.nIdentifier, 0x701);
    EXPECT_EQ(oUndefined.nByte0, 0x01);
    EXPECT_EQ(oUndefined.nByte1, 0x07);
    EXPECT_EQ(Str(oUndefined.oFrame.pcData, oUndefined.oFrame.nLength), "\x7F");
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

TEST(OrvaneMsgQueue, FullQueueKeepsTheOldestAndCountsWhatIsLeft)
{
    COrvaneMsgQueue oQueue;
    EXPECT_EQ(oQueue.GetMaxSize(), 1000u);
    oQueue.SetMaxSize(2);
    for (unsigned char n = 1; n <= 3; ++n)
        EXPECT_EQ(oQueue.Push(Ind(eIndSYNC, {n})), n <= 2) << int(n);
    COrvaneMsg oMsg;
    EXPECT_EQ(oQueue.Pop(oMsg), 1);
    EXPECT_EQ(oMsg.GetData(), "\x01");
    EXPECT_TRUE(oQueue.Push(Ind(eIndSYNC, {4})));
    EXPECT_EQ(oQueue.Pop(oMsg), 1);
    EXPECT_EQ(oMsg.GetData(), "\x02");
    EXPECT_EQ(oQueue.Pop(oMsg), 0);
    EXPECT_EQ(oMsg.GetData(), "\x04");
    EXPECT_EQ(oQueue.Pop(oMsg), -1);
    EXPECT_EQ(oMsg.GetData(), "\x04") << "an empty queue leaves the output alone";

    oQueue.Push(Ind(eIndSYNC, {5}));
    oQueue.Clear();
    EXPECT_EQ(oQueue.Size(), 0);
}

} // namespace
