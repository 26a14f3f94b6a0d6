// The application interface against the gateway simulator on 127.0.0.1:
// opening, configuration, frames between two handles through callbacks and
// queues, CANopen indications, and every function on a closed handle.
#include "DeviceManager.h"
#include "OrvaneDllCan.h"
#include "support/ApiSim.h"
#include "support/ClientSeams.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

using namespace ApiTest;
using ClientTest::Out;

namespace
{

constexpr int TIMEOUT_MS = 5000;
constexpr int INVALID_HANDLE = 0x900000;

// Frames seen by the callbacks, as text.
std::mutex g_oSeenMutex;
std::vector<std::string> g_asSeen;

void Seen(const std::string& sText)
{
    std::lock_guard<std::mutex> oGuard(g_oSeenMutex);
    g_asSeen.push_back(sText);
}
std::vector<std::string> SeenSoFar()
{
    std::lock_guard<std::mutex> oGuard(g_oSeenMutex);
    return g_asSeen;
}
bool WaitSeen(std::size_t nCount)
{
    return WaitUntil([nCount] { return SeenSoFar().size() >= nCount; });
}

std::string Text(const char* pcData, int nLength)
{
    return std::string(pcData, static_cast<std::size_t>(nLength));
}
void OnFrame(unsigned int nId, const char* pcData, int nLength, int nFlags, int nHandle)
{
    Seen(Out("frame", nId, Text(pcData, nLength), nFlags, "h" + std::to_string(nHandle)));
}
std::atomic<int> g_nStampSeconds{0};
void OnFrameEx(unsigned int nId, const char* pcData, int nLength, int nFlags, int nHandle, int nSeconds, int)
{
    g_nStampSeconds = nSeconds;
    Seen(Out("frameEx", nId, Text(pcData, nLength), nFlags, "h" + std::to_string(nHandle)));
}
void OnPDO(unsigned char nNode, unsigned char nType, unsigned char nLength, const char* pcData, int, int, int)
{
    Seen(Out("pdo", nNode, nType, Text(pcData, nLength)));
}
void OnSYNC(unsigned char nCounter, int, int, int)
{
    Seen(Out("sync", nCounter));
}
void OnEMCY(unsigned char nNode, unsigned short nCode, unsigned char nRegister, const unsigned char*, int, int, int)
{
    Seen(Out("emcy", nNode, nCode, nRegister));
}
void OnGUARD(unsigned char nNode, unsigned char nState, int, int, int)
{
    Seen(Out("guard", nNode, nState));
}
void OnUndefined(int nId, unsigned char, unsigned char, unsigned char nLength, const char* pcData, int, int, int)
{
    Seen(Out("undefined", nId, Text(pcData, nLength)));
}

class DllCanTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_oSim.Started()) << m_oSim.Error();
        std::lock_guard<std::mutex> oGuard(g_oSeenMutex);
        g_asSeen.clear();
    }
    void TearDown() override
    {
        for (int nHandle : m_anHandles)
            CANCloseDevice(nHandle);
    }
    int Open(int bConfirm = 0)
    {
        int nHandle = -1;
        EXPECT_EQ(CANOpenDevice(&nHandle, bConfirm, 0, m_oSim.CanPort(), HOST, TIMEOUT_MS), 0);
        m_anHandles.push_back(nHandle);
        return nHandle;
    }
    // After this, every frame that nWriter wrote has been handled by
    // nReader's receive thread: the simulator puts a written frame on the
    // bus before it reads the writer's next request, and the reader's
    // confirmation comes behind the indications on its stream.
    static void Sync(int nWriter, int nReader)
    {
        unsigned char nMode = 0;
        ASSERT_EQ(CANopenGetConfig(nWriter, &nMode), 0);
        ASSERT_EQ(CANopenGetConfig(nReader, &nMode), 0);
    }

    CApiSim m_oSim;
    std::vector<int> m_anHandles;
};

TEST_F(DllCanTest, OpenConfigureAndReadBack)
{
    const int nHandle = Open();
    EXPECT_EQ(CANDeviceConnectState(nHandle), 3);
    EXPECT_EQ(CANSetGlobals(nHandle, 250000, 'N', 1, 0, 1), 0);
    unsigned int nBaudrate = 0;
    unsigned char nMode = 0;
    int bTermination = 7, bHighSpeed = 7, bTimeStamp = 7;
    EXPECT_EQ(CANGetGlobals(nHandle, &nBaudrate, &nMode, &bTermination, &bHighSpeed, &bTimeStamp), 0);
    EXPECT_EQ(nBaudrate, 250000u);
    EXPECT_EQ(nMode, 'N');
    EXPECT_EQ(bTermination, 1);
    EXPECT_EQ(bHighSpeed, 0);
    EXPECT_EQ(bTimeStamp, 1);

    int anFilter[16], anRead[16] = {};
    for (int i = 0; i < 16; ++i)
        anFilter[i] = i * 0x01010101;
    EXPECT_EQ(CANSetFilter(nHandle, anFilter), 0);
    EXPECT_EQ(CANGetFilter(nHandle, anRead), 0);
    EXPECT_EQ(std::vector<int>(anRead, anRead + 16), std::vector<int>(anFilter, anFilter + 16));

    EXPECT_EQ(CANSetTime(nHandle, 1000, 500), 0);
    int bValid = 0, nSeconds = 0, nMicroseconds = 0;
    EXPECT_EQ(CANGetTime(nHandle, &bValid, &nSeconds, &nMicroseconds), 0);
    EXPECT_EQ(bValid, 1);
    EXPECT_GE(nSeconds, 1000);
    EXPECT_EQ(CANStartAlive(nHandle, 5), 0);
    EXPECT_EQ(CANWrite(nHandle, 0x123, "\x01", 1, 0), 0);

    // With data confirmations a write waits for the gateway's transmit time.
    const int nConfirmed = Open(1);
    nSeconds = 0;
    EXPECT_EQ(CANWriteEx(nConfirmed, 0x123, "\x01", 1, 0, &nSeconds, &nMicroseconds), 0);
    EXPECT_GE(nSeconds, 1000) << "the gateway's clock, set above";
}

TEST_F(DllCanTest, FramesReachTheOtherHandleThroughEitherCallback)
{
    const int nReader = Open(), nWriter = Open();
    ASSERT_EQ(CANSetCallback(nReader, OnFrame), 0);
    ASSERT_EQ(CANWrite(nWriter, 0x123, "hi", 2, 0), 0);
    ASSERT_EQ(CANWrite(nWriter, 0x1ABCDEF, "", 0, 1), 0);
    ASSERT_TRUE(WaitSeen(2));

    // Extended callback, with and without time stamps from the gateway.
    ASSERT_EQ(CANSetCallbackEx(nReader, OnFrameEx), 0);
    ASSERT_EQ(CANWrite(nWriter, 0x124, "no stamp", 8, 0), 0);
    ASSERT_TRUE(WaitSeen(3));
    EXPECT_EQ(g_nStampSeconds.load(), 0);
    ASSERT_EQ(CANSetGlobals(nReader, 500000, 0, 0, 0, 1), 0);
    ASSERT_EQ(CANWrite(nWriter, 0x125, "stamped", 7, 0), 0);
    ASSERT_TRUE(WaitSeen(4));
    EXPECT_GT(g_nStampSeconds.load(), 0);
    const std::string sR = " h" + std::to_string(nReader);
    EXPECT_EQ(SeenSoFar(),
              (std::vector<std::string>{"frame 291 hi 0" + sR, "frame 28036591  1" + sR, "frameEx 292 no stamp 0" + sR,
                                        "frameEx 293 stamped 4" + sR}));
}

TEST_F(DllCanTest, WithoutCallbackFramesQueueUpToTheMaximum)
{
    const int nReader = Open(), nWriter = Open();
    ASSERT_EQ(CANSetGlobals(nReader, 500000, 0, 0, 0, 1), 0);
    ASSERT_EQ(CANWrite(nWriter, 0x100, "x", 1, 0), 0);
    Sync(nWriter, nReader);
    int nAvailable = 0;
    EXPECT_EQ(CANGetMessage(nReader, &nAvailable, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(nAvailable, -1) << "queueing is off until a maximum is set";

    ASSERT_EQ(CANSetMaxSizePerQueue(nReader, 3), 0);
    for (int i = 1; i <= 5; ++i)
        ASSERT_EQ(CANWrite(nWriter, 0x100 + i, std::to_string(i).c_str(), 1, 0), 0);
    Sync(nWriter, nReader);
    for (int i = 1; i <= 3; ++i)
    {
        int nId = 0, nFlags = 0, nSeconds = 0, nMicroseconds = 0;
        unsigned char nLength = 0;
        char acData[72] = {};
        const int r = CANGetMessage(nReader, &nAvailable, &nId, acData, &nLength, &nFlags, &nSeconds, &nMicroseconds);
        // The oldest are kept.
        EXPECT_EQ(Out(r, nAvailable, nId, Text(acData, nLength), nFlags), Out(0, 3 - i, 0x100 + i, i, 4));
        EXPECT_GT(nSeconds, 0);
    }
    EXPECT_EQ(CANGetMessage(nReader, &nAvailable, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(nAvailable, -1);
}

TEST_F(DllCanTest, CANopenIndicationsThroughCallbacksAndPollers)
{
    const int nReader = Open(), nWriter = Open();
    ASSERT_EQ(CANopenSetConfig(nReader, 1), 0);
    // SYNC, EMCY of node 5, transmit PDO 1 of node 5, heartbeat of node 5, and
    // a frame of no service.
    auto WriteServices = [&] {
        ASSERT_EQ(CANWrite(nWriter, 0x080, "\x09", 1, 0), 0);
        ASSERT_EQ(CANWrite(nWriter, 0x085, "\x30\x81\x11\x00\x00\x00\x00\x00", 8, 0), 0);
        ASSERT_EQ(CANWrite(nWriter, 0x185, "pd", 2, 0), 0);
        ASSERT_EQ(CANWrite(nWriter, 0x705, "\x7F", 1, 0), 0);
        ASSERT_EQ(CANWrite(nWriter, 0x321, "u", 1, 0), 0);
    };
    ASSERT_EQ(CANopenSetCallback(nReader, OnPDO, OnSYNC, OnEMCY, OnGUARD, OnUndefined), 0);
    WriteServices();
    ASSERT_TRUE(WaitSeen(5));
    EXPECT_EQ(SeenSoFar(),
              (std::vector<std::string>{"sync 9", "emcy 5 33072 17", "pdo 5 1 pd", "guard 5 127", "undefined 801 u"}));

    ASSERT_EQ(CANopenSetCallback(nReader, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    ASSERT_EQ(CANSetMaxSizePerQueue(nReader, 10), 0);
    WriteServices();
    Sync(nWriter, nReader);
    int nAvailable = 9, nId = 0;
    unsigned char nNode = 0, nValue = 0, nLength = 0, anBytes[8] = {};
    unsigned short nCode = 0;
    char acData[72] = {};
    int r = CANopenGetSYNC(nReader, &nAvailable, &nValue);
    EXPECT_EQ(Out(r, nAvailable, nValue), "0 0 9");
    r = CANopenGetEMCY(nReader, &nAvailable, &nNode, &nCode, &nValue, anBytes);
    EXPECT_EQ(Out(r, nCode), "0 33072");
    r = CANopenGetPDO(nReader, &nAvailable, &nNode, &nValue, &nLength, acData);
    EXPECT_EQ(Out(r, Text(acData, nLength)), "0 pd");
    r = CANopenGetGUARD(nReader, &nAvailable, &nNode, &nValue);
    EXPECT_EQ(Out(r, nValue), "0 127");
    r = CANopenGetUndefined(nReader, &nAvailable, &nId, nullptr, nullptr, &nLength, acData, nullptr, nullptr);
    EXPECT_EQ(Out(r, nId), "0 801");
    EXPECT_EQ(CANopenGetUndefined(nReader, &nAvailable, &nId, nullptr, nullptr, &nLength, acData, nullptr, nullptr), 0);
    EXPECT_EQ(nAvailable, -1);
    EXPECT_EQ(CANGetMessage(nReader, &nAvailable, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(nAvailable, -1) << "CANopen traffic does not reach the frame queue";
}

TEST_F(DllCanTest, EveryFunctionOnAClosedOrUnknownHandle)
{
    const int nHandle = Open();
    ASSERT_EQ(CANCloseDevice(nHandle), 0);
    ASSERT_TRUE(WaitUntil([&] { return m_oSim.ConnectedClients() == 0; }));

    // Each output starts at a value no function would write.
    unsigned int nU = 0xDEAD, anU[4] = {0xDEAD};
    int nI = 0xDEAD, anI[16] = {0xDEAD};
    unsigned char nC = 0xAD, anC[8] = {0xAD};
    unsigned short nS = 0xDEAD, anS[4] = {0xDEAD};
    short nSigned = 0x1EAD;
    char acData[72] = {'u'};
    const std::vector<std::pair<const char*, std::function<int(int)>>> aoCalls = {
        {"CANCloseDevice", [&](int h) { return CANCloseDevice(h); }},
        {"CANDeviceConnectState", [&](int h) { return CANDeviceConnectState(h); }},
        {"CANStartAlive", [&](int h) { return CANStartAlive(h, 5); }},
        {"CANSetGlobals", [&](int h) { return CANSetGlobals(h, 125000, 0, 1, 1, 1); }},
        {"CANGetGlobals", [&](int h) { return CANGetGlobals(h, &nU, &nC, &nI, &nI, &nI); }},
        {"CANSetFilter", [&](int h) { return CANSetFilter(h, anI); }},
        {"CANGetFilter", [&](int h) { return CANGetFilter(h, anI); }},
        {"CANSetTime", [&](int h) { return CANSetTime(h, 1, 2); }},
        {"CANGetTime", [&](int h) { return CANGetTime(h, &nI, &nI, &nI); }},
        {"CANGetPowerStatus",
         [&](int h) { return CANGetPowerStatus(h, 4, &nC, 4, &nC, 4, &nC, &nSigned, &nS, &nS, &nI, anS, anI, anI); }},
        {"CANSetPowerRelais", [&](int h) { return CANSetPowerRelais(h, 1); }},
        {"CANSetActivePowerSupplies", [&](int h) { return CANSetActivePowerSupplies(h, 3); }},
        {"CANWrite", [&](int h) { return CANWrite(h, 1, "a", 1, 0); }},
        {"CANWriteEx", [&](int h) { return CANWriteEx(h, 1, "a", 1, 0, &nI, &nI); }},
        {"CANSetCallback", [&](int h) { return CANSetCallback(h, OnFrame); }},
        {"CANSetCallbackEx", [&](int h) { return CANSetCallbackEx(h, OnFrameEx); }},
        {"CANSetMaxSizePerQueue", [&](int h) { return CANSetMaxSizePerQueue(h, 10); }},
        {"CANGetMessage", [&](int h) { return CANGetMessage(h, &nI, &nI, acData, &nC, &nI, &nI, &nI); }},
        {"CANReadDigital", [&](int h) { return CANReadDigital(h, &nU, &nU); }},
        {"CANWriteDigital", [&](int h) { return CANWriteDigital(h, 1); }},
        {"CANReadAnalog", [&](int h) { return CANReadAnalog(h, anU, 4, &nS); }},
        {"CANWriteAnalog", [&](int h) { return CANWriteAnalog(h, anU, 1); }},
        {"CANopenSetCallback", [&](int h) { return CANopenSetCallback(h, OnPDO, OnSYNC, OnEMCY, OnGUARD, nullptr); }},
        {"CANopenGetPDO", [&](int h) { return CANopenGetPDO(h, &nI, &nC, &nC, &nC, acData); }},
        {"CANopenGetSYNC", [&](int h) { return CANopenGetSYNC(h, &nI, &nC); }},
        {"CANopenGetEMCY", [&](int h) { return CANopenGetEMCY(h, &nI, &nC, &nS, &nC, anC); }},
        {"CANopenGetGUARD", [&](int h) { return CANopenGetGUARD(h, &nI, &nC, &nC); }},
        {"CANopenGetUndefined",
         [&](int h) { return CANopenGetUndefined(h, &nI, &nI, &nC, &nC, &nC, acData, &nI, &nI); }},
        {"CANopenSetConfig", [&](int h) { return CANopenSetConfig(h, 1); }},
        {"CANopenGetConfig", [&](int h) { return CANopenGetConfig(h, &nC); }},
        {"CANopenSetSYNCMode", [&](int h) { return CANopenSetSYNCMode(h, 100); }},
        {"CANopenSendNMT", [&](int h) { return CANopenSendNMT(h, 1, 1); }},
        {"CANopenSendSYNC", [&](int h) { return CANopenSendSYNC(h); }},
        {"CANopenSendTIME", [&](int h) { return CANopenSendTIME(h, 1, 2); }},
        {"CANopenSendPDO", [&](int h) { return CANopenSendPDO(h, 1, 1, 1, "a"); }},
        {"CANopenSendSDORead", [&](int h) { return CANopenSendSDORead(h, 1, 0x1000, 0, 100, &nC, &nU); }},
        {"CANopenSendSDOWrite", [&](int h) { return CANopenSendSDOWrite(h, 1, 0, 0x1000, 0, 100, 5, &nC, &nU); }},
        {"CANopenSendSDOReadBlock",
         [&](int h) { return CANopenSendSDOReadBlock(h, 1, 0x1000, 0, 100, 4, &nC, &nS, anC); }},
        {"CANopenSendSDOWriteBlock",
         [&](int h) { return CANopenSendSDOWriteBlock(h, 1, 0x1000, 0, 100, 1, anC, &nC, &nU); }},
    };
    for (int nBad : {nHandle, 0, -1, 1000000})
        for (const auto& oCall : aoCalls)
            EXPECT_EQ(oCall.second(nBad), INVALID_HANDLE) << oCall.first << " on handle " << nBad;
    EXPECT_EQ(Out(nU, anU[0], nI, anI[0], nC, anC[0], nS, anS[0], nSigned, acData[0]),
              "57005 57005 57005 57005 173 173 57005 57005 7853 117");
}

} // namespace
