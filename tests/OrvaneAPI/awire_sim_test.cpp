// COrvaneClientAWire against the simulator's aWire programmer over TCP on
// 127.0.0.1: block writes confirmed at once and finished later by the
// simulator's own completer, write-status indications through the read
// thread, the flash compared byte for byte afterwards.
#include "AWirePortModel.h"
#include "GatewaySim.h"
#include "OrvaneClientAWire.h"
#include "OrvaneHexfile.h"
#include "support/Wait.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <random>
#include <string>

using namespace GatewaySim;
using OrvaneTest::WaitUntil;

namespace
{

constexpr unsigned int WAIT_MS = 20000;

class AWireSim : public ::testing::Test
{
protected:
    void Start(const SAWireSettings& oSettings, unsigned int nDelayMs)
    {
        SSimOptions oOptions;
        oOptions.nTcpBase = 0; // free ports on 127.0.0.1
        oOptions.anAWirePorts = {0};
        oOptions.oAWire = oSettings;
        oOptions.nAWireDelayMs = nDelayMs;
        oOptions.bQuiet = true;
        m_poSim.reset(new CGatewaySim(oOptions, nullptr));
        std::string sError;
        ASSERT_TRUE(m_poSim->Start(sError)) << sError;
        m_poClient.reset(new COrvaneClientAWire(5000));
        ASSERT_EQ(m_poClient->Connect("127.0.0.1", m_poSim->AWireTcpPort(0), CKelIPBase::eTCP, true), 0);
    }

    // An Intel hex file of nCount random blocks (address, size); the image
    // comes back in asData.
    std::string HexFile(const std::string& sName, const std::vector<std::pair<unsigned int, unsigned int>>& aoBlocks)
    {
        std::mt19937 oRandom(7);
        COrvaneHexfile oHex;
        for (const auto& oBlock : aoBlocks)
        {
            std::string sData(oBlock.second, '\0');
            for (char& c : sData)
                c = static_cast<char>(oRandom());
            oHex.AddMemoryBlock(oBlock.first, reinterpret_cast<const unsigned char*>(sData.data()), oBlock.second);
            m_asData.push_back(sData);
        }
        m_sPath = ::testing::TempDir() + sName;
        EXPECT_EQ(oHex.SaveFile(m_sPath.c_str(), COrvaneHexfile::eIntel), 0);
        return m_sPath;
    }

    void TearDown() override
    {
        m_poClient.reset();
        m_poSim.reset();
        if (!m_sPath.empty())
            std::remove(m_sPath.c_str());
    }

    std::unique_ptr<CGatewaySim> m_poSim;
    std::unique_ptr<COrvaneClientAWire> m_poClient;
    std::vector<std::string> m_asData;
    std::string m_sPath;
};

// The final step of the file writer; the percentages seen on the way end in
// nLastPercent.
FileStep::EFileStep PollToEnd(COrvaneClientAWire& oClient, unsigned char& nLastPercent)
{
    FileStep::EFileStep nStep = FileStep::ePrepared;
    FileStep::EFileStep nLast = nStep;
    unsigned char nPercent = 0;
    EXPECT_TRUE(WaitUntil(
        [&] {
            if (oClient.GetWriteFileStatus(nStep, nPercent) != 0)
                return true;
            nLast = nStep;
            nLastPercent = nPercent;
            return false;
        },
        WAIT_MS))
        << "the file writer did not end";
    return nLast;
}

} // namespace

TEST_F(AWireSim, WholeFileWithAGapWrittenOverTcpAndVerified)
{
    SAWireSettings oSettings;
    oSettings.nPageSize = 3000;
    Start(oSettings, 1);
    const std::vector<std::pair<unsigned int, unsigned int>> aoBlocks = {{0x1010, 70000}, {0x40000, 5000}};
    ASSERT_EQ(m_poClient->WriteFile(HexFile("awire_sim_whole.hex", aoBlocks)), 0);
    unsigned char nPercent = 0;
    EXPECT_EQ(PollToEnd(*m_poClient, nPercent), FileStep::eDone);
    EXPECT_EQ(nPercent, 100);

    CAWirePortModel& oFlash = m_poSim->AWireModel(0);
    for (std::size_t i = 0; i < aoBlocks.size(); ++i)
        EXPECT_TRUE(oFlash.Flash(aoBlocks[i].first, aoBlocks[i].second) == m_asData[i]) << "block " << i;
    EXPECT_EQ(oFlash.Flash(0x1010 + 70000, 1), "\xFF") << "the gap stays erased";
    // Chunks follow the page size 3000 read with GET_CONFIG, the first one
    // shortened to end on a chunk boundary.
    EXPECT_EQ(oFlash.WriteLengths(), (std::vector<unsigned int>{25888, 30000, 14112, 5000}));
    EXPECT_LE(oFlash.MaxPendingWrites(), 2u);
}

TEST_F(AWireSim, ClientClosedHalfwayEndsTheWriterCleanly)
{
    // Slow flash: 40 blocks take 10 s, so the file is far from written when
    // the client goes, however late this thread runs.
    Start(SAWireSettings(), 250);
    ASSERT_EQ(m_poClient->WriteFile(HexFile("awire_sim_stop.hex", {{0, 40 * 32768}})), 0);
    ASSERT_TRUE(WaitUntil([&] { return m_poSim->AWireModel(0).WriteLengths().size() >= 2; }, WAIT_MS));
    m_poClient.reset();
    EXPECT_LT(m_poSim->AWireModel(0).WriteLengths().size(), 40u);
    // The programmer serves the next client.
    m_poClient.reset(new COrvaneClientAWire(5000));
    EXPECT_EQ(m_poClient->Connect("127.0.0.1", m_poSim->AWireTcpPort(0), CKelIPBase::eTCP, true), 0);
}
