#include "KelStringFunc.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace
{
std::string Header(const void* pData, const char* pcHexSize)
{
    std::ostringstream oPointer;
    oPointer << pData;
    return "Address: 0x" + oPointer.str() + "  Length : 0x" + pcHexSize + "\n";
}

const std::string kEightBlankColumns(8 * 3, ' ');
} // namespace

TEST(KelMemDumpTest, LinesOfSevenSixteenAndSeventeenBytes)
{
    const unsigned char acTelegram[7] = {0x00, 0x07, 0x41, 0x62, 0x7F, 0x0A, 0x39};
    const std::string sLine = "0x0000 00 07 41 62 7f 0a 39    " // the eighth byte is missing
                              " " +
        kEightBlankColumns + "..Ab..9";
    EXPECT_EQ(KelMemDumpLine(acTelegram, 7, 0), sLine);
    const std::string sDump = KelMemDump(acTelegram, 7);
    EXPECT_EQ(sDump, Header(acTelegram, "7") + sLine + "\n");

    unsigned char acData[17];
    for (unsigned int i = 0; i < sizeof acData; ++i)
        acData[i] = static_cast<unsigned char>(0x30 + i); // '0' ... '@'
    const std::string sFull = "0x0000 30 31 32 33 34 35 36 37  38 39 3a 3b 3c 3d 3e 3f 0123456789:;<=>?\n";
    EXPECT_EQ(KelMemDump(acData, 16), Header(acData, "10") + sFull);
    const std::string sSecond = "0x0010 40 " + std::string(7 * 3, ' ') + " " + kEightBlankColumns + "@\n";
    EXPECT_EQ(KelMemDump(acData, 17), Header(acData, "11") + sFull + sSecond);

    const unsigned char acOdd[] = {' ', 0x1F, 0x80, 0xFF, '~', 'z'};
    const std::string sOdd = KelMemDumpLine(acOdd, sizeof acOdd, 0);
    EXPECT_EQ(sOdd.substr(sOdd.size() - 6), " ...~z");
    std::vector<unsigned char> anBig(0x10012, 0xAB);
    EXPECT_EQ(KelMemDumpLine(anBig.data(), static_cast<unsigned int>(anBig.size()), 0x10010),
              "0x10010 ab ab " + std::string(6 * 3, ' ') + " " + kEightBlankColumns + "..");

    EXPECT_EQ(KelMemDump(nullptr, 16), "");
    EXPECT_EQ(KelMemDump(acData, 0), Header(acData, "0"));
}

TEST(KelMemDumpTest, HeadAndTailLimits)
{
    unsigned char acData[80] = {}; // five lines
    for (unsigned int i = 0; i < sizeof acData; ++i)
        acData[i] = static_cast<unsigned char>(i);
    auto line = [&](unsigned int n) { return KelMemDumpLine(acData, sizeof acData, n * 16) + "\n"; };
    const std::string sHeader = Header(acData, "50");
    const std::string sAll = sHeader + line(0) + line(1) + line(2) + line(3) + line(4);

    EXPECT_EQ(KelMemDump(acData, 80, 1, 2), sHeader + line(0) + "...\n" + line(3) + line(4));
    EXPECT_EQ(KelMemDump(acData, 80, 0, 1), sHeader + "...\n" + line(4));
    EXPECT_EQ(KelMemDump(acData, 80, 2, 3), sAll);          // not more lines than the limits
    EXPECT_EQ(KelMemDump(acData, 80, 0xFFFFFFFF, 1), sAll); // one unlimited side
}

TEST(KelStringFuncTest, Quoting)
{
    struct
    {
        const char* pcIn;
        int nMode; // 0: KelDeQuoteString, 1: quote only with white space, 2: always quote
        const char* pcOut;
    } const aoCases[] = {{"\"", 0, "\""},
                         {"\"\"", 0, ""},
                         {"\"\"a\"\"", 0, "\"a\""}, // one pair only
                         {"a\"b\"", 0, "a\"b\""},
                         {"\"two words\"", 1, "\"two words\""},
                         {"word", 1, "word"},
                         {"\"word\"", 1, "word"},
                         {"tab\there", 1, "\"tab\there\""},
                         {"", 2, "\"\""}};
    for (const auto& o : aoCases)
    {
        std::string s = o.pcIn;
        o.nMode == 0 ? KelDeQuoteString(s) : KelQuoteString(s, o.nMode == 1);
        EXPECT_EQ(s, o.pcOut) << "[" << o.pcIn << "] mode " << o.nMode;
    }
}

TEST(KelStringFuncTest, TrimSplitAndConvert)
{
    EXPECT_EQ(KelStrLTrim(" \t\n a b \r\n"), "a b \r\n");
    EXPECT_EQ(KelStrRTrim(" \t\n a b \r\n"), " \t\n a b");
    EXPECT_EQ(KelStrTrim(" \t\n a b \r\n"), "a b");
    for (const char* pcEmpty : {static_cast<const char*>(nullptr), "", " \t \v\f\n"})
        EXPECT_EQ(KelStrLTrim(pcEmpty) + KelStrRTrim(pcEmpty) + KelStrTrim(pcEmpty), "");

    using Pieces = std::vector<std::string>;
    EXPECT_EQ(KelGetParameterList("a;;b;", ';'), (Pieces{"a", "", "b", ""}));
    EXPECT_EQ(KelGetParameterList("", ';'), (Pieces{""}));
    EXPECT_TRUE(KelGetParameterList(nullptr, ';').empty());
    EXPECT_EQ(KelGetParameterList(" \"x y\" ,z", ','), (Pieces{" \"x y\" ", "z"}));
    EXPECT_EQ(KelBigString("AB"), "A . B . ");

    int nValue = 7;
    EXPECT_TRUE(KelFromString(nValue, std::string(" 123")));
    EXPECT_EQ(nValue, 123);
    for (const char* pcBad : {"12x", "abc", static_cast<const char*>(nullptr)})
        EXPECT_FALSE(KelFromString(nValue, pcBad));
    EXPECT_EQ(nValue, 123);
    std::string sValue;
    EXPECT_TRUE(KelFromString(sValue, "two words "));
    EXPECT_EQ(sValue, "two words ");
    EXPECT_EQ(KelToString(-1.5), "-1.5");
}
