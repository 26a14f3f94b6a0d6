// orvane-hex as a program: help and usage errors, info, conversions between
// the three forms, and the failures it reports.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace
{

struct SRun
{
    int nExit = -1; // exit status, -1 when it did not exit normally
    std::string sOut;
    std::string sErr;
};

std::string ReadFile(const std::string& sPath)
{
    std::ifstream oFile(sPath, std::ios::binary);
    std::ostringstream oText;
    oText << oFile.rdbuf();
    return oText.str();
}

void WriteFile(const std::string& sPath, const std::string& sText)
{
    std::ofstream(sPath, std::ios::binary) << sText;
}

class HexProgram : public ::testing::Test
{
protected:
    void SetUp() override
    {
        char acDir[] = "/tmp/orvane-hex-XXXXXX";
        ASSERT_NE(mkdtemp(acDir), nullptr);
        m_sDir = acDir;
    }
    void TearDown() override { std::filesystem::remove_all(m_sDir); }

    std::string Path(const std::string& sName) const { return m_sDir + "/" + sName; }

    // Runs the program through the shell with its output in two files.
    SRun Run(const std::vector<std::string>& asArgs) const
    {
        std::string sCommand = HEX_BINARY;
        for (const std::string& sArg : asArgs)
            sCommand += " '" + sArg + "'";
        const int nStatus = std::system((sCommand + " >" + Path("stdout") + " 2>" + Path("stderr")).c_str());
        return {WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1, ReadFile(Path("stdout")), ReadFile(Path("stderr"))};
    }

    std::string m_sDir;
};

// Two blocks: 4 bytes at 0x0000 and 2 bytes at 0x00010000 (after an
// extended linear address record).
//   :04000000 01020304 -> 04+01+02+03+04 = 0E, checksum F2
//   :02000004 0001     -> 02+04+01 = 07, checksum F9
//   :02000000 AABB     -> 02+AA+BB = 167, checksum 99
const char* const kTwoBlocks = ":0400000001020304F2\n:020000040001F9\n:02000000AABB99\n:00000001FF\n";

TEST_F(HexProgram, HelpAndBadCommandLines)
{
    const SRun oHelp = Run({"--help"});
    EXPECT_EQ(oHelp.nExit, 0);
    EXPECT_EQ(oHelp.sOut.rfind("Usage: orvane-hex info [<options>] <file>\n", 0), 0u) << oHelp.sOut;
    for (const std::vector<std::string>& asArgs :
         std::vector<std::vector<std::string>>{{},
                                               {"list", "x"},
                                               {"info", "a", "b"},
                                               {"convert", "a", "b"},
                                               {"convert", "--to", "elf", "a", "b"},
                                               {"info", "--to", "bin", "a"},
                                               {"info", "--bogus", "a"}})
    {
        const SRun oRun = Run(asArgs);
        EXPECT_EQ(oRun.nExit, 2) << testing::PrintToString(asArgs);
        EXPECT_EQ(oRun.sOut, "");
        EXPECT_NE(oRun.sErr.find("\n\nUsage: "), std::string::npos) << oRun.sErr;
    }
}

TEST_F(HexProgram, InfoListsBlocksAndTotal)
{
    WriteFile(Path("two.hex"), kTwoBlocks);
    const SRun oRun = Run({"info", Path("two.hex")});
    EXPECT_EQ(oRun.nExit, 0) << oRun.sErr;
    EXPECT_EQ(oRun.sOut,
              Path("two.hex") +
                  ": Intel hex, 2 blocks\n"
                  "Start       End         Size\n"
                  "0x00000000  0x00000003  4 byte\n"
                  "0x00010000  0x00010001  2 byte\n"
                  "Total: 6 byte\n");
    WriteFile(Path("k.bin"), std::string(2048, '\x5A'));
    EXPECT_NE(Run({"info", Path("k.bin")})
                  .sOut.find(": binary, 1 block\n"
                             "Start       End         Size\n"
                             "0x00000000  0x000007FF  2048 byte (2 kbyte)\n"),
              std::string::npos);
}

TEST_F(HexProgram, ConvertsThroughAllThreeForms)
{
    // One block at 0: bin -> srec -> intel -> bin gives the same bytes back.
    std::string sData;
    for (int i = 0; i < 300; ++i)
        sData.push_back(static_cast<char>(i * 7 + 1));
    WriteFile(Path("in.bin"), sData);
    ASSERT_EQ(Run({"convert", "--to", "srec", Path("in.bin"), Path("a.s19")}).nExit, 0);
    ASSERT_EQ(Run({"convert", Path("a.s19"), "-t", "intel", Path("b.hex")}).nExit, 0);
    EXPECT_EQ(ReadFile(Path("b.hex")).substr(0, 9), ":10000000");
    ASSERT_EQ(Run({"convert", "--to=bin", Path("b.hex"), Path("c.bin")}).nExit, 0);
    EXPECT_EQ(ReadFile(Path("c.bin")), sData);
    // --from overrides detection: the text file read as binary.
    ASSERT_EQ(Run({"convert", "--from", "bin", "--to", "bin", Path("b.hex"), Path("d.bin")}).nExit, 0);
    EXPECT_EQ(ReadFile(Path("d.bin")), ReadFile(Path("b.hex")));
}

TEST_F(HexProgram, ReportsFailuresAndKeepsDataOnlyWhenAsked)
{
    const SRun oMissing = Run({"info", Path("missing.hex")});
    EXPECT_EQ(oMissing.nExit, 1);
    EXPECT_EQ(oMissing.sErr, "orvane-hex: File <" + Path("missing.hex") + "> could not be opened.\n");
    WriteFile(Path("two.hex"), kTwoBlocks);
    const SRun oTwo = Run({"convert", "--to", "bin", Path("two.hex"), Path("out.bin")});
    EXPECT_EQ(oTwo.nExit, 1);
    EXPECT_NE(oTwo.sErr.find("orvane-hex: Data could not be saved in binary format"), std::string::npos) << oTwo.sErr;

    // A bad checksum (F3 instead of F2), or a line that cannot be read, fails
    // the load unless --ignore-errors keeps the data.
    WriteFile(Path("sum.hex"), ":0400000001020304F3\n:00000001FF\n");
    WriteFile(Path("junk.hex"), ":0400000001020304F2\njunk\n");
    for (const char* pcName : {"sum.hex", "junk.hex"})
    {
        const SRun oBad = Run({"info", Path(pcName)});
        EXPECT_EQ(oBad.nExit, 1) << pcName;
        EXPECT_NE(oBad.sErr.find("--ignore-errors keeps the data"), std::string::npos) << oBad.sErr;
        const SRun oKept = Run({"info", "-k", Path(pcName)});
        EXPECT_EQ(oKept.nExit, 0) << pcName;
        EXPECT_NE(oKept.sOut.find("Total: 4 byte"), std::string::npos) << oKept.sOut;
    }
    EXPECT_NE(Run({"info", Path("sum.hex")}).sErr.find("File <" + Path("sum.hex") + ">: checksum error."),
              std::string::npos);
}

} // namespace
