#include "KelStringFunc.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace
{

std::string Blanks(std::size_t n)
{
    return std::string(n, ' ');
}

std::string Header(const void* pData, const char* pcHexSize)
{
    std::ostringstream oPointer;
    oPointer << pData;
    return "Address: 0x" + oPointer.str() + "  Length : 0x" + pcHexSize + "\n";
}

TEST(KelMemDumpTest, SevenByteTelegram)
{
    const unsigned char acTelegram[7] = {0x00, 0x07, 0x41, 0x62, 0x7F, 0x0A, 0x39};
    const std::string sLine = "0x0000 "
                              "00 07 41 62 7f 0a 39 "
                              "   "                       // the eighth byte is missing
                              " "                         // between the halves
                              "                        "  // eight missing bytes
                              "..Ab..9";
    EXPECT_EQ(KelMemDumpLine(acTelegram, 7, 0), sLine);

    const std::string sDump = KelMemDump(acTelegram, 7, 0xFFFFFFFF, 0xFFFFFFFF);
    EXPECT_EQ(sDump, Header(acTelegram, "7") + sLine + "\n");
    // The stream's pointer text brings its own prefix, so it stands twice.
    EXPECT_EQ(sDump.compare(0, 13, "Address: 0x0x"), 0);
    EXPECT_EQ(KelMemDump(acTelegram, 7), sDump);
}

TEST(KelMemDumpTest, SixteenAndSeventeenBytes)
{
    unsigned char acData[17];
    for (unsigned int i = 0; i < sizeof acData; ++i)
    {
        acData[i] = static_cast<unsigned char>(0x30 + i); // '0' ... '@'
    }
    const std::string sFull = "0x0000 "
                              "30 31 32 33 34 35 36 37 "
                              " "
                              "38 39 3a 3b 3c 3d 3e 3f "
                              "0123456789:;<=>?";
    EXPECT_EQ(KelMemDump(acData, 16, 0xFFFFFFFF, 0xFFFFFFFF), Header(acData, "10") + sFull + "\n");

    const std::string sSecond = "0x0010 40 " + Blanks(7 * 3) + " " + Blanks(8 * 3) + "@";
    EXPECT_EQ(KelMemDump(acData, 17, 0xFFFFFFFF, 0xFFFFFFFF), Header(acData, "11") + sFull + "\n" + sSecond + "\n");
}

TEST(KelMemDumpTest, CharacterColumnAndWideOffsets)
{
    const unsigned char acData[] = {' ', 0x1F, 0x80, 0xFF, '~', 'z'};
    const std::string sLine = KelMemDumpLine(acData, sizeof acData, 0);
    EXPECT_EQ(sLine.substr(sLine.size() - 6), " ...~z");

    std::vector<unsigned char> anBig(0x10012, 0xAB);
    const std::string sWide = KelMemDumpLine(anBig.data(), static_cast<unsigned int>(anBig.size()), 0x10010);
    EXPECT_EQ(sWide, "0x10010 ab ab " + Blanks(6 * 3) + " " + Blanks(8 * 3) + "..");
    EXPECT_EQ(KelMemDumpLine(anBig.data(), 0x20, 0x10).substr(0, 7), "0x0010 ");
}

TEST(KelMemDumpTest, HeadAndTailLimits)
{
    unsigned char acData[80] = {}; // five lines
    for (unsigned int i = 0; i < sizeof acData; ++i)
    {
        acData[i] = static_cast<unsigned char>(i);
    }
    auto line = [&](unsigned int n) { return KelMemDumpLine(acData, sizeof acData, n * 16) + "\n"; };
    const std::string sHeader = Header(acData, "50");
    const std::string sAll = sHeader + line(0) + line(1) + line(2) + line(3) + line(4);

    EXPECT_EQ(KelMemDump(acData, 80, 1, 2), sHeader + line(0) + "...\n" + line(3) + line(4));
    EXPECT_EQ(KelMemDump(acData, 80, 0, 1), sHeader + "...\n" + line(4));
    EXPECT_EQ(KelMemDump(acData, 80, 2, 0), sHeader + line(0) + line(1) + "...\n");
    EXPECT_EQ(KelMemDump(acData, 80, 2, 3), sAll);          // not more lines than the limits
    EXPECT_EQ(KelMemDump(acData, 80, 0xFFFFFFFF, 1), sAll); // one unlimited side
    EXPECT_EQ(KelMemDump(acData, 80, 0xFFFFFFFF, 0xFFFFFFFF), sAll);
}

TEST(KelMemDumpTest, NullAndEmptyData)
{
    EXPECT_EQ(KelMemDump(nullptr, 16, 0xFFFFFFFF, 0xFFFFFFFF), "");
    const char cByte = 'x';
    EXPECT_EQ(KelMemDump(&cByte, 0, 0xFFFFFFFF, 0xFFFFFFFF), Header(&cByte, "0"));
}

TEST(KelStringFuncTest, QuotingAndDequoting)
{
    std::string s = "\"abc\"";
    KelDeQuoteString(s);
    EXPECT_EQ(s, "abc");
    s = "\"";
    KelDeQuoteString(s);
    EXPECT_EQ(s, "\"");
    s = "\"\"";
    KelDeQuoteString(s);
    EXPECT_EQ(s, "");
    s = "\"\"a\"\"";
    KelDeQuoteString(s);
    EXPECT_EQ(s, "\"a\""); // one pair only
    s = "a\"b\"";
    KelDeQuoteString(s);
    EXPECT_EQ(s, "a\"b\"");

    s = "two words";
    KelQuoteString(s, true);
    EXPECT_EQ(s, "\"two words\"");
    KelQuoteString(s, true); // already quoted: not doubled
    EXPECT_EQ(s, "\"two words\"");
    s = "word";
    KelQuoteString(s, true);
    EXPECT_EQ(s, "word");
    s = "\"word\"";
    KelQuoteString(s, true); // quotes removed, no white space: stays bare
    EXPECT_EQ(s, "word");
    s = "tab\there";
    KelQuoteString(s, true);
    EXPECT_EQ(s, "\"tab\there\"");
    s = "";
    KelQuoteString(s, true);
    EXPECT_EQ(s, "");
    KelQuoteString(s, false);
    EXPECT_EQ(s, "\"\"");
    s = "word";
    KelQuoteString(s, false);
    EXPECT_EQ(s, "\"word\"");
}

TEST(KelStringFuncTest, Trimming)
{
    EXPECT_EQ(KelStrLTrim(" \t\n a b \r\n"), "a b \r\n");
    EXPECT_EQ(KelStrRTrim(" \t\n a b \r\n"), " \t\n a b");
    EXPECT_EQ(KelStrTrim(" \t\n a b \r\n"), "a b");
    for (const char* pcEmpty : {static_cast<const char*>(nullptr), "", " \t \v\f\n"})
    {
        EXPECT_EQ(KelStrLTrim(pcEmpty), "");
        EXPECT_EQ(KelStrRTrim(pcEmpty), "");
        EXPECT_EQ(KelStrTrim(pcEmpty), "");
    }
    EXPECT_EQ(KelStrTrim("x"), "x");
}

TEST(KelStringFuncTest, ParameterList)
{
    EXPECT_EQ(KelGetParameterList("a;;b;", ';'), (std::vector<std::string>{"a", "", "b", ""}));
    EXPECT_EQ(KelGetParameterList("", ';'), (std::vector<std::string>{""}));
    EXPECT_TRUE(KelGetParameterList(nullptr, ';').empty());
    EXPECT_EQ(KelGetParameterList(" \"x y\" ,z", ','), (std::vector<std::string>{" \"x y\" ", "z"}));
    EXPECT_EQ(KelGetParameterList("no separator", ';'), (std::vector<std::string>{"no separator"}));
}

TEST(KelStringFuncTest, BigString)
{
    EXPECT_EQ(KelBigString("AB"), "A . B . ");
    EXPECT_EQ(KelBigString(""), "");
}

TEST(KelStringFuncTest, ConversionTemplates)
{
    EXPECT_EQ(KelToString(42), "42");
    EXPECT_EQ(KelToString(-1.5), "-1.5");
    EXPECT_EQ(KelToString(std::string("a b")), "a b");

    int nValue = 7;
    EXPECT_TRUE(KelFromString(nValue, std::string(" 123")));
    EXPECT_EQ(nValue, 123);
    EXPECT_FALSE(KelFromString(nValue, std::string("12x")));
    EXPECT_FALSE(KelFromString(nValue, "abc"));
    EXPECT_FALSE(KelFromString(nValue, static_cast<const char*>(nullptr)));
    EXPECT_EQ(nValue, 123);
    char acText[] = "-45";
    EXPECT_TRUE(KelFromString(nValue, acText));
    EXPECT_EQ(nValue, -45);

    std::string sValue;
    EXPECT_TRUE(KelFromString(sValue, "two words "));
    EXPECT_EQ(sValue, "two words ");
    EXPECT_TRUE(KelFromString(sValue, std::string()));
    EXPECT_EQ(sValue, "");
}

} // namespace
