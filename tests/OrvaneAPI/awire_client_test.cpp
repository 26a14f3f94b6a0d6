// COrvaneClientAWire against the simulated aWire programmer, run in-process:
// the client's requests go straight to the programmer model, its
// confirmations come back through DataInd, and a peer thread completes the
// block writes later with write-status indications, as the read thread
// would deliver them. Last, one file over TCP to the simulator on 127.0.0.1.
#include "AWirePortModel.h"
#include "GatewaySim.h"
#include "OrvaneClientAWire.h"
#include "OrvaneProtocol.h"
#include "support/AWireFiles.h"
#include "support/ClientSeams.h"
#include "support/Wait.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

using namespace GatewaySim;
using namespace ApiTest;
using ClientTest::Out;

namespace
{

constexpr int TRANSFER_IN_PROGRESS = (eOrvaneAWire << 8) | OrvaneAWire::RESULT_TRANSFER_IN_PROGRESS;

bool WaitUntil(const std::function<bool()>& fnDone)
{
    return OrvaneTest::WaitUntil(fnDone, 20000);
}

// A client wired to a programmer model. The peer thread completes the
// oldest pending write as soon as two are pending, or at once when every
// byte of the file the test announced (ExpectFile; none: single writes) has
// been sent; Hold stops it. A client that never keeps two writes pending in
// the middle of a file therefore stalls, and its test fails.
class CPeerClient : public COrvaneClientAWire
{
public:
    explicit CPeerClient(const SAWireSettings& oSettings) : COrvaneClientAWire(5000), m_oModel(oSettings)
    {
        m_oPeer = std::thread([this] { PeerLoop(); });
    }
    ~CPeerClient() override
    {
        ShutdownConnection();
        StopFileWriter();
        {
            std::lock_guard<std::mutex> oLock(m_oMutex);
            m_bStop = true;
        }
        m_oWake.notify_all();
        m_oPeer.join();
    }

    using COrvaneClientAWire::SendMsg;
    int SendMsg(const COrvaneMsg& oRequest) override
    {
        const SAWireOutcome oOutcome = m_oModel.Handle(oRequest);
        {
            std::lock_guard<std::mutex> oLock(m_oMutex); // orders the model's change before the peer's check
        }
        m_oWake.notify_all();
        if (oOutcome.bConfirm)
            Feed(oOutcome.oConfirmation.GetMessageData());
        return 0;
    }

    void Feed(const std::string& sWire) { DataInd(sWire.data(), static_cast<unsigned short>(sWire.size())); }

    void Hold(bool bHold)
    {
        {
            std::lock_guard<std::mutex> oLock(m_oMutex);
            m_bHold = bHold;
        }
        m_oWake.notify_all();
    }

    // The blocks of the file about to be written.
    void ExpectFile(const std::vector<SImageBlock>& aoBlocks)
    {
        std::lock_guard<std::mutex> oLock(m_oMutex);
        for (const SImageBlock& oBlock : aoBlocks)
            m_nFileBytes += oBlock.acData.size();
    }

    CAWirePortModel m_oModel;

private:
    // Under m_oMutex: whether the oldest pending write is to be completed now.
    bool Due() const
    {
        const std::size_t nPending = m_oModel.PendingWrites();
        if (m_bHold || nPending == 0)
            return false;
        if (nPending >= 2)
            return true;
        std::size_t nSent = 0;
        for (unsigned int nLength : m_oModel.WriteLengths())
            nSent += nLength;
        return nSent >= m_nFileBytes;
    }

    // Every change of the model's writes comes with a request (SendMsg), and
    // every change of the settings with a notification.
    void PeerLoop()
    {
        std::unique_lock<std::mutex> oLock(m_oMutex);
        for (;;)
        {
            m_oWake.wait(oLock, [&] { return m_bStop || Due(); });
            if (m_bStop)
                return;
            oLock.unlock();
            for (const COrvaneMsg& oInd : m_oModel.CompleteOldest())
                Feed(oInd.GetMessageData());
            oLock.lock();
        }
    }

    std::mutex m_oMutex;
    std::condition_variable m_oWake;
    bool m_bStop = false;
    bool m_bHold = false;
    std::size_t m_nFileBytes = 0;
    std::thread m_oPeer;
};

} // namespace

// A whole file through the programmer: chunked by the page size read with
// GET_CONFIG, the first chunk of a block ending on a chunk boundary, never
// more than two writes outstanding, every byte in the flash as in the file.
// No page size read gives the largest chunk.
struct SChunkCase
{
    unsigned int nPageSize;
    std::vector<SImageBlock> aoBlocks;
    std::vector<unsigned int> anLengths;
};

class AWireFileWrite : public ::testing::TestWithParam<int>
{
};

TEST_P(AWireFileWrite, WholeFileWrittenAndVerified)
{
    std::vector<SChunkCase> aoCases = {
        {512,
         {{0x1010, std::vector<unsigned char>(0x20000)}, {0x40000, std::vector<unsigned char>(5000)}},
         {0x6FF0, 0x8000, 0x8000, 0x8000, 0x1010, 5000}},
        {3000, {{0x1010, std::vector<unsigned char>(100000)}}, {25888, 30000, 30000, 14112}},
        {0, {{0, std::vector<unsigned char>(70000)}}, {32768, 32768, 4464}},
    };
    SChunkCase& oCase = aoCases[GetParam()];
    SAWireSettings oSettings;
    oSettings.nPageSize = oCase.nPageSize;
    CPeerClient oClient(oSettings);
    const std::string sFile = WriteHexFile("awire_whole_" + std::to_string(GetParam()) + ".hex", oCase.aoBlocks);
    oClient.ExpectFile(oCase.aoBlocks);

    ASSERT_EQ(oClient.WriteFile(sFile), 0);
    EXPECT_EQ(oClient.GetPageSize(), oCase.nPageSize);
    std::vector<unsigned char> anPercent;
    EXPECT_EQ(PollToEnd(oClient, anPercent), FileStep::eDone);
    ASSERT_FALSE(anPercent.empty());
    EXPECT_EQ(anPercent.back(), 100);
    for (std::size_t i = 1; i + 1 < anPercent.size(); ++i)
        EXPECT_LE(anPercent[i], 100);

    EXPECT_EQ(oClient.m_oModel.WriteLengths(), oCase.anLengths);
    EXPECT_EQ(oClient.m_oModel.MaxPendingWrites(), 2u);
    for (const SImageBlock& oBlock : oCase.aoBlocks)
        EXPECT_TRUE(oClient.m_oModel.Flash(oBlock.nAddress, oBlock.acData.size()) ==
                    std::string(oBlock.acData.begin(), oBlock.acData.end()))
            << "flash differs in the block at 0x" << std::hex << oBlock.nAddress;
    // Single writes are accepted again once the end was seen.
    short nId = 0;
    const char acByte[1] = {0x5A};
    EXPECT_EQ(oClient.WriteBlock(0x100, 1, acByte, nId), 0);
    std::remove(sFile.c_str());
}

INSTANTIATE_TEST_SUITE_P(PageSizes, AWireFileWrite, ::testing::Values(0, 1, 2));

// A block reported failed ends the writing: step -1 and 100 percent once,
// then the writer is gone and single writes work again. A file that cannot
// be read fails too.
TEST(AWireFileWriteFaults, FailingBlockOrUnreadableFileEndsTheFile)
{
    SAWireSettings oSettings;
    oSettings.nFailBlock = 1;
    oSettings.nFailStatus = 5;
    CPeerClient oClient(oSettings);
    std::vector<SImageBlock> aoBlocks = {{0, std::vector<unsigned char>(5 * 32768)}};
    const std::string sFile = WriteHexFile("awire_fail.hex", aoBlocks);
    oClient.ExpectFile(aoBlocks);

    ASSERT_EQ(oClient.WriteFile(sFile), 0);
    FileStep::EFileStep nStep = FileStep::ePrepared;
    unsigned char nPercent = 0;
    ASSERT_TRUE(
        WaitUntil([&] { return oClient.GetWriteFileStatus(nStep, nPercent) == 0 && nStep == FileStep::eFailed; }));
    EXPECT_EQ(nPercent, 100);
    EXPECT_EQ(oClient.GetWriteFileStatus(nStep, nPercent), 255);
    // Nothing more was sent after the failure was seen.
    EXPECT_LE(oClient.m_oModel.WriteLengths().size(), 3u);
    short nId = 0;
    const char acByte[1] = {0x5A};
    EXPECT_EQ(oClient.WriteBlock(0x100, 1, acByte, nId), 0);
    std::remove(sFile.c_str());

    // An unreadable file fails at the first poll, nothing written.
    const std::size_t nWrites = oClient.m_oModel.WriteLengths().size();
    nStep = FileStep::ePrepared;
    ASSERT_EQ(oClient.WriteFile(::testing::TempDir() + "awire_no_such_file.hex"), 0);
    ASSERT_TRUE(
        WaitUntil([&] { return oClient.GetWriteFileStatus(nStep, nPercent) != 0 || nStep == FileStep::eFailed; }));
    EXPECT_EQ(nStep, FileStep::eFailed);
    EXPECT_EQ(oClient.m_oModel.WriteLengths().size(), nWrites);
}

// While a file is written, single writes are refused; the writer can be
// stopped halfway by closing the client, or by destroying it.
TEST(AWireFileWriteFaults, RefusalAndStopHalfway)
{
    std::vector<SImageBlock> aoBlocks = {{0, std::vector<unsigned char>(8 * 32768)}};
    const std::string sFile = WriteHexFile("awire_halfway.hex", aoBlocks);
    for (bool bClose : {true, false})
    {
        std::unique_ptr<CPeerClient> oClient(new CPeerClient(SAWireSettings()));
        oClient->Hold(true);
        oClient->ExpectFile(aoBlocks);
        ASSERT_EQ(oClient->WriteFile(sFile), 0);
        ASSERT_TRUE(WaitUntil([&] { return oClient->m_oModel.PendingWrites() == 2; }));
        short nId = 0;
        const char acByte[1] = {0x5A};
        EXPECT_EQ(oClient->WriteBlock(0x100, 1, acByte, nId), TRANSFER_IN_PROGRESS);
        EXPECT_EQ(oClient->WriteUserPage(0, 1, acByte, nId), TRANSFER_IN_PROGRESS);
        // A second file is not started while the first is written.
        EXPECT_EQ(oClient->WriteFile(sFile), 0);

        FileStep::EFileStep nStep = FileStep::ePrepared;
        unsigned char nPercent = 0;
        ASSERT_EQ(oClient->GetWriteFileStatus(nStep, nPercent), 0);
        EXPECT_EQ(Out(nStep, nPercent), Out(FileStep::eWriting, 0));
        oClient->Hold(false);
        ASSERT_TRUE(WaitUntil([&] { return oClient->m_oModel.WriteLengths().size() >= 4; }));
        if (bClose)
        {
            oClient->Close();
            EXPECT_EQ(oClient->GetWriteFileStatus(nStep, nPercent), 255);
            // Nothing is sent once the writer has been stopped.
            const std::size_t nWrites = oClient->m_oModel.WriteLengths().size();
            oClient->Hold(false);
            EXPECT_EQ(oClient->m_oModel.WriteLengths().size(), nWrites);
        }
        oClient.reset();
    }
    std::remove(sFile.c_str());
}

// Write-status indications: a short one and one for an unknown write change
// nothing; progress is filed under the write's ID, and a finished entry goes
// once reported.
TEST(AWireIndications, ProgressMap)
{
    CPeerClient oClient{SAWireSettings()};
    oClient.Hold(true);
    short nId = 0;
    const std::string sData(300, 'x');
    ASSERT_EQ(oClient.WriteBlock(0x200, 300, sData.data(), nId), 0);

    Progress::EProgress nProgress = Progress::eFinished;
    unsigned short nLength = 0, nWritten = 1;
    ASSERT_EQ(oClient.GetWriteBlockStatus(nId, nProgress, nLength, nWritten), 0);
    EXPECT_EQ(Out(nProgress, nLength, nWritten), Out(Progress::eInProgress, 300, 0));

    auto Indication = [](const std::string& sPayload) {
        return COrvaneMsg(OrvaneAWire::eIndWriteStatus, 0, sPayload.data(),
                          static_cast<unsigned short>(sPayload.size()))
            .GetMessageData();
    };
    // Four bytes: ID, progress "finished", and half of the count.
    oClient.Feed(Indication(CKelPayloadWriter().S16(nId).U8(0).U8(44).Data()));
    // A complete one for a write nobody made.
    const short nOther = static_cast<short>(nId + 100);
    oClient.Feed(Indication(CKelPayloadWriter().S16(nOther).U8(0).U16(300).Data()));
    ASSERT_EQ(oClient.GetWriteBlockStatus(nId, nProgress, nLength, nWritten), 0);
    EXPECT_EQ(Out(nProgress, nWritten), Out(Progress::eInProgress, 0));
    EXPECT_EQ(oClient.GetWriteBlockStatus(nOther, nProgress, nLength, nWritten), 255);

    oClient.Feed(Indication(CKelPayloadWriter().S16(nId).U8(1).U16(128).Data()));
    ASSERT_EQ(oClient.GetWriteBlockStatus(nId, nProgress, nLength, nWritten), 0);
    EXPECT_EQ(Out(nProgress, nWritten), Out(Progress::eInProgress, 128));
    // The programmer's own completion.
    oClient.Hold(false);
    ASSERT_TRUE(WaitUntil([&] {
        return oClient.GetWriteBlockStatus(nId, nProgress, nLength, nWritten) == 0 && nProgress == Progress::eFinished;
    }));
    EXPECT_EQ(nWritten, 300);
    EXPECT_EQ(oClient.GetWriteBlockStatus(nId, nProgress, nLength, nWritten), 255);
    EXPECT_EQ(oClient.m_oModel.Flash(0x200, 300), sData);
}

// Configuration, reading and verifying against the programmer.
TEST(AWireCommands, ConfigReadVerify)
{
    CPeerClient oClient{SAWireSettings()};
    const std::string sText(300, 't');
    ASSERT_EQ(oClient.SetConfig(1, 2, 1024, 4, sText), 0);
    unsigned int n1 = 0, n2 = 0, nPage = 0, n4 = 0;
    std::string sBack;
    ASSERT_EQ(oClient.GetConfig(n1, n2, nPage, n4, sBack), 0);
    EXPECT_EQ(Out(n1, n2, nPage, n4, oClient.GetPageSize(), sBack), "1 2 1024 4 1024 " + sText.substr(0, 255));

    short nId = 0;
    const std::string sData = "\x01\x02\x03\x04\x05\x06";
    ASSERT_EQ(oClient.WriteBlock(0x1000, 6, sData.data(), nId), 0);
    ASSERT_TRUE(WaitUntil([&] { return oClient.m_oModel.PendingWrites() == 0; }));

    char acBuffer[8] = {};
    unsigned short nReceived = 0;
    ASSERT_EQ(oClient.Read(0x1000, 8, acBuffer, nReceived), 0);
    EXPECT_EQ(Out(nReceived, std::string(acBuffer, 8)), "8 " + sData + "\xFF\xFF");
    // A confirmation with more bytes than asked for fills only what was asked.
    ClientTest::CScripted<COrvaneClientAWire> oLong;
    oLong.ReplyWith("00 01 02 03");
    char acTwo[3] = {'x', 'x', 'x'};
    ASSERT_EQ(oLong.Read(0, 2, acTwo, nReceived), 0);
    EXPECT_EQ(Out(nReceived, std::string(acTwo, 3)), "2 \x01\x02x");

    EXPECT_EQ(oClient.Verify(0x1000, 6, sData.data()), 0);
    EXPECT_EQ(oClient.Verify(0x1000, 7, (sData + "\x07").data()), 255);
    // Beyond the flash the programmer's error comes back.
    EXPECT_EQ(oClient.Verify(0x7FFFFFFF, 6, sData.data()), (eOrvaneAWire << 8) | OrvaneAWire::RESULT_READ_FAILED);

    ASSERT_EQ(oClient.Erase(4), 0); // page 4 of 1024 bytes: 0x1000..0x13FF
    EXPECT_EQ(oClient.m_oModel.Flash(0x1000, 6), std::string(6, '\xFF'));
    EXPECT_EQ(oClient.EraseUserPage(), 0);
}

// Over TCP: block writes confirmed at once and finished later by the
// simulator's own completer, write-status indications through the read
// thread, a gap between the blocks left erased.
TEST(AWireSim, WholeFileWithAGapWrittenOverTcpAndVerified)
{
    SSimOptions oOptions;
    oOptions.nTcpBase = 0; // free ports on 127.0.0.1
    oOptions.anAWirePorts = {0};
    oOptions.oAWire.nPageSize = 3000;
    oOptions.nAWireDelayMs = 1;
    oOptions.bQuiet = true;
    CGatewaySim oSim(oOptions, nullptr);
    std::string sError;
    ASSERT_TRUE(oSim.Start(sError)) << sError;
    COrvaneClientAWire oClient(5000);
    ASSERT_EQ(oClient.Connect("127.0.0.1", oSim.AWireTcpPort(0), CKelIPBase::eTCP, true), 0);

    std::vector<SImageBlock> aoBlocks = {{0x1010, std::vector<unsigned char>(70000)},
                                         {0x40000, std::vector<unsigned char>(5000)}};
    const std::string sFile = WriteHexFile("awire_sim_whole.hex", aoBlocks);
    ASSERT_EQ(oClient.WriteFile(sFile), 0);
    std::vector<unsigned char> anPercent;
    EXPECT_EQ(PollToEnd(oClient, anPercent), FileStep::eDone);
    CAWirePortModel& oFlash = oSim.AWireModel(0);
    for (const SImageBlock& oBlock : aoBlocks)
        EXPECT_TRUE(oFlash.Flash(oBlock.nAddress, oBlock.acData.size()) ==
                    std::string(oBlock.acData.begin(), oBlock.acData.end()))
            << "block at 0x" << std::hex << oBlock.nAddress;
    EXPECT_EQ(oFlash.Flash(0x1010 + 70000, 1), "\xFF") << "the gap stays erased";
    std::remove(sFile.c_str());
}
