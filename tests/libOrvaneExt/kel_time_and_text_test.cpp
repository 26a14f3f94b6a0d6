// Calendar rules of CKelUTCTime, the zones of CKelLocalTime, the
// differences of CKelTimeDiff, then the text helpers: memory dumps, quoting,
// trimming, splitting and conversions.
#include "KelLocalTime.h"
#include "KelStringFunc.h"
#include "KelTimeDiff.h"
#include "KelUTCTime.h"
#include "TraceServer.h"

#include "support/TraceViewer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>
#include <vector>

namespace
{
constexpr long long kEpochDay = 719528; // 1970-01-01
constexpr long long kMsPerDay = 86400000;
constexpr long long kMsPerHour = 3600000;
constexpr long long kUnitsPerMs = CKelTimeDiff::UNITS_PER_MILLI_SECOND;

// Sets TZ for one scope, then unsets it: no other test here reads the system zone.
struct CScopedTimezone
{
    explicit CScopedTimezone(const char* pcZone)
    {
        setenv("TZ", pcZone, 1);
        tzset();
    }
    ~CScopedTimezone()
    {
        unsetenv("TZ");
        tzset();
    }
};
} // namespace

TEST(KelUTCTimeTest, DayNumbersLeapYearsAndWeekdays)
{
    struct
    {
        int nYear;
        unsigned int nMonth, nDay;
        long long nNumber;
    } const aoDays[] = {{0, 1, 1, 0},
                        /* year 0 is a leap year */ {1, 1, 1, 366},
                        {1970, 1, 1, kEpochDay},
                        {1900, 3, 1, 694020},
                        {2000, 3, 1, 730545},
                        {2023, 12, 31, 739250},
                        {2024, 2, 29, 739310}};
    for (const auto& o : aoDays)
        EXPECT_EQ(CKelUTCTime::CalcDayNumber(o.nYear, o.nMonth, o.nDay), o.nNumber) << o.nYear << "-" << o.nMonth;
    // Month lengths and leap years are checked through the day numbers and the date parser.
    EXPECT_EQ(CKelUTCTime::DaysInMonth(2023, 13), 0u);

    // (day number + 4) mod 7: 2024-05-28, a Tuesday, is 0 and the week runs
    // on to Monday, 6.
    for (unsigned int i = 0; i < 7; ++i)
        EXPECT_EQ(static_cast<unsigned int>(CKelUTCTime(28 + i, 5, 2024, 12, 0, 0, 0).GetWeekday()), i);
}

TEST(KelUTCTimeTest, DatePartsRoundTrip)
{
    const unsigned int aanParts[][7] = {// day, month, year, hour, minute, second, ms
                                        {29, 2, 0, 23, 59, 59, 999},
                                        {31, 12, 2023, 12, 34, 56, 7},
                                        {28, 2, 2100, 0, 0, 0, 1}};
    for (const auto& p : aanParts)
    {
        unsigned int an[7] = {};
        ASSERT_TRUE(CKelUTCTime(p[0], p[1], p[2], p[3], p[4], p[5], p[6])
                        .GetDate(an[0], an[1], an[2], an[3], an[4], an[5], an[6]));
        EXPECT_TRUE(std::equal(an, an + 7, p)) << p[2] << "-" << p[1] << "-" << p[0];
    }
    EXPECT_EQ(CKelUTCTime(1, 1, 1970, 0, 0, 0, 0).GetTime().GetTimeDiff(), CKelUTCTime::UNIX_EPOCH_OFFSET);
    // Parts are not checked: day 32 of December is the first of January.
    EXPECT_EQ(CKelUTCTime(32, 12, 1999, 0, 0, 0, 0).GetTime(), CKelUTCTime(1, 1, 2000, 0, 0, 0, 0).GetTime());

    CKelUTCTime oNegative;
    oNegative.SetHighResolutionLocaltime(-1);
    unsigned int nDay = 99, n;
    EXPECT_FALSE(oNegative.GetDate(nDay, n, n, n, n, n, n));
    EXPECT_EQ(nDay, 99u);
}

TEST(KelUTCTimeTest, TextFormsAndParsing)
{
    const CKelUTCTime oTime(29, 2, 2024, 13, 5, 9, 42);
    const std::pair<CKelUTCTime::ETimeFormat, const char*> aoForms[] = {
        {CKelUTCTime::eIsoDateTime, "2024-02-29 13:05:09.042"},
        {CKelUTCTime::eIsoDate, "2024-02-29"},
        {CKelUTCTime::eDotDateTime, "29.02.2024 13:05:09.042"},
        {CKelUTCTime::eDotDate, "29.02.2024"}};
    for (const auto& o : aoForms)
    {
        EXPECT_EQ(KelToString(oTime, o.first), o.second);
        CKelUTCTime oRead;
        ASSERT_TRUE(KelFromString(oRead, o.first, o.second)) << o.second;
        EXPECT_EQ(oRead.Time2Str(o.first), o.second);
    }
    CKelUTCTime oShort;
    ASSERT_TRUE(oShort.Str2Time("1.1.1970 0:0:0.5", CKelUTCTime::eDotDateTime));
    EXPECT_EQ(oShort.GetLocaltime(), kEpochDay * kMsPerDay + 500);

    const CKelUTCTime oBefore(1, 1, 2001, 0, 0, 0, 0);
    for (const char* pcBad : {"29.02.2023", "31.04.2024", "00.01.2024", "01.13.2024", "1.1.2024x", "", "1-1-2024"})
    {
        CKelUTCTime oRead(oBefore);
        EXPECT_FALSE(oRead.Str2Time(pcBad, CKelUTCTime::eDotDate)) << pcBad;
        EXPECT_EQ(oRead.GetTime(), oBefore.GetTime()) << pcBad;
    }
    EXPECT_FALSE(oShort.Str2Time("2024-01-01 24:00:00.000", CKelUTCTime::eIsoDateTime));

    std::stringstream oStream;
    CKelUTCTime::SetTimeFlag(oStream, CKelUTCTime::eDotDate);
    oStream << oTime << " 01.03.2024";
    CKelUTCTime oFirst, oSecond;
    EXPECT_TRUE(oStream >> oFirst >> oSecond) << oStream.str();
    EXPECT_EQ(oFirst.Time2Str(CKelUTCTime::eIsoDate) + " " + oSecond.Time2Str(CKelUTCTime::eIsoDate),
              "2024-02-29 2024-03-01");
}

TEST(KelLocalTimeTest, ConstructorsTakeLocalReadings)
{
    const long long nLocalMs = kEpochDay * kMsPerDay + 3723004; // 1970-01-01 01:02:03.004
    const CKelLocalTime oFromMs(nLocalMs, 2);
    EXPECT_EQ(oFromMs.GetLocaltime(), nLocalMs);
    EXPECT_EQ(oFromMs.GetTime().GetTimeDiff(), (nLocalMs - 2 * kMsPerHour) * kUnitsPerMs);
    EXPECT_EQ(CKelLocalTime(1, 1, 1970, 1, 2, 3, 4, 2).GetTime(), oFromMs.GetTime());

    const CKelLocalTime oWithMicro(1, 1, 1970, 1, 2, 3, 4, 567, -5);
    EXPECT_EQ(oWithMicro.GetTime().GetTimeDiff(), (nLocalMs + 5 * kMsPerHour) * kUnitsPerMs + 567 * 100);

    const CKelLocalTime oFromText("01.01.1970", CKelUTCTime::eDotDate, 3);
    EXPECT_EQ(oFromText.GetTime().GetTimeDiff(), CKelUTCTime::UNIX_EPOCH_OFFSET - 3 * kMsPerHour * kUnitsPerMs);
    EXPECT_EQ(CKelLocalTime("no date", CKelUTCTime::eDotDate, 1).GetLocaltime(), 0);

    // The high-resolution setter stores the count as UTC, unlike its getter.
    CKelLocalTime oRaw(0, 4);
    oRaw.SetHighResolutionLocaltime(123456789);
    EXPECT_EQ(oRaw.GetTime().GetTimeDiff(), 123456789);
    EXPECT_EQ(oRaw.GetHighResolutionLocaltime(), 123456789 + 4 * kMsPerHour * kUnitsPerMs);
}

TEST(KelLocalTimeTest, ZoneChangesAndComparisons)
{
    CKelLocalTime oTime(1, 6, 2024, 12, 0, 0, 0, 1);
    const CKelLocalTime oNoon(oTime);
    oTime.ChangeTimezone(-3); // the instant stays, the reading moves
    EXPECT_EQ(oTime.GetLocaltime(), oNoon.GetLocaltime() - 4 * kMsPerHour);
    oTime.AdjustTimezone(5); // the reading stays
    EXPECT_EQ(oTime.GetLocaltime(), oNoon.GetLocaltime() - 4 * kMsPerHour);
    EXPECT_EQ(oTime.GetTime().GetTimeDiff(), oNoon.GetTime().GetTimeDiff() - 8 * kMsPerHour * kUnitsPerMs);

    // Comparisons use the readings: the same instant in London reads earlier,
    // twelve o'clock in Tokyo reads the same.
    CKelLocalTime oLondon(oNoon);
    oLondon.ChangeTimezone(0);
    EXPECT_TRUE(oLondon != oNoon && oLondon < oNoon && oNoon > oLondon && oLondon <= oNoon && oNoon >= oLondon);
    EXPECT_EQ(CKelLocalTime(1, 6, 2024, 12, 0, 0, 0, 9), oNoon);
    CKelLocalTime oNear(oNoon);
    oNear.SetHighResolutionLocaltime(oNoon.GetTime().GetTimeDiff() + 99999); // under a millisecond apart
    EXPECT_TRUE(oNear == oNoon && !(oNear > oNoon));
    oNear.SetHighResolutionLocaltime(oNoon.GetTime().GetTimeDiff() + 100000);
    EXPECT_TRUE(oNear > oNoon);
}

TEST(KelLocalTimeTest, ArithmeticWithDifferencesHasMillisecondResolution)
{
    const CKelLocalTime oStart(1, 6, 2024, 23, 59, 59, 500, 2);
    EXPECT_EQ((oStart + CKelTimeDiff(0, 999, 0)).GetTime(), oStart.GetTime()); // +999 us: unchanged
    const CKelLocalTime oLater = oStart + CKelTimeDiff(1500);                  // the zone stays: the reading is local
    EXPECT_EQ(oLater.Time2Str(CKelUTCTime::eIsoDateTime), "2024-06-02 00:00:01.000");
    EXPECT_EQ((oLater - oStart).GetTotalMilliSeconds(), 1500u);

    CKelLocalTime oMoved(oStart);
    oMoved += CKelTimeDiff(1, 999, 0); // 1.999 ms adds 1 ms
    EXPECT_EQ(oMoved.GetLocaltime(), oStart.GetLocaltime() + 1);
    oMoved -= CKelTimeDiff(0, 0, 0, 1, 0, 0, 0);
    oMoved += CKelTimeDiff(-1); // a negative difference moves back
    EXPECT_EQ(oMoved.GetLocaltime(), oStart.GetLocaltime() - 1000);
    EXPECT_EQ((CKelLocalTime(1, 6, 2024, 12, 0, 0, 0, 9) - CKelLocalTime(1, 6, 2024, 12, 0, 0, 0, 0)).GetTimeDiff(), 0);
}

TEST(KelLocalTimeTest, WeekdaysInMonth)
{
    // June 2024 starts on a Saturday; its Sundays are 2, 9, 16, 23, 30.
    EXPECT_EQ(CKelLocalTime::CalcFirstWeekdayOfMonth(2024, 6, CKelUTCTime::eFriday), 7);
    struct
    {
        int nYear, nMonth;
        CKelUTCTime::EWeekday eDay;
        int nWeek, nResult;
    } const aoCases[] = {
        {2024, 6, CKelUTCTime::eSunday, 0, 2},    {2024, 6, CKelUTCTime::eSunday, 2, 9},
        {2024, 6, CKelUTCTime::eSunday, 5, 30},   {2023, 2, CKelUTCTime::eSunday, 5, 26}, // four Sundays: the last
        {2024, 2, CKelUTCTime::eThursday, 5, 29}, {2024, 3, CKelUTCTime::eSunday, 99, 31}};
    for (const auto& o : aoCases)
        EXPECT_EQ(CKelLocalTime::CalcDayFromWeek(o.nYear, o.nMonth, o.eDay, o.nWeek), o.nResult)
            << o.nYear << "-" << o.nMonth << " week " << o.nWeek;
}

TEST(KelLocalTimeTest, SystemZoneAsLegacyFieldsReportIt)
{
    // Zones without daylight saving (a half hour is dropped), and two with
    // daylight saving all year.
    const std::pair<const char*, int> aoCases[] = {
        {"<+05>-5", 5}, {"<-0330>3:30", -3}, {"AAA-2BBB,J1/0,J365/25", 3}, {"AAA3BBB,J1/0,J365/25", -2}};
    for (const auto& o : aoCases)
    {
        CScopedTimezone oZone(o.first);
        EXPECT_EQ(CKelLocalTime::GetCurrentTimezone(), o.second) << o.first;
        CKelLocalTime oTime(0, 0);
        oTime.SetTimeZone();
        EXPECT_EQ(oTime.GetTimezone(), o.second) << o.first;
        EXPECT_EQ(oTime.GetTime().GetTimeDiff(), 0) << o.first;
    }

    CScopedTimezone oZone("<+05>-5");
    const CKelUTCTime oBefore = CKelUTCTime::CurrentUTCTime();
    const CKelLocalTime oNow = CKelLocalTime::CurrentLocalTime();
    const CKelUTCTime oAfter = CKelUTCTime::CurrentUTCTime();
    EXPECT_EQ(oNow.GetTimezone(), 5);
    EXPECT_EQ(oNow.GetTime().GetTimeDiff() % kUnitsPerMs, 0); // milliseconds only
    EXPECT_GE(oNow.GetTime().GetTimeDiff(), oBefore.GetTime().GetTimeDiff() / kUnitsPerMs * kUnitsPerMs);
    EXPECT_LE(oNow.GetTime(), oAfter.GetTime());
}

TEST(KelLocalTimeTest, OutOfRangeZoneIsStoredAndTraced)
{
    ASSERT_EQ(CTraceServer::Init(0), 0);
    OrvaneTest::CTraceViewer oViewer;
    ASSERT_TRUE(oViewer.Activate(0x01, {0, 0, 0xFFFFFFFF})); // level 0x01, category 2: the zone message
    CKelLocalTime oTime(0, 0);
    oTime.ChangeTimezone(12); // in range: no message
    oTime.ChangeTimezone(-12);
    for (const int nZone : {-13, 13})
    {
        oTime.ChangeTimezone(nZone);
        EXPECT_EQ(oTime.GetTimezone(), nZone);
        EXPECT_EQ(oViewer.NextText(),
                  "CKelLocalTime: Timezone im ung\xFC"
                  "ltigen Bereich: " +
                      std::to_string(nZone));
    }
    EXPECT_EQ(CTraceServer::Disable(), 0);
}

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

    // Every total is truncated.
    const CKelTimeDiff oLong(2, 23, 59, 59, 999, 999, 990);
    EXPECT_EQ((std::vector<unsigned long long>{oLong.GetTotalDays(), oLong.GetTotalHours(), oLong.GetTotalMinutes(),
                                               oLong.GetTotalSeconds(), oLong.GetTotalMilliSeconds(),
                                               oLong.GetTotalMicroSeconds(), oLong.GetTotalNanoSeconds()}),
              (std::vector<unsigned long long>{2, 71, 4319, 259199, 259199999, 259199999999, 259199999999990}));
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

namespace
{
// The first line of a memory dump.
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
    EXPECT_EQ(KelMemDump(acTelegram, 7), Header(acTelegram, "7") + sLine + "\n");

    unsigned char acData[17];
    for (unsigned int i = 0; i < sizeof acData; ++i)
        acData[i] = static_cast<unsigned char>(0x30 + i); // '0' ... '@'
    const std::string sFull = "0x0000 30 31 32 33 34 35 36 37  38 39 3a 3b 3c 3d 3e 3f 0123456789:;<=>?\n";
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
