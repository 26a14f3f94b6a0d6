// COrvaneClientCAN against the gateway simulator, run in-process on
// 127.0.0.1: commands over a real connection, requests from several threads,
// and a peer that stops answering or goes away. Frames between clients:
// can_dll_test.
#include "GatewaySim.h"
#include "OrvaneClientCAN.h"
#include "OrvaneProtocol.h"
#include "support/Wait.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

using namespace GatewaySim;
using OrvaneTest::WaitUntil;

namespace
{

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

    std::unique_ptr<COrvaneClientCAN> Client(bool bConfirmData, int nTimeout = 5000)
    {
        std::unique_ptr<COrvaneClientCAN> oClient(new COrvaneClientCAN(nTimeout));
        EXPECT_EQ(oClient->Connect("127.0.0.1", m_poSim->TcpPort(0), CKelIPBase::eTCP, true), 0);
        EXPECT_EQ(oClient->Open(bConfirmData, false), 0);
        return oClient;
    }

    std::unique_ptr<CGatewaySim> m_poSim;
};

} // namespace

// What one command stores, the matching one reads back over a real
// connection. Each command's bytes are pinned on both sides by their own
// tests; this shows the two sides meet.
TEST_F(OrvaneClientSim, CommandsRoundTrip)
{
    Start();
    auto oClient = Client(false);
    COrvaneClientCAN& c = *oClient;

    unsigned int nBaud = 0;
    unsigned char nMode = 0;
    unsigned short nCount = 0;
    bool bTerm = false, bHigh = false, bStamp = true;
    ASSERT_EQ(c.SetGlobals(250000, 'E', true, true, false), 0);
    ASSERT_EQ(c.GetGlobals(nBaud, nMode, bTerm, bHigh, bStamp), 0);
    EXPECT_TRUE(nBaud == 250000 && nMode == 'E' && bTerm && bHigh && !bStamp);
    // CANopen: refused until the mode is on; SDO objects as stored.
    EXPECT_EQ(c.CANopenSendSYNC(), 0x2FE);
    ASSERT_EQ(c.CANopenSetConfig(1), 0);
    ASSERT_EQ(c.CANopenGetConfig(nMode), 0);
    EXPECT_EQ(nMode, 1);
    EXPECT_EQ(c.CANopenSendSYNC(), 0);
    unsigned char nResult = 0xFF, acBack[8] = {};
    unsigned int nValue = 0, nAbort = 0xFF;
    ASSERT_EQ(c.CANopenSendSDOWrite(5, 0, 0x2000, 1, 100, 0x12345678, nResult, nAbort), 0);
    ASSERT_EQ(c.CANopenSendSDORead(5, 0x2000, 1, 100, nResult, nValue), 0);
    EXPECT_TRUE(nResult == 0 && nValue == 0x12345678u);
    const unsigned char acBlock[] = {0x10, 0x20, 0x30};
    ASSERT_EQ(c.CANopenSendSDOWriteBlock(5, 0x2001, 0, 100, 3, acBlock, nResult, nAbort), 0);
    ASSERT_EQ(c.CANopenSendSDOReadBlock(5, 0x2001, 0, 100, sizeof(acBack), nResult, nCount, acBack), 0);
    EXPECT_TRUE(nCount == 3 && acBack[0] == nResult && acBack[1] == 0x10); // the copy starts with the result byte

    EXPECT_EQ(c.StartAlive(5), 0);
    EXPECT_EQ(c.GetConnection().GetAlivePeriod(), 5000u);
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
