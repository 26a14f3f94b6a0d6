// The SPI and Renesas clients through their seams: request bytes worked out
// by hand, the two-step sequence collected by telegram identifier, and which
// confirmations write the outputs.
#include "OrvaneClientRenesas.h"
#include "OrvaneClientSPI.h"
#include "OrvaneProtocol.h"
#include "support/ClientSeams.h"

#include <gtest/gtest.h>

#include <string>

using namespace ClientTest;

namespace
{

using CSPI = CScripted<COrvaneClientSPI>;
using CRenesas = CScripted<COrvaneClientRenesas>;

} // namespace

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
    EXPECT_EQ(COrvaneClientSPI::GetEEPROMSlaveAddress(2, 0x1FF, 0x008), 0xA4);
    EXPECT_EQ(COrvaneClientSPI::GetEEPROMSlaveAddress(0, 0x7FF, 0x308), 0xAE);
    EXPECT_EQ(COrvaneClientSPI::GetEEPROMSlaveAddress(3, 0x100, 0x108), 0xAE);
    // Only bits 8-9 select the scheme here.
    EXPECT_EQ(COrvaneClientSPI::GetEEPROMSlaveAddress(1, 0, 0x408), 0xA2);
    EXPECT_EQ(COrvaneClientSPI::ToOffset(0x12345678, eOffset1Byte), Hex("78"));
    EXPECT_EQ(COrvaneClientSPI::ToOffset(0x12345678, eOffset2Byte), Hex("56 78"));
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
