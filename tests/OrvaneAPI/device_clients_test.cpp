// The I2C, SPI, Renesas and test-system clients through their seams: request
// bytes worked out by hand, and what each confirmation writes to the outputs,
// also on device errors; the SPI sequence sent now and collected later by
// telegram identifier; the test-system file upload driven by the device's
// 0x21 answers, with CRC-32 values computed independently.
#include "OrvaneClientI2C.h"
#include "OrvaneClientRenesas.h"
#include "OrvaneClientSPI.h"
#include "OrvaneClientTestSystem.h"
#include "OrvaneProtocol.h"
#include "support/ClientSeams.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <string>

using namespace ClientTest;

namespace
{

using CI2C = CScripted<COrvaneClientI2C>;
using CSPI = CScripted<COrvaneClientSPI>;
using CRenesas = CScripted<COrvaneClientRenesas>;
using CCOM = CScripted<COrvaneClientTestSystemCOM>;
using CIO = CScripted<COrvaneClientTestSystemIO>;
using CPWR = CScripted<COrvaneClientTestSystemPWR>;

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

TEST(I2CClient, BaudrateInKilohertzAndStoredOnlyOnSuccess)
{
    int r = 0;
    CI2C oClient;
    EXPECT_EQ(oClient.GetStoredBaudrate(), 100000u);
    oClient.ReplyWith("00");
    ASSERT_EQ(oClient.SetBaudrate(400), 0);
    EXPECT_EQ(oClient.LastRequest(), Req(0x107, Hex("80 1a 06 00")));
    EXPECT_EQ(oClient.GetStoredBaudrate(), 400000u);
    ASSERT_EQ(oClient.SetBaudrate(1000), 0);
    EXPECT_EQ(oClient.LastSent().GetData(), Hex("e8 03 00 00"));

    oClient.ReplyWith("21");
    EXPECT_EQ(oClient.SetBaudrate(400), 0x121);
    EXPECT_EQ(oClient.GetStoredBaudrate(), 1000u) << "a refused rate is not kept";

    // The rate read is handed out even with a device error, but not kept.
    oClient.ReplyWith("20 40 42 0f 00");
    unsigned int nRate = 0;
    r = oClient.GetBaudrate(nRate);
    EXPECT_EQ(Out(r, nRate, oClient.GetStoredBaudrate()), "288 1000000 1000");
    oClient.ReplyWith("00 40 42 0f 00");
    r = oClient.GetBaudrate(nRate);
    EXPECT_EQ(Out(r, oClient.GetStoredBaudrate()), "0 1000000");
    EXPECT_EQ(oClient.LastRequest(), Req(0x108, ""));

    // Open sets the rate once the base is open.
    oClient.ReplyWith("00");
    EXPECT_EQ(oClient.Open(100u), 0);
    EXPECT_EQ(oClient.LastSent().GetCmdCode(), 0x107);
    EXPECT_EQ(oClient.GetStoredBaudrate(), 100000u);
}

TEST(I2CClient, ReadAndWriteTransfers)
{
    int r = 0;
    CI2C oClient;
    char acBuffer[4] = {'x', 'x', 'x', 'x'};
    unsigned short nReceived = 99;

    // Fewer bytes than asked, with a device error: those bytes still count.
    oClient.ReplyWith("20 01 02");
    r = oClient.Read(0xA1, acBuffer, 4, nReceived);
    EXPECT_EQ(Out(r, nReceived, Bytes(acBuffer, 4)), "288 2 \x01\x02xx");
    EXPECT_EQ(oClient.LastRequest(), Req(0x110, Hex("a1 00 04 00")));

    // More than asked: only count are copied.
    oClient.ReplyWith("00 05 06 07 08 09 0a");
    r = oClient.Read(0xA1, acBuffer, 3, nReceived);
    EXPECT_EQ(Out(r, nReceived, Bytes(acBuffer, 4)), "0 3 \x05\x06\x07x");

    // No confirmation at all: nothing received.
    oClient.m_nSendResult = 0x30000;
    r = oClient.Read(0xA1, acBuffer, 3, nReceived);
    EXPECT_EQ(Out(r, nReceived), "196608 0");
    oClient.m_nSendResult = 0;

    unsigned short nStatus = 0xBEEF;
    oClient.ReplyWith("00 07");
    EXPECT_EQ(oClient.Write(0x1A0, "\x11\x22", 2, nStatus), 0);
    EXPECT_EQ(oClient.LastRequest(), Req(0x111, Hex("a0 01 11 22")));
    EXPECT_EQ(nStatus, 0xBEEF) << "a 2-byte confirmation carries no status";
    oClient.ReplyWith("20 34 12");
    r = oClient.Write(0xA0, "\x11", 1, nStatus);
    EXPECT_EQ(Out(r, nStatus), "288 4660");

    unsigned char nValue = 0x55;
    oClient.ReplyWith("21 77");
    r = oClient.RAWGet(3, nValue);
    EXPECT_EQ(Out(r, nValue), "289 85");
    oClient.ReplyWith("00 77");
    r = oClient.RAWGet(3, nValue);
    EXPECT_EQ(Out(r, nValue, oClient.LastSent().GetData()), "0 119 \x03");
    EXPECT_EQ(oClient.RAWSend(0x12, 0x34), 0);
    EXPECT_EQ(oClient.LastRequest(), Req(0x116, Hex("12 34")));
}

TEST(I2CClient, EEPromSlaveAddressAndOffset)
{
    EXPECT_EQ(COrvaneClientI2C::GetEEPROMSlaveAddress(0, 0x7FF, 0x0308), 0xAE);
    EXPECT_EQ(COrvaneClientI2C::GetEEPROMSlaveAddress(1, 0x1FFFF, 0x0510), 0xAA);
    // Scheme 0x600: one chip bit at bit 1, block bits shifted by offset - 2.
    EXPECT_EQ(COrvaneClientI2C::GetEEPROMSlaveAddress(1, 0x100, 0x0608), 0xA6);
    // Chip bits are cut to the scheme's width.
    EXPECT_EQ(COrvaneClientI2C::GetEEPROMSlaveAddress(9, 0, 0x0108), 0xA4);

    // The block bits stay in the offset; most significant byte first.
    EXPECT_EQ(COrvaneClientI2C::ToOffset(0xFF1234, 0x0309), Hex("00 00 02 34"));
    EXPECT_EQ(COrvaneClientI2C::ToOffset(0x12345678, 0x0018), Hex("00 34 56 78"));
}

TEST(I2CClient, EEPromRequestsAndReadCopyStart)
{
    int r = 0;
    CI2C oClient;
    char acBuffer[16] = {};
    unsigned short nReceived = 0;
    const std::string sData = Hex("40 41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f");

    // 19 bytes for 16 asked: a word in front, the data from byte 3.
    oClient.ReplyWith("00 aa bb 40 41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f");
    EXPECT_EQ(oClient.ReadEEProm(2, 0x1234, 0x0008, acBuffer, 16, nReceived), 0);
    // Slave 0xA4, offset size 1, offset 0x34, count 16.
    EXPECT_EQ(oClient.LastRequest(), Req(0x112, Hex("a4 00 01 00 00 00 34 10 00")));
    EXPECT_EQ(Out(nReceived, Bytes(acBuffer, 16)), Out(16, sData));

    // 17 bytes: the data from byte 1.
    oClient.ReplyWith("00 40 41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f");
    std::fill(acBuffer, acBuffer + 16, 0);
    EXPECT_EQ(oClient.ReadEEProm(0, 0x1234, 0x0309, acBuffer, 16, nReceived), 0);
    // Nine offset bits: slave 0xA2 with block 1, offset size 2, the block
    // bits kept in the offset.
    EXPECT_EQ(oClient.LastSent().GetData(), Hex("a2 00 02 00 00 02 34 10 00"));
    EXPECT_EQ(Out(nReceived, Bytes(acBuffer, 16)), Out(16, sData));

    // An empty confirmation gives no data.
    oClient.ReplyWith("");
    r = oClient.ReadEEProm(0, 0, 0x0008, acBuffer, 16, nReceived);
    EXPECT_EQ(Out(r, nReceived), "786688 0");

    oClient.ReplyWith("00");
    EXPECT_EQ(oClient.WriteEEProm(1, 0x1FF, 0x0108, "\x01\x02", 2), 0);
    // Scheme 0x100: chip 1 at bit 2, block bit (address bit 8) at bit 1.
    EXPECT_EQ(oClient.LastRequest(), Req(0x113, Hex("a6 00 01 00 00 01 ff 01 02")));
    EXPECT_EQ(oClient.WriteEEPromPollAck(1, 0x1FF, 0x0108, "\x01", 1, 0x0302), 0);
    EXPECT_EQ(oClient.LastRequest(), Req(0x119, Hex("a6 00 02 03 01 00 00 01 ff 01")));
}

TEST(I2CClient, SequenceForms)
{
    CI2C oClient;
    char acRead[4] = {'x', 'x', 'x', 'x'};
    unsigned short nReadCount = 99;
    unsigned short nStatus = 0;
    oClient.ReplyWith("00 05 00 11 22 33");
    EXPECT_EQ(oClient.WriteSequence("\xa1\x00", 2, acRead, 4, nReadCount, nStatus), 0);
    EXPECT_EQ(oClient.LastRequest(), Req(0x114, Hex("04 00 a1 00")));
    EXPECT_EQ(Out(nStatus, nReadCount, Bytes(acRead, 4)), "5 3 \x11\x22\x33x");

    // List form: a write, then two reads of 2 bytes; both reads receive the
    // first two bytes returned.
    char acWrite[2] = {0x10, 0x20};
    char acFirst[2] = {};
    char acSecond[2] = {};
    I2CCommand aoCommands[] = {{0xA0, 2, acWrite}, {0xA1, 2, acFirst}, {0xA1, 2, acSecond}};
    oClient.ReplyWith("21 09 00 11 22 33 44");
    EXPECT_EQ(oClient.WriteSequence(aoCommands, 3, nStatus), 0x121);
    EXPECT_EQ(oClient.LastSent().GetData(), Hex("04 00 a0 00 02 00 10 20 a1 00 02 00 a1 00 02 00"));
    EXPECT_EQ(Out(nStatus, Bytes(acFirst, 2), Bytes(acSecond, 2)), "9 \x11\x22 \x11\x22");

    // Three bytes returned for two reads of 2: the second gets one.
    char acThird[2] = {'x', 'x'};
    aoCommands[2].m_pcData = acThird;
    oClient.ReplyWith("00 00 00 55 66 77");
    EXPECT_EQ(oClient.WriteSequence(aoCommands, 3, nStatus), 0);
    EXPECT_EQ(Out(Bytes(acFirst, 2), Bytes(acThird, 2)), "\x55\x66 \x55x");
}

TEST(SPIClient, GlobalsAndTransfers)
{
    CSPI oClient;
    oClient.ReplyWith("00");
    EXPECT_EQ(oClient.SetGlobals(1000000, 1, 2, 3), 0);
    EXPECT_EQ(oClient.LastRequest(), Req(0x307, Hex("40 42 0f 00 01 02 03")));
    EXPECT_EQ(oClient.GetStoredBaudrate(), 1000000u);

    unsigned int nRate = 7;
    unsigned char nLevel = 7, nAux = 7, nMode = 7;
    oClient.ReplyWith("00 a0 86 01 00 04 05");
    EXPECT_EQ(oClient.GetGlobals(nRate, nLevel, nAux, nMode), 0);
    EXPECT_EQ(nRate, 7u) << "a short confirmation writes nothing";
    oClient.ReplyWith("00 a0 86 01 00 04 05 06");
    EXPECT_EQ(oClient.GetGlobals(nRate, nLevel, nAux, nMode), 0);
    EXPECT_EQ(oClient.LastSent().GetCmdCode(), 0x308);
    EXPECT_EQ(nRate, 100000u);
    EXPECT_EQ(nLevel + 10 * nAux + 100 * nMode, 4 + 50 + 600);

    // Two bytes out, five expected: padded with three zeros.
    char acIn[6] = {'x', 'x', 'x', 'x', 'x', 'x'};
    oClient.ReplyWith("00 01 02 03 04 05 06 07");
    EXPECT_EQ(oClient.DataReq("\xaa\xbb", 2, acIn, 5), 0);
    EXPECT_EQ(oClient.LastRequest(), Req(0x303, Hex("aa bb 00 00 00")));
    EXPECT_EQ(std::string(acIn, 6), Hex("01 02 03 04 05") + "x");

    // The waiting sequence hands out the result byte first.
    char acSeq[4] = {'x', 'x', 'x', 'x'};
    oClient.ReplyWith("31 11 22");
    EXPECT_EQ(oClient.SequenceReq("\x01\x02", 2, acSeq, 4), 0x331);
    EXPECT_EQ(oClient.LastRequest(), Req(0x314, Hex("01 02")));
    EXPECT_EQ(std::string(acSeq, 4), Hex("31 11 22") + "x");
}

TEST(SPIClient, SequenceSentNowCollectedLaterById)
{
    CSPI oClient(200);
    // The device answers each sequence with its first byte doubled.
    oClient.m_fnReply = [](const COrvaneMsg& oRequest) {
        const char c = static_cast<char>(oRequest.GetData()[0] * 2);
        return std::vector<std::string>{Confirmation(oRequest, std::string(1, '\0') + c)};
    };
    short nFirst = 0, nSecond = 0;
    ASSERT_EQ(oClient.SequenceReq("\x10", 1, &nFirst), 0);
    ASSERT_EQ(oClient.SequenceReq("\x20", 1, &nSecond), 0);
    EXPECT_NE(nFirst, nSecond);
    EXPECT_EQ(oClient.LastSent().GetMsgID(), nSecond);

    char cIn = 0;
    EXPECT_EQ(oClient.SequenceGetCnf(nSecond, &cIn, 1), 0);
    EXPECT_EQ(cIn, 0x40);
    EXPECT_EQ(oClient.SequenceGetCnf(nFirst, &cIn, 1), 0);
    EXPECT_EQ(cIn, 0x20);
    EXPECT_EQ(oClient.SequenceGetCnf(nFirst, &cIn, 1), 0x40000) << "collected once only";

    // An identifier that never came, and a confirmation of another command
    // under the awaited identifier.
    EXPECT_EQ(oClient.SequenceGetCnf(1234, nullptr, 0), 0x40000);
    oClient.Feed(Wire(0x8303, 777, Hex("00 01")));
    EXPECT_EQ(oClient.SequenceGetCnf(777, &cIn, 1), 0xB0000);

    // A send failure is reported, the identifier still given.
    oClient.m_nSendResult = 0x30000;
    short nThird = 0;
    EXPECT_EQ(oClient.SequenceReq("\x30", 1, &nThird), 0x30000);
    EXPECT_EQ(nThird, static_cast<short>(nSecond + 1));
}

TEST(SPIClient, EEPromAddressing)
{
    EXPECT_EQ(COrvaneClientSPI::GetEEPROMSlaveAddress(0, 0x7FF, 0x308), 0xAE);
    EXPECT_EQ(COrvaneClientSPI::GetEEPROMSlaveAddress(3, 0x100, 0x108), 0xAE);
    // Only bits 8-9 select the scheme here.
    EXPECT_EQ(COrvaneClientSPI::GetEEPROMSlaveAddress(1, 0, 0x408), 0xA2);
    EXPECT_EQ(COrvaneClientSPI::ToOffset(0x12345678, eOffset1Byte), Hex("78"));
    EXPECT_EQ(COrvaneClientSPI::ToOffset(0x12345678, eOffset4Byte), Hex("12 34 56 78"));
}

TEST(RenesasClient, RequestBytes)
{
    CRenesas oClient;
    oClient.ReplyWith("00");
    const unsigned char anId[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_EQ(oClient.CheckID(anId, 10), 0);
    EXPECT_EQ(oClient.LastRequest(), Req(0x921, Hex("01 02 03 04 05 06 07")));

    std::string sLong(300, '\x5a');
    sLong[255] = '\x01';
    EXPECT_EQ(oClient.WritePage(0x1234, sLong.data(), 300), 0);
    EXPECT_EQ(oClient.LastRequest(), Req(0x925, Hex("34 12") + sLong.substr(0, 256)));
    EXPECT_EQ(oClient.WritePage(2, "0123456789", 10), 0);
    EXPECT_EQ(oClient.LastSent().GetData(), Hex("02 00") + "0123456789" + std::string(246, '\0'));

    EXPECT_EQ(oClient.SetBaudrate(5), 0);
    EXPECT_EQ(oClient.LastSent().GetData(), Hex("05"));
    EXPECT_EQ(oClient.BlockErase(0x0102), 0);
    EXPECT_EQ(oClient.LastRequest(), Req(0x929, Hex("02 01")));
    EXPECT_EQ(oClient.Complete(), 0);
    EXPECT_EQ(oClient.LastSent().GetCmdCode(), 0x927);
}

TEST(RenesasClient, ReadingConfirmations)
{
    CRenesas oClient;
    unsigned short nResult = 0xBEEF;
    oClient.ReplyWith("00 34");
    EXPECT_EQ(oClient.VerifyCheck(0x0001, 0x00FF, nResult), 0);
    EXPECT_EQ(oClient.LastRequest(), Req(0x928, Hex("01 00 ff 00")));
    EXPECT_EQ(nResult, 0xBEEF);
    oClient.ReplyWith("00 34 12");
    EXPECT_EQ(oClient.VerifyCheck(0, 1, nResult), 0);
    EXPECT_EQ(nResult, 0x1234);

    // A page read hands out what came, at most the buffer, even on an error.
    char acPage[3] = {'x', 'x', 'x'};
    unsigned short nReceived = 0;
    oClient.ReplyWith("20 01 02 03 04");
    EXPECT_EQ(oClient.ReadPage(0x0010, acPage, 2, nReceived), 0x920);
    EXPECT_EQ(oClient.LastSent().GetData(), Hex("10 00"));
    EXPECT_EQ(nReceived, 2);
    EXPECT_EQ(std::string(acPage, 3), Hex("01 02") + "x");

    char acVersion[4] = {'x', 'x', 'x', 'x'};
    oClient.ReplyWith("00 56 31");
    EXPECT_EQ(oClient.GetVersion(acVersion, 4), 0);
    EXPECT_EQ(std::string(acVersion, 4), "V1xx");
}

TEST(TestSystemCOM, UploadInPiecesWhileTheDeviceAsks)
{
    const std::string sContent = OrvaneTest::Pattern(70000, 3);
    const OrvaneTest::CTempDir oDir;
    const std::string sPath = oDir.Write("upload.cfg", sContent);
    const std::string sName = COrvaneClientTestSystemCOM::GetFileName(sPath);
    CCOM oClient;
    AskForPieces(oClient, 2);
    EXPECT_EQ(oClient.SendFile(sPath), 0);
    const std::vector<COrvaneMsg> aoSent = oClient.Sent();
    ASSERT_EQ(aoSent.size(), 3u);
    // CRC-32 0xa66abd52 (zlib.crc32 of the pattern), size 70000.
    const std::string sHeader = Hex("52 bd 6a a6 70 11 01 00") + static_cast<char>(sName.size()) + sName;
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
    EXPECT_EQ(COrvaneClientTestSystemCOM::GetFileName("cfg/"), "");

    const std::string sFoxPath = oDir.Write("fox.cfg", "The quick brown fox jumps over the lazy dog");
    oClient.ReplyWith("00");
    EXPECT_EQ(oClient.InstallConfig(sFoxPath, "night"), 0);
    // CRC-32 0x414fa339: zlib.crc32(b"The quick brown fox jumps over the lazy dog").
    const std::string sFox = COrvaneClientTestSystemCOM::GetFileName(sFoxPath);
    EXPECT_EQ(oClient.LastRequest(),
              Req(0xDD5, Hex("39 a3 4f 41") + static_cast<char>(sFox.size()) + sFox + Hex("05") + "night"));
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
