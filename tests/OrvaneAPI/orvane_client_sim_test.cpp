// COrvaneClientCAN against the gateway simulator, run in-process on
// 127.0.0.1: every command over a real connection, frames between two
// clients, requests from several threads, and a peer that stops answering or
// goes away.
#include "GatewaySim.h"
#include "KelPayload.h"
#include "OrvaneClientCAN.h"
#include "OrvaneProtocol.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

using namespace GatewaySim;

namespace
{

constexpr auto WAIT_LIMIT = std::chrono::seconds(5);

// A client that keeps the frame indications it receives.
class CFrameClient : public COrvaneClientCAN
{
public:
    explicit CFrameClient(int nTimeout) : COrvaneClientCAN(nTimeout) {}
    ~CFrameClient() override { ShutdownConnection(); }

    bool DataIndRespond(COrvaneMsg* poMsg) override
    {
        if (poMsg->GetCmdCode() != OrvaneCan::eIndFrame)
            return false;
        std::lock_guard<std::mutex> oLock(m_oMutex);
        m_asFrames.push_back(poMsg->GetData());
        m_oArrived.notify_all();
        delete poMsg;
        return true;
    }

    // The payload of the next frame indication, "" when none came in time.
    std::string NextFrame()
    {
        std::unique_lock<std::mutex> oLock(m_oMutex);
        if (!m_oArrived.wait_for(oLock, WAIT_LIMIT, [&] { return !m_asFrames.empty(); }))
            return std::string();
        const std::string sFrame = m_asFrames.front();
        m_asFrames.erase(m_asFrames.begin());
        return sFrame;
    }

private:
    std::mutex m_oMutex;
    std::condition_variable m_oArrived;
    std::vector<std::string> m_asFrames;
};

template <typename F>
bool WaitUntil(F fnDone)
{
    const auto oLimit = std::chrono::steady_clock::now() + WAIT_LIMIT;
    while (!fnDone())
    {
        if (std::chrono::steady_clock::now() > oLimit)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

class OrvaneClientSim : public ::testing::Test
{
protected:
    void Start(const SFaultSettings& oFaults = SFaultSettings())
    {
        SSimOptions oOptions;
        oOptions.nTcpBase = 0; // a free port on 127.0.0.1
        oOptions.bQuiet = true;
        oOptions.oFaults = oFaults;
        m_poSim.reset(new CGatewaySim(oOptions, nullptr));
        std::string sError;
        ASSERT_TRUE(m_poSim->Start(sError)) << sError;
    }

    std::unique_ptr<CFrameClient> Client(bool bConfirmData, int nTimeout = 5000)
    {
        std::unique_ptr<CFrameClient> oClient(new CFrameClient(nTimeout));
        EXPECT_EQ(oClient->Connect("127.0.0.1", m_poSim->TcpPort(0), CKelIPBase::eTCP, true), 0);
        EXPECT_EQ(oClient->Open(bConfirmData, false), 0);
        return oClient;
    }

    std::unique_ptr<CGatewaySim> m_poSim;
};

} // namespace

TEST_F(OrvaneClientSim, EveryCommandRoundTrips)
{
    Start();
    auto oClient = Client(false);
    COrvaneClientCAN& c = *oClient;

    unsigned int nBaud = 0;
    unsigned char nMode = 0;
    bool bTerm = false, bHigh = false, bStamp = true;
    ASSERT_EQ(c.SetGlobals(250000, 'E', true, true, false), 0);
    ASSERT_EQ(c.GetGlobals(nBaud, nMode, bTerm, bHigh, bStamp), 0);
    EXPECT_EQ(nBaud, 250000u);
    EXPECT_EQ(nMode, 'E');
    EXPECT_TRUE(bTerm && bHigh && !bStamp);

    bool bConfirm = true, bMonitor = false;
    ASSERT_EQ(c.SetConfig(false, true), 0);
    ASSERT_EQ(c.GetConfig(bConfirm, bMonitor), 0);
    EXPECT_TRUE(!bConfirm && bMonitor);

    SConfigFilter oFilter = {}, oRead = {};
    for (unsigned int i = 0; i < 16; ++i)
        oFilter.m_anWords[i] = 0x01000000u * i + i;
    ASSERT_EQ(c.SetFilter(oFilter), 0);
    ASSERT_EQ(c.GetFilter(oRead), 0);
    EXPECT_EQ(std::memcmp(&oFilter, &oRead, sizeof(oFilter)), 0);

    bool bValid = false;
    timeval oTime = {};
    ASSERT_EQ(c.SetTime(timeval{1000, 0}), 0);
    ASSERT_EQ(c.GetTime(bValid, oTime), 0);
    EXPECT_TRUE(bValid);
    EXPECT_GE(oTime.tv_sec, 1000);

    unsigned char nInterval = 0;
    unsigned short nStart = 0, nEnd = 0;
    ASSERT_EQ(c.SetZCardParameter(9, 0x0123, 0x0456), 0);
    ASSERT_EQ(c.GetZCardParameter(nInterval, nStart, nEnd), 0);
    EXPECT_EQ(nInterval, 9);
    EXPECT_EQ(nStart, 0x0123);
    EXPECT_EQ(nEnd, 0x0456);

    ASSERT_EQ(c.SetPowerRelais(true), 0);
    ASSERT_EQ(c.SetActivePowerSupplies(0x5), 0);
    unsigned char nValues = 0, nFlagsA = 0, nFlagsB = 0;
    short nValue1 = 0;
    unsigned short nValue2 = 0, nValue3 = 0, anValues[4] = {};
    bool bFlag = false, abA[4] = {}, abB[1] = {};
    ASSERT_EQ(
        c.GetPowerStatus(4, nValues, 4, nFlagsA, 1, nFlagsB, nValue1, nValue2, nValue3, bFlag, anValues, abA, abB), 0);
    EXPECT_EQ(nFlagsA, 4);
    EXPECT_TRUE(abA[0] && !abA[1] && abA[2] && !abA[3]);
    EXPECT_TRUE(bFlag && abB[0]);

    unsigned int nInputs = 0, nOutputs = 0;
    ASSERT_EQ(c.WriteDigital(0xA5A5), 0);
    ASSERT_EQ(c.ReadDigital(nInputs, nOutputs), 0);
    EXPECT_EQ(nOutputs, 0xA5A5u);

    const unsigned int anAnalog[] = {7, 0xFFFFFFFF, 12};
    unsigned int anBack[3] = {};
    unsigned short nCount = 0;
    ASSERT_EQ(c.WriteAnalog(anAnalog, 3), 0);
    ASSERT_EQ(c.ReadAnalog(3, anBack, nCount), 0);
    EXPECT_EQ(nCount, 3);
    EXPECT_EQ(std::memcmp(anAnalog, anBack, sizeof(anBack)), 0);

    SOrvaneDeviceInfo oInfo = {};
    std::string sStatus;
    ASSERT_EQ(c.Info(&oInfo), 0);
    EXPECT_EQ(std::string(oInfo.m_acName, 6), "GW-SIM");
    ASSERT_EQ(c.Status(sStatus), 0);
    EXPECT_EQ(sStatus, "CAN port 0 ready");
    EXPECT_EQ(c.Restart(), 0);

    // CANopen: refused until the mode is on.
    EXPECT_EQ(c.CANopenSendSYNC(), 0x2FE);
    unsigned char nCanopen = 0;
    ASSERT_EQ(c.CANopenSetConfig(1), 0);
    ASSERT_EQ(c.CANopenGetConfig(nCanopen), 0);
    EXPECT_EQ(nCanopen, 1);
    EXPECT_EQ(c.CANopenSetSYNCMode(100), 0);
    EXPECT_EQ(c.CANopenSendNMT(5, 1), 0);
    EXPECT_EQ(c.CANopenSendSYNC(), 0);
    EXPECT_EQ(c.CANopenSendTIME(100, 5000), 0);
    EXPECT_EQ(c.CANopenSendPDO(5, 1, 2, "\x01\x02"), 0);

    unsigned char nResult = 0xFF;
    unsigned int nValue = 0, nAbort = 0xFF;
    ASSERT_EQ(c.CANopenSendSDOWrite(5, 0, 0x2000, 1, 100, 0x12345678, nResult, nAbort), 0);
    EXPECT_EQ(nResult, 0);
    EXPECT_EQ(nAbort, 0u);
    ASSERT_EQ(c.CANopenSendSDORead(5, 0x2000, 1, 100, nResult, nValue), 0);
    EXPECT_EQ(nValue, 0x12345678u);

    const unsigned char acBlock[] = {0x10, 0x20, 0x30};
    unsigned char acBack[8] = {};
    unsigned short nLen = 0;
    ASSERT_EQ(c.CANopenSendSDOWriteBlock(5, 0x2001, 0, 100, 3, acBlock, nResult, nAbort), 0);
    ASSERT_EQ(c.CANopenSendSDOReadBlock(5, 0x2001, 0, 100, sizeof(acBack), nResult, nLen, acBack), 0);
    // The copy starts with the result byte.
    EXPECT_EQ(nLen, 3);
    EXPECT_EQ(acBack[0], nResult);
    EXPECT_EQ(acBack[1], 0x10);

    EXPECT_EQ(c.StartAlive(5), 0);
    EXPECT_EQ(c.GetConnection().GetAlivePeriod(), 5000u);
}

TEST_F(OrvaneClientSim, FramesWrittenByOneClientReachAnother)
{
    Start();
    auto oWriter = Client(false);
    auto oReader = Client(false);
    int nSeconds = 0, nMicroseconds = 0;
    ASSERT_EQ(oWriter->Write(0x123, "\x11\x22", 2, 0, &nSeconds, &nMicroseconds), 0);
    EXPECT_EQ(oReader->NextFrame(), std::string("\x23\x01\x00\x00\x00\x11\x22", 7));

    // With data confirmations the gateway's transmit time comes back.
    ASSERT_EQ(oWriter->SetConfig(true, false), 0);
    nSeconds = -1;
    ASSERT_EQ(oWriter->Write(0x1ABCDEF0, "\x33", 1, OrvaneCan::FRAME_FLAG_EXTENDED, &nSeconds, &nMicroseconds), 0);
    EXPECT_GE(nSeconds, 0);
    EXPECT_EQ(oReader->NextFrame(), std::string("\xF0\xDE\xBC\x1A\x01\x33", 6));
}

TEST_F(OrvaneClientSim, ConcurrentRequestsOnOneClient)
{
    Start();
    auto oClient = Client(true);
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

TEST_F(OrvaneClientSim, PeerThatStopsAnsweringOrGoesAway)
{
    SFaultSettings oFaults;
    oFaults.nFreezeAfter = 1; // answers Open's SET_CONFIG, then nothing
    Start(oFaults);
    auto oClient = Client(false, 300);
    unsigned int nBaud;
    unsigned char nMode;
    bool bTerm, bHigh, bStamp;
    EXPECT_EQ(oClient->GetGlobals(nBaud, nMode, bTerm, bHigh, bStamp), ORVANE_ERR_TCP_TIMEOUT);

    // A request waiting while the gateway goes away ends with its time-out.
    std::thread oWaiting([&] { EXPECT_EQ(oClient->SetPowerRelais(true), ORVANE_ERR_TCP_TIMEOUT); });
    EXPECT_TRUE(WaitUntil([&] { return m_poSim->Counters().nIgnoredFrozen.load() == 2; }));
    m_poSim->Stop();
    oWaiting.join();
    EXPECT_TRUE(WaitUntil([&] { return oClient->GetConnectState() != CKelIPBase::eConnected; }));
    EXPECT_EQ(oClient->SetPowerRelais(true), ORVANE_ERR_TCP_NOT_CONNECTED);
    EXPECT_EQ(oClient->Write(1, nullptr, 0, 0, nullptr, nullptr), ORVANE_ERR_TCP_NOT_CONNECTED);
}

TEST(OrvaneClientConnect, NobodyListening)
{
    // A loopback port with nothing behind it: bind one, learn it, close it.
    int nSocket = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in oAddr = {};
    oAddr.sin_family = AF_INET;
    oAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t nLen = sizeof(oAddr);
    ASSERT_EQ(bind(nSocket, reinterpret_cast<sockaddr*>(&oAddr), sizeof(oAddr)), 0);
    ASSERT_EQ(getsockname(nSocket, reinterpret_cast<sockaddr*>(&oAddr), &nLen), 0);
    close(nSocket);
    COrvaneClientCAN oClient(1000);
    const int nRet = oClient.Connect("127.0.0.1", ntohs(oAddr.sin_port), CKelIPBase::eTCP, true);
    // A transport result, shifted into the host-side range.
    EXPECT_GE(nRet, ORVANE_ERR_TCP_SOCKET);
    EXPECT_EQ(nRet & 0xFFFF, 0);
    EXPECT_EQ(oClient.SetPowerRelais(true), ORVANE_ERR_TCP_NOT_CONNECTED);
}
