// CAN and CANopen commands of COrvaneClientCAN without sockets: the request
// bytes (worked out by hand) and the reading of confirmations.
#include "KelLocalTime.h"
#include "OrvaneProtocol.h"
#include "support/ClientSeams.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>

using namespace ClientTest;

TEST(OrvaneClientCAN, RequestBytes)
{
    struct SCase
    {
        const char* pcName;
        std::function<int(COrvaneClientCAN&)> fnCall;
        unsigned short nCode;
        std::string sPayload;
    };
    const char acFrame[] = {0x11, 0x22};
    const unsigned char acBlock[] = {1, 2, 3};
    SConfigFilter oFilter = {};
    oFilter.m_anWords[0] = 0x04030201;
    oFilter.m_anWords[15] = 0x80000000;
    unsigned char nByte;
    unsigned short nShort;
    unsigned int nWord;
    const SCase aoCases[] = {
        {"Write", [&](COrvaneClientCAN& c) { return c.Write(0x123, acFrame, 2, 0x01, nullptr, nullptr); }, 0x0203,
         Bytes({0x23, 0x01, 0, 0, 0x01, 0x11, 0x22})},
        {"SetConfig", [](COrvaneClientCAN& c) { return c.SetConfig(true, false); }, 0x0205, Bytes({1, 0})},
        {"SetGlobals", [](COrvaneClientCAN& c) { return c.SetGlobals(125000, 'x', true, false, true); }, 0x0207,
         Bytes({'x', 0x48, 0xE8, 0x01, 0x00, 1, 0, 1})},
        {"SetTime",
         [](COrvaneClientCAN& c) {
             return c.SetTime(timeval{-2, 999999});
         },
         0x020B, Bytes({0xFE, 0xFF, 0xFF, 0xFF, 0x3F, 0x42, 0x0F, 0x00})},
        {"SetFilter", [&](COrvaneClientCAN& c) { return c.SetFilter(oFilter); }, 0x0220,
         Bytes({1, 2, 3, 4}) + std::string(56, '\0') + Bytes({0, 0, 0, 0x80})},
        {"SetPowerRelais", [](COrvaneClientCAN& c) { return c.SetPowerRelais(true); }, 0x0223, Bytes({1})},
        {"SetActivePowerSupplies", [](COrvaneClientCAN& c) { return c.SetActivePowerSupplies(0x0B); }, 0x0224,
         Bytes({0x0B, 0, 0, 0})},
        {"SetZCardParameter", [](COrvaneClientCAN& c) { return c.SetZCardParameter(5, 0x100, 0x200); }, 0x0251,
         Bytes({5, 0, 1, 0, 2, 0, 2})},
        {"CANopenSetConfig", [](COrvaneClientCAN& c) { return c.CANopenSetConfig(1); }, 0x0260, Bytes({1})},
        {"CANopenSetSYNCMode", [](COrvaneClientCAN& c) { return c.CANopenSetSYNCMode(1000); }, 0x0262,
         Bytes({0xE8, 0x03})},
        {"CANopenSendNMT", [](COrvaneClientCAN& c) { return c.CANopenSendNMT(5, 0x81); }, 0x0263, Bytes({5, 0x81})},
        {"CANopenSendSYNC", [](COrvaneClientCAN& c) { return c.CANopenSendSYNC(); }, 0x0264, ""},
        {"CANopenSendTIME", [](COrvaneClientCAN& c) { return c.CANopenSendTIME(0x1234, 0xABCDEF); }, 0x0265,
         Bytes({0x34, 0x12, 0xEF, 0xCD, 0xAB, 0})},
        {"CANopenSendPDO", [](COrvaneClientCAN& c) { return c.CANopenSendPDO(3, 1, 2, "\xAA\xBB"); }, 0x0267,
         Bytes({3, 1, 0xAA, 0xBB})},
        {"CANopenSendSDORead",
         [&](COrvaneClientCAN& c) { return c.CANopenSendSDORead(0x7F, 0x1018, 2, 1000, nByte, nWord); }, 0x0268,
         Bytes({0x7F, 0x18, 0x10, 2, 0xE8, 0x03})},
        {"CANopenSendSDOWrite",
         [&](COrvaneClientCAN& c) {
             return c.CANopenSendSDOWrite(0x7F, 0x23, 0x2000, 1, 500, 0xDEADBEEF, nByte, nWord);
         },
         0x0269, Bytes({0x7F, 0x23, 0x00, 0x20, 1, 0xF4, 0x01, 0xEF, 0xBE, 0xAD, 0xDE})},
        {"CANopenSendSDOReadBlock",
         [&](COrvaneClientCAN& c) { return c.CANopenSendSDOReadBlock(1, 0x1008, 0, 100, 0, nByte, nShort, nullptr); },
         0x026A, Bytes({1, 0x08, 0x10, 0, 100, 0})},
        {"CANopenSendSDOWriteBlock",
         [&](COrvaneClientCAN& c) { return c.CANopenSendSDOWriteBlock(1, 0x1008, 0, 100, 3, acBlock, nByte, nWord); },
         0x026B, Bytes({1, 0x08, 0x10, 0, 100, 0, 1, 2, 3})},
    };
    for (const SCase& oCase : aoCases)
    {
        CScriptedClient oClient;
        oClient.ReplyWith(Bytes({0}));
        oClient.SetConfig(true, false); // so that Write waits for its confirmation
        EXPECT_EQ(oCase.fnCall(oClient), 0) << oCase.pcName;
        ASSERT_FALSE(oClient.Sent().empty());
        const COrvaneMsg oSent = oClient.Sent().back();
        EXPECT_EQ(oSent.GetCmdCode(), oCase.nCode) << oCase.pcName;
        EXPECT_EQ(oSent.GetData(), oCase.sPayload) << oCase.pcName;
    }

    // One whole telegram: the first request after Open has ID 2.
    CScriptedClient oClient;
    oClient.ReplyWith(Bytes({0}));
    oClient.COrvaneClient::Open();
    ASSERT_EQ(oClient.SetZCardParameter(5, 0x100, 0x200), 0);
    EXPECT_EQ(oClient.Sent().back().GetMessageData(), Bytes({0x0C, 0, 0x51, 0x02, 2, 0, 5, 0, 1, 0, 2, 0, 2, 0x55}));
}

TEST(OrvaneClientCAN, GlobalsConfigTimeAndFilterConfirmations)
{
    CScriptedClient oClient;
    unsigned int nBaud = 7;
    unsigned char nMode = 7;
    bool bTerm = true, bHigh = true, bStamp = true;
    // Seven bytes: mode, baud rate and termination; the missing flags read false.
    oClient.ReplyWith(Bytes({0, 'M', 0x40, 0x42, 0x0F, 0x00, 1}));
    ASSERT_EQ(oClient.GetGlobals(nBaud, nMode, bTerm, bHigh, bStamp), 0);
    EXPECT_EQ(nMode, 'M');
    EXPECT_EQ(nBaud, 1000000u);
    EXPECT_TRUE(bTerm);
    EXPECT_FALSE(bHigh);
    EXPECT_FALSE(bStamp);
    // Only a byte of 1 is true.
    oClient.ReplyWith(Bytes({0, 'M', 0x40, 0x42, 0x0F, 0x00, 2, 1, 1}));
    ASSERT_EQ(oClient.GetGlobals(nBaud, nMode, bTerm, bHigh, bStamp), 0);
    EXPECT_FALSE(bTerm);
    EXPECT_TRUE(bHigh);
    EXPECT_TRUE(bStamp);
    // Five bytes or fewer: nothing is touched.
    oClient.ReplyWith(Bytes({0, 1, 2, 3, 4}));
    ASSERT_EQ(oClient.GetGlobals(nBaud, nMode, bTerm, bHigh, bStamp), 0);
    EXPECT_EQ(nMode, 'M');
    EXPECT_TRUE(bHigh);

    bool bConfirm = false, bMonitor = true;
    oClient.ReplyWith(Bytes({0, 1, 2}));
    ASSERT_EQ(oClient.GetConfig(bConfirm, bMonitor), 0);
    EXPECT_TRUE(bConfirm);
    EXPECT_FALSE(bMonitor);
    EXPECT_TRUE(oClient.GetConfirmData());
    // A failed SetConfig leaves the flag as it was.
    oClient.ReplyWith(Bytes({0xFF}));
    EXPECT_EQ(oClient.SetConfig(false, false), 0x2FF);
    EXPECT_TRUE(oClient.GetConfirmData());

    bool bValid = false;
    timeval oTime = {};
    oClient.ReplyWith(Bytes({0, 2, 0x10, 0, 0, 0, 0x20, 0, 0, 0}));
    ASSERT_EQ(oClient.GetTime(bValid, oTime), 0);
    EXPECT_TRUE(bValid);
    EXPECT_EQ(oTime.tv_sec, 0x10);
    EXPECT_EQ(oTime.tv_usec, 0x20);

    SConfigFilter oFilter = {};
    oClient.ReplyWith(Bytes({0, 1, 2, 3, 4}) + std::string(56, '\0') + Bytes({0, 0, 0, 0x80}));
    ASSERT_EQ(oClient.GetFilter(oFilter), 0);
    EXPECT_EQ(oFilter.m_anWords[0], 0x04030201u);
    EXPECT_EQ(oFilter.m_anWords[15], 0x80000000u);
}

TEST(OrvaneClientCAN, SignedByteArithmeticOfZCardAndSdoValues)
{
    CScriptedClient oClient;
    unsigned char nInterval = 0;
    unsigned short nStart = 0, nEnd = 0;
    oClient.ReplyWith(Bytes({0, 7, 0x80, 0x01, 0xFF, 0x7F}));
    ASSERT_EQ(oClient.GetZCardParameter(nInterval, nStart, nEnd), 0);
    EXPECT_EQ(nInterval, 7);
    EXPECT_EQ(nStart, 0x0080);
    EXPECT_EQ(nEnd, 0x7EFF);

    struct SCase
    {
        std::string sPayload;
        unsigned char nResult;
        unsigned int nValue;
    };
    const SCase aoCases[] = {
        {Bytes({0, 0, 0x80, 0, 0, 0}), 0, 0xFFFFFF80},
        {Bytes({0, 5, 0x01, 0x80, 0, 0}), 5, 0xFFFF8001},
        {Bytes({0, 0, 0x78, 0x56, 0x34, 0x12}), 0, 0x12345678},
        {Bytes({0, 6, 0x34}), 6, 0x34},
        {Bytes({0, 6}), 6, 0xAAAA},
    };
    for (const SCase& oCase : aoCases)
    {
        unsigned char nResult = 0xAA;
        unsigned int nValue = 0xAAAA, nAbort = 0xAAAA;
        oClient.ReplyWith(oCase.sPayload);
        ASSERT_EQ(oClient.CANopenSendSDORead(1, 0x1000, 0, 10, nResult, nValue), 0);
        EXPECT_EQ(nResult, oCase.nResult);
        EXPECT_EQ(nValue, oCase.nValue) << std::hex << nValue;
        ASSERT_EQ(oClient.CANopenSendSDOWrite(1, 0, 0x1000, 0, 10, 0, nResult, nAbort), 0);
        EXPECT_EQ(nAbort, oCase.nValue);
    }
}

TEST(OrvaneClientCAN, SdoReadBlockCopiesFromTheResultByteOn)
{
    CScriptedClient oClient;
    oClient.ReplyWith(Bytes({0, 9, 1, 2, 3, 4, 5, 6, 7, 8}));
    unsigned char nResult = 0;
    unsigned short nLen = 0;
    unsigned char acData[20] = {};
    ASSERT_EQ(oClient.CANopenSendSDOReadBlock(1, 0x1008, 0, 10, 4, nResult, nLen, acData), 0);
    EXPECT_EQ(nResult, 9);
    EXPECT_EQ(nLen, 4);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(acData), 5), Bytes({9, 1, 2, 3, 0}));
    ASSERT_EQ(oClient.CANopenSendSDOReadBlock(1, 0x1008, 0, 10, 20, nResult, nLen, acData), 0);
    EXPECT_EQ(nLen, 8);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(acData), 9), Bytes({9, 1, 2, 3, 4, 5, 6, 7, 0}));
    EXPECT_EQ(oClient.CANopenSendSDOReadBlock(1, 0x1008, 0, 10, 4, nResult, nLen, nullptr),
              ORVANE_ERR_INVALID_PARAMETER);
}

TEST(OrvaneClientCAN, SdoServicesWaitTwiceTheirTimeout)
{
    // The default time-out is far longer: an SDO read that used it would hang.
    CScriptedClient oClient(600000);
    unsigned char nResult;
    unsigned int nValue;
    const auto oStart = std::chrono::steady_clock::now();
    EXPECT_EQ(oClient.CANopenSendSDORead(1, 0x1000, 0, 100, nResult, nValue), ORVANE_ERR_TCP_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - oStart, std::chrono::milliseconds(200));
}

TEST(OrvaneClientCAN, PowerStatusWalksItsLists)
{
    // 2 values, 3 A flags, 1 B flag; room for 1 value, 2 A flags, 1 B flag.
    const std::string sFull = Bytes({0, 2, 3, 1, 0xFB, 0xFF, 0x10, 0, 0x20, 0, 0x03, 1, 0, 2, 0, 1, 0, 3, 2});
    struct SCase
    {
        std::string sPayload;
        int nExpected;
        bool bFilled;
    };
    const SCase aoCases[] = {
        {sFull, 0, true},
        {sFull.substr(0, sFull.size() - 1), 0xC0200, false}, // B list cut short
        {Bytes({0, 0, 0, 0, 1, 0, 2, 0, 3, 0, 1, 0}), 0, false},
    };
    for (const SCase& oCase : aoCases)
    {
        CScriptedClient oClient;
        oClient.ReplyWith(oCase.sPayload);
        unsigned char nValues = 99, nFlagsA = 99, nFlagsB = 99;
        short nValue1 = 99;
        unsigned short nValue2 = 99, nValue3 = 99;
        bool bFlag = false;
        unsigned short anValues[2] = {99, 99};
        bool abA[3] = {false, true, false}, abB[1] = {true};
        EXPECT_EQ(oClient.GetPowerStatus(1, nValues, 2, nFlagsA, 1, nFlagsB, nValue1, nValue2, nValue3, bFlag, anValues,
                                         abA, abB),
                  oCase.nExpected);
        if (!oCase.bFilled)
        {
            EXPECT_EQ(nValues, 99);
            EXPECT_EQ(anValues[0], 99);
            continue;
        }
        EXPECT_EQ(nValues, 2);
        EXPECT_EQ(nFlagsA, 3);
        EXPECT_EQ(nFlagsB, 1);
        EXPECT_EQ(nValue1, -5);
        EXPECT_EQ(nValue2, 0x10);
        EXPECT_EQ(nValue3, 0x20);
        EXPECT_TRUE(bFlag);
        EXPECT_EQ(anValues[0], 1);
        EXPECT_EQ(anValues[1], 99);
        EXPECT_TRUE(abA[0]);
        EXPECT_FALSE(abA[1]);
        EXPECT_FALSE(abA[2]);
        EXPECT_FALSE(abB[0]);
    }
}

TEST(OrvaneClientCAN, WriteWithoutConfirmationsReportsTheLocalClock)
{
    // Nobody answers, and the default time-out is long: Write must not wait.
    CScriptedClient oClient(600000);
    // The stamp lies between two readings of the local clock since local
    // midnight of 01.01.1970, taken before and after.
    const CKelLocalTime oEpoch("01.01.1970", CKelUTCTime::eDotDate, 0);
    const auto fnLocalMs = [&] {
        return static_cast<long long>((CKelLocalTime::CurrentLocalTime() - oEpoch).GetTotalMilliSeconds());
    };
    int nSeconds = 0, nMicroseconds = -1;
    const long long nBefore = fnLocalMs();
    ASSERT_EQ(oClient.Write(0x10, "\x01", 1, 0, &nSeconds, &nMicroseconds), 0);
    const long long nAfter = fnLocalMs();
    const long long nStamp = nSeconds * 1000LL + nMicroseconds / 1000;
    EXPECT_LE(nBefore, nStamp);
    EXPECT_LE(nStamp, nAfter);
    EXPECT_GE(nMicroseconds, 0);
    EXPECT_LT(nMicroseconds, 1000000);
    EXPECT_EQ(oClient.Write(0x10, nullptr, 0, 0, nullptr, nullptr), 0);
    EXPECT_EQ(oClient.Write(0x10, nullptr, 1, 0, nullptr, nullptr), ORVANE_ERR_INVALID_PARAMETER);
    oClient.m_nSendResult = ORVANE_ERR_TCP_NOT_CONNECTED;
    EXPECT_EQ(oClient.Write(0x10, nullptr, 0, 0, nullptr, nullptr), ORVANE_ERR_TCP_NOT_CONNECTED);
    EXPECT_EQ(oClient.Sent().size(), 3u);
}

TEST(OrvaneClientCAN, WriteWithConfirmationsReportsTheGatewayTime)
{
    struct SCase
    {
        const char* pcName;
        unsigned short nCnfCode;
        std::string sPayload;
        int nExpected;
        int nSeconds, nMicroseconds;
    };
    const std::string sStamp = Bytes({0x21, 0x10, 0, 0, 0, 0x20, 0, 0, 0});
    const SCase aoCases[] = {
        {"confirmed", 0x8203, Bytes({0}) + sStamp.substr(1), 0, 0x10, 0x20},
        {"device error, stamp still read", 0x8203, sStamp, 0x221, 0x10, 0x20},
        {"other command, stamp still read", 0x8207, Bytes({0}) + sStamp.substr(1), 0xB0000, 0x10, 0x20},
        {"too short for a stamp", 0x8203, Bytes({0, 1, 2, 3, 4, 5, 6, 7}), 0, -1, -1},
    };
    for (const SCase& oCase : aoCases)
    {
        CScriptedClient oClient;
        oClient.ReplyWith(Bytes({0}));
        ASSERT_EQ(oClient.Open(true, false), 0);
        ASSERT_TRUE(oClient.GetConfirmData());
        oClient.m_fnReply = [&](const COrvaneMsg& oRequest) {
            return std::vector<std::string>{Wire(oCase.nCnfCode, oRequest.GetMsgID(), oCase.sPayload)};
        };
        int nSeconds = -1, nMicroseconds = -1;
        EXPECT_EQ(oClient.Write(0x10, "\x01", 1, 0, &nSeconds, &nMicroseconds), oCase.nExpected) << oCase.pcName;
        EXPECT_EQ(nSeconds, oCase.nSeconds) << oCase.pcName;
        EXPECT_EQ(nMicroseconds, oCase.nMicroseconds) << oCase.pcName;
        EXPECT_EQ(oClient.Write(0x10, "\x01", 1, 0, nullptr, nullptr), oCase.nExpected) << oCase.pcName;
        // Open's SetConfig had ID 2, the writes 3 and 4.
        EXPECT_EQ(oClient.Sent().back().GetMsgID(), 4);
    }
}
