#include "KelStringFunc.h"
#include "KelTimeDiff.h"

#include <gtest/gtest.h>

#include <climits>
#include <sstream>

TEST(KelTimeDiffTest, UnitsTotalsAndCutOff)
{
    // Ten-nanosecond units: ms x 100,000 + us x 100 + ns / 10 (truncated).
    EXPECT_EQ(CKelTimeDiff(-2).GetTimeDiff(), -200000);
    EXPECT_EQ(CKelTimeDiff(1, 2, 39).GetTimeDiff(), 100000 + 200 + 3);
    EXPECT_EQ(CKelTimeDiff(1, 2, 3, 4, 5, 6, 79).GetTimeDiff(),
              8640000000000LL + 2 * 360000000000LL + 3 * 6000000000LL + 4 * 100000000LL + 5 * 100000LL + 6 * 100 + 7);
    CKelTimeDiff oDiff;
    oDiff.SetTimeDiff(1234, true);
    EXPECT_EQ(oDiff.GetTimeDiff(), 1234);
    oDiff.SetTimeDiff(1234, false);
    EXPECT_EQ(oDiff.GetTimeDiff(), 123400000);

    const CKelTimeDiff o1500(1500);
    EXPECT_EQ(o1500.GetTotalSeconds(), 1u);
    EXPECT_EQ(o1500.GetTotalMilliSeconds(), 1500u);
    EXPECT_EQ(o1500.GetTotalNanoSeconds(), 1500000000u);
    const CKelTimeDiff oLong(2, 23, 59, 59, 999, 999, 990);
    EXPECT_EQ(oLong.GetTotalDays(), 2u);
    EXPECT_EQ(oLong.GetTotalHours(), 71u);
    EXPECT_EQ(oLong.GetTotalMinutes(), 71u * 60 + 59);
    // Totals read the count unsigned: -1 ms is huge.
    EXPECT_EQ(CKelTimeDiff(-1).GetTotalMilliSeconds(), static_cast<unsigned long long>(-100000LL) / 100000);
    const timeval oTime = CKelTimeDiff(0, 0, 0, 62, 345, 678, 999).GetTimeval();
    EXPECT_EQ(oTime.tv_sec, 62);
    EXPECT_EQ(oTime.tv_usec, 345678);

    const CKelTimeDiff oFull(1, 2, 3, 4, 5, 6, 70);
    const std::pair<CKelTimeDiff::ETimeDiffPart, CKelTimeDiff> aoCuts[] = {
        {CKelTimeDiff::eDays, CKelTimeDiff(1, 0, 0, 0, 0, 0, 0)},
        {CKelTimeDiff::eHours, CKelTimeDiff(1, 2, 0, 0, 0, 0, 0)},
        {CKelTimeDiff::eMinutes, CKelTimeDiff(1, 2, 3, 0, 0, 0, 0)},
        {CKelTimeDiff::eSeconds, CKelTimeDiff(1, 2, 3, 4, 0, 0, 0)}};
    for (const auto& o : aoCuts)
    {
        oDiff = oFull;
        oDiff.CutOffParts(o.first);
        EXPECT_EQ(oDiff, o.second) << o.first;
    }
}

TEST(KelTimeDiffTest, ArithmeticComparisonsAndDivisionByZero)
{
    const CKelTimeDiff oA(1500), oB(250);
    EXPECT_EQ((oA + oB).GetTotalMilliSeconds(), 1750u);
    EXPECT_EQ((oB - oA).GetTimeDiff(), -125000000);
    EXPECT_EQ((3 * oA).GetTotalMilliSeconds(), 4500u);
    EXPECT_EQ((oA / 4).GetTimeDiff(), 37500000);
    EXPECT_EQ(oA / 0, oA);
    CKelTimeDiff oC(oA);
    oC += oB;
    oC -= CKelTimeDiff(50);
    oC *= 2;
    oC /= 0;
    EXPECT_EQ(oC.GetTotalMilliSeconds(), 3400u);
    oC /= 2;
    EXPECT_EQ(oC.GetTotalMilliSeconds(), 1700u);
    // Comparisons are signed.
    EXPECT_TRUE(CKelTimeDiff(-1) < CKelTimeDiff() && CKelTimeDiff(1) > CKelTimeDiff(-1));
    EXPECT_FALSE(CKelTimeDiff(-1) >= CKelTimeDiff());
}

TEST(KelTimeDiffTest, TextFormsAndRoundTrips)
{
    const CKelTimeDiff oDiff(1, 2, 3, 4, 5, 6, 70);
    struct
    {
        CKelTimeDiff oValue;
        CKelTimeDiff::EDiffFormat eFormat;
        const char* pcText;
    } const aoForms[] = {{oDiff, CKelTimeDiff::eDiffDayTime, "1 02:03:04.005"},
                         {oDiff, CKelTimeDiff::eDiffDayTimeHighRes, "1 02:03:04.00500607"},
                         {oDiff, CKelTimeDiff::eDiffMilliSeconds, "93784005"},
                         {oDiff, CKelTimeDiff::eDiffSeconds, "93784.005"},
                         {CKelTimeDiff(-1500), CKelTimeDiff::eDiffDayTime, "-0 00:00:01.500"},
                         {CKelTimeDiff(), CKelTimeDiff::eDiffMilliSeconds, "0"}};
    for (const auto& o : aoForms)
        EXPECT_EQ(KelToString(o.oValue, o.eFormat), o.pcText);

    // The high-resolution form is lossless (the sign and the day-time reader
    // are shared by every form).
    CKelTimeDiff oMin, oMax, oOdd;
    oMin.SetTimeDiff(LLONG_MIN, true);
    oMax.SetTimeDiff(LLONG_MAX, true);
    oOdd.SetTimeDiff(-987654321012345LL, true);
    for (const CKelTimeDiff& oValue : {oMin, oMax, oOdd, oDiff, CKelTimeDiff()})
    {
        CKelTimeDiff oRead(7);
        const std::string sText = KelToString(oValue, CKelTimeDiff::eDiffDayTimeHighRes);
        ASSERT_TRUE(KelFromString(oRead, CKelTimeDiff::eDiffDayTimeHighRes, sText)) << sText;
        EXPECT_EQ(oRead, oValue) << sText;
    }
}

TEST(KelTimeDiffTest, ParsingAcceptsShortFormsAndRejectsBadText)
{
    CKelTimeDiff oDiff;
    ASSERT_TRUE(KelFromString(oDiff, CKelTimeDiff::eDiffSeconds, "2.5"));
    EXPECT_EQ(oDiff.GetTotalMilliSeconds(), 2500u);
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

    // Streams use the form set on them, eDiffDayTime by default.
    std::ostringstream oOut;
    oOut << CKelTimeDiff(1500);
    CKelTimeDiff::SetDiffTimeFlag(oOut, CKelTimeDiff::eDiffMilliSeconds);
    oOut << ' ' << CKelTimeDiff(250);
    EXPECT_EQ(oOut.str(), "0 00:00:01.500 250");
    std::istringstream oIn("  1500 -250 x");
    CKelTimeDiff::SetDiffTimeFlag(oIn, CKelTimeDiff::eDiffMilliSeconds);
    CKelTimeDiff oFirst, oSecond, oThird(9);
    EXPECT_TRUE(oIn >> oFirst >> oSecond);
    EXPECT_EQ(oSecond.GetTimeDiff(), -25000000);
    EXPECT_FALSE(oIn >> oThird);
    EXPECT_EQ(oThird, CKelTimeDiff(9));
}
