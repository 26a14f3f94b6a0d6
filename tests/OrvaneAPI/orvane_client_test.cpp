// The request/confirmation engine and the common device commands, through
// the client's own seams (SendMsg override, DataInd) without sockets.
#include "KelPayload.h"
#include "OrvaneProtocol.h"
#include "support/ClientSeams.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <thread>

using namespace ClientTest;

namespace
{

const unsigned int ZERO = 0;

COrvaneMsg Request(short nId, unsigned short nCode = OrvaneCan::eCmdGetGlobals)
{
    return COrvaneMsg(nCode, nId, nullptr, 0);
}

std::string WithBadCrc(std::string sWire)
{
    sWire.back() = static_cast<char>(sWire.back() ^ 0x5A);
    return sWire;
}

} // namespace

TEST(OrvaneClientEngine, ResultOfWaitingForAConfirmation)
{
    struct SCase
    {
        const char* pcName;
        std::function<std::vector<std::string>(const COrvaneMsg&)> fnReply;
        int nSendResult;
        int nExpected;
        bool bTelegram;
    };
    const SCase aoCases[] = {
        {"confirmed", [](const COrvaneMsg& o) { return std::vector<std::string>{Confirmation(o, Bytes({0}))}; }, 0, 0,
         true},
        {"wrong CRC",
         [](const COrvaneMsg& o) { return std::vector<std::string>{WithBadCrc(Confirmation(o, Bytes({0})))}; }, 0,
         ORVANE_ERR_TELEGRAM_CRC, true},
        {"other command under the ID",
         [](const COrvaneMsg& o) { return std::vector<std::string>{Wire(0x8207, o.GetMsgID(), Bytes({0}))}; }, 0,
         ORVANE_ERR_TELEGRAM_NOT_CONFIRMED, true},
        {"request code without the confirmation bit",
         [](const COrvaneMsg& o) { return std::vector<std::string>{Wire(o.GetCmdCode(), o.GetMsgID(), Bytes({0}))}; },
         0, ORVANE_ERR_TCP_TIMEOUT, false},
        {"confirmation of another ID",
         [](const COrvaneMsg& o) { return std::vector<std::string>{Wire(0x8208, o.GetMsgID() + 1, Bytes({0}))}; }, 0,
         ORVANE_ERR_TCP_TIMEOUT, false},
        {"silence", nullptr, 0, ORVANE_ERR_TCP_TIMEOUT, false},
        {"send failed", nullptr, ORVANE_ERR_TCP_NOT_CONNECTED, ORVANE_ERR_TCP_NOT_CONNECTED, false},
    };
    for (const SCase& oCase : aoCases)
    {
        CScriptedClient oClient;
        oClient.m_fnReply = oCase.fnReply;
        oClient.m_nSendResult = oCase.nSendResult;
        COrvaneMsg* poCnf = reinterpret_cast<COrvaneMsg*>(1);
        // A time-out of 0 looks once and never sleeps.
        EXPECT_EQ(oClient.SendMsg(Request(40), poCnf, &ZERO), oCase.nExpected) << oCase.pcName;
        EXPECT_EQ(poCnf != nullptr, oCase.bTelegram) << oCase.pcName;
        if (poCnf != nullptr)
        {
            EXPECT_EQ(poCnf->GetMsgID(), 40) << oCase.pcName;
        }
        delete poCnf;
    }
}

TEST(OrvaneClientEngine, DeviceResultAndTransportCodes)
{
    CScriptedClient oClient;
    const std::pair<std::string, int> aoResults[] = {
        {"", 0xC0200}, {Bytes({0x00, 0x44}), 0}, {Bytes({0x21}), 0x221}, {Bytes({0xFE, 0x00}), 0x2FE}};
    for (const auto& oResult : aoResults)
    {
        oClient.ReplyWith(oResult.first);
        EXPECT_EQ(oClient.SetPowerRelais(true), oResult.second) << oResult.first.size();
    }
    const std::pair<int, int> aoTcp[] = {{1, 0}, {7, 1}, {2, 0x20000}, {3, 0x30000}, {4, 0x40000}, {6, 0x60000}};
    for (const auto& oTcp : aoTcp)
        EXPECT_EQ(COrvaneClient::ConvertTCPRetCode(oTcp.first), oTcp.second) << oTcp.first;
}

TEST(OrvaneClientEngine, CopyFormHandsOverTheWholeTelegram)
{
    CScriptedClient oClient;
    oClient.ReplyWith(Bytes({0, 7, 8}));
    COrvaneMsg oCnf;
    ASSERT_EQ(oClient.SendMsg(Request(12), oCnf, &ZERO), 0);
    EXPECT_EQ(oCnf.GetMessageData(), Confirmation(Request(12), Bytes({0, 7, 8})));
}

TEST(OrvaneClientEngine, StoreKeepsLateAndLatestConfirmations)
{
    CScriptedClient oClient;
    COrvaneMsg* poCnf = nullptr;
    // Nobody answers in time; the late confirmation is kept and collected by
    // the next request with the same ID.
    ASSERT_EQ(oClient.SendMsg(Request(77), poCnf, &ZERO), ORVANE_ERR_TCP_TIMEOUT);
    oClient.Feed(Confirmation(Request(77), Bytes({0, 1})));
    ASSERT_EQ(oClient.SendMsg(Request(77), poCnf, &ZERO), 0);
    EXPECT_EQ(poCnf->GetData(), Bytes({0, 1}));
    delete poCnf;

    // Two confirmations under one ID: the later one replaces the earlier.
    oClient.Feed(Confirmation(Request(-5), Bytes({0, 1})));
    oClient.Feed(Confirmation(Request(-5), Bytes({0, 2})));
    std::unique_ptr<COrvaneMsg> oMsg(oClient.GetMsg(-5));
    ASSERT_TRUE(oMsg);
    EXPECT_EQ(oMsg->GetData(), Bytes({0, 2}));
    EXPECT_EQ(oClient.GetMsg(-5), nullptr);
}

TEST(OrvaneClientEngine, UncollectedConfirmationsAgeOutAfterTenTimeouts)
{
    // 50 ms makes the age limit 0 s: whatever is stored goes after any wait.
    CScriptedClient oShort(50);
    oShort.Feed(Confirmation(Request(3), Bytes({0})));
    EXPECT_EQ(oShort.WaitForMsg(4, &ZERO), nullptr);
    EXPECT_EQ(oShort.GetMsg(3), nullptr);

    // 5000 ms keeps them 50 s.
    CScriptedClient oLong(5000);
    oLong.Feed(Confirmation(Request(3), Bytes({0})));
    EXPECT_EQ(oLong.WaitForMsg(4, &ZERO), nullptr);
    std::unique_ptr<COrvaneMsg> oKept(oLong.GetMsg(3));
    EXPECT_TRUE(oKept);
}

TEST(OrvaneClientEngine, OnlyValidConfirmationsAreFiled)
{
    struct CCatcher : CScriptedClient
    {
        bool DataIndRespond(COrvaneMsg* poMsg) override
        {
            m_oTaken.reset(poMsg);
            return true;
        }
        std::unique_ptr<COrvaneMsg> m_oTaken;
    } oClient;
    std::string sCut = Confirmation(Request(9), Bytes({0, 1, 2}));
    sCut[0] = 9; // length word one too long
    oClient.Feed(sCut);
    oClient.Feed(Bytes({3, 0, 8, 0x82}));
    oClient.Feed(Wire(OrvaneCan::eIndFrame, 9, Bytes({1, 0, 0, 0, 0})));
    EXPECT_EQ(oClient.GetMsg(9), nullptr);
    ASSERT_TRUE(oClient.m_oTaken);
    EXPECT_EQ(oClient.m_oTaken->GetCmdCode(), OrvaneCan::eIndFrame);
}

TEST(OrvaneClientEngine, TelegramIdsStartAtTwoAndWrap)
{
    CScriptedClient oClient;
    oClient.m_nSendResult = ORVANE_ERR_TCP_NOT_CONNECTED;
    oClient.COrvaneClient::Open();
    oClient.Restart();
    oClient.Restart();
    while (oClient.NextTelegramID() != 32766)
    {
    }
    oClient.Restart();
    oClient.Restart();
    const std::vector<COrvaneMsg> aoSent = oClient.Sent();
    ASSERT_EQ(aoSent.size(), 4u);
    EXPECT_EQ(aoSent[0].GetMsgID(), 2);
    EXPECT_EQ(aoSent[1].GetMsgID(), 3);
    EXPECT_EQ(aoSent[2].GetMsgID(), 32767);
    EXPECT_EQ(aoSent[3].GetMsgID(), -32768);
}

// Several threads on one client, answered out of order by another thread:
// each must get the confirmation of its own request.
TEST(OrvaneClientEngine, ConcurrentRequestsEachGetTheirOwnConfirmation)
{
    constexpr int THREADS = 4;
    constexpr int REQUESTS = 200;
    CScriptedClient oClient(5000);
    std::mutex oMutex;
    std::condition_variable oPending;
    std::deque<COrvaneMsg> aoQueue;
    bool bDone = false;
    oClient.m_fnReply = [&](const COrvaneMsg& oRequest) {
        std::lock_guard<std::mutex> oLock(oMutex);
        aoQueue.push_back(oRequest);
        oPending.notify_one();
        return std::vector<std::string>();
    };
    // Answers whatever is pending, newest first; the SDO value echoes node
    // and index of the request.
    std::thread oResponder([&] {
        std::unique_lock<std::mutex> oLock(oMutex);
        for (;;)
        {
            oPending.wait(oLock, [&] { return bDone || !aoQueue.empty(); });
            if (aoQueue.empty())
                return;
            std::deque<COrvaneMsg> aoBatch;
            aoBatch.swap(aoQueue);
            oLock.unlock();
            for (auto it = aoBatch.rbegin(); it != aoBatch.rend(); ++it)
            {
                const CKelPayloadReader oIn(it->GetData());
                const unsigned int nEcho = (static_cast<unsigned int>(oIn.U16(1)) << 8) | oIn.U8(0);
                oClient.Feed(Confirmation(*it, CKelPayloadWriter().U8(0).U8(0).U32(nEcho & 0x7F7F7F).Data()));
            }
            oLock.lock();
        }
    });
    std::vector<std::thread> aoThreads;
    std::atomic<int> nWrong{0};
    for (int t = 0; t < THREADS; ++t)
        aoThreads.emplace_back([&, t] {
            for (int i = 0; i < REQUESTS; ++i)
            {
                unsigned char nResult = 0xEE;
                unsigned int nValue = 0;
                const unsigned short nIndex = static_cast<unsigned short>(i);
                const int nRet =
                    oClient.CANopenSendSDORead(static_cast<unsigned char>(t), nIndex, 0, 2500, nResult, nValue);
                if (nRet != 0 || nResult != 0 || nValue != ((static_cast<unsigned int>(nIndex) << 8 | t) & 0x7F7F7F))
                    ++nWrong;
            }
        });
    for (std::thread& oThread : aoThreads)
        oThread.join();
    {
        std::lock_guard<std::mutex> oLock(oMutex);
        bDone = true;
        oPending.notify_one();
    }
    oResponder.join();
    EXPECT_EQ(nWrong.load(), 0);
    EXPECT_EQ(oClient.Sent().size(), static_cast<std::size_t>(THREADS * REQUESTS));
}

// ---- common device commands ----

TEST(OrvaneClientCommon, InfoCopiesAtMostTwentyBytes)
{
    const std::string sInfo = Bytes({0x02, 0x01, 0x03, 0x00, 0x78, 0x56, 0x34, 0x12, 0x02, 0x01, 'G',  'W',
                                     0,    0,    0,    0,    0,    0,    0,    0,    0xAA, 0xBB, 0xCC, 0xDD});
    CScriptedClient oClient;
    oClient.ReplyWith(Bytes({0}) + sInfo);
    SOrvaneDeviceInfo oInfo;
    std::memset(&oInfo, 0x77, sizeof(oInfo));
    ASSERT_EQ(oClient.Info(&oInfo), 0);
    EXPECT_EQ(oInfo.m_nFirmwareVersion, 0x0102);
    EXPECT_EQ(oInfo.m_nHardwareVersion, 0x0003);
    EXPECT_EQ(oInfo.m_nSerialNumber, 0x12345678u);
    EXPECT_EQ(oInfo.m_nPort, 1);
    EXPECT_STREQ(oInfo.m_acName, "GW");
    EXPECT_EQ(oInfo.m_nDeviceType, eOrvaneCAN);
    EXPECT_EQ(oInfo.m_nReserved, 0u);

    // Five data bytes fill four; the rest stays.
    oClient.ReplyWith(Bytes({0, 0x10, 0x20, 0x30, 0x40}));
    std::memset(&oInfo, 0x77, sizeof(oInfo));
    ASSERT_EQ(oClient.Info(&oInfo), 0);
    EXPECT_EQ(oInfo.m_nFirmwareVersion, 0x2010);
    EXPECT_EQ(oInfo.m_nHardwareVersion, 0x4030);
    EXPECT_EQ(oInfo.m_nSerialNumber, 0x77777777u);

    EXPECT_EQ(oClient.Info(nullptr), 0);
    EXPECT_EQ(oClient.Sent().back().GetCmdCode(), OrvaneCan::eCmdInfo);
}

TEST(OrvaneClientCommon, ReadDigitalNeedsNineBytesAndReadsWhateverTheResult)
{
    struct SCase
    {
        std::string sPayload;
        int nExpected;
        unsigned int nInputs, nOutputs;
    };
    const SCase aoCases[] = {
        {Bytes({0, 1, 2, 3, 4, 5, 6, 7}), 0, 99, 99},
        {"", 0, 99, 99},
        {Bytes({0, 1, 0, 0, 0, 2, 0, 0, 0}), 0, 1, 2},
        {Bytes({0x21, 1, 0, 0, 0, 2, 0, 0, 0}), 0x221, 1, 2},
    };
    for (const SCase& oCase : aoCases)
    {
        CScriptedClient oClient;
        oClient.ReplyWith(oCase.sPayload);
        unsigned int nInputs = 99, nOutputs = 99;
        EXPECT_EQ(oClient.ReadDigital(nInputs, nOutputs), oCase.nExpected) << oCase.sPayload.size();
        EXPECT_EQ(nInputs, oCase.nInputs);
        EXPECT_EQ(nOutputs, oCase.nOutputs);
    }
}

TEST(OrvaneClientCommon, AnalogStatusRestartAndDigitalOutputs)
{
    CScriptedClient oClient;
    oClient.ReplyWith(Bytes({0}));
    const unsigned int anOut[] = {0x11223344, 5};
    ASSERT_EQ(oClient.WriteAnalog(anOut, 2), 0);
    ASSERT_EQ(oClient.WriteDigital(0xA5), 0);
    ASSERT_EQ(oClient.Restart(), 0);
    EXPECT_EQ(oClient.WriteAnalog(nullptr, 1), ORVANE_ERR_INVALID_PARAMETER);
    const std::vector<COrvaneMsg> aoSent = oClient.Sent();
    ASSERT_EQ(aoSent.size(), 3u);
    EXPECT_EQ(aoSent[0].GetCmdCode(), 0x0243);
    EXPECT_EQ(aoSent[0].GetData(), Bytes({2, 0, 0x44, 0x33, 0x22, 0x11, 5, 0, 0, 0}));
    EXPECT_EQ(aoSent[1].GetCmdCode(), 0x0241);
    EXPECT_EQ(aoSent[1].GetData(), Bytes({0xA5, 0, 0, 0}));
    EXPECT_EQ(aoSent[2].GetCmdCode(), 0x020C);
    EXPECT_EQ(aoSent[2].GetData(), "");

    // Three values reported, room for two: two stored, the count is the
    // device's.
    oClient.ReplyWith(Bytes({0, 3, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0}));
    unsigned int anIn[3] = {9, 9, 9};
    unsigned short nCount = 0;
    ASSERT_EQ(oClient.ReadAnalog(2, anIn, nCount), 0);
    EXPECT_EQ(nCount, 3);
    EXPECT_EQ(anIn[0], 1u);
    EXPECT_EQ(anIn[1], 2u);
    EXPECT_EQ(anIn[2], 9u);

    oClient.ReplyWith(Bytes({0}) + "port ok");
    std::string sStatus = "unchanged";
    ASSERT_EQ(oClient.Status(sStatus), 0);
    EXPECT_EQ(sStatus, "port ok");
    oClient.ReplyWith(Bytes({0x21}));
    sStatus = "unchanged";
    EXPECT_EQ(oClient.Status(sStatus), 0x221);
    EXPECT_EQ(sStatus, "unchanged");
}
