// The hex file model: line analysers, file analysis, the three writers, block
// editing, the dump and the load traces. Expected records are worked out by
// hand: Intel checksum = two's complement of the low byte of count + address
// bytes + type + data; S-record checksum = one's complement of count +
// address bytes + data.
#include "OrvaneHexfile.h"
#include "TraceServer.h"

#include "support/TempDir.h"
#include "support/TraceViewer.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <map>
#include <sstream>

namespace
{

using Image = std::map<uint32_t, std::string>; // start address -> bytes

Image Of(const std::vector<SMemoryBlock*>& aoBlocks)
{
    Image oImage;
    for (const SMemoryBlock* poBlock : aoBlocks)
        oImage[poBlock->m_nStartAddress].assign(poBlock->m_acData.begin(), poBlock->m_acData.end());
    return oImage;
}

Image Of(const CByteMap& oMap)
{
    std::vector<SMemoryBlock*> aoBlocks;
    oMap.ToMemoryBlocks(aoBlocks);
    const Image oImage = Of(aoBlocks);
    for (SMemoryBlock* poBlock : aoBlocks)
        delete poBlock;
    return oImage;
}

std::string Bytes(int nFirst, int nCount)
{
    std::string s;
    for (int i = 0; i < nCount; ++i)
        s.push_back(static_cast<char>(nFirst + i));
    return s;
}

class Hexfile : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_FALSE(m_oDir.Path().empty()); }
    std::string Write(const std::string& sName, const std::string& sText) const { return m_oDir.Write(sName, sText); }
    Image Add(COrvaneHexfile& oFile, const Image& oBlocks)
    {
        for (const auto& oBlock : oBlocks)
            EXPECT_EQ(oFile.AddMemoryBlock(oBlock.first, reinterpret_cast<const unsigned char*>(oBlock.second.data()),
                                           static_cast<uint32_t>(oBlock.second.size())),
                      0);
        return oBlocks;
    }

    OrvaneTest::CTempDir m_oDir;
};

// First in this program, so normally no extended address record has been read yet.
TEST_F(Hexfile, FirstExtendedAddressRecordOfTheProcessSetsTheLowestStartAddressOnce)
{
    const bool bSeen = COrvaneHexfile::ExtendedAddressSeen();
    COrvaneHexfile oFirst, oSecond;
    const std::string sFirst = Write("a.hex", ":020000040800F2\n:0100000011EE\n:020000040001F9\n:00000001FF\n");
    ASSERT_EQ(oFirst.LoadFile(sFirst.c_str()), 0);
    // 0x08000000 the first time, then the lower 0x00010000.
    EXPECT_EQ(oFirst.GetLowestStartAddress(), bSeen ? 0u : 0x00010000u);
    EXPECT_TRUE(COrvaneHexfile::ExtendedAddressSeen());
    // The flag stays set: 0x09000000 is not below the fresh 0.
    const std::string sSecond = Write("b.hex", ":020000040900F1\n:0100000011EE\n");
    ASSERT_EQ(oSecond.LoadFile(sSecond.c_str()), 0);
    EXPECT_EQ(oSecond.GetLowestStartAddress(), 0u);
    EXPECT_EQ(Of(oSecond.GetMemoryBlocks()), (Image{{0x09000000, "\x11"}}));
}

TEST_F(Hexfile, LineAnalysers)
{
    const char* const kFormat = "Invalid format in data line: ";
    const char* const kType = "Invalid record type in data line: ";
    struct SCase
    {
        bool bIntel;
        std::string sLine;
        int nCode;
        const char* pcMessage;
        Image oBytes;
    };
    const SCase aoCases[] = {
        {true, "", 0, nullptr, {}},
        {true, "; comment", 0, nullptr, {}},
        {true, " \t ", 0, nullptr, {}},
        {true, std::string("\0:1", 3), 145, kFormat, {}},
        {true, ":10000000AABB", 145, kFormat, {}},                        // 16 bytes announced, 2 there
        {true, ":0400000400010000F7", 145, kFormat, {}},                  // extended address with 4 bytes
        {true, ":0400000300003800C1", 144, kType, {}},                    // start segment address
        {true, ":0400000500000000F7", 0, nullptr, {}},                    // start linear address: only summed
        {true, ":0100000011ee", 0, nullptr, {{0, "\x11"}}},               // lower case
        {true, ":01000000ZZFF", 0, nullptr, {{0, std::string(1, '\0')}}}, // other characters count as 0
        // 01+11 = 12 wants checksum EE; the byte stays.
        {true, ":0100000011EF", 146, "Invalid checksum in data line: ", {{0, "\x11"}}},
        {false, "", 0, nullptr, {}},
        {false, "S0030000FC", 0, nullptr, {}}, // header and S5 count: skipped
        {false, "S5030001FB", 0, nullptr, {}},
        {false, "S4030000FC", 144, kType, {}},
        {false, "X1061234010203AD", 145, kFormat, {}},
        {false, "S1061234010203", 145, "Invalid format in data line (line length): ", {}},
        {false, "S1030000FC", 0, nullptr, {}},                               // no data bytes
        {false, "S1061234010203FF", 0, nullptr, {{0x1234, "\x01\x02\x03"}}}, // checksum (AD) not verified
        {false, "S205123456FF5F", 0, nullptr, {{0x123456, "\xFF"}}},
        {false, "S309FFFFFFFE01020304F1", 0, nullptr, {{0, "\x03\x04"}, {0xFFFFFFFE, "\x01\x02"}}}, // wraps
    };
    for (const SCase& o : aoCases)
    {
        COrvaneHexfile oFile;
        CByteMap oMap;
        uint32_t nBase = 0;
        testing::internal::CaptureStdout();
        EXPECT_EQ(o.bIntel ? oFile.AnalizeLineIntel(o.sLine, oMap, nBase) : oFile.AnalizeLineMotorola(o.sLine, oMap),
                  o.nCode)
            << o.sLine;
        const std::string sPrinted = testing::internal::GetCapturedStdout();
        std::string sLine = o.sLine;
        std::replace(sLine.begin(), sLine.end(), '\0', '.');
        EXPECT_EQ(oFile.GetErrorMessage(), o.pcMessage ? o.pcMessage + sLine : "") << o.sLine;
        EXPECT_EQ(sPrinted, o.nCode == 146 ? oFile.GetErrorMessage() + "\n" : "") << o.sLine;
        EXPECT_EQ(Of(oMap), o.oBytes) << o.sLine;
    }

    // Extended segment (x16) and linear (<<16) bases; the 32-bit address wraps.
    COrvaneHexfile oFile;
    CByteMap oMap;
    uint32_t nBase = 0;
    for (const char* pcLine : {":020000021000EC", ":02001000A1A2AB", ":020000040001F9", ":02001000A1A2AB",
                               ":02000004FFFFFC", ":02FFFF00A1A2BD"})
        EXPECT_EQ(oFile.AnalizeLineIntel(pcLine, oMap, nBase), 0) << pcLine;
    EXPECT_EQ(Of(oMap), (Image{{0, "\xA2"}, {0x10010, "\xA1\xA2"}, {0xFFFFFFFF, "\xA1"}}));
    EXPECT_EQ(oFile.GetHighestAddress(), 0xFFFFFFFFu);
}

TEST_F(Hexfile, FileAnalysisGoesOnAfterBadLinesAndReportsTheLast)
{
    const std::string sLong = ":0100000011EE" + std::string(3000, 'x') + "\n";
    struct SCase
    {
        std::string sText;
        int nCode;
        std::string sMessage; // "<>" stands for the file name
        Image oBytes;
    };
    const SCase aoCases[] = {
        {":0100000011EE\n:0100010022EF\n:0100020033CA\n",
         146,
         "File <<>>: checksum error.\n\n\nIgnore error? ",
         {{0, "\x11\x22\x33"}}}, // the middle line's checksum should be DC
        {":00000003FD\njunk\r\n:0100000011EE", 145, "Invalid format in data line: junk", {{0, "\x11"}}},
        {":junk\n:00000003FD\n", 144, "Invalid record type in data line: :00000003FD", {}},
        {sLong + ":0100010022DC\n", 0, "", {{0, "\x11\x22"}}}, // cut at 1024, next line intact
        {"S1061234010203AD\nS9030000FC\n", 0, "", {{0x1234, "\x01\x02\x03"}}},
        {std::string("\0:S", 3), 0, "", {{0, std::string("\0:S", 3)}}}, // binary
        {"", 147, "Eingabe <> enthaelt keine Daten.", {}},
    };
    for (const SCase& o : aoCases)
    {
        const std::string sPath = Write("f", o.sText);
        COrvaneHexfile oFile;
        testing::internal::CaptureStdout();
        EXPECT_EQ(oFile.LoadFile(sPath.c_str()), o.nCode) << o.sText.substr(0, 40);
        testing::internal::GetCapturedStdout();
        std::string sMessage = o.sMessage;
        const std::size_t nAt = sMessage.find("<>");
        if (nAt != std::string::npos)
            sMessage.replace(nAt, 2, sPath);
        EXPECT_EQ(oFile.GetErrorMessage(), sMessage);
        EXPECT_EQ(Of(oFile.GetMemoryBlocks()), o.oBytes) << o.sText.substr(0, 40);
    }

    COrvaneHexfile oFile;
    const std::string sIntel = Write("i.hex", ":0100000011EE\n");
    EXPECT_EQ(oFile.LoadFile(sIntel.c_str(), COrvaneHexfile::eBinary), 0);
    EXPECT_EQ(Of(oFile.GetMemoryBlocks()), (Image{{0, ":0100000011EE\n"}}));
    EXPECT_EQ(oFile.LoadFile(sIntel.c_str(), static_cast<COrvaneHexfile::EType>(7)), HEXFILE_NOT_SUPPORTED);
    EXPECT_EQ(oFile.GetErrorMessage(), "Inputfile format is not supported (use Intel or Motorola).");
    EXPECT_EQ(oFile.LoadFile((m_oDir.Path() + "/none").c_str()), HEXFILE_FILE_ERROR);
    EXPECT_EQ(oFile.GetErrorMessage(), "File <" + m_oDir.Path() + "/none> could not be opened.");
    EXPECT_EQ(oFile.LoadFileBinary((m_oDir.Path() + "/none").c_str()), HEXFILE_FILE_ERROR);
    EXPECT_EQ(oFile.GetErrorMessage(), "File <" + m_oDir.Path() + "/none>: could not be opened.\n\n");
}

TEST_F(Hexfile, WritersFollowTheRecordRules)
{
    COrvaneHexfile oFile;
    Add(oFile, {{0x0FFF8, Bytes(0, 40)}});
    std::ostringstream oIntel;
    ASSERT_EQ(oFile.SaveAsFileIntel(oIntel), 0);
    // Records start at the block: 16 bytes at FFF8 run across 64 KiB without
    // an extended record (upper address still 0); 02+04+00+01 = 07 gives F9.
    EXPECT_EQ(oIntel.str(),
              ":10FFF800000102030405060708090A0B0C0D0E0F81\n" // 10+FF+F8+78 = 27F -> 81
              ":020000040001F9\n"
              ":10000800101112131415161718191A1B1C1D1E1F70\n" // 10+08+178 = 190 -> 70
              ":080018002021222324252627C4\n"                 // 08+18+11C = 13C -> C4
              ":00000001FF\n");

    COrvaneHexfile oSrec;
    Add(oSrec, {{0x1234, "\x01\x02\x03"}, {0x123456, "\xFF"}, {0x12345678, std::string(1, '\0')}});
    std::ostringstream oMotorola;
    ASSERT_EQ(oSrec.SaveAsFileMotorola(oMotorola), 0);
    EXPECT_EQ(oMotorola.str(),
              "S1061234010203AD\n"   // 06+12+34+01+02+03 = 52 -> AD
              "S205123456FF5F\n"     // 05+12+34+56+FF = 1A0 -> 5F
              "S3061234567800E5\n"); // 06+12+34+56+78 = 11A -> E5
}

TEST_F(Hexfile, ImagesRoundTripThroughBothTextForms)
{
    COrvaneHexfile oImage;
    const Image oBlocks = Add(oImage,
                              {{0x00000000, Bytes(1, 37)},
                               {0x0000FFF0, Bytes(50, 40)},
                               {0x08000000, Bytes(120, 17)},
                               {0xFFFFFFF0, Bytes(200, 16)}});
    for (COrvaneHexfile::EType nType : {COrvaneHexfile::eIntel, COrvaneHexfile::eMotorola})
    {
        const std::string sPath = m_oDir.Path() + "/image";
        ASSERT_EQ(oImage.SaveFile(sPath.c_str(), nType), 0);
        COrvaneHexfile oLoaded;
        ASSERT_EQ(oLoaded.LoadFile(sPath.c_str()), 0) << oLoaded.GetErrorMessage();
        EXPECT_EQ(oLoaded.GetType(), nType);
        EXPECT_EQ(Of(oLoaded.GetMemoryBlocks()), oBlocks) << nType;
        EXPECT_EQ(oLoaded.GetHighestAddress(), 0xFFFFFFFFu);
        EXPECT_EQ(oLoaded.GetTotalBytes(), 110u);
    }
}

TEST_F(Hexfile, BinaryNeedsOneBlockAtZeroAndSaveFailuresAreReported)
{
    const std::string kRefused = "Data could not be saved in binary format because of StartAddress != 0 OR multiple "
                                 "blocks in hex data.\n\n";
    const std::string sPath = Write("out.bin", "old");
    for (const Image& oBlocks : {Image{{0x100, "ab"}}, Image{{0, "ab"}, {0x10, "cd"}}, Image{}})
    {
        COrvaneHexfile oFile;
        Add(oFile, oBlocks);
        EXPECT_EQ(oFile.SaveFile(sPath.c_str(), COrvaneHexfile::eBinary), HEXFILE_NOT_SUPPORTED);
        EXPECT_EQ(oFile.GetErrorMessage(), kRefused);
        EXPECT_EQ(OrvaneTest::ReadFile(sPath), "old");
    }
    COrvaneHexfile oFile;
    const std::string sBad = m_oDir.Path() + "/no/dir.hex";
    EXPECT_EQ(oFile.SaveFile(sBad.c_str(), COrvaneHexfile::eIntel), HEXFILE_FILE_ERROR);
    EXPECT_EQ(oFile.GetErrorMessage(), "File " + sBad + " could not be saved.\n\n");
}

TEST_F(Hexfile, EditsMergeBlocksAndKeepTheAddressRangeCurrent)
{
    COrvaneHexfile oFile;
    Add(oFile, {{0x10, "abcd"}, {0x20, "ef"}});
    EXPECT_EQ(oFile.AddMemoryBlock(new SMemoryBlock(0x12, reinterpret_cast<const unsigned char*>("XYZ"), 3)), 0);
    EXPECT_EQ(oFile.SetDataByte(0x15, 'g'), 0); // touches the merged block
    EXPECT_EQ(oFile.SetDataByte(0x0F, 'h'), 0);
    EXPECT_EQ(Of(oFile.GetMemoryBlocks()), (Image{{0x0F, "habXYZg"}, {0x20, "ef"}}));
    EXPECT_EQ(oFile.GetDataByte(0x12), 'X');
    EXPECT_EQ(oFile.GetDataByte(0x17), -1);
    EXPECT_EQ(oFile.GetLowestStartAddress(), 0x0Fu);
    EXPECT_EQ(oFile.GetHighestAddress(), 0x21u);
    EXPECT_EQ(oFile.SetDataByte(0x18, '1'), 0);
    EXPECT_EQ(oFile.SetDataByte(0x1F, '2'), 0);
    // Touches the blocks on both sides and covers the one at 0x18.
    EXPECT_EQ(oFile.AddMemoryBlock(0x16, reinterpret_cast<const unsigned char*>("*********"), 9), 0);
    EXPECT_EQ(Of(oFile.GetMemoryBlocks()), (Image{{0x0F, "habXYZg*********2ef"}}));

    EXPECT_EQ(oFile.AddMemoryBlock(0xFFFFFFFF, reinterpret_cast<const unsigned char*>("ab"), 2),
              HEXFILE_INVALID_PARAMETER);
    EXPECT_EQ(oFile.GetErrorMessage(), "Memory block at 0xFFFFFFFF with 2 byte runs past address 0xFFFFFFFF.");
    EXPECT_EQ(oFile.AddMemoryBlock(nullptr), HEXFILE_INVALID_PARAMETER);
    EXPECT_EQ(oFile.GetMemoryBlocks().size(), 1u);
    oFile.ClearMemoryBlocks();
    EXPECT_EQ(oFile.GetTotalBytes(), 0u);
}

TEST_F(Hexfile, SizeStringAndDump)
{
    for (const auto& o :
         std::map<int, std::string>{{2048, "2 kbyte"}, {2049, "2049 byte"}, {1023, "1023 byte"}, {0, "0 kbyte"}})
        EXPECT_EQ(COrvaneHexfile::GetSizeString(o.first), o.second);

    COrvaneHexfile oFile;
    Add(oFile, {{0x1FFFE, "AB\x01"}, {0x20004, "C"}, {0x20100, "D"}});
    const std::string sFirst = "0x0001fff0 -- -- -- -- -- -- -- --  -- -- -- -- -- -- 41 42               AB\n";
    const std::string sSecond = "0x00020000 01 -- -- -- 43 -- -- --  -- -- -- -- -- -- -- -- .   C           \n";
    EXPECT_EQ(sFirst.size(), COrvaneHexfile::GetNumberOfBytesNeedForLine());
    EXPECT_EQ(oFile.MemDump(0x1FFFF, 0x100), sFirst + sSecond) << "0x20100 lies past the range";
    char acBuffer[200];
    EXPECT_EQ(oFile.GetPrintDump(acBuffer, sizeof acBuffer, 0, 0x20101), HEXFILE_BUFFER_TOO_SMALL);
    EXPECT_EQ(std::string(acBuffer), sFirst + sSecond);
}

TEST_F(Hexfile, LoadPhasesAndSkippedRecordsAreTraced)
{
    ASSERT_EQ(CTraceServer::Init(0), 0);
    OrvaneTest::CTraceViewer oViewer;
    ASSERT_TRUE(oViewer.Activate(0x1F, {0, 0, 0xFFFFFFFF, 0xFFFFFFFF}));
    auto receive = [&oViewer] { return oViewer.NextLevelAndText(); };

    const std::string sPath = Write("t.s19", "S0030000FC\nS5030001FB\n");
    COrvaneHexfile oFile;
    EXPECT_EQ(oFile.LoadFile(sPath.c_str()), 0);
    for (const std::string& sExpected :
         {"4 Datei " + sPath + " wird geladen. ", std::string("16 start reading input lines."),
          std::string("8 Ignored S-record format: S0030000FC"),
          std::string("2 Not supported S-record format: S5030001FB"), std::string("16 reading input lines completed."),
          std::string("16 input lines converted to internal data structure."),
          std::string("16 internal byte map is destructed.")})
        EXPECT_EQ(receive(), sExpected);
    const std::string sEmpty = Write("e.hex", "");
    EXPECT_EQ(oFile.LoadFile(sEmpty.c_str()), HEXFILE_NO_DATA);
    EXPECT_EQ(receive(), "4 Datei " + sEmpty + " wird geladen. ");
    EXPECT_EQ(receive(), "2 Eingabe " + sEmpty + " enthaelt keine Daten.");
    EXPECT_EQ(CTraceServer::Disable(), 0);
}

} // namespace
