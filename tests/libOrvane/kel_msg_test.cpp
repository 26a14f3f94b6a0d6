// Connection message: wire layout, CRC, parsing rules and byte order.
#include "KelMsg.h"

#include <gtest/gtest.h>

#include <string>

namespace
{
std::string Bytes(std::initializer_list<unsigned char> values)
{
    return std::string(values.begin(), values.end());
}

TEST(KelMsgWire, BuildsLengthCommandNumberDataAndCrc)
{
    const CKelMsg message(0x0201, 1, "AB", 2);
    std::string wire;
    message.GetMessageData(wire);
    // CRC = 01 ^ 02 ^ 01 ^ 00 ^ 41 ^ 42 = 01; the length word is not included.
    EXPECT_EQ(Bytes({0x07, 0x00, 0x01, 0x02, 0x01, 0x00, 0x41, 0x42, 0x01}), wire);
    EXPECT_EQ(7, message.GetLength());
    EXPECT_TRUE(message.IsValid());
    EXPECT_TRUE(message.IsCRCValid());
    EXPECT_FALSE(message.IsConfirmation());
}

TEST(KelMsgWire, StaticBuildMatchesTheObjectAndRefusesASmallBuffer)
{
    char buffer[16];
    const unsigned int size = CKelMsg::Build(buffer, sizeof(buffer), 0x820D, 0x1234, "\x05", 1);
    ASSERT_EQ(8u, size);
    std::string wire;
    CKelMsg(0x820D, 0x1234, "\x05", 1).GetMessageData(wire);
    EXPECT_EQ(wire, std::string(buffer, size));
    EXPECT_EQ(0u, CKelMsg::Build(buffer, 7, 0x820D, 0x1234, "\x05", 1));
    EXPECT_EQ(0u, CKelMsg(0x0001, 0, "abc", 3).WriteTo(buffer, 9));
}

TEST(KelMsgWire, NullOrEmptyDataGivesASevenByteMessage)
{
    const CKelMsg message(0x8002, 0, nullptr, 4);
    EXPECT_TRUE(message.GetData().empty());
    EXPECT_EQ(5, message.GetLength());
    EXPECT_EQ(7u, message.GetWireSize());
    EXPECT_TRUE(message.IsConfirmation());
}

TEST(KelMsgWire, CommandsCarryTheLowSevenBitsOfTheId)
{
    EXPECT_EQ(0x0201, CKelMsg::Command(2, CKelMsg::eConnectReq));
    EXPECT_EQ(0x8201, CKelMsg::Command(2, CKelMsg::eConnectReq | CKelMsg::eConfirmation));
    EXPECT_EQ(0x020D, CKelMsg::Command(2, CKelMsg::eAliveReq));
    EXPECT_EQ(0x800D, CKelMsg::Command(0, CKelMsg::eAliveReq | CKelMsg::eConfirmation));
    EXPECT_EQ(0x0202, CKelMsg::Command(0x82, CKelMsg::eDisconnectReq));
}

TEST(KelMsgParse, SevenBytesWithLengthFiveIsValid)
{
    CKelMsg message;
    EXPECT_TRUE(message.SetMessage(Bytes({0x05, 0x00, 0x02, 0x82, 0x09, 0x00, 0x82 ^ 0x02 ^ 0x09}).data(), 7));
    EXPECT_EQ(0x8202, message.GetCommand());
    EXPECT_EQ(9, message.GetNumber());
    EXPECT_TRUE(message.GetData().empty());
    EXPECT_TRUE(message.IsCRCValid());
}

TEST(KelMsgParse, SixBytesOrFewerClearTheMessage)
{
    CKelMsg message(0x0201, 1, "xyz", 3);
    EXPECT_FALSE(message.SetMessage(Bytes({0x05, 0x00, 0x01, 0x02, 0x01, 0x00}).data(), 6));
    EXPECT_EQ(5, message.GetLength());
    EXPECT_EQ(0, message.GetCommand());
    EXPECT_EQ(0, message.GetNumber());
    EXPECT_EQ(0, message.GetCRC());
    EXPECT_TRUE(message.GetData().empty());
    // The parse reports failure; the cleared message itself is a consistent
    // empty message.
    EXPECT_FALSE(message.SetMessage("\x05", 1));
}

TEST(KelMsgParse, WrongLengthWordIsInvalidAndWrongCrcIsDetected)
{
    std::string wire;
    CKelMsg(0x020D, 0, "\xE8\x03\x00\x00", 4).GetMessageData(wire);
    CKelMsg parsed(wire.data(), static_cast<unsigned short>(wire.size()));
    EXPECT_TRUE(parsed.IsValid());
    EXPECT_TRUE(parsed.IsCRCValid());
    EXPECT_EQ(std::string("\xE8\x03\x00\x00", 4), parsed.GetData());

    std::string badCrc = wire;
    badCrc.back() = static_cast<char>(badCrc.back() ^ 0x10);
    EXPECT_TRUE(parsed.SetMessage(badCrc.data(), static_cast<unsigned short>(badCrc.size())));
    EXPECT_FALSE(parsed.IsCRCValid());

    std::string badLength = wire;
    badLength[0] = static_cast<char>(badLength[0] + 1);
    EXPECT_FALSE(parsed.SetMessage(badLength.data(), static_cast<unsigned short>(badLength.size())));
}

TEST(KelMsgByteOrder, ToCharAndFromCharAreLittleEndian)
{
    EXPECT_EQ(Bytes({0x34, 0x12}), CKelMsg::ToChar(static_cast<short>(0x1234)));
    EXPECT_EQ(Bytes({0x78, 0x56, 0x34, 0x12}), CKelMsg::ToChar(0x12345678));
    EXPECT_EQ(Bytes({0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x81}), CKelMsg::ToChar(static_cast<long long>(0x8102030405060708LL)));

    short s = 0;
    CKelMsg::FromChar(s, "\xFE\xFF");
    EXPECT_EQ(-2, s);
    int i = 0;
    CKelMsg::FromChar(i, "\x78\x56\x34\x92");
    EXPECT_EQ(static_cast<int>(0x92345678u), i);
    long long l = 0;
    const std::string eight = CKelMsg::ToChar(-5LL);
    CKelMsg::FromChar(l, eight.data());
    EXPECT_EQ(-5LL, l);
}
} // namespace
