#include "AWireFiles.h"

#include "OrvaneHexfile.h"
#include "support/Wait.h"

#include <gtest/gtest.h>

#include <random>

namespace ApiTest
{

std::string WriteHexFile(const std::string& sName, std::vector<SImageBlock>& aoBlocks)
{
    std::mt19937 oRandom(static_cast<unsigned int>(aoBlocks.size() * 7919 + aoBlocks[0].acData.size()));
    COrvaneHexfile oHex;
    for (SImageBlock& oBlock : aoBlocks)
    {
        for (unsigned char& c : oBlock.acData)
            c = static_cast<unsigned char>(oRandom());
        oHex.AddMemoryBlock(oBlock.nAddress, oBlock.acData.data(), static_cast<uint32_t>(oBlock.acData.size()));
    }
    const std::string sPath = ::testing::TempDir() + sName;
    EXPECT_EQ(oHex.SaveFile(sPath.c_str(), COrvaneHexfile::eIntel), 0);
    return sPath;
}

FileStep::EFileStep PollToEnd(COrvaneClientAWire& oClient, std::vector<unsigned char>& anPercent)
{
    FileStep::EFileStep nStep = FileStep::ePrepared;
    unsigned char nPercent = 0;
    const bool bEnded = OrvaneTest::WaitUntil(
        [&] {
            if (oClient.GetWriteFileStatus(nStep, nPercent) != 0)
                return true;
            anPercent.push_back(nPercent);
            return false;
        },
        20000);
    EXPECT_TRUE(bEnded) << "the file writer did not end";
    return nStep;
}

} // namespace ApiTest
