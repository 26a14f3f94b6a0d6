// COrvaneClientAWire against the simulator's aWire programmer over TCP on
// 127.0.0.1: block writes confirmed at once and finished later by the
// simulator's own completer, write-status indications through the read
// thread, the flash compared byte for byte afterwards. How a file is cut into
// chunks is pinned in awire_client_test.
#include "AWirePortModel.h"
#include "GatewaySim.h"
#include "OrvaneClientAWire.h"
#include "support/AWireFiles.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

using namespace GatewaySim;
using namespace ApiTest;

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
    ASSERT_FALSE(anPercent.empty());
    EXPECT_EQ(anPercent.back(), 100);

    CAWirePortModel& oFlash = oSim.AWireModel(0);
    for (const SImageBlock& oBlock : aoBlocks)
        EXPECT_TRUE(oFlash.Flash(oBlock.nAddress, oBlock.acData.size()) ==
                    std::string(oBlock.acData.begin(), oBlock.acData.end()))
            << "block at 0x" << std::hex << oBlock.nAddress;
    EXPECT_EQ(oFlash.Flash(0x1010 + 70000, 1), "\xFF") << "the gap stays erased";
    std::remove(sFile.c_str());
}
