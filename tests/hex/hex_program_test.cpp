// orvane-hex as a program: its command line, messages and exit statuses, and
// conversions end to end. The image model has tests of its own.
#include "support/Bytes.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace
{

using OrvaneTest::SProgramRun;

class HexProgram : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_FALSE(m_oDir.Path().empty()); }
    // Runs the program in the test's folder.
    SProgramRun Run(const std::string& sArgs) const
    {
        return OrvaneTest::RunProgram(OrvaneTest::Words(HEX_BINARY " " + sArgs), m_oDir.Path());
    }

    OrvaneTest::CTempDir m_oDir;
};

// 4 bytes at 0x0000, then an extended linear address record and 2 bytes at
// 0x00010000:
//   :04000000 01020304 -> 04+01+02+03+04 = 0E, checksum F2
//   :02000004 0001     -> 02+04+01 = 07, checksum F9
//   :02000000 AABB     -> 02+AA+BB = 167, checksum 99
const char* const kTwoBlocks = ":0400000001020304F2\n:020000040001F9\n:02000000AABB99\n:00000001FF\n";

TEST_F(HexProgram, HelpAndBadCommandLines)
{
    const SProgramRun oHelp = Run("--help");
    EXPECT_EQ(oHelp.nExit, 0);
    EXPECT_EQ(oHelp.sOut.rfind("Usage: orvane-hex info [<options>] <file>\n", 0), 0u) << oHelp.sOut;
    for (const char* pcArgs : {"", "list x", "info a b", "convert a b", "convert --to bin a b c",
                               "convert --to elf a b", "info --to bin a", "info --bogus a"})
    {
        const SProgramRun oRun = Run(pcArgs);
        EXPECT_EQ(oRun.nExit, 2) << pcArgs;
        EXPECT_EQ(oRun.sOut, "");
        EXPECT_NE(oRun.sErr.find("\n\nUsage: "), std::string::npos) << oRun.sErr;
    }
}

TEST_F(HexProgram, InfoListsBlocksAndTotal)
{
    m_oDir.Write("two.hex", kTwoBlocks);
    const SProgramRun oRun = Run("info two.hex");
    EXPECT_EQ(oRun.nExit, 0) << oRun.sErr;
    EXPECT_EQ(oRun.sOut,
              "two.hex: Intel hex, 2 blocks\n"
              "Start       End         Size\n"
              "0x00000000  0x00000003  4 byte\n"
              "0x00010000  0x00010001  2 byte\n"
              "Total: 6 byte\n");
    m_oDir.Write("k.bin", std::string(2048, '\x5A'));
    EXPECT_EQ(Run("info k.bin").sOut,
              "k.bin: binary, 1 block\n"
              "Start       End         Size\n"
              "0x00000000  0x000007FF  2048 byte (2 kbyte)\n"
              "Total: 2048 byte (2 kbyte)\n");
}

TEST_F(HexProgram, ConvertsThroughAllThreeForms)
{
    // One block at 0: bin -> srec -> intel -> bin gives the same bytes back.
    const std::string sData = OrvaneTest::Pattern(300, 1);
    m_oDir.Write("in.bin", sData);
    ASSERT_EQ(Run("convert --to srec in.bin a.s19").nExit, 0);
    EXPECT_EQ(m_oDir.Read("a.s19").substr(0, 2), "S1");
    ASSERT_EQ(Run("convert a.s19 -t intel b.hex").nExit, 0);
    EXPECT_EQ(m_oDir.Read("b.hex").substr(0, 9), ":10000000");
    ASSERT_EQ(Run("convert --to=bin b.hex c.bin").nExit, 0);
    EXPECT_EQ(m_oDir.Read("c.bin"), sData);
    // --from overrides detection: the text file read as binary.
    ASSERT_EQ(Run("convert --from bin --to bin b.hex d.bin").nExit, 0);
    EXPECT_EQ(m_oDir.Read("d.bin"), m_oDir.Read("b.hex"));
}

TEST_F(HexProgram, ReportsFailuresAndKeepsDataOnlyWhenAsked)
{
    const SProgramRun oMissing = Run("info missing.hex");
    EXPECT_EQ(oMissing.nExit, 1);
    EXPECT_EQ(oMissing.sErr, "orvane-hex: File <missing.hex> could not be opened.\n");
    m_oDir.Write("two.hex", kTwoBlocks);
    const SProgramRun oTwo = Run("convert --to bin two.hex out.bin");
    EXPECT_EQ(oTwo.nExit, 1);
    EXPECT_NE(oTwo.sErr.find("orvane-hex: Data could not be saved in binary format"), std::string::npos) << oTwo.sErr;

    // A bad checksum (F3 for F2) and a line that cannot be read take
    // different ways; both fail the load unless --ignore-errors keeps the data.
    m_oDir.Write("sum.hex", ":0400000001020304F3\n:00000001FF\n");
    m_oDir.Write("junk.hex", ":0400000001020304F2\njunk\n");
    for (const auto& oCase : {std::make_pair("sum.hex", "File <sum.hex>: checksum error."),
                              std::make_pair("junk.hex", "junk.hex: bad lines")})
    {
        const SProgramRun oBad = Run(std::string("info ") + oCase.first);
        EXPECT_EQ(oBad.nExit, 1) << oCase.first;
        EXPECT_NE(oBad.sErr.find(oCase.second), std::string::npos) << oBad.sErr;
        EXPECT_NE(oBad.sErr.find("--ignore-errors keeps the data"), std::string::npos) << oBad.sErr;
        const SProgramRun oKept = Run(std::string("info -k ") + oCase.first);
        EXPECT_EQ(oKept.nExit, 0) << oCase.first;
        EXPECT_NE(oKept.sOut.find("Total: 4 byte"), std::string::npos) << oKept.sOut;
    }
}

} // namespace
