#include "KelTimeDiff.h"
#include "KelStringFunc.h"

#include <gtest/gtest.h>

#include <climits>
#include <sstream>

namespace
{

TEST(KelTimeDiffTest, ConstructorsUseTenNanosecondUnits)
{
    EXPECT_EQ(CKelTimeDiff().GetTimeDiff(), 0);
    EXPECT_EQ(CKelTimeDiff(1500).GetTimeDiff(), 150000000);
    EXPECT_EQ(CKelTimeDiff(-2).GetTimeDiff(), -200000);
    // ms x 100,000 + us x 100 + ns / 10 (truncated)
    EXPECT_EQ(CKelTimeDiff(1, 2, 39).GetTimeDiff(), 100000 + 200 + 3);
    // days, hours, minutes, seconds, ms, us, ns
    EXPECT_EQ(CKelTimeDiff(1, 2, 3, 4, 5, 6, 79).GetTimeDiff(),
              8640000000000LL + 2 * 360000000000LL + 3 * 6000000000LL + 4 * 100000000LL + 5 * 100000LL
                  + 6 * 100LL + 7);
    EXPECT_EQ(CKelTimeDiff(0, 0, 0, 0, 0, 0, 9).GetTimeDiff(), 0);

    CKelTimeDiff oDiff;
    oDiff.SetTime(0, 1, 0, 0, 0, 0, 0);
    EXPECT_EQ(oDiff.GetTimeDiff(), CKelTimeDiff::kUnitsPerHour);
    oDiff.SetTimeDiff(1234, true);
    EXPECT_EQ(oDiff.GetTimeDiff(), 1234);
    oDiff.SetTimeDiff(1234, false);
    EXPECT_EQ(oDiff.GetTimeDiff(), 123400000);
}

TEST(KelTimeDiffTest, TotalsTruncateAndReadTheCountUnsigned)
{
    const CKelTimeDiff oDiff(1500);
    EXPECT_EQ(oDiff.GetTotalSeconds(), 1u);
    EXPECT_EQ(oDiff.GetTotalMilliSeconds(), 1500u);
    EXPECT_EQ(oDiff.GetTotalMicroSeconds(), 1500000u);
    EXPECT_EQ(oDiff.GetTotalNanoSeconds(), 1500000000u);

    const CKelTimeDiff oLong(2, 23, 59, 59, 999, 999, 990);
    EXPECT_EQ(oLong.GetTotalDays(), 2u);
    EXPECT_EQ(oLong.GetTotalHours(), 71u);
    EXPECT_EQ(oLong.GetTotalMinutes(), 71u * 60 + 59);

    // -1 ms as an unsigned count.
    const CKelTimeDiff oNegative(-1);
    EXPECT_EQ(oNegative.GetTotalMilliSeconds(), static_cast<unsigned long long>(-100000LL) / 100000);
}

TEST(KelTimeDiffTest, CutOffPartsKeepsWholeUnits)
{
    CKelTimeDiff oDiff(1500);
    oDiff.CutOffParts(CKelTimeDiff::eSeconds);
    EXPECT_EQ(oDiff.GetTotalMilliSeconds(), 1000u);

    const CKelTimeDiff oFull(1, 2, 3, 4, 5, 6, 70);
    CKelTimeDiff oDays(oFull), oHours(oFull), oMinutes(oFull), oSeconds(oFull);
    oDays.CutOffParts(CKelTimeDiff::eDays);
    oHours.CutOffParts(CKelTimeDiff::eHours);
    oMinutes.CutOffParts(CKelTimeDiff::eMinutes);
    oSeconds.CutOffParts(CKelTimeDiff::eSeconds);
    EXPECT_EQ(oDays, CKelTimeDiff(1, 0, 0, 0, 0, 0, 0));
    EXPECT_EQ(oHours, CKelTimeDiff(1, 2, 0, 0, 0, 0, 0));
    EXPECT_EQ(oMinutes, CKelTimeDiff(1, 2, 3, 0, 0, 0, 0));
    EXPECT_EQ(oSeconds, CKelTimeDiff(1, 2, 3, 4, 0, 0, 0));
}

TEST(KelTimeDiffTest, TimevalSplitsSecondsAndMicroseconds)
{
    const timeval oTime = CKelTimeDiff(0, 0, 0, 62, 345, 678, 999).GetTimeval();
    EXPECT_EQ(oTime.tv_sec, 62);
    EXPECT_EQ(oTime.tv_usec, 345678);
}

TEST(KelTimeDiffTest, ArithmeticAndDivisionByZero)
{
    const CKelTimeDiff oA(1500), oB(250);
    EXPECT_EQ((oA + oB).GetTotalMilliSeconds(), 1750u);
    EXPECT_EQ((oA - oB).GetTotalMilliSeconds(), 1250u);
    EXPECT_EQ((oB - oA).GetTimeDiff(), -125000000);
    EXPECT_EQ((oA * 3).GetTotalMilliSeconds(), 4500u);
    EXPECT_EQ((3 * oA).GetTotalMilliSeconds(), 4500u);
    EXPECT_EQ((oA / 4).GetTimeDiff(), 37500000);
    EXPECT_EQ(oA / 0, oA);

    CKelTimeDiff oC(oA);
    oC += oB;
    oC -= CKelTimeDiff(50);
    oC *= 2;
    EXPECT_EQ(oC.GetTotalMilliSeconds(), 3400u);
    oC /= 0;
    EXPECT_EQ(oC.GetTotalMilliSeconds(), 3400u);
    oC /= 2;
    EXPECT_EQ(oC.GetTotalMilliSeconds(), 1700u);
}

TEST(KelTimeDiffTest, ComparisonsAreSigned)
{
    const CKelTimeDiff oNegative(-1), oZero, oOne(1);
    EXPECT_TRUE(oNegative < oZero);
    EXPECT_TRUE(oOne > oNegative);
    EXPECT_TRUE(oZero <= oZero && oZero >= oZero);
    EXPECT_TRUE(oOne != oZero);
    EXPECT_FALSE(oOne == oNegative);
    EXPECT_FALSE(oNegative >= oZero);
}

TEST(KelTimeDiffTest, TextForms)
{
    const CKelTimeDiff oDiff(1, 2, 3, 4, 5, 6, 70);
    EXPECT_EQ(KelToString(oDiff, CKelTimeDiff::eDiffDayTime), "1 02:03:04.005");
    EXPECT_EQ(KelToString(oDiff, CKelTimeDiff::eDiffDayTimeHighRes), "1 02:03:04.00500607");
    EXPECT_EQ(KelToString(oDiff, CKelTimeDiff::eDiffMilliSeconds), "93784005");
    EXPECT_EQ(KelToString(oDiff, CKelTimeDiff::eDiffSeconds), "93784.005");
    EXPECT_EQ(KelToString(CKelTimeDiff(-1500), CKelTimeDiff::eDiffSeconds), "-1.500");
    EXPECT_EQ(KelToString(CKelTimeDiff(-1500), CKelTimeDiff::eDiffDayTime), "-0 00:00:01.500");
    EXPECT_EQ(CKelTimeDiff().Time2Str(CKelTimeDiff::eDiffMilliSeconds), "0");
}

TEST(KelTimeDiffTest, TextRoundTripsInEveryForm)
{
    CKelTimeDiff oMin;
    oMin.SetTimeDiff(LLONG_MIN, true);
    CKelTimeDiff oMax;
    oMax.SetTimeDiff(LLONG_MAX, true);
    CKelTimeDiff oOdd;
    oOdd.SetTimeDiff(-987654321012345LL, true);
    for (const CKelTimeDiff& oValue : {oMin, oMax, oOdd, CKelTimeDiff(1, 2, 3, 4, 5, 6, 70), CKelTimeDiff()})
    {
        CKelTimeDiff oRead(7);
        ASSERT_TRUE(KelFromString(oRead, CKelTimeDiff::eDiffDayTimeHighRes,
                                  KelToString(oValue, CKelTimeDiff::eDiffDayTimeHighRes)));
        EXPECT_EQ(oRead, oValue);
    }
    // The millisecond forms keep whole milliseconds.
    const CKelTimeDiff oMilli(-93784005);
    for (CKelTimeDiff::EDiffFormat eFormat :
         {CKelTimeDiff::eDiffDayTime, CKelTimeDiff::eDiffMilliSeconds, CKelTimeDiff::eDiffSeconds})
    {
        CKelTimeDiff oRead;
        ASSERT_TRUE(KelFromString(oRead, eFormat, KelToString(oMilli, eFormat))) << eFormat;
        EXPECT_EQ(oRead, oMilli) << eFormat;
    }
}

TEST(KelTimeDiffTest, ParsingAcceptsShortFractionsAndRejectsBadText)
{
    CKelTimeDiff oDiff;
    ASSERT_TRUE(KelFromString(oDiff, CKelTimeDiff::eDiffSeconds, "2.5"));
    EXPECT_EQ(oDiff.GetTotalMilliSeconds(), 2500u);
    ASSERT_TRUE(KelFromString(oDiff, CKelTimeDiff::eDiffSeconds, "3"));
    EXPECT_EQ(oDiff.GetTotalMilliSeconds(), 3000u);
    ASSERT_TRUE(KelFromString(oDiff, CKelTimeDiff::eDiffDayTime, "0 1:02:03"));
    EXPECT_EQ(oDiff, CKelTimeDiff(0, 1, 2, 3, 0, 0, 0));

    const CKelTimeDiff oBefore(42);
    for (const char* pcBad : {"", "-", "1 24:00:00", "1 23:60:00", "1 23:00:60", "1 2:3", "1 02:03:04.", "x",
                              "1 02:03:04.005 ", "1 02:03:04.123456789", "99999999999 00:00:00"})
    {
        oDiff = oBefore;
        EXPECT_FALSE(KelFromString(oDiff, CKelTimeDiff::eDiffDayTime, pcBad)) << pcBad;
        EXPECT_EQ(oDiff, oBefore) << pcBad;
    }
    EXPECT_FALSE(KelFromString(oDiff, CKelTimeDiff::eDiffMilliSeconds, "1.5"));
    EXPECT_FALSE(KelFromString(oDiff, CKelTimeDiff::eDiffMilliSeconds, "92233720368547759"));
    EXPECT_EQ(oDiff, oBefore);
}

TEST(KelTimeDiffTest, StreamOperatorsUseTheStreamFlag)
{
    std::ostringstream oOut;
    oOut << CKelTimeDiff(1500);
    CKelTimeDiff::SetDiffTimeFlag(oOut, CKelTimeDiff::eDiffMilliSeconds);
    oOut << ' ' << CKelTimeDiff(250);
    EXPECT_EQ(oOut.str(), "0 00:00:01.500 250");

    std::istringstream oIn("  1500 -250 x");
    CKelTimeDiff::SetDiffTimeFlag(oIn, CKelTimeDiff::eDiffMilliSeconds);
    CKelTimeDiff oFirst, oSecond, oThird(9);
    EXPECT_TRUE(oIn >> oFirst >> oSecond);
    EXPECT_EQ(oFirst.GetTotalMilliSeconds(), 1500u);
    EXPECT_EQ(oSecond.GetTimeDiff(), -25000000);
    EXPECT_FALSE(oIn >> oThird);
    EXPECT_EQ(oThird, CKelTimeDiff(9));

    // The generic template reads through operator>> in the default form.
    CKelTimeDiff oGeneric;
    EXPECT_TRUE(KelFromString(oGeneric, std::string("2 00:00:00.250")));
    EXPECT_EQ(oGeneric, CKelTimeDiff(2, 0, 0, 0, 250, 0, 0));
    EXPECT_EQ(KelToString(oGeneric), "2 00:00:00.250");
}

} // namespace
