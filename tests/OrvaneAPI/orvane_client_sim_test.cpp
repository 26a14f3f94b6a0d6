// COrvaneClientCAN against the gateway simulator, run in-process on
// 127.0.0.1: requests from several threads over a real connection, and a
// peer that stops answering or goes away. Settings and frames between
// clients: can_dll_test.
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
