// The CAN side of the application interface. First the indication decoders
// and the CAN client fed telegrams written out by hand through DataInd (which
// callback gets which fields, what the queues keep, what the pollers report);
// then the plain functions and the client itself against the gateway
// simulator on 127.0.0.1.
#include "DeviceManager.h"
#include "OrvaneCanIndication.h"
#include "OrvaneClientCANDll.h"
#include "OrvaneDllCan.h"
#include "OrvaneErrors.h"
#include "OrvaneProtocol.h"
#include "support/ApiSim.h"
#include "support/ClientSeams.h"
#include "support/RawPeer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace OrvaneCan;
using namespace ApiTest;
using ClientTest::Bytes;
using ClientTest::Out;

namespace
{

COrvaneMsg Ind(unsigned short nCode, const std::vector<unsigned char>& anPayload)
{
    return COrvaneMsg(nCode, 0, anPayload.data(), static_cast<unsigned short>(anPayload.size()));
}

void Deliver(COrvaneClientCANDll& oClient, COrvaneMsg oMsg)
{
    EXPECT_FALSE(oClient.DataIndRespond(&oMsg)) << "the client never takes the telegram";
}

// What the callbacks saw, their names and arguments as text; they may run on
// a read thread.
std::mutex g_oCallsMutex;
std::vector<std::string> g_asCalls;

void Call(const std::string& sText)
{
    std::lock_guard<std::mutex> oGuard(g_oCallsMutex);
    g_asCalls.push_back(sText);
}
std::vector<std::string> Calls()
{
    std::lock_guard<std::mutex> oGuard(g_oCallsMutex);
    return g_asCalls;
}
void ClearCalls()
{
    std::lock_guard<std::mutex> oGuard(g_oCallsMutex);
    g_asCalls.clear();
}

void OnFrame(unsigned int nId, const char* pcData, int nLength, int nFlags, int nHandle)
{
    Call(Out("frame", nId, Bytes(pcData, nLength), nFlags, nHandle));
}
void OnFrameEx(unsigned int nId, const char* pcData, int nLength, int nFlags, int nHandle, int nSec, int nUsec)
{
    Call(Out("frameEx", nId, Bytes(pcData, nLength), nFlags, nHandle, nSec, nUsec));
}
void OnPDO(unsigned char nNode, unsigned char nType, unsigned char nLength, const char* pcData, int nHandle, int nSec,
           int nUsec)
{
    Call(Out("pdo", nNode, nType, Bytes(pcData, nLength), nHandle, nSec, nUsec));
}
void OnSYNC(unsigned char nCounter, int nHandle, int nSec, int nUsec)
{
    Call(Out("sync", nCounter, nHandle, nSec, nUsec));
}
void OnEMCY(unsigned char nNode, unsigned short nCode, unsigned char nRegister, const unsigned char* pcData,
            int nHandle, int, int)
{
    Call(Out("emcy", nNode, nCode, nRegister, Bytes(pcData, 5), nHandle));
}
void OnGUARD(unsigned char nNode, unsigned char nState, int nHandle, int, int)
{
    Call(Out("guard", nNode, nState, nHandle));
}
void OnUndefined(int nId, unsigned char nByte0, unsigned char nByte1, unsigned char nLength, const char* pcData,
                 int nHandle, int nSec, int nUsec)
{
    Call(Out("undefined", nId, nByte0, nByte1, Bytes(pcData, nLength), nHandle, nSec, nUsec));
}

} // namespace

TEST(CanIndicationDecode, FramesTimeStampsAndLengthLimits)
{
    // Identifier, flags, data, raw length, seconds, microseconds.
    const auto Decoded = [](const std::vector<unsigned char>& anPayload) {
        SFrameInd oInd; // points into oMsg
        const COrvaneMsg oMsg = Ind(eIndFrame, anPayload);
        EXPECT_TRUE(DecodeFrame(oMsg, oInd));
        return Out(oInd.nIdentifier, oInd.nFlags, Bytes(oInd.pcData, oInd.nLength), oInd.nRawLength, oInd.oTime.tv_sec,
                   oInd.oTime.tv_usec);
    };
    // 0x18FF0001, flags 0x05 (extended, time stamp), data 11 22 33,
    // seconds 0x01020304, microseconds 999999 = 0x0F423F.
    EXPECT_EQ(Decoded({0x01, 0x00, 0xFF, 0x18, 0x05, 0x11, 0x22, 0x33, 0x04, 0x03, 0x02, 0x01, 0x3F, 0x42, 0x0F, 0x00}),
              "419364865 5 \x11\x22\x33 11 16909060 999999");
    // The flags byte is sign-extended; stamp bit set but only 3 bytes
    // behind the header: length 0, no stamp.
    EXPECT_EQ(Decoded({0x7F, 0x00, 0x00, 0x00, 0x84, 0x01, 0x02, 0x03}), "127 -124  3 0 0");

    // At most 64 data bytes, counted after the stamp.
    const auto Frame = [](unsigned char nFlags, std::size_t nBytes) {
        std::vector<unsigned char> anPayload = {0x01, 0x00, 0x00, 0x00, nFlags};
        anPayload.resize(anPayload.size() + nBytes, 0x5A);
        return Ind(eIndFrame, anPayload);
    };
    SFrameInd oInd;
    EXPECT_TRUE(DecodeFrame(Frame(0x00, 64), oInd));
    EXPECT_FALSE(DecodeFrame(Frame(0x00, 65), oInd));
    EXPECT_TRUE(DecodeFrame(Frame(0x04, 72), oInd));
    EXPECT_EQ(oInd.nLength, 64);
    EXPECT_FALSE(DecodeFrame(Frame(0x04, 73), oInd));
    EXPECT_FALSE(DecodeFrame(Ind(eIndFrame, {0x01, 0x00, 0x00, 0x00}), oInd)) << "shorter than the header";
}

TEST(CanIndicationDecode, PDOLengthIsCappedAtEightAndAtTheBytesPresent)
{
    const std::pair<std::vector<unsigned char>, std::string> aoCases[] = {
        {{0x05, 0x01, 0x02, 0xA1, 0xA2}, "\xA1\xA2"},
        {{0x05, 0x01, 0x09, 1, 2, 3, 4, 5, 6, 7, 8, 9}, "\x01\x02\x03\x04\x05\x06\x07\x08"},
        {{0x05, 0x01, 0x04, 0xA1}, "\xA1"},
        {{0x05, 0x01}, ""},
    };
    for (const auto& oCase : aoCases)
    {
        SPDOInd oPdo;
        const COrvaneMsg oMsg = Ind(eIndPDO, oCase.first);
        DecodePDO(oMsg, oPdo);
        EXPECT_EQ(Out(oPdo.nNodeID, oPdo.nPDOType, Bytes(oPdo.pcData, oPdo.nLength)), Out(5, 1, oCase.second));
    }
}

namespace
{

constexpr int HANDLE = 7;

// Frame 0x123, flags 0x04, data "ab", stamp 0x10 s 0x20 us.
const std::vector<unsigned char> STAMPED_FRAME = {0x23, 0x01, 0x00, 0x00, 0x04, 'a',  'b', 0x10,
                                                  0x00, 0x00, 0x00, 0x20, 0x00, 0x00, 0x00};
const std::vector<unsigned char> EMCY = {0x05, 0x30, 0x81, 0x11, 'v', 'w', 'x', 'y', 'z'};
const std::vector<unsigned char> UNDEFINED = {0x01, 0x07, 0x00, 0x00, 0x04, 'q', 0x03, 0, 0, 0, 0x04, 0, 0, 0};

class CanClientDllTest : public ::testing::Test
{
protected:
    void SetUp() override { ClearCalls(); }
    COrvaneClientCANDll m_oClient{HANDLE, 1000};
};

} // namespace

TEST_F(CanClientDllTest, CallbacksGetTheirFieldsAndFrameCallbacksExcludeEachOther)
{
    m_oClient.SetCallback(OnFrame);
    Deliver(m_oClient, Ind(eIndFrame, STAMPED_FRAME));
    m_oClient.SetCallbackEx(OnFrameEx);
    Deliver(m_oClient, Ind(eIndFrame, STAMPED_FRAME));
    m_oClient.SetCallback(OnFrame);
    Deliver(m_oClient, Ind(eIndFrame, {0x23, 0x01, 0x00, 0x00, 0x01, 'c'}));

    // CANopen callbacks get zero time stamps, except the undefined one.
    m_oClient.CANopenSetCallback(OnPDO, OnSYNC, OnEMCY, OnGUARD, OnUndefined);
    Deliver(m_oClient, Ind(eIndPDO, {0x05, 0x02, 0x02, 'x', 'y'}));
    Deliver(m_oClient, Ind(eIndSYNC, {0x09}));
    Deliver(m_oClient, Ind(eIndEMCY, EMCY));
    Deliver(m_oClient, Ind(eIndGUARD, {0x05, 0x7F}));
    Deliver(m_oClient, Ind(eIndUndefined, UNDEFINED));
    Deliver(m_oClient, Ind(0x0265, {0x01})); // not an indication of a CAN port

    m_oClient.SetCallback(nullptr);
    m_oClient.SetMaxSizePerQueue(10);
    Deliver(m_oClient, Ind(eIndFrame, STAMPED_FRAME));
    EXPECT_EQ(Calls(),
              (std::vector<std::string>{"frame 291 ab 4 7", "frameEx 291 ab 4 7 16 32", "frame 291 c 1 7",
                                        "pdo 5 2 xy 7 0 0", "sync 9 7 0 0", "emcy 5 33072 17 vwxyz 7", "guard 5 127 7",
                                        "undefined 1793 1 7 q 7 3 4"}));
    EXPECT_EQ(m_oClient.CANGetMessage(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0)
        << "with no callback left the frame is queued";
}

TEST_F(CanClientDllTest, QueuesDropWithoutMaximumOrWhenTooLongKeepTheOldestAndEmptyAtSizeZero)
{
    Deliver(m_oClient, Ind(eIndFrame, STAMPED_FRAME));
    EXPECT_EQ(m_oClient.CANGetMessage(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), -1)
        << "queueing is off until a maximum is set";

    m_oClient.SetMaxSizePerQueue(10);
    m_oClient.SetCallback(OnFrame);
    std::vector<unsigned char> anLong = {0x01, 0x00, 0x00, 0x00, 0x00};
    anLong.resize(5 + 65, 'z');
    Deliver(m_oClient, Ind(eIndFrame, anLong));
    Deliver(m_oClient, Ind(eIndUndefined, anLong));
    m_oClient.SetCallback(nullptr);
    Deliver(m_oClient, Ind(eIndFrame, anLong));
    EXPECT_TRUE(Calls().empty());
    EXPECT_EQ(m_oClient.CANGetMessage(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), -1);

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
    Deliver(m_oClient, Ind(eIndPDO, {0x05, 0x02, 0x03, 1, 2, 3}));
    Deliver(m_oClient, Ind(eIndEMCY, EMCY));
    Deliver(m_oClient, Ind(eIndGUARD, {0x05, 0x7F}));
    Deliver(m_oClient, Ind(eIndUndefined, UNDEFINED));

    // The frame's bytes behind the header are copied whole, stamp included;
    // the length counts the data only.
    int nId = 0, nFlags = 0, nSec = -1, nUsec = -1;
    unsigned char nLength = 0;
    char acData[72] = {};
    int r = m_oClient.CANGetMessage(&nId, acData, &nLength, &nFlags, &nSec, &nUsec);
    EXPECT_EQ(Out(r, nId, nLength, nFlags, nSec, nUsec), "1 291 2 4 16 32");
    EXPECT_EQ(Bytes(acData, 10), Bytes("ab\x10\0\0\0\x20\0\0\0", 10));
    r = m_oClient.CANGetMessage(&nId, acData, &nLength, &nFlags, &nSec, &nUsec);
    EXPECT_EQ(Out(r, nId, nFlags, nSec, nUsec), "0 536870911 -127 0 0");

    unsigned char nNode = 0, nType = 0, nRegister = 0, nState = 0, acBytes[8] = {};
    unsigned short nCode = 0;
    r = m_oClient.CANopenGetPDO(&nNode, &nType, &nLength, acData);
    EXPECT_EQ(Out(r, nNode, nType, Bytes(acData, nLength)), "0 5 2 \x01\x02\x03");
    r = m_oClient.CANopenGetEMCY(&nNode, &nCode, &nRegister, acBytes);
    EXPECT_EQ(Out(r, nCode, nRegister, Bytes(acBytes, 5)), "0 33072 17 vwxyz");
    r = m_oClient.CANopenGetGUARD(&nNode, &nState);
    EXPECT_EQ(Out(r, nState), "0 127");
    unsigned char nByte0 = 0, nByte1 = 0;
    r = m_oClient.CANopenGetUndefined(&nId, &nByte0, &nByte1, &nLength, acData, &nSec, &nUsec);
    EXPECT_EQ(Out(r, nId, nByte0, nByte1, Bytes(acData, nLength), nSec, nUsec), "0 1793 1 7 q 3 4");
}

// Through the application interface, on a device filed without a connection.
TEST(CanDllNoConnection, PollWithoutAvailableEntryWithoutClientClosedHandlesAndErrorText)
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
    // A failed call writes no output back, not even the caller's own value.
    int bTermination = 7, bValid = 7;
    EXPECT_EQ(CANGetGlobals(nHandle, nullptr, nullptr, &bTermination, nullptr, nullptr), ORVANE_ERR_TCP_NOT_CONNECTED);
    EXPECT_EQ(CANGetTime(nHandle, &bValid, nullptr, nullptr), ORVANE_ERR_TCP_NOT_CONNECTED);
    EXPECT_EQ(Out(bTermination, bValid), "7 7");
    EXPECT_EQ(CANCloseDevice(nHandle), 0);

    int nEmpty = 0;
    CDeviceManager::SetDevice(&nEmpty, new CDevice(nullptr, "127.0.0.1", 5001, 0, eOrvaneCAN, true));
    EXPECT_EQ(nEmpty, nHandle + 1);
    EXPECT_EQ(CANWrite(nEmpty, 1, "a", 1, 0), 0);
    EXPECT_EQ(CANDeviceConnectState(nEmpty), 0);
    EXPECT_EQ(CANCloseDevice(nEmpty), 0);

    // On a closed or unknown handle, a sample of the kinds of function:
    // closing, settings with outputs, writing, a poller, a CANopen service.
    // Each output starts at a value no function would write.
    unsigned int nU = 0xDEAD;
    int nI = 0xDEAD;
    unsigned char nC = 0xAD;
    for (int nBad : {nHandle, nEmpty, 0, -1})
    {
        EXPECT_EQ(CANCloseDevice(nBad), ORVANE_ERR_INVALID_HANDLE) << nBad;
        EXPECT_EQ(CANGetGlobals(nBad, &nU, &nC, &nI, &nI, &nI), ORVANE_ERR_INVALID_HANDLE) << nBad;
        EXPECT_EQ(CANWriteEx(nBad, 1, "a", 1, 0, &nI, &nI), ORVANE_ERR_INVALID_HANDLE) << nBad;
        EXPECT_EQ(CANGetMessage(nBad, &nI, &nI, nullptr, &nC, &nI, &nI, &nI), ORVANE_ERR_INVALID_HANDLE) << nBad;
        EXPECT_EQ(CANopenSendSDORead(nBad, 1, 0x1000, 0, 100, &nC, &nU), ORVANE_ERR_INVALID_HANDLE) << nBad;
    }
    EXPECT_EQ(Out(nU, nI, nC), "57005 57005 173");

    // The error text is cut to the buffer, terminator included.
    const std::string sText = "Device handle is invalid";
    struct SCase
    {
        int nLength, nResult;
        std::string sWritten;
    };
    for (const SCase& oCase : {SCase{25, 25, sText}, SCase{24, 24, sText.substr(0, 23)}, SCase{1, 1, ""},
                               SCase{0, 0, "untouched"}, SCase{-3, 0, "untouched"}})
    {
        char acBuffer[64] = "untouched";
        EXPECT_EQ(Out(CANErrorMessage(ORVANE_ERR_INVALID_HANDLE, acBuffer, oCase.nLength), acBuffer),
                  Out(oCase.nResult, oCase.sWritten))
            << oCase.nLength;
    }
    EXPECT_EQ(CANErrorMessage(ORVANE_ERR_INVALID_HANDLE, nullptr, 10), 0);
}

namespace
{

constexpr int TIMEOUT_MS = 5000;

} // namespace

TEST(DllCan, OpenConfigureAndReadBack)
{
    CApiSim oSim;
    ASSERT_TRUE(oSim.Started()) << oSim.Error();
    int nHandle = -1, nConfirmed = -1;
    ASSERT_EQ(CANOpenDevice(&nHandle, 0, 0, oSim.CanPort(), HOST, TIMEOUT_MS), 0);
    EXPECT_EQ(CANDeviceConnectState(nHandle), CAN_STATE_CONNECTED);
    EXPECT_EQ(CANSetGlobals(nHandle, 250000, 'N', 1, 0, 1), 0);
    unsigned int nBaudrate = 0;
    unsigned char nMode = 0;
    int bTermination = 7, bHighSpeed = 7, bTimeStamp = 7;
    EXPECT_EQ(CANGetGlobals(nHandle, &nBaudrate, &nMode, &bTermination, &bHighSpeed, &bTimeStamp), 0);
    EXPECT_EQ(Out(nBaudrate, nMode, bTermination, bHighSpeed, bTimeStamp), "250000 78 1 0 1");

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
    EXPECT_EQ(CDeviceManager::GetDevice(nHandle)->GetClient()->GetConnection().GetAlivePeriod(), 5000u);
    EXPECT_EQ(CANWrite(nHandle, 0x123, "\x01", 1, 0), 0);

    // With data confirmations a write waits for the gateway's transmit time.
    ASSERT_EQ(CANOpenDevice(&nConfirmed, 1, 0, oSim.CanPort(), HOST, TIMEOUT_MS), 0);
    nSeconds = 0;
    EXPECT_EQ(CANWriteEx(nConfirmed, 0x123, "\x01", 1, 0, &nSeconds, &nMicroseconds), 0);
    EXPECT_GE(nSeconds, 1000);
    EXPECT_LT(nSeconds, 100000) << "the gateway's clock, set above, not the local one";
    EXPECT_EQ(CANCloseDevice(nHandle), 0);
    EXPECT_EQ(CANCloseDevice(nConfirmed), 0);
}

// COrvaneClientCAN itself on a connection to the simulator: requests from
// several threads, and a peer that stops answering or goes away.
namespace
{

std::unique_ptr<COrvaneClientCAN> SimClient(CApiSim& oSim, bool bConfirmData, int nTimeout = TIMEOUT_MS)
{
    std::unique_ptr<COrvaneClientCAN> oClient(new COrvaneClientCAN(nTimeout));
    EXPECT_EQ(oClient->Connect(HOST, oSim.Sim().TcpPort(0), CKelIPBase::eTCP, true), 0);
    EXPECT_EQ(oClient->Open(bConfirmData, false), 0);
    return oClient;
}

} // namespace

TEST(CanClientSim, ConcurrentRequestsOnOneClient)
{
    CApiSim oSim;
    ASSERT_TRUE(oSim.Started()) << oSim.Error();
    auto oClient = SimClient(oSim, true);
    ASSERT_EQ(oClient->CANopenSetConfig(1), 0);
    std::atomic<int> nWrong{0};
    std::vector<std::thread> aoThreads;
    for (unsigned char nNode = 1; nNode <= 4; ++nNode)
        aoThreads.emplace_back([&, nNode] {
            for (unsigned short i = 0; i < 40; ++i)
            {
                unsigned char nResult = 0xFF;
                unsigned int nAbort = 0, nValue = 0;
                const unsigned int nWritten = nNode * 0x100u + i;
                if (oClient->CANopenSendSDOWrite(nNode, 0, i, 0, 100, nWritten, nResult, nAbort) != 0 ||
                    oClient->Write(nNode, "\x01", 1, 0, nullptr, nullptr) != 0 ||
                    oClient->CANopenSendSDORead(nNode, i, 0, 100, nResult, nValue) != 0 || nValue != nWritten)
                    ++nWrong;
            }
        });
    for (std::thread& oThread : aoThreads)
        oThread.join();
    EXPECT_EQ(nWrong.load(), 0);
}

TEST(CanClientSim, PeerThatStopsAnsweringOrGoesAway)
{
    GatewaySim::SSimOptions oOptions;
    oOptions.oFaults.nFreezeAfter = 1; // answers Open's SET_CONFIG, then nothing
    CApiSim oSim(oOptions);
    ASSERT_TRUE(oSim.Started()) << oSim.Error();
    auto oClient = SimClient(oSim, false, 300);
    unsigned int nBaud;
    unsigned char nMode;
    bool bTerm, bHigh, bStamp;
    EXPECT_EQ(oClient->GetGlobals(nBaud, nMode, bTerm, bHigh, bStamp), ORVANE_ERR_TCP_TIMEOUT);

    // A request waiting while the gateway goes away ends with its time-out.
    std::thread oWaiting([&] { EXPECT_EQ(oClient->SetPowerRelais(true), ORVANE_ERR_TCP_TIMEOUT); });
    EXPECT_TRUE(WaitUntil([&] { return oSim.Sim().Counters().nIgnoredFrozen.load() == 2; }));
    oSim.Sim().Stop();
    oWaiting.join();
    EXPECT_TRUE(WaitUntil([&] { return oClient->GetConnectState() != CKelIPBase::eConnected; }));
    EXPECT_EQ(oClient->SetPowerRelais(true), ORVANE_ERR_TCP_NOT_CONNECTED);
    EXPECT_EQ(oClient->Write(1, nullptr, 0, 0, nullptr, nullptr), ORVANE_ERR_TCP_NOT_CONNECTED);
}

// Batches against a raw peer on 127.0.0.1, through a handle of the C
// interface: the client connects without connection messages, so the peer
// sees nothing but the telegrams.
namespace
{

using namespace OrvaneTest;

struct SRawClient
{
    explicit SRawClient(CRawListener& oListener, int nTimeout = TIMEOUT_MS)
    {
        poClient = new COrvaneClientCANDll(0, nTimeout);
        CDeviceManager::SetDevice(&nHandle, new CDevice(poClient, LOOPBACK, 5001, 0, eOrvaneCAN, true));
        poClient->COrvaneClient::Open();
        EXPECT_EQ(poClient->Connect(LOOPBACK, oListener.Port(), CKelIPBase::eTCP, false), 0);
        oPeer = oListener.Accept();
    }
    ~SRawClient() { CANCloseDevice(nHandle); }

    int nHandle = 0;
    COrvaneClientCANDll* poClient = nullptr;
    CRawPeer oPeer;
};

SCANFrame BatchFrame(int nIndex)
{
    SCANFrame oFrame{};
    oFrame.m_nIdentifier = static_cast<unsigned int>(nIndex) * 7919u;
    oFrame.m_nFlags = static_cast<unsigned char>(nIndex & 3);
    oFrame.m_nLength = static_cast<unsigned char>(nIndex % 65);
    for (int i = 0; i < oFrame.m_nLength; ++i)
        oFrame.m_acData[i] = static_cast<char>(nIndex + i);
    return oFrame;
}

void OnReadEnd(int nHandle)
{
    Call(Out("end", nHandle));
}

} // namespace

TEST(CanBatch, BatchWriteSendsTheBytesOfFrameByFrameWrites)
{
    CRawListener oListener;
    SRawClient oSingle(oListener), oBatch(oListener);
    // More than one send's worth, every length from 0 to 64.
    constexpr int COUNT = 5000;
    std::vector<SCANFrame> aoFrames;
    for (int i = 0; i < COUNT; ++i)
        aoFrames.push_back(BatchFrame(i));
    for (const SCANFrame& oFrame : aoFrames)
        ASSERT_EQ(CANWrite(oSingle.nHandle, static_cast<int>(oFrame.m_nIdentifier), oFrame.m_acData, oFrame.m_nLength,
                           oFrame.m_nFlags),
                  0);
    int nWritten = -1;
    ASSERT_EQ(CANWriteBatch(oBatch.nHandle, aoFrames.data(), COUNT, &nWritten), 0);
    EXPECT_EQ(nWritten, COUNT);
    for (int i = 0; i < COUNT; ++i)
    {
        const std::string sSingle = oSingle.oPeer.ReceiveMessage();
        ASSERT_FALSE(sSingle.empty()) << i;
        ASSERT_EQ(ToHex(oBatch.oPeer.ReceiveMessage()), ToHex(sSingle)) << "frame " << i;
    }

    // A frame too long for its field fails the call before anything is sent.
    aoFrames[1].m_nLength = 65;
    EXPECT_EQ(CANWriteBatch(oBatch.nHandle, aoFrames.data(), 2, &nWritten), ORVANE_ERR_INVALID_PARAMETER);
    EXPECT_EQ(nWritten, 0);
    EXPECT_EQ(CANWriteBatch(oBatch.nHandle, nullptr, 1, &nWritten), ORVANE_ERR_INVALID_PARAMETER);
    EXPECT_EQ(CANWriteBatch(oBatch.nHandle, nullptr, 0, nullptr), 0);
    EXPECT_EQ(CANWriteBatch(-1, aoFrames.data(), 1, &nWritten), ORVANE_ERR_INVALID_HANDLE);
    // So does a null buffer with a length, in every call that takes one, and
    // a length the telegram's byte cannot hold.
    const int nHandle = oBatch.nHandle;
    EXPECT_EQ(CANWrite(nHandle, 1, nullptr, 1, 0), ORVANE_ERR_INVALID_PARAMETER);
    EXPECT_EQ(CANWrite(nHandle, 1, aoFrames[0].m_acData, 256, 0), ORVANE_ERR_INVALID_PARAMETER);
    EXPECT_EQ(CANWriteAnalog(nHandle, nullptr, 1), ORVANE_ERR_INVALID_PARAMETER);
    EXPECT_EQ(CANopenSendPDO(nHandle, 1, 1, 1, nullptr), ORVANE_ERR_INVALID_PARAMETER);
    EXPECT_EQ(CANopenSendSDOReadBlock(nHandle, 1, 0x1000, 0, 10, 1, nullptr, nullptr, nullptr),
              ORVANE_ERR_INVALID_PARAMETER);
    EXPECT_EQ(CANopenSendSDOWriteBlock(nHandle, 1, 0x1000, 0, 10, 1, nullptr, nullptr, nullptr),
              ORVANE_ERR_INVALID_PARAMETER);
    ASSERT_EQ(CANWrite(oBatch.nHandle, 1, "", 0, 0), 0);
    EXPECT_EQ(oBatch.oPeer.ReceiveHex(), "0A 00 03 02 8A 13 01 00 00 00 00 99") << "nothing sent before: ID 5002";
}

TEST(CanBatch, IndicationsCutAnywhereReachTheCallbackInOrderBeforeTheirReadEnd)
{
    ClearCalls();
    CRawListener oListener;
    SRawClient oClient(oListener);
    ASSERT_EQ(CANSetCallback(oClient.nHandle, OnFrame), 0);
    ASSERT_EQ(CANSetReadEndCallback(oClient.nHandle, OnReadEnd), 0);
    std::string sBatch;
    std::vector<std::string> asExpected;
    for (int i = 0; i < 3; ++i)
    {
        const std::vector<unsigned char> anPayload = {static_cast<unsigned char>(i), 0, 0, 0, 0, 'x', 'y'};
        sBatch += Ind(eIndFrame, anPayload).GetMessageData();
        asExpected.push_back(Out("frame", i, "xy", 0, oClient.poClient->GetHandle()));
    }
    const std::string sEnd = Out("end", oClient.poClient->GetHandle());
    for (std::size_t nCut = 0; nCut < sBatch.size(); ++nCut)
    {
        SCOPED_TRACE(nCut);
        ClearCalls();
        ASSERT_TRUE(oClient.oPeer.Send(sBatch.substr(0, nCut)));
        ASSERT_TRUE(oClient.oPeer.Send(sBatch.substr(nCut)));
        ASSERT_TRUE(WaitUntil([&] { return !Calls().empty() && Calls().back() == sEnd && Calls().size() > 3; }))
            << ::testing::PrintToString(Calls());
        // A read end comes only after a frame: never first, never twice in a
        // row (the frames differ from each other).
        std::vector<std::string> asCalls = Calls();
        EXPECT_NE(asCalls.front(), sEnd);
        EXPECT_EQ(std::adjacent_find(asCalls.begin(), asCalls.end()), asCalls.end());
        asCalls.erase(std::remove(asCalls.begin(), asCalls.end(), sEnd), asCalls.end());
        EXPECT_EQ(asCalls, asExpected);
    }
    // Switched off, frames still come one by one.
    ClearCalls();
    ASSERT_EQ(CANSetReadEndCallback(oClient.nHandle, nullptr), 0);
    ASSERT_TRUE(oClient.oPeer.Send(sBatch));
    ASSERT_TRUE(WaitUntil([] { return Calls().size() >= 3; }));
    EXPECT_EQ(Calls(), asExpected);
}

TEST(CanBatch, PeerThatStopsReadingEndsTheBatchAndOnlyWholeFramesCount)
{
    CRawListener oListener(8, 4096);
    SRawClient oClient(oListener, 300);
    // Far more than the socket buffers of both sides hold.
    std::vector<SCANFrame> aoFrames(200000, BatchFrame(64));
    int nWritten = -1;
    EXPECT_EQ(CANWriteBatch(oClient.nHandle, aoFrames.data(), static_cast<int>(aoFrames.size()), &nWritten),
              ORVANE_ERR_TCP_TIMEOUT);
    EXPECT_GT(nWritten, 0);
    EXPECT_LT(nWritten, static_cast<int>(aoFrames.size()));
    EXPECT_NE(CANDeviceConnectState(oClient.nHandle), 3);
    int nReceived = 0;
    while (oClient.oPeer.ReceiveMessage().size() == 76u)
        ++nReceived;
    EXPECT_EQ(nReceived, nWritten);
}
