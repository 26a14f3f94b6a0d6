// Telegrams byte for byte, and the texts of error codes and device types.
#include "OrvaneErrors.h"
#include "OrvaneMsg.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace
{

using Bytes = std::vector<unsigned char>;

Bytes ToBytes(const std::string& s)
{
    return Bytes(s.begin(), s.end());
}

// "code id length crc" of a telegram, code and CRC in hex.
std::string Fields(const COrvaneMsg& o)
{
    char ac[40];
    std::snprintf(ac, sizeof ac, "%04X %d %u %02X", static_cast<unsigned>(o.GetCmdCode()), o.GetMsgID(),
                  static_cast<unsigned>(o.GetLength()), static_cast<unsigned>(o.GetCRC()));
    return ac;
}

COrvaneMsg Parse(const Bytes& oRaw)
{
    return COrvaneMsg(oRaw.data(), static_cast<unsigned short>(oRaw.size()));
}

// A CAN write request: identifier 0x12345678, flags 0x01, one data byte 0xAB.
const unsigned char kCanWritePayload[] = {0x78, 0x56, 0x34, 0x12, 0x01, 0xAB};

// Worked out by hand from the layout: length 11, code 0x0203, ID 0x0105,
// the payload, and CRC = 03^02^05^01^78^56^34^12^01^AB = A7.
const Bytes kCanWriteWire = {0x0B, 0x00, 0x03, 0x02, 0x05, 0x01, 0x78, 0x56, 0x34, 0x12, 0x01, 0xAB, 0xA7};

// A few rows of the library's table, written out separately: the first, the
// misspelt ones, a host-side code, a text two device types share, the last.
const std::vector<std::pair<int, std::string>> kExpectedTexts = {
    {0x000000, "no error"},
    {0x040000, "TCP/IP timeout occured"},
    {0x050000, "TCP/IP request not allowed now, stack is intializing"},
    {0x910000, "Device type invalid (handle is connected device type, which does not support called function"},
    {0x221, "CAN transmit error"},
    {0xD20, "File could not be opened"},
    {0xE20, "File could not be opened"},
    {0xE26, "Failed to read data from target"},
};

} // namespace

TEST(OrvaneMsgBuild, TelegramsByteForByte)
{
    COrvaneMsg oMsg(0x0203, 0x0105, kCanWritePayload, sizeof(kCanWritePayload));
    EXPECT_EQ(Fields(oMsg), "0203 261 11 A7");
    EXPECT_TRUE(oMsg.IsValid() && oMsg.IsCRCValid());
    EXPECT_EQ(ToBytes(oMsg.GetMessageData()), kCanWriteWire);

    // No data, a null pointer with a size, and data with size 0 are all empty.
    const Bytes oEmpty = {0x05, 0x00, 0x09, 0x02, 0x34, 0x12, 0x09 ^ 0x02 ^ 0x34 ^ 0x12};
    const unsigned char acData[] = {1, 2, 3};
    for (const COrvaneMsg& o : {COrvaneMsg(0x0209, 0x1234, nullptr, 0), COrvaneMsg(0x0209, 0x1234, nullptr, 3),
                                COrvaneMsg(0x0209, 0x1234, acData, 0)})
        EXPECT_TRUE(ToBytes(o.GetMessageData()) == oEmpty && o.IsValid());
    EXPECT_EQ(ToBytes(COrvaneMsg().GetMessageData()), (Bytes{5, 0, 0, 0, 0, 0, 0}));

    // SetMessage replaces everything and returns the CRC over code 0x820A,
    // ID -2 (0xFFFE) and data.
    const unsigned char acNew[] = {0xF0, 0x0F};
    EXPECT_EQ(oMsg.SetMessage(0x820A, -2, acNew, 2), 0x0A ^ 0x82 ^ 0xFE ^ 0xFF ^ 0xF0 ^ 0x0F);
    EXPECT_EQ(Fields(oMsg), "820A -2 7 76");
    EXPECT_EQ(oMsg.GetData(), std::string("\xF0\x0F", 2));

    EXPECT_TRUE(COrvaneMsg(0x820C, 1, nullptr, 0).IsConfirmation());
    EXPECT_FALSE(COrvaneMsg(0x020C, 1, nullptr, 0).IsConfirmation());
    EXPECT_EQ(COrvaneMsg::MakeCmdCode(2, 0x03), 0x0203);
    EXPECT_EQ(COrvaneMsg::MakeCmdCode(0x82, 0x0C), 0x020C); // type masked to 7 bits
}

TEST(OrvaneMsgParse, FieldsLengthsAndCrc)
{
    COrvaneMsg oParsed = Parse(kCanWriteWire);
    EXPECT_TRUE(oParsed.IsValid() && oParsed.IsCRCValid());
    EXPECT_EQ(Fields(oParsed), "0203 261 11 A7");
    EXPECT_EQ(ToBytes(oParsed.GetData()), Bytes(std::begin(kCanWritePayload), std::end(kCanWritePayload)));

    // Seven bytes: empty data and the received CRC.
    const Bytes oSeven = {0x05, 0x00, 0x0C, 0x82, 0xFF, 0x7F, 0x5A};
    COrvaneMsg oMsg;
    EXPECT_TRUE(oMsg.SetMessage(oSeven.data(), 7));
    EXPECT_TRUE(oMsg.GetData().empty());
    EXPECT_EQ(Fields(oMsg), "820C 32767 5 5A");
    // Six bytes or none: an empty, invalid result.
    EXPECT_FALSE(oMsg.SetMessage(oSeven.data(), 6));
    EXPECT_EQ(Fields(oMsg), "0000 0 5 00");
    EXPECT_TRUE(oMsg.GetData().empty());
    EXPECT_EQ(Fields(COrvaneMsg(nullptr, 20)), "0000 0 5 00");
    EXPECT_FALSE(COrvaneMsg().SetMessage(nullptr, 20));

    // A wrong CRC still parses, is reported, and is kept when serialising.
    Bytes oRaw = kCanWriteWire;
    oRaw.back() ^= 0x01;
    oMsg = Parse(oRaw);
    EXPECT_TRUE(oMsg.IsValid());
    EXPECT_FALSE(oMsg.IsCRCValid());
    EXPECT_EQ(ToBytes(oMsg.GetMessageData()), oRaw);
    // Every byte after the length field is covered by the checksum; the length field is not.
    for (std::size_t i = 2; i + 1 < kCanWriteWire.size(); ++i)
    {
        oRaw = kCanWriteWire;
        oRaw[i] ^= 0x40;
        EXPECT_FALSE(Parse(oRaw).IsCRCValid()) << "byte " << i;
    }
    oRaw = kCanWriteWire;
    oRaw[1] = 0x01;
    EXPECT_TRUE(Parse(oRaw).IsCRCValid());
    EXPECT_FALSE(Parse(oRaw).IsValid()) << "the high length byte counts";

    // A length word that disagrees: invalid, but the fields are filled.
    oRaw = kCanWriteWire;
    oRaw[0] = 0x0C;
    EXPECT_FALSE(oMsg.SetMessage(oRaw.data(), static_cast<unsigned short>(oRaw.size())));
    EXPECT_FALSE(oMsg.IsValid());
    EXPECT_EQ(Fields(oMsg), "0203 261 12 A7");
    EXPECT_EQ(oMsg.GetData().size(), 6u);
}

TEST(OrvaneErrorMsg, SampleRowsGiveTheirExactText)
{
    for (const auto& oRow : kExpectedTexts)
        EXPECT_EQ(OrvaneErrorMsg(oRow.first), oRow.second) << "code 0x" << std::hex << oRow.first;
}

TEST(OrvaneErrorMsg, UnknownCodeRetriesWithDeviceTypeBitsCleared)
{
    // Bits 8-15 already zero: straight to the fallback.
    EXPECT_EQ(OrvaneErrorMsg(0x2000FF), "Unknown error code: 2097407");
    // Looked up again as 0x34; the fallback names the cleared code.
    EXPECT_EQ(OrvaneErrorMsg(0x1234), "Unknown error code: 52");
    // -1 becomes 0xFFFF00FF.
    EXPECT_EQ(OrvaneErrorMsg(-1), "Unknown error code: -65281");
    // The retry finds common texts: an empty CAN confirmation, a failed
    // command on any device type, a device code of an unknown type.
    EXPECT_EQ(OrvaneErrorMsg(0xC0200), "Orvane TCP/IP telegram confirmation is invalid");
    EXPECT_EQ(OrvaneErrorMsg(0x2FF), "Orvane command failed");
    EXPECT_EQ(OrvaneErrorMsg(0x5001), "Open failed, maximum number of connections reached");
    // A row that exists is taken as it is, not cleared first.
    EXPECT_EQ(OrvaneErrorMsg(0x920), "Renesas timeout");
}

TEST(OrvaneDeviceName, NamesOneToNineAndUnknownOtherwise)
{
    EXPECT_EQ(OrvaneDeviceName(1), "Orvane I2C");
    EXPECT_EQ(OrvaneDeviceName(8), "Orvane Universal Programmer");
    EXPECT_EQ(OrvaneDeviceName(9), "Orvane Renesas");
    for (int nType : {0, 10, -1, 0x102})
        EXPECT_EQ(OrvaneDeviceName(nType), "Orvane ???") << nType;
}
