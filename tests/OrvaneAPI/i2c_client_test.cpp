// The I2C client through its seams: request bytes worked out by hand, and
// what each confirmation writes to the outputs, also on device errors.
#include "OrvaneClientI2C.h"
#include "OrvaneProtocol.h"
#include "support/ClientSeams.h"

#include <gtest/gtest.h>

#include <string>

using namespace ClientTest;

namespace
{

using CI2C = CScripted<COrvaneClientI2C>;

std::string Payload(CI2C& oClient)
{
    return oClient.LastSent().GetData();
}

std::string Bytes(const char* pcData, std::size_t nCount)
{
    return std::string(pcData, nCount);
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
    ASSERT_EQ(oClient.SetBaudrate(100), 0);
    EXPECT_EQ(Payload(oClient), Hex("a0 86 01 00"));
    ASSERT_EQ(oClient.SetBaudrate(1000), 0);
    EXPECT_EQ(Payload(oClient), Hex("e8 03 00 00"));

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
    EXPECT_EQ(Out(r, nValue, Payload(oClient)), "0 119 \x03");
    EXPECT_EQ(oClient.RAWSend(0x12, 0x34), 0);
    EXPECT_EQ(oClient.LastRequest(), Req(0x116, Hex("12 34")));
}

TEST(I2CClient, EEPromSlaveAddressAndOffset)
{
    EXPECT_EQ(COrvaneClientI2C::GetEEPROMSlaveAddress(2, 0x1FF, 0x0008), 0xA4);
    EXPECT_EQ(COrvaneClientI2C::GetEEPROMSlaveAddress(0, 0x7FF, 0x0308), 0xAE);
    EXPECT_EQ(COrvaneClientI2C::GetEEPROMSlaveAddress(1, 0x1FFFF, 0x0510), 0xAA);
    // Scheme 0x600: one chip bit at bit 1, block bits shifted by offset - 2.
    EXPECT_EQ(COrvaneClientI2C::GetEEPROMSlaveAddress(1, 0x100, 0x0608), 0xA6);
    // Chip bits are cut to the scheme's width.
    EXPECT_EQ(COrvaneClientI2C::GetEEPROMSlaveAddress(9, 0, 0x0108), 0xA4);

    // The block bits stay in the offset; most significant byte first.
    EXPECT_EQ(COrvaneClientI2C::ToOffset(0xFF1234, 0x0309), Hex("00 00 02 34"));
    EXPECT_EQ(COrvaneClientI2C::ToOffset(0xFF1234, 0x0010), Hex("00 00 12 34"));
    EXPECT_EQ(COrvaneClientI2C::ToOffset(0x12345678, 0x0018), Hex("00 34 56 78"));
}

TEST(I2CClient, EEPromRequestsAndReadCopyStart)
{
    int r = 0;
    CI2C oClient;
    char acBuffer[16] = {};
    unsigned short nReceived = 0;
    std::string sData;
    for (int i = 0; i < 16; ++i)
        sData.push_back(static_cast<char>(0x40 + i));

    // 19 bytes for 16 asked: a word in front, the data from byte 3.
    oClient.ReplyWith("00 aa bb 40 41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f");
    EXPECT_EQ(oClient.ReadEEProm(2, 0x1234, 0x0008, acBuffer, 16, nReceived), 0);
    EXPECT_EQ(oClient.LastSent().GetCmdCode(), 0x112);
    // Slave 0xA4, offset size 1, offset 0x34, count 16.
    EXPECT_EQ(Payload(oClient), Hex("a4 00 01 00 00 00 34 10 00"));
    EXPECT_EQ(Out(nReceived, Bytes(acBuffer, 16)), Out(16, sData));

    // 17 bytes: the data from byte 1.
    oClient.ReplyWith("00 40 41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f");
    std::fill(acBuffer, acBuffer + 16, 0);
    EXPECT_EQ(oClient.ReadEEProm(0, 0x1234, 0x0309, acBuffer, 16, nReceived), 0);
    // Nine offset bits: slave 0xA2 with block 1, offset size 2, the block
    // bits kept in the offset.
    EXPECT_EQ(Payload(oClient), Hex("a2 00 02 00 00 02 34 10 00"));
    EXPECT_EQ(Out(nReceived, Bytes(acBuffer, 16)), Out(16, sData));

    // An empty confirmation gives no data.
    oClient.ReplyWith("");
    r = oClient.ReadEEProm(0, 0, 0x0008, acBuffer, 16, nReceived);
    EXPECT_EQ(Out(r, nReceived), "786688 0");

    oClient.ReplyWith("00");
    EXPECT_EQ(oClient.WriteEEProm(1, 0x1FF, 0x0108, "\x01\x02", 2), 0);
    EXPECT_EQ(oClient.LastSent().GetCmdCode(), 0x113);
    // Scheme 0x100: chip 1 at bit 2, block bit (address bit 8) at bit 1.
    EXPECT_EQ(Payload(oClient), Hex("a6 00 01 00 00 01 ff 01 02"));
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
    EXPECT_EQ(Payload(oClient), Hex("04 00 a0 00 02 00 10 20 a1 00 02 00 a1 00 02 00"));
    EXPECT_EQ(Out(nStatus, Bytes(acFirst, 2), Bytes(acSecond, 2)), "9 \x11\x22 \x11\x22");

    // Three bytes returned for two reads of 2: the second gets one.
    char acThird[2] = {'x', 'x'};
    aoCommands[2].m_pcData = acThird;
    oClient.ReplyWith("00 00 00 55 66 77");
    EXPECT_EQ(oClient.WriteSequence(aoCommands, 3, nStatus), 0);
    EXPECT_EQ(Out(Bytes(acFirst, 2), Bytes(acThird, 2)), "\x55\x66 \x55x");
}
