// The test-system clients through their seams: configuration names, the
// piecewise file upload driven by the device's 0x21 answers, the CRC-32
// against independently computed values, and the value arrays.
#include "OrvaneClientTestSystem.h"
#include "OrvaneProtocol.h"
#include "support/ClientSeams.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

using namespace ClientTest;

namespace
{

using CCOM = CScripted<COrvaneClientTestSystemCOM>;
using CIO = CScripted<COrvaneClientTestSystemIO>;
using CPWR = CScripted<COrvaneClientTestSystemPWR>;

// Bytes (i * 7 + 3) & 0xFF.
std::string Pattern(std::size_t nCount)
{
    std::string s;
    for (std::size_t i = 0; i < nCount; ++i)
        s.push_back(static_cast<char>((i * 7 + 3) & 0xFF));
    return s;
}

// The device answers 0x21 (next piece, please) nAsks times, then 0.
void AskForPieces(CCOM& oClient, int nAsks)
{
    auto pnLeft = std::make_shared<int>(nAsks);
    oClient.m_fnReply = [pnLeft](const COrvaneMsg& oRequest) {
        const bool bAsk = *pnLeft < 0 || (*pnLeft)-- > 0;
        return std::vector<std::string>{Confirmation(oRequest, Hex(bAsk ? "21" : "00"))};
    };
}

} // namespace

TEST(TestSystemCOM, UploadInPiecesWhileTheDeviceAsks)
{
    const std::string sContent = Pattern(70000);
    const OrvaneTest::CTempDir oDir;
    const std::string sPath = oDir.Write("upload.cfg", sContent);
    const std::string sName = COrvaneClientTestSystemCOM::GetFileName(sPath);
    CCOM oClient;
    AskForPieces(oClient, 2);
    EXPECT_EQ(oClient.SendFile(sPath), 0);
    const std::vector<COrvaneMsg> aoSent = oClient.Sent();
    ASSERT_EQ(aoSent.size(), 3u);
    // CRC-32 0xe0290e8e (zlib.crc32 of the pattern), size 70000.
    const std::string sHeader = Hex("8e 0e 29 e0 70 11 01 00") + static_cast<char>(sName.size()) + sName;
    EXPECT_EQ(aoSent[0].GetCmdCode(), 0xDD3);
    EXPECT_EQ(aoSent[0].GetData(), sHeader + sContent.substr(0, 32768));
    EXPECT_EQ(aoSent[1].GetCmdCode(), 0xDD4);
    EXPECT_EQ(aoSent[1].GetData(), sContent.substr(32768, 32768));
    EXPECT_EQ(aoSent[2].GetCmdCode(), 0xDD4);
    EXPECT_EQ(aoSent[2].GetData(), sContent.substr(65536));
    EXPECT_EQ(aoSent[2].GetData().size(), 4464u);
    EXPECT_NE(aoSent[1].GetMsgID(), aoSent[2].GetMsgID());

    // A device that keeps asking once the file is used up: no more pieces,
    // its last answer is the result.
    CCOM oGreedy;
    AskForPieces(oGreedy, -1);
    EXPECT_EQ(oGreedy.SendFile(sPath), 0xD21);
    EXPECT_EQ(oGreedy.SentCount(), 3u);
}

TEST(TestSystemCOM, EmptyMissingAndNamedFiles)
{
    const OrvaneTest::CTempDir oDir;
    const std::string sEmpty = oDir.Write("empty.cfg", "");
    CCOM oClient;
    AskForPieces(oClient, -1);
    EXPECT_EQ(oClient.SendFile(sEmpty), 0xD21);
    ASSERT_EQ(oClient.SentCount(), 1u) << "nothing to send after the announcement";
    const std::string sName = COrvaneClientTestSystemCOM::GetFileName(sEmpty);
    EXPECT_EQ(oClient.LastSent().GetData(), Hex("00 00 00 00 00 00 00 00") + static_cast<char>(sName.size()) + sName);

    EXPECT_EQ(oClient.SendFile(oDir.Path() + "/no/such/file.cfg"), 0xD20);
    EXPECT_EQ(oClient.InstallConfig(oDir.Path() + "/no/such/file.cfg", "x"), 0xD20);
    EXPECT_EQ(oClient.SentCount(), 1u);

    EXPECT_EQ(COrvaneClientTestSystemCOM::GetFileName("C:\\cfg/sub\\setup.cfg"), "setup.cfg");
    EXPECT_EQ(COrvaneClientTestSystemCOM::GetFileName("cfg\\sub/setup.cfg"), "setup.cfg");
    EXPECT_EQ(COrvaneClientTestSystemCOM::GetFileName("setup.cfg"), "setup.cfg");
    EXPECT_EQ(COrvaneClientTestSystemCOM::GetFileName("cfg/"), "");

    // zlib.crc32(b"The quick brown fox jumps over the lazy dog")
    std::istringstream oText("The quick brown fox jumps over the lazy dog");
    EXPECT_EQ(COrvaneClientTestSystemCOM::GetCRC32(oText), 0x414fa339u);

    const std::string sFoxPath = oDir.Write("fox.cfg", "The quick brown fox jumps over the lazy dog");
    oClient.ReplyWith("00");
    EXPECT_EQ(oClient.InstallConfig(sFoxPath, "night"), 0);
    EXPECT_EQ(oClient.LastSent().GetCmdCode(), 0xDD5);
    const std::string sFox = COrvaneClientTestSystemCOM::GetFileName(sFoxPath);
    EXPECT_EQ(oClient.LastSent().GetData(),
              Hex("39 a3 4f 41") + static_cast<char>(sFox.size()) + sFox + Hex("05") + "night");
}

TEST(TestSystemCOM, ConfigurationNames)
{
    CCOM oClient;
    oClient.ReplyWith("00");
    EXPECT_EQ(oClient.SetConfig("cfg1"), 0);
    EXPECT_EQ(oClient.LastRequest(), Req(0xD05, Hex("04") + "cfg1"));
    EXPECT_EQ(oClient.SetConfig(std::string(256, 'n')), 0x920000);
    EXPECT_EQ(oClient.SentCount(), 1u) << "a name too long is not sent";

    std::string sName = "old";
    oClient.ReplyWith("00 03 61 62 63");
    EXPECT_EQ(oClient.GetConfig(sName), 0);
    EXPECT_EQ(oClient.LastSent().GetCmdCode(), 0xD06);
    EXPECT_EQ(sName, "abc");
    oClient.ReplyWith("23 03 61 62 63");
    EXPECT_EQ(oClient.GetConfig(sName = "old"), 0xD23);
    EXPECT_EQ(sName, "old");

    bool bAvailable = false;
    unsigned int nCrc = 7;
    oClient.ReplyWith("00 00 78 56 34 12");
    EXPECT_EQ(oClient.IsConfigAvailable("cfg1", bAvailable, nCrc), 0);
    EXPECT_EQ(oClient.LastRequest(), Req(0xDD2, Hex("04") + "cfg1"));
    EXPECT_FALSE(bAvailable);
    EXPECT_EQ(nCrc, 7u);
    oClient.ReplyWith("00 01 78 56 34");
    EXPECT_EQ(oClient.IsConfigAvailable("cfg1", bAvailable, nCrc), 0);
    EXPECT_TRUE(bAvailable);
    EXPECT_EQ(nCrc, 7u) << "no whole CRC in a 5-byte confirmation";
    oClient.ReplyWith("00 01 78 56 34 12");
    EXPECT_EQ(oClient.IsConfigAvailable("cfg1", bAvailable, nCrc), 0);
    EXPECT_EQ(nCrc, 0x12345678u);
}

TEST(TestSystemValues, SetAndGetArrays)
{
    CIO oIO;
    CPWR oPWR;
    oIO.ReplyWith("00 01 00 02 01");
    oPWR.ReplyWith("00 01 00 02 01");
    unsigned short anValues[3] = {0x0001, 0x0203, 0xFFFF};
    EXPECT_EQ(oIO.SetValue(anValues, 2), 0);
    EXPECT_EQ(oIO.LastRequest(), Req(0xB10, Hex("01 00 03 02")));
    EXPECT_EQ(oPWR.SetValue(anValues, 3), 0);
    EXPECT_EQ(oPWR.LastRequest(), Req(0xC10, Hex("01 00 03 02 ff ff")));

    // Three asked, two came: the third reads as 0.
    EXPECT_EQ(oIO.GetValue(anValues, 3), 0);
    EXPECT_EQ(oIO.LastSent().GetCmdCode(), 0xB11);
    EXPECT_EQ(anValues[0] + 0x10000 * anValues[1] + 0x100000000ull * anValues[2], 0x1 + 0x10000ull * 0x102);
    anValues[2] = 9;
    EXPECT_EQ(oPWR.GetValue(anValues, 2), 0);
    EXPECT_EQ(oPWR.LastSent().GetCmdCode(), 0xC11);
    EXPECT_EQ(anValues[2], 9);
}
