// Indications handed to the CAN client directly, without a connection:
// which callback gets which fields, what the queues keep and what the
// pollers report. The telegrams are written out by hand.
#include "DeviceManager.h"
#include "OrvaneClientCANDll.h"
#include "OrvaneDllCan.h"
#include "OrvaneProtocol.h"
#include "support/ClientSeams.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace OrvaneCan;
using ClientTest::Out;

namespace
{

constexpr int HANDLE = 7;

COrvaneMsg Ind(unsigned short nCode, const std::vector<unsigned char>& anPayload)
{
    return COrvaneMsg(nCode, 0, anPayload.data(), static_cast<unsigned short>(anPayload.size()));
}

void Deliver(COrvaneClientCANDll& oClient, COrvaneMsg oMsg)
{
    EXPECT_FALSE(oClient.DataIndRespond(&oMsg)) << "the client never takes the telegram";
}

// What the callbacks saw: their names and arguments as text.
std::vector<std::string> g_asCalls;
std::string Bytes(const void* pData, int nLength)
{
    return std::string(static_cast<const char*>(pData), static_cast<std::size_t>(nLength));
}
void OnFrame(unsigned int nId, const char* pcData, int nLength, int nFlags, int nHandle)
{
    g_asCalls.push_back(Out("frame", nId, Bytes(pcData, nLength), nFlags, nHandle));
}
void OnFrameEx(unsigned int nId, const char* pcData, int nLength, int nFlags, int nHandle, int nSec, int nUsec)
{
    g_asCalls.push_back(Out("frameEx", nId, Bytes(pcData, nLength), nFlags, nHandle, nSec, nUsec));
}
void OnPDO(unsigned char nNode, unsigned char nType, unsigned char nLength, const char* pcData, int nHandle, int nSec,
           int nUsec)
{
    g_asCalls.push_back(Out("pdo", nNode, nType, Bytes(pcData, nLength), nHandle, nSec, nUsec));
}
void OnSYNC(unsigned char nCounter, int nHandle, int nSec, int nUsec)
{
    g_asCalls.push_back(Out("sync", nCounter, nHandle, nSec, nUsec));
}
void OnEMCY(unsigned char nNode, unsigned short nCode, unsigned char nRegister, const unsigned char* pcData,
            int nHandle, int, int)
{
    g_asCalls.push_back(Out("emcy", nNode, nCode, nRegister, Bytes(pcData, 5), nHandle));
}
void OnGUARD(unsigned char nNode, unsigned char nState, int nHandle, int, int)
{
    g_asCalls.push_back(Out("guard", nNode, nState, nHandle));
}
void OnUndefined(int nId, unsigned char nByte0, unsigned char nByte1, unsigned char nLength, const char* pcData,
                 int nHandle, int nSec, int nUsec)
{
    g_asCalls.push_back(Out("undefined", nId, nByte0, nByte1, Bytes(pcData, nLength), nHandle, nSec, nUsec));
}

// Frame 0x123, flags 0x04, data "ab", stamp 0x10 s 0x20 us.
const std::vector<unsigned char> STAMPED_FRAME = {0x23, 0x01, 0x00, 0x00, 0x04, 'a',  'b', 0x10,
                                                  0x00, 0x00, 0x00, 0x20, 0x00, 0x00, 0x00};

class CanClientDllTest : public ::testing::Test
{
protected:
    void SetUp() override { g_asCalls.clear(); }
    COrvaneClientCANDll m_oClient{HANDLE, 1000};
};

TEST_F(CanClientDllTest, SimpleAndExtendedFrameCallbacksExcludeEachOther)
{
    m_oClient.SetCallback(OnFrame);
    Deliver(m_oClient, Ind(eIndFrame, STAMPED_FRAME));
    m_oClient.SetCallbackEx(OnFrameEx);
    Deliver(m_oClient, Ind(eIndFrame, STAMPED_FRAME));
    m_oClient.SetCallback(OnFrame);
    Deliver(m_oClient, Ind(eIndFrame, {0x23, 0x01, 0x00, 0x00, 0x01, 'c'}));
    m_oClient.SetCallback(nullptr);
    m_oClient.SetMaxSizePerQueue(10);
    Deliver(m_oClient, Ind(eIndFrame, STAMPED_FRAME));
    EXPECT_EQ(g_asCalls, (std::vector<std::string>{"frame 291 ab 4 7", "frameEx 291 ab 4 7 16 32", "frame 291 c 1 7"}));
    EXPECT_EQ(m_oClient.CANGetMessage(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0)
        << "with no callback left the frame is queued";
}

TEST_F(CanClientDllTest, CANopenIndicationsReachTheirCallbacksWithZeroTimeStamps)
{
    m_oClient.CANopenSetCallback(OnPDO, OnSYNC, OnEMCY, OnGUARD, OnUndefined);
    Deliver(m_oClient, Ind(eIndPDO, {0x05, 0x02, 0x02, 'x', 'y'}));
    Deliver(m_oClient, Ind(eIndSYNC, {0x09}));
    Deliver(m_oClient, Ind(eIndEMCY, {0x05, 0x30, 0x81, 0x11, 'v', 'w', 'x', 'y', 'z'}));
    Deliver(m_oClient, Ind(eIndGUARD, {0x05, 0x7F}));
    Deliver(m_oClient, Ind(eIndUndefined, {0x01, 0x07, 0x00, 0x00, 0x04, 'q', 0x03, 0, 0, 0, 0x04, 0, 0, 0}));
    Deliver(m_oClient, Ind(0x0265, {0x01})); // not an indication of a CAN port
    EXPECT_EQ(g_asCalls,
              (std::vector<std::string>{"pdo 5 2 xy 7 0 0", "sync 9 7 0 0", "emcy 5 33072 17 vwxyz 7", "guard 5 127 7",
                                        "undefined 1793 1 7 q 7 3 4"}));
}

TEST_F(CanClientDllTest, FramesAreDroppedWithoutCallbackOrQueueingAndWhenTooLong)
{
    Deliver(m_oClient, Ind(eIndFrame, STAMPED_FRAME));
    EXPECT_EQ(m_oClient.CANGetMessage(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), -1);

    m_oClient.SetMaxSizePerQueue(10);
    m_oClient.SetCallback(OnFrame);
    std::vector<unsigned char> anLong = {0x01, 0x00, 0x00, 0x00, 0x00};
    anLong.resize(5 + 65, 'z');
    Deliver(m_oClient, Ind(eIndFrame, anLong));
    Deliver(m_oClient, Ind(eIndUndefined, anLong));
    m_oClient.SetCallback(nullptr);
    Deliver(m_oClient, Ind(eIndFrame, anLong));
    EXPECT_TRUE(g_asCalls.empty());
    EXPECT_EQ(m_oClient.CANGetMessage(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), -1);
}

TEST_F(CanClientDllTest, FullQueueKeepsTheOldestAndSizeZeroEmptiesEveryQueue)
{
    m_oClient.SetMaxSizePerQueue(2);
    for (unsigned char n = 1; n <= 3; ++n)
    {
        Deliver(m_oClient, Ind(eIndFrame, {n, 0x00, 0x00, 0x00, 0x00, n}));
        Deliver(m_oClient, Ind(eIndSYNC, {n}));
    }
    int nId = 0;
    const auto fnNext = [&] {
        return Out(m_oClient.CANGetMessage(&nId, nullptr, nullptr, nullptr, nullptr, nullptr), nId);
    };
    EXPECT_EQ(fnNext(), "1 1");
    Deliver(m_oClient, Ind(eIndFrame, {4, 0x00, 0x00, 0x00, 0x00, 4}));
    EXPECT_EQ(fnNext(), "1 2");
    EXPECT_EQ(fnNext(), "0 4");

    unsigned char nCounter = 0;
    EXPECT_EQ(m_oClient.CANopenGetSYNC(&nCounter), 1);
    EXPECT_EQ(nCounter, 1);
    m_oClient.SetMaxSizePerQueue(0);
    EXPECT_EQ(m_oClient.CANopenGetSYNC(&nCounter), -1);
    Deliver(m_oClient, Ind(eIndSYNC, {5}));
    EXPECT_EQ(m_oClient.CANopenGetSYNC(&nCounter), -1) << "queueing is off";
}

TEST_F(CanClientDllTest, PollersReportEveryField)
{
    m_oClient.SetMaxSizePerQueue(10);
    Deliver(m_oClient, Ind(eIndFrame, STAMPED_FRAME));
    Deliver(m_oClient, Ind(eIndFrame, {0xFF, 0xFF, 0xFF, 0x1F, 0x81, 'x'}));
    Deliver(m_oClient, Ind(eIndPDO, {0x05, 0x02, 0x0C, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    Deliver(m_oClient, Ind(eIndEMCY, {0x05, 0x30, 0x81, 0x11, 'v', 'w', 'x', 'y', 'z'}));
    Deliver(m_oClient, Ind(eIndGUARD, {0x05, 0x7F}));
    Deliver(m_oClient, Ind(eIndUndefined, {0x01, 0x07, 0x00, 0x00, 0x04, 'q', 0x03, 0, 0, 0, 0x04, 0, 0, 0}));

    // The frame's bytes behind the header are copied whole, stamp included;
    // the length counts the data only.
    int nId = 0, nFlags = 0, nSec = -1, nUsec = -1;
    unsigned char nLength = 0;
    char acData[72] = {};
    int r = m_oClient.CANGetMessage(&nId, acData, &nLength, &nFlags, &nSec, &nUsec);
    EXPECT_EQ(Out(r, nId, nLength, nFlags, nSec, nUsec), "1 291 2 4 16 32");
    EXPECT_EQ(Bytes(acData, 10), Bytes("ab\x10\0\0\0\x20\0\0\0", 10));
    // The flags byte is sign-extended; no stamp gives 0/0.
    r = m_oClient.CANGetMessage(&nId, acData, &nLength, &nFlags, &nSec, &nUsec);
    EXPECT_EQ(Out(r, nId, nFlags, nSec, nUsec), "0 536870911 -127 0 0");

    unsigned char nNode = 0, nType = 0, nRegister = 0, nState = 0, acBytes[8] = {};
    unsigned short nCode = 0;
    EXPECT_EQ(m_oClient.CANopenGetPDO(&nNode, &nType, &nLength, acData), 0);
    EXPECT_EQ(nLength, 8) << "capped at 8";
    EXPECT_EQ(Bytes(acData, 8), "\x01\x02\x03\x04\x05\x06\x07\x08");
    r = m_oClient.CANopenGetEMCY(&nNode, &nCode, &nRegister, acBytes);
    EXPECT_EQ(Out(r, nCode, nRegister, Bytes(acBytes, 5)), "0 33072 17 vwxyz");
    r = m_oClient.CANopenGetGUARD(&nNode, &nState);
    EXPECT_EQ(Out(r, nState), "0 127");
    unsigned char nByte0 = 0, nByte1 = 0;
    r = m_oClient.CANopenGetUndefined(&nId, &nByte0, &nByte1, &nLength, acData, &nSec, &nUsec);
    EXPECT_EQ(Out(r, nId, nByte0, nByte1, Bytes(acData, nLength), nSec, nUsec), "0 1793 1 7 q 3 4");
}

// Through the application interface, on a device filed without a connection.
TEST(CanDllNoConnection, PollWithoutAvailableAndEntryWithoutClient)
{
    COrvaneClientCANDll* poClient = new COrvaneClientCANDll(0, 1000);
    int nHandle = 0;
    CDeviceManager::SetDevice(&nHandle, new CDevice(poClient, "127.0.0.1", 5001, 0, eOrvaneCAN, true));
    EXPECT_EQ(CANSetMaxSizePerQueue(nHandle, 5), 0);
    Deliver(*poClient, Ind(eIndFrame, {0x01, 0x00, 0x00, 0x00, 0x00, 'a'}));
    Deliver(*poClient, Ind(eIndFrame, {0x02, 0x00, 0x00, 0x00, 0x00, 'b'}));
    EXPECT_EQ(CANGetMessage(nHandle, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    int nAvailable = 9;
    EXPECT_EQ(CANGetMessage(nHandle, &nAvailable, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(nAvailable, 0) << "the first call removed a frame";
    EXPECT_EQ(CANGetMessage(nHandle, &nAvailable, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(nAvailable, -1);
    EXPECT_EQ(CANDeviceConnectState(nHandle), 1) << "never connected";
    EXPECT_EQ(CANCloseDevice(nHandle), 0);

    int nEmpty = 0;
    CDeviceManager::SetDevice(&nEmpty, new CDevice(nullptr, "127.0.0.1", 5001, 0, eOrvaneCAN, true));
    EXPECT_EQ(nEmpty, nHandle + 1);
    EXPECT_EQ(CANWrite(nEmpty, 1, "a", 1, 0), 0);
    EXPECT_EQ(CANDeviceConnectState(nEmpty), 0);
    EXPECT_EQ(CANCloseDevice(nEmpty), 0);
    EXPECT_EQ(CANCloseDevice(nEmpty), 0x900000);
}

TEST(CanDllNoConnection, ErrorMessageCutsToTheBuffer)
{
    const std::string sText = "Device handle is invalid";
    struct SCase
    {
        int nLength;
        int nResult;
        std::string sWritten;
    };
    for (const SCase& oCase : {SCase{64, 25, sText}, SCase{25, 25, sText}, SCase{24, 24, sText.substr(0, 23)},
                               SCase{1, 1, ""}, SCase{0, 0, "untouched"}, SCase{-3, 0, "untouched"}})
    {
        char acBuffer[64] = "untouched";
        EXPECT_EQ(CANErrorMessage(0x900000, acBuffer, oCase.nLength), oCase.nResult) << oCase.nLength;
        EXPECT_EQ(std::string(acBuffer), oCase.sWritten) << oCase.nLength;
    }
    EXPECT_EQ(CANErrorMessage(0x900000, nullptr, 10), 0);
}

} // namespace
