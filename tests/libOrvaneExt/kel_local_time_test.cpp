// Calendar rules of CKelUTCTime and the zones of CKelLocalTime.
#include "KelLocalTime.h"
#include "KelUTCTime.h"
#include "TraceServer.h"

#include "support/TraceViewer.h"

#include <gtest/gtest.h>


#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>

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
                                        {29, 2, 2000, 23, 59, 59, 999},
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
    EXPECT_EQ(CKelLocalTime::CalcFirstWeekdayOfMonth(2024, 6, CKelUTCTime::eSaturday), 1);
    EXPECT_EQ(CKelLocalTime::CalcFirstWeekdayOfMonth(2024, 6, CKelUTCTime::eFriday), 7);
    struct
    {
        int nYear, nMonth;
        CKelUTCTime::EWeekday eDay;
        int nWeek, nResult;
    } const aoCases[] = {{2024, 6, CKelUTCTime::eSunday, 0, 2},    {2024, 6, CKelUTCTime::eSunday, 1, 2},
                         {2024, 6, CKelUTCTime::eSunday, 2, 9},    {2024, 6, CKelUTCTime::eSunday, 5, 30},
                         {2023, 2, CKelUTCTime::eSunday, 5, 26}, // four Sundays: the last
                         {2024, 2, CKelUTCTime::eThursday, 5, 29}, {2024, 3, CKelUTCTime::eSunday, 99, 31}};
    for (const auto& o : aoCases)
        EXPECT_EQ(CKelLocalTime::CalcDayFromWeek(o.nYear, o.nMonth, o.eDay, o.nWeek), o.nResult)
            << o.nYear << "-" << o.nMonth << " week " << o.nWeek;
}

TEST(KelLocalTimeTest, SystemZoneAsLegacyFieldsReportIt)
{
    // Zones without daylight saving, and two with daylight saving all year.
    const std::pair<const char*, int> aoCases[] = {{"<+05>-5", 5},
                                                   {"EST5", -5},
                                                   {"<-0330>3:30", -3},
                                                   {"<+0530>-5:30", 5},
                                                   {"AAA-2BBB,J1/0,J365/25", 3},
                                                   {"AAA3BBB,J1/0,J365/25", -2}};
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
