// orvane-hex as a program: help and usage errors, info, conversions between
// the three forms, and the failures it reports.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

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

    // Runs the program with its output in two files; waits for it to end.
    SRun Run(const std::vector<std::string>& asArgs) const
    {
        const std::string sOut = Path("stdout"), sErr = Path("stderr");
        const pid_t nPid = fork();
        if (nPid == 0)
        {
            const int nOut = open(sOut.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            const int nErr = open(sErr.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            dup2(nOut, 1);
            dup2(nErr, 2);
            std::vector<char*> apArgv{const_cast<char*>("orvane-hex")};
            for (const std::string& sArg : asArgs)
                apArgv.push_back(const_cast<char*>(sArg.c_str()));
            apArgv.push_back(nullptr);
            execv(HEX_BINARY, apArgv.data());
            _exit(127);
        }
        SRun oRun;
        int nStatus = 0;
        if (nPid > 0 && waitpid(nPid, &nStatus, 0) == nPid && WIFEXITED(nStatus))
            oRun.nExit = WEXITSTATUS(nStatus);
        oRun.sOut = ReadFile(sOut);
        oRun.sErr = ReadFile(sErr);
        return oRun;
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
    EXPECT_NE(oHelp.sOut.find("Usage: orvane-hex info [<options>] <file>"), std::string::npos) << oHelp.sOut;
    EXPECT_NE(oHelp.sOut.find("Exit status"), std::string::npos);

    const std::vector<std::vector<std::string>> aasBad = {
        {},
        {"list", "x"},
        {"info"},
        {"info", "a", "b"},
        {"convert", "a", "b"},
        {"convert", "--to", "elf", "a", "b"},
        {"convert", "--to", "bin", "a"},
        {"info", "--to", "bin", "a"},
        {"info", "--from", "hex", "a"},
        {"info", "--bogus", "a"},
    };
    for (const auto& asArgs : aasBad)
    {
        const SRun oRun = Run(asArgs);
        EXPECT_EQ(oRun.nExit, 2) << testing::PrintToString(asArgs);
        EXPECT_TRUE(oRun.sOut.empty());
        EXPECT_NE(oRun.sErr.find("orvane-hex: "), std::string::npos);
        EXPECT_NE(oRun.sErr.find("Usage: "), std::string::npos);
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
    const SRun oBinary = Run({"info", Path("k.bin")});
    EXPECT_EQ(oBinary.nExit, 0);
    EXPECT_NE(oBinary.sOut.find(": binary, 1 block\n"), std::string::npos) << oBinary.sOut;
    EXPECT_NE(oBinary.sOut.find("0x00000000  0x000007FF  2048 byte (2 kbyte)\n"), std::string::npos) << oBinary.sOut;
}

TEST_F(HexProgram, ConvertsThroughAllThreeForms)
{
    // One block at 0: bin -> srec -> intel -> bin gives the same bytes back.
    std::string sData;
    for (int i = 0; i < 300; ++i)
        sData.push_back(static_cast<char>(i * 7 + 1));
    WriteFile(Path("in.bin"), sData);
    ASSERT_EQ(Run({"convert", "--to", "srec", Path("in.bin"), Path("a.s19")}).nExit, 0);
    EXPECT_EQ(ReadFile(Path("a.s19")).substr(0, 4), "S113");
    ASSERT_EQ(Run({"convert", Path("a.s19"), "-t", "intel", Path("b.hex")}).nExit, 0);
    EXPECT_EQ(ReadFile(Path("b.hex")).substr(0, 9), ":10000000");
    ASSERT_EQ(Run({"convert", "--to=bin", Path("b.hex"), Path("c.bin")}).nExit, 0);
    EXPECT_EQ(ReadFile(Path("c.bin")), sData);

    // --from overrides detection: a text file read as binary.
    ASSERT_EQ(Run({"convert", "--from", "bin", "--to", "bin", Path("b.hex"), Path("d.bin")}).nExit, 0);
    EXPECT_EQ(ReadFile(Path("d.bin")), ReadFile(Path("b.hex")));

    // S-record output of the two blocks:
    //   S1 07 0000 01020304: 07+01+02+03+04 = 11, checksum EE
    //   S2 06 010000 AABB:   06+01+AA+BB = 16C, checksum 93
    WriteFile(Path("two.hex"), kTwoBlocks);
    ASSERT_EQ(Run({"convert", "--to", "srec", Path("two.hex"), Path("two.s28")}).nExit, 0);
    EXPECT_EQ(ReadFile(Path("two.s28")), "S107000001020304EE\nS206010000AABB93\n");
}

TEST_F(HexProgram, ReportsFailures)
{
    const SRun oMissing = Run({"info", Path("missing.hex")});
    EXPECT_EQ(oMissing.nExit, 1);
    EXPECT_EQ(oMissing.sErr, "orvane-hex: File <" + Path("missing.hex") + "> could not be opened.\n");

    WriteFile(Path("two.hex"), kTwoBlocks);
    WriteFile(Path("out.bin"), "keep");
    const SRun oTwo = Run({"convert", "--to", "bin", Path("two.hex"), Path("out.bin")});
    EXPECT_EQ(oTwo.nExit, 1);
    EXPECT_NE(oTwo.sErr.find("Data could not be saved in binary format because of StartAddress != 0 OR multiple "
                             "blocks in hex data."),
              std::string::npos)
        << oTwo.sErr;
    EXPECT_EQ(ReadFile(Path("out.bin")), "keep") << "a refused output is not truncated";

    EXPECT_EQ(Run({"convert", "--to", "intel", Path("two.hex"), Path("no/such/dir.hex")}).nExit, 1);

    // A bad checksum (F3 instead of F2) fails unless --ignore-errors keeps the data.
    WriteFile(Path("bad.hex"), ":0400000001020304F3\n:00000001FF\n");
    const SRun oBad = Run({"info", Path("bad.hex")});
    EXPECT_EQ(oBad.nExit, 1);
    EXPECT_EQ(oBad.sOut, "Invalid checksum in data line: :0400000001020304F3\n");
    EXPECT_NE(oBad.sErr.find("File <" + Path("bad.hex") + ">: checksum error."), std::string::npos) << oBad.sErr;
    const SRun oKept = Run({"info", "-k", Path("bad.hex")});
    EXPECT_EQ(oKept.nExit, 0);
    EXPECT_NE(oKept.sOut.find("Total: 4 byte"), std::string::npos) << oKept.sOut;

    // An unreadable line likewise; the other lines' data stay.
    WriteFile(Path("junk.hex"), ":0400000001020304F2\njunk\n");
    const SRun oJunk = Run({"info", Path("junk.hex")});
    EXPECT_EQ(oJunk.nExit, 1);
    EXPECT_NE(oJunk.sErr.find("Invalid format in data line: junk"), std::string::npos) << oJunk.sErr;
    EXPECT_EQ(Run({"info", "--ignore-errors", Path("junk.hex")}).nExit, 0);

    WriteFile(Path("empty.hex"), "");
    const SRun oEmpty = Run({"info", Path("empty.hex")});
    EXPECT_EQ(oEmpty.nExit, 1);
    EXPECT_EQ(oEmpty.sErr, "orvane-hex: Eingabe " + Path("empty.hex") + " enthaelt keine Daten.\n");
}

} // namespace
