#include "OrvaneErrors.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace
{

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
