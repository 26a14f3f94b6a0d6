// The request/confirmation engine and the device commands through the
// client's own seams (SendMsg override, DataInd), without sockets. Request
// bytes and confirmation layouts are worked out by hand.
#include "KelLocalTime.h"
#include "OrvaneProtocol.h"
#include "support/ClientSeams.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>

using namespace ClientTest;

namespace
{

const unsigned int ZERO = 0;

COrvaneMsg Request(short nId)
{
    return COrvaneMsg(OrvaneCan::eCmdGetGlobals, nId, nullptr, 0);
}

} // namespace

TEST(OrvaneClientEngine, ResultOfAWaitAndOfTheDevice)
{
    using FReply = std::function<std::string(const COrvaneMsg&)>;
    struct SCase
    {
        const char* pcName;
        FReply fnReply;
        int nSendResult, nExpected;
        bool bTelegram;
    };
    const SCase aoCases[] = {
        {"confirmed", [](const COrvaneMsg& o) { return Confirmation(o, Hex("00")); }, 0, 0, true},
        {"wrong CRC",
         [](const COrvaneMsg& o) {
             std::string s = Confirmation(o, Hex("00"));
             s.back() ^= 1;
             return s;
         },
         0, ORVANE_ERR_TELEGRAM_CRC, true},
        {"other command", [](const COrvaneMsg& o) { return Wire(0x8207, o.GetMsgID(), Hex("00")); }, 0,
         ORVANE_ERR_TELEGRAM_NOT_CONFIRMED, true},
        {"no confirmation bit", [](const COrvaneMsg& o) { return Wire(0x0208, o.GetMsgID(), Hex("00")); }, 0,
         ORVANE_ERR_TCP_TIMEOUT, false},
        {"other ID", [](const COrvaneMsg& o) { return Wire(0x8208, o.GetMsgID() + 1, Hex("00")); }, 0,
         ORVANE_ERR_TCP_TIMEOUT, false},
        {"send failed", nullptr, ORVANE_ERR_TCP_NOT_CONNECTED, ORVANE_ERR_TCP_NOT_CONNECTED, false},
    };
    for (const SCase& oCase : aoCases)
    {
        CScriptedClient oClient;
        if (oCase.fnReply)
            oClient.m_fnReply = [&](const COrvaneMsg& o) { return std::vector<std::string>{oCase.fnReply(o)}; };
        oClient.m_nSendResult = oCase.nSendResult;
        COrvaneMsg* poCnf = nullptr;
        // A time-out of 0 looks once and never sleeps.
        EXPECT_EQ(oClient.SendMsg(Request(40), poCnf, &ZERO), oCase.nExpected) << oCase.pcName;
        EXPECT_EQ(poCnf != nullptr, oCase.bTelegram) << oCase.pcName;
        delete poCnf;
    }

    // The device's result byte, combined with the device type.
    CScriptedClient oClient;
    for (const auto& oResult : {std::make_pair("", 0xC0200), {"00 44", 0}, {"21", 0x221}, {"FE 00", 0x2FE}})
    {
        oClient.ReplyWith(oResult.first);
        EXPECT_EQ(oClient.SetPowerRelais(true), oResult.second) << oResult.first;
    }
    for (const auto& oTcp : {std::make_pair(1, 0), {7, 1}, {2, 0x20000}, {4, 0x40000}, {6, 0x60000}})
        EXPECT_EQ(COrvaneClient::ConvertTCPRetCode(oTcp.first), oTcp.second);
}

TEST(OrvaneClientEngine, StoreKeepsLateAndLatestConfirmationsForTenTimeouts)
{
    CScriptedClient oClient;
    COrvaneMsg oCnf;
    // A confirmation that comes too late is collected by the next request
    // with its ID.
    ASSERT_EQ(oClient.SendMsg(Request(77), oCnf, &ZERO), ORVANE_ERR_TCP_TIMEOUT);
    oClient.Feed(Confirmation(Request(77), Hex("00 01")));
    ASSERT_EQ(oClient.SendMsg(Request(77), oCnf, &ZERO), 0);
    EXPECT_EQ(oCnf.GetMessageData(), Confirmation(Request(77), Hex("00 01")));

    // Two under one ID: the later one replaces the earlier.
    oClient.Feed(Confirmation(Request(-5), Hex("00 01")));
    oClient.Feed(Confirmation(Request(-5), Hex("00 02")));
    std::unique_ptr<COrvaneMsg> oMsg(oClient.GetMsg(-5));
    ASSERT_TRUE(oMsg);
    EXPECT_EQ(oMsg->GetData(), Hex("00 02"));

    // Ten time-outs in whole seconds: 5000 ms keeps them, 50 ms (0 s) not.
    oClient.Feed(Confirmation(Request(3), Hex("00")));
    EXPECT_EQ(oClient.WaitForMsg(4, &ZERO), nullptr);
    std::unique_ptr<COrvaneMsg> oKept(oClient.GetMsg(3));
    EXPECT_TRUE(oKept);
    CScriptedClient oShort(50);
    oShort.Feed(Confirmation(Request(3), Hex("00")));
    EXPECT_EQ(oShort.WaitForMsg(4, &ZERO), nullptr);
    EXPECT_EQ(oShort.GetMsg(3), nullptr);
}

TEST(OrvaneClientEngine, TelegramIdsStartAtTwoAndWrap)
{
    CScriptedClient oClient;
    oClient.m_nSendResult = ORVANE_ERR_TCP_NOT_CONNECTED;
    oClient.COrvaneClient::Open();
    oClient.Restart();
    EXPECT_EQ(oClient.LastSent().GetMsgID(), 2);
    while (oClient.NextTelegramID() != 32766)
    {
    }
    oClient.Restart();
    EXPECT_EQ(oClient.LastSent().GetMsgID(), 32767);
    oClient.Restart();
    EXPECT_EQ(oClient.LastSent().GetMsgID(), -32768);
}

TEST(OrvaneClientCommands, RequestBytes)
{
    unsigned char n8;
    unsigned short n16;
    unsigned int n32;
    SConfigFilter oFilter = {};
    oFilter.m_anWords[0] = 0x04030201;
    oFilter.m_anWords[15] = 0x80000000;
    const unsigned char acBlock[] = {1, 2, 3};
    const unsigned int anAnalog[] = {0x11223344, 5};
    std::string sZeros; // the 14 words between the first and the last filter word
    for (int i = 0; i < 56; ++i)
        sZeros += " 00";
    struct SCase
    {
        std::function<int(COrvaneClientCAN&)> fnCall;
        unsigned short nCode;
        std::string sPayload;
    };
    const SCase aoCases[] = {
        {[](COrvaneClientCAN& c) { return c.Write(0x123, "\x11\x22", 2, 1, nullptr, nullptr); }, 0x203,
         "23 01 00 00 01 11 22"},
        {[](COrvaneClientCAN& c) { return c.SetConfig(true, false); }, 0x205, "01 00"},
        {[](COrvaneClientCAN& c) { return c.SetGlobals(125000, 'x', true, false, true); }, 0x207,
         "78 48 E8 01 00 01 00 01"},
        {[](COrvaneClientCAN& c) {
             return c.SetTime(timeval{-2, 999999});
         },
         0x20B, "FE FF FF FF 3F 42 0F 00"},
        {[&](COrvaneClientCAN& c) { return c.SetFilter(oFilter); }, 0x220, "01 02 03 04" + sZeros + " 00 00 00 80"},
        {[](COrvaneClientCAN& c) { return c.SetActivePowerSupplies(0x0B); }, 0x224, "0B 00 00 00"},
        {[](COrvaneClientCAN& c) { return c.SetZCardParameter(5, 0x100, 0x200); }, 0x251, "05 00 01 00 02 00 02"},
        {[](COrvaneClientCAN& c) { return c.CANopenSetSYNCMode(1000); }, 0x262, "E8 03"},
        {[](COrvaneClientCAN& c) { return c.CANopenSendSYNC(); }, 0x264, ""},
        {[](COrvaneClientCAN& c) { return c.CANopenSendTIME(0x1234, 0xABCDEF); }, 0x265, "34 12 EF CD AB 00"},
        {[](COrvaneClientCAN& c) { return c.CANopenSendPDO(3, 1, 2, "\xAA\xBB"); }, 0x267, "03 01 AA BB"},
        {[&](COrvaneClientCAN& c) { return c.CANopenSendSDORead(0x7F, 0x1018, 2, 1000, n8, n32); }, 0x268,
         "7F 18 10 02 E8 03"},
        {[&](COrvaneClientCAN& c) { return c.CANopenSendSDOWrite(0x7F, 0x23, 0x2000, 1, 500, 0xDEADBEEF, n8, n32); },
         0x269, "7F 23 00 20 01 F4 01 EF BE AD DE"},
        {[&](COrvaneClientCAN& c) { return c.CANopenSendSDOReadBlock(1, 0x1008, 0, 100, 0, n8, n16, nullptr); }, 0x26A,
         "01 08 10 00 64 00"},
        {[&](COrvaneClientCAN& c) { return c.CANopenSendSDOWriteBlock(1, 0x1008, 0, 100, 3, acBlock, n8, n32); }, 0x26B,
         "01 08 10 00 64 00 01 02 03"},
        {[&](COrvaneClientCAN& c) { return c.WriteAnalog(anAnalog, 2); }, 0x243, "02 00 44 33 22 11 05 00 00 00"},
        {[](COrvaneClientCAN& c) { return c.WriteDigital(0xA5); }, 0x241, "A5 00 00 00"},
        {[](COrvaneClientCAN& c) { return c.Restart(); }, 0x20C, ""},
    };
    for (const SCase& oCase : aoCases)
    {
        CScriptedClient oClient;
        oClient.ReplyWith("00");
        oClient.SetConfig(true, false); // so that Write waits for its confirmation
        EXPECT_EQ(oCase.fnCall(oClient), 0) << oCase.sPayload;
        EXPECT_EQ(oClient.LastSent().GetCmdCode(), oCase.nCode);
        EXPECT_EQ(oClient.LastSent().GetData(), Hex(oCase.sPayload)) << std::hex << oCase.nCode;
    }

    // One whole telegram: the first request after Open has ID 2.
    CScriptedClient oClient;
    oClient.ReplyWith("00");
    oClient.COrvaneClient::Open();
    ASSERT_EQ(oClient.SetZCardParameter(5, 0x100, 0x200), 0);
    EXPECT_EQ(oClient.LastSent().GetMessageData(), Hex("0C 00 51 02 02 00 05 00 01 00 02 00 02 55"));
}

// Each call below answered with the payload given; the result code comes
// first in each expectation, then the outputs (sentinels where untouched).
TEST(OrvaneClientCommands, ReadingConfirmations)
{
    CScriptedClient c;
    int r;
    unsigned int nBaud = 9, nValue = 9, nIn = 9, nOut = 9, anIn[3] = {9, 9, 9};
    unsigned char nMode = 9, nResult = 9, acData[5] = {};
    unsigned short n16a = 9, n16b = 9;
    bool bT = false, bH = true, bS = true, bConfirm = false, bMonitor = true;

    // GetGlobals: from six bytes on the flags are cleared before those present are read.
    c.ReplyWith("00 4D 40 42 0F 00 01");
    r = c.GetGlobals(nBaud, nMode, bT, bH, bS);
    EXPECT_EQ(Out(r, nBaud, nMode, bT, bH, bS), "0 1000000 77 1 0 0");
    c.ReplyWith("00 4E 00 00 00 00 02 01 01"); // only a byte of 1 is true
    r = c.GetGlobals(nBaud, nMode, bT, bH, bS);
    EXPECT_EQ(Out(r, nBaud, nMode, bT, bH, bS), "0 0 78 0 1 1");
    c.ReplyWith("00 4D 40 42 0F");
    r = c.GetGlobals(nBaud, nMode, bT, bH, bS);
    EXPECT_EQ(Out(r, nBaud, nMode, bT, bH, bS), "0 0 78 0 1 1");

    c.ReplyWith("00 01 02");
    r = c.GetConfig(bConfirm, bMonitor);
    EXPECT_EQ(Out(r, bConfirm, bMonitor, c.GetConfirmData()), "0 1 0 1");
    c.ReplyWith("FF");
    r = c.SetConfig(false, false);
    EXPECT_EQ(Out(r, c.GetConfirmData()), "767 1");
    // GetTime: valid flag, s32 seconds from byte 2, s32 microseconds from byte 6.
    bool bValid = false;
    timeval oTime = {};
    c.ReplyWith("00 01 04 03 02 01 3F 42 0F 00");
    r = c.GetTime(bValid, oTime);
    EXPECT_EQ(Out(r, bValid, oTime.tv_sec, oTime.tv_usec), "0 1 16909060 999999");

    // ZCard and SDO values: signed bytes added, so a byte of 0x80 or more
    // borrows from the one above.
    c.ReplyWith("00 07 80 01 FF 7F");
    r = c.GetZCardParameter(nMode, n16a, n16b);
    EXPECT_EQ(Out(r, nMode, n16a, n16b), "0 7 128 32511");
    c.ReplyWith("00 00 80 00 00 00");
    r = c.CANopenSendSDORead(1, 0x1000, 0, 10, nResult, nValue);
    EXPECT_EQ(Out(r, nResult, nValue), "0 0 4294967168");
    c.ReplyWith("00 05 01 80 00 00");
    r = c.CANopenSendSDOWrite(1, 0, 0x1000, 0, 10, 0, nResult, nValue);
    EXPECT_EQ(Out(r, nResult, nValue), "0 5 4294934529");
    c.ReplyWith("00 06 34");
    r = c.CANopenSendSDOWriteBlock(1, 0x1000, 0, 10, 0, nullptr, nResult, nValue);
    EXPECT_EQ(Out(r, nResult, nValue), "0 6 52");

    // SDO read block: the copy starts with the result byte.
    c.ReplyWith("00 09 01 02 03 04 05 06 07 08");
    r = c.CANopenSendSDOReadBlock(1, 0x1008, 0, 10, 4, nResult, n16a, acData);
    EXPECT_EQ(Out(r, nResult, n16a, acData[0], acData[3], acData[4]), "0 9 4 9 3 0");

    // Power status: the lists are walked in full and stored where there is
    // room; a list running past the end refuses the whole confirmation.
    unsigned char nV = 9, nA = 9, nB = 9;
    short n1 = 9;
    unsigned short anValues[2] = {9, 9};
    bool bFlag = false, abA[3] = {false, true, false}, abB[1] = {true};
    c.ReplyWith("00 02 03 01 FB FF 10 00 20 00 03 01 00 02 00 01 00 03");
    r = c.GetPowerStatus(1, nV, 2, nA, 1, nB, n1, n16a, n16b, bFlag, anValues, abA, abB);
    EXPECT_EQ(Out(r, nV, n1, anValues[0], abB[0]), "786944 9 9 9 1");
    c.ReplyWith("00 02 03 01 FB FF 10 00 20 00 03 01 00 02 00 01 00 03 02");
    r = c.GetPowerStatus(1, nV, 2, nA, 1, nB, n1, n16a, n16b, bFlag, anValues, abA, abB);
    EXPECT_EQ(Out(r, nV, nA, nB, n1, n16a, n16b, bFlag, anValues[0], anValues[1], abA[0], abA[1], abA[2], abB[0]),
              "0 2 3 1 -5 16 32 1 1 9 1 0 0 0");

    // Common commands. Info copies at most 20 bytes into the record.
    SOrvaneDeviceInfo oInfo;
    std::memset(&oInfo, 0x77, sizeof(oInfo));
    c.ReplyWith("00 10 20 30 40");
    r = c.Info(&oInfo);
    EXPECT_EQ(Out(r, oInfo.m_nFirmwareVersion, oInfo.m_nHardwareVersion, oInfo.m_nSerialNumber, oInfo.m_nDeviceType,
                  oInfo.m_nReserved),
              "0 8208 16432 2004318071 2 0");
    c.ReplyWith("00 02 01 03 00 78 56 34 12 02 01 47 57 00 00 00 00 00 00 00 00 AA BB CC DD");
    r = c.Info(&oInfo);
    EXPECT_EQ(Out(r, oInfo.m_nFirmwareVersion, oInfo.m_nSerialNumber, oInfo.m_nPort, std::string(oInfo.m_acName)),
              "0 258 305419896 1 GW");
    EXPECT_EQ(oInfo.m_nDeviceType, eOrvaneCAN);
    c.ReplyWith("00 01 02 03 04 05 06 07"); // too short: untouched, and no device result
    r = c.ReadDigital(nIn, nOut);
    EXPECT_EQ(Out(r, nIn, nOut), "0 9 9");
    c.ReplyWith("21 01 00 00 00 02 00 00 00"); // read whatever the result
    r = c.ReadDigital(nIn, nOut);
    EXPECT_EQ(Out(r, nIn, nOut), "545 1 2");
    c.ReplyWith("00 03 00 01 00 00 00 02 00 00 00 03 00 00 00");
    r = c.ReadAnalog(2, anIn, n16a);
    EXPECT_EQ(Out(r, n16a, anIn[0], anIn[1], anIn[2]), "0 3 1 2 9");
    std::string sStatus = "-";
    c.ReplyWith("00 6F 6B");
    r = c.Status(sStatus);
    EXPECT_EQ(Out(r, sStatus), "0 ok");
}

TEST(OrvaneClientCommands, SdoServicesWaitTwiceTheirTimeout)
{
    // The default time-out is far longer: an SDO read that used it would hang.
    CScriptedClient oClient(600000);
    unsigned char nResult;
    unsigned int nValue;
    const auto oStart = std::chrono::steady_clock::now();
    EXPECT_EQ(oClient.CANopenSendSDORead(1, 0x1000, 0, 100, nResult, nValue), ORVANE_ERR_TCP_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - oStart, std::chrono::milliseconds(200));
}

TEST(OrvaneClientCommands, WriteStampsFramesInBothModes)
{
    // Unconfirmed: no wait (nobody answers, the default time-out is long),
    // and the stamp lies between two readings of the local clock since local
    // midnight of 01.01.1970.
    CScriptedClient oClient(600000);
    const CKelLocalTime oEpoch("01.01.1970", CKelUTCTime::eDotDate, 0);
    const auto fnLocalMs = [&] {
        return static_cast<long long>((CKelLocalTime::CurrentLocalTime() - oEpoch).GetTotalMilliSeconds());
    };
    int nSeconds = 0, nMicroseconds = -1;
    const long long nBefore = fnLocalMs();
    ASSERT_EQ(oClient.Write(0x10, "\x01", 1, 0, &nSeconds, &nMicroseconds), 0);
    const long long nStamp = nSeconds * 1000LL + nMicroseconds / 1000;
    EXPECT_LE(nBefore, nStamp);
    EXPECT_LE(nStamp, fnLocalMs());
    EXPECT_EQ(oClient.Write(0x10, nullptr, 1, 0, nullptr, nullptr), ORVANE_ERR_INVALID_PARAMETER);

    // Confirmed: the gateway's time from any confirmation of 9 bytes or more,
    // whatever its result.
    struct SCase
    {
        unsigned short nCnfCode;
        const char* pcPayload;
        std::string sExpected;
    };
    const SCase aoCases[] = {
        {0x8203, "21 10 00 00 00 20 00 00 00", "545 16 32"},
        {0x8207, "00 10 00 00 00 20 00 00 00", "720896 16 32"},
        {0x8203, "00 01 02 03 04 05 06 07", "0 -1 -1"},
    };
    for (const SCase& oCase : aoCases)
    {
        CScriptedClient oConfirmed;
        oConfirmed.ReplyWith("00");
        ASSERT_EQ(oConfirmed.Open(true, false), 0);
        oConfirmed.m_fnReply = [&](const COrvaneMsg& o) {
            return std::vector<std::string>{Wire(oCase.nCnfCode, o.GetMsgID(), Hex(oCase.pcPayload))};
        };
        nSeconds = nMicroseconds = -1;
        EXPECT_EQ(Out(oConfirmed.Write(0x10, "\x01", 1, 0, &nSeconds, &nMicroseconds), nSeconds, nMicroseconds),
                  oCase.sExpected);
        oConfirmed.Write(0x10, "\x01", 1, 0, nullptr, nullptr);
        EXPECT_EQ(oConfirmed.LastSent().GetMsgID(), 4); // after Open's SET_CONFIG (2) and the first write
    }
}
