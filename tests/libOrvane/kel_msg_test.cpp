// Connection message: wire layout, CRC and parsing rules.
#include "KelByteOrder.h"
#include "KelMsg.h"
#include "support/Bytes.h"

#include <gtest/gtest.h>

#include <string>

using OrvaneTest::FromHex;

namespace
{
TEST(KelMsgWire, LayoutCrcAndBuilders)
{
    const CKelMsg message(0x0201, 0x0301, "AB", 2);
    std::string wire;
    message.GetMessageData(wire);
    // CRC = 01 ^ 02 ^ 01 ^ 03 ^ 41 ^ 42 = 02; the length word is not included.
    EXPECT_EQ(FromHex("07 00 01 02 01 03 41 42 02"), wire);
    EXPECT_TRUE(message.IsValid() && message.IsCRCValid() && !message.IsConfirmation());

    char buffer[16];
    ASSERT_EQ(9u, CKelMsg::Build(buffer, sizeof(buffer), 0x0201, 0x0301, "AB", 2));
    EXPECT_EQ(wire, std::string(buffer, 9));
    EXPECT_EQ(0u, CKelMsg::Build(buffer, 8, 0x0201, 0x0301, "AB", 2));
    EXPECT_EQ(0u, message.WriteTo(buffer, 8));

    const CKelMsg empty(0x8002, 0, nullptr, 4); // null data: no data at all
    EXPECT_EQ(5, empty.GetLength());
    EXPECT_EQ(7u, empty.GetWireSize());
    EXPECT_TRUE(empty.IsConfirmation());

    // The connection commands of id 2 are checked byte for byte in kel_ip_connection_test.
    EXPECT_EQ(0x0202, CKelMsg::Command(0x82, CKelMsg::eDisconnectReq)); // low seven bits of the id
}

TEST(KelMsgParse, LengthAndCrcEdgeCases)
{
    CKelMsg message;
    const std::string noData = FromHex("05 00 02 82 09 00 89"); // CRC 82 ^ 02 ^ 09
    EXPECT_TRUE(message.SetMessage(noData.data(), 7));
    EXPECT_EQ(0x8202, message.GetCommand());
    EXPECT_EQ(9, message.GetNumber());
    EXPECT_TRUE(message.GetData().empty());
    EXPECT_TRUE(message.IsCRCValid());

    // Six bytes or fewer clear the message.
    const std::string six = FromHex("05 00 01 02 01 00");
    EXPECT_FALSE(message.SetMessage(six.data(), 6));
    EXPECT_EQ(5, message.GetLength());
    EXPECT_EQ(0, message.GetCommand() + message.GetNumber() + message.GetCRC());

    std::string wire;
    CKelMsg(0x020D, 0, "\xE8\x03\x00\x00", 4).GetMessageData(wire);
    CKelMsg parsed(wire.data(), static_cast<unsigned short>(wire.size()));
    EXPECT_TRUE(parsed.IsValid() && parsed.IsCRCValid());
    EXPECT_EQ(std::string("\xE8\x03\x00\x00", 4), parsed.GetData());

    std::string badCrc = wire;
    badCrc.back() = static_cast<char>(badCrc.back() ^ 0x10);
    EXPECT_TRUE(parsed.SetMessage(badCrc.data(), static_cast<unsigned short>(badCrc.size())));
    EXPECT_FALSE(parsed.IsCRCValid());
    std::string badLength = wire;
    badLength[0] = static_cast<char>(badLength[0] + 1);
    EXPECT_FALSE(parsed.SetMessage(badLength.data(), static_cast<unsigned short>(badLength.size())));

    // The copy-free check says what parsing says.
    const struct
    {
        const std::string& bytes;
        bool intact;
    } checks[] = {{noData, true}, {six, false}, {wire, true}, {badCrc, false}, {badLength, false}};
    for (const auto& check : checks)
        EXPECT_EQ(check.intact, CKelMsg::IsIntact(check.bytes.data(), static_cast<unsigned short>(check.bytes.size())))
            << ::testing::PrintToString(check.bytes);
}
} // namespace

TEST(KelByteOrder, EveryWidthAndSignLittleEndian)
{
    EXPECT_EQ(KelToLE(static_cast<short>(-2)), std::string("\xFE\xFF", 2));
    EXPECT_EQ(KelToLE(0x80000001u), std::string("\x01\x00\x00\x80", 4));
    EXPECT_EQ(KelToLE(0x0102030405060708LL), std::string("\x08\x07\x06\x05\x04\x03\x02\x01", 8));
    const unsigned char acBytes[] = {0xFE, 0xFF, 0xFF, 0x80, 0x55};
    EXPECT_EQ(KelGetLE<short>(acBytes), -2);
    EXPECT_EQ(KelGetLE<unsigned int>(acBytes + 1), 0x5580FFFFu);
    EXPECT_EQ(KelGetLE<int>(acBytes), static_cast<int>(0x80FFFFFEu));
}
