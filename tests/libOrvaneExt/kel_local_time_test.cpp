#include "KelLocalTime.h"
#include "KelUTCTime.h"
#include "TraceServer.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>
#include <vector>

namespace
{

constexpr long long kMsPerDay = 86400000LL;
constexpr long long kUnitsPerMs = CKelTimeDiff::kUnitsPerMilliSecond;
constexpr long long kUnitsPerHour = CKelTimeDiff::kUnitsPerHour;
constexpr long long kEpochDay = 719528;

// Sets TZ for one test and restores the previous value afterwards.
class CScopedTimezone
{
public:
    explicit CScopedTimezone(const char* pcZone)
    {
        const char* pcOld = std::getenv("TZ");
        m_bHadOld = pcOld != nullptr;
        if (m_bHadOld)
        {
            m_sOld = pcOld;
        }
        setenv("TZ", pcZone, 1);
        tzset();
    }
    ~CScopedTimezone()
    {
        if (m_bHadOld)
        {
            setenv("TZ", m_sOld.c_str(), 1);
        }
        else
        {
            unsetenv("TZ");
        }
        tzset();
    }

private:
    bool m_bHadOld = false;
    std::string m_sOld;
};

TEST(KelUTCTimeTest, DayNumbersOfKnownDates)
{
    EXPECT_EQ(CKelUTCTime::CalcDayNumber(0, 1, 1), 0);
    EXPECT_EQ(CKelUTCTime::CalcDayNumber(0, 3, 1), 60); // year 0 is a leap year
    EXPECT_EQ(CKelUTCTime::CalcDayNumber(1, 1, 1), 366);
    EXPECT_EQ(CKelUTCTime::CalcDayNumber(1970, 1, 1), kEpochDay);
    EXPECT_EQ(CKelUTCTime::CalcDayNumber(1900, 3, 1), 694020);
    EXPECT_EQ(CKelUTCTime::CalcDayNumber(2000, 3, 1), 730545);
    EXPECT_EQ(CKelUTCTime::CalcDayNumber(2023, 12, 31), 739250);
    EXPECT_EQ(CKelUTCTime::CalcDayNumber(2024, 2, 29), 739310);
    EXPECT_EQ(CKelUTCTime::kUnixEpochOffset, kEpochDay * kMsPerDay * kUnitsPerMs);
}

TEST(KelUTCTimeTest, LeapYears)
{
    EXPECT_TRUE(CKelUTCTime::IsLeapYear(2000));
    EXPECT_FALSE(CKelUTCTime::IsLeapYear(1900));
    EXPECT_TRUE(CKelUTCTime::IsLeapYear(0));
    EXPECT_TRUE(CKelUTCTime::IsLeapYear(2024));
    EXPECT_FALSE(CKelUTCTime::IsLeapYear(2023));
    EXPECT_FALSE(CKelUTCTime::IsLeapYear(2100));
    EXPECT_EQ(CKelUTCTime::DaysInMonth(2024, 2), 29u);
    EXPECT_EQ(CKelUTCTime::DaysInMonth(1900, 2), 28u);
    EXPECT_EQ(CKelUTCTime::DaysInMonth(2023, 4), 30u);
    EXPECT_EQ(CKelUTCTime::DaysInMonth(2023, 13), 0u);
}

TEST(KelUTCTimeTest, WeekdayNumbers)
{
    EXPECT_EQ(CKelUTCTime::CalcWeekday(kEpochDay), CKelUTCTime::eThursday);
    EXPECT_EQ(CKelUTCTime::eThursday, 2);
    EXPECT_EQ(CKelUTCTime::eSaturday, 4);
    EXPECT_EQ(CKelUTCTime::eSunday, 5);
    EXPECT_EQ(CKelUTCTime::eMonday, 6);
    // 2024-05-28 was a Tuesday; the week runs on from there.
    const CKelUTCTime::EWeekday aeWeek[] = {CKelUTCTime::eTuesday, CKelUTCTime::eWednesday, CKelUTCTime::eThursday,
                                            CKelUTCTime::eFriday,  CKelUTCTime::eSaturday,  CKelUTCTime::eSunday,
                                            CKelUTCTime::eMonday};
    for (unsigned int i = 0; i < 7; ++i)
    {
        const CKelUTCTime oDay(28 + i, 5, 2024, 12, 0, 0, 0);
        EXPECT_EQ(oDay.GetWeekday(), aeWeek[i]) << i;
    }
    EXPECT_EQ(CKelUTCTime(1, 1, 2000, 0, 0, 0, 0).GetWeekday(), CKelUTCTime::eSaturday);
}

TEST(KelUTCTimeTest, SplitsAndJoinsDateParts)
{
    struct SCase
    {
        unsigned int anParts[7]; // day, month, year, hour, minute, second, ms
    };
    const SCase aoCases[] = {{{1, 1, 0, 0, 0, 0, 0}},        {{29, 2, 0, 23, 59, 59, 999}},
                             {{1, 1, 1970, 0, 0, 0, 0}},     {{29, 2, 2000, 23, 59, 59, 999}},
                             {{31, 12, 2023, 12, 34, 56, 7}}, {{1, 3, 1900, 1, 2, 3, 4}},
                             {{28, 2, 2100, 0, 0, 0, 1}}};
    for (const SCase& oCase : aoCases)
    {
        const unsigned int* p = oCase.anParts;
        const CKelUTCTime oTime(p[0], p[1], p[2], p[3], p[4], p[5], p[6]);
        unsigned int an[7] = {};
        ASSERT_TRUE(oTime.GetDate(an[0], an[1], an[2], an[3], an[4], an[5], an[6]));
        for (int i = 0; i < 7; ++i)
        {
            EXPECT_EQ(an[i], p[i]) << p[2] << "-" << p[1] << "-" << p[0] << " part " << i;
        }
    }
    EXPECT_EQ(CKelUTCTime(1, 1, 1970, 0, 0, 0, 0).GetTime().GetTimeDiff(), CKelUTCTime::kUnixEpochOffset);
    // Parts are not checked: day 32 of December is the first of January.
    EXPECT_EQ(CKelUTCTime(32, 12, 1999, 0, 0, 0, 0).GetTime(), CKelUTCTime(1, 1, 2000, 0, 0, 0, 0).GetTime());

    CKelUTCTime oNegative;
    oNegative.SetHighResolutionLocaltime(-1);
    unsigned int nDay = 99, nMonth, nYear, nHour, nMinute, nSecond, nMs;
    EXPECT_FALSE(oNegative.GetDate(nDay, nMonth, nYear, nHour, nMinute, nSecond, nMs));
    EXPECT_EQ(nDay, 99u);
}

TEST(KelUTCTimeTest, CurrentTimeFollowsTheWallClock)
{
    const time_t nBefore = time(nullptr);
    const CKelUTCTime oNow = CKelUTCTime::CurrentUTCTime();
    const time_t nAfter = time(nullptr);
    const long long nSeconds =
        (oNow.GetTime().GetTimeDiff() - CKelUTCTime::kUnixEpochOffset) / CKelTimeDiff::kUnitsPerSecond;
    EXPECT_GE(nSeconds, static_cast<long long>(nBefore));
    EXPECT_LE(nSeconds, static_cast<long long>(nAfter));
}

TEST(KelUTCTimeTest, TextFormsAndParsing)
{
    CKelUTCTime oTime(29, 2, 2024, 13, 5, 9, 42);
    EXPECT_EQ(oTime.Time2Str(CKelUTCTime::eIsoDateTime), "2024-02-29 13:05:09.042");
    EXPECT_EQ(oTime.Time2Str(CKelUTCTime::eIsoDate), "2024-02-29");
    EXPECT_EQ(oTime.Time2Str(CKelUTCTime::eDotDateTime), "29.02.2024 13:05:09.042");
    EXPECT_EQ(KelToString(oTime, CKelUTCTime::eDotDate), "29.02.2024");
    EXPECT_EQ(CKelUTCTime().Time2Str(CKelUTCTime::eIsoDate), "0000-01-01");

    for (CKelUTCTime::ETimeFormat eFormat :
         {CKelUTCTime::eIsoDateTime, CKelUTCTime::eIsoDate, CKelUTCTime::eDotDateTime, CKelUTCTime::eDotDate})
    {
        CKelUTCTime oRead;
        ASSERT_TRUE(KelFromString(oRead, eFormat, oTime.Time2Str(eFormat))) << eFormat;
        EXPECT_EQ(oRead.Time2Str(eFormat), oTime.Time2Str(eFormat));
    }
    CKelUTCTime oShort;
    ASSERT_TRUE(oShort.Str2Time("1.1.1970 0:0:0.5", CKelUTCTime::eDotDateTime));
    EXPECT_EQ(oShort.GetLocaltime(), kEpochDay * kMsPerDay + 500);

    const CKelUTCTime oBefore(1, 1, 2001, 0, 0, 0, 0);
    for (const char* pcBad : {"29.02.2023", "31.04.2024", "00.01.2024", "01.13.2024", "1.1.2024x", "", "1-1-2024",
                              "01.01.9999"})
    {
        CKelUTCTime oRead(oBefore);
        EXPECT_FALSE(oRead.Str2Time(pcBad, CKelUTCTime::eDotDate)) << pcBad;
        EXPECT_EQ(oRead.GetTime(), oBefore.GetTime()) << pcBad;
    }
    CKelUTCTime oRead;
    EXPECT_FALSE(oRead.Str2Time("2024-01-01 24:00:00.000", CKelUTCTime::eIsoDateTime));
    EXPECT_FALSE(oRead.Str2Time("2024-01-01 23:00", CKelUTCTime::eIsoDateTime));

    std::stringstream oStream;
    CKelUTCTime::SetTimeFlag(oStream, CKelUTCTime::eDotDate);
    oStream << oTime << " 01.03.2024";
    EXPECT_EQ(oStream.str(), "29.02.2024 01.03.2024");
    CKelUTCTime oFirst, oSecond;
    EXPECT_TRUE(oStream >> oFirst >> oSecond);
    EXPECT_EQ(oFirst.Time2Str(CKelUTCTime::eIsoDate), "2024-02-29");
    EXPECT_EQ(oSecond.Time2Str(CKelUTCTime::eIsoDate), "2024-03-01");
}

TEST(KelLocalTimeTest, ConstructorsTakeLocalReadings)
{
    const long long nLocalMs = kEpochDay * kMsPerDay + 3723004;
    const CKelLocalTime oFromMs(nLocalMs, 2);
    EXPECT_EQ(oFromMs.GetTimezone(), 2);
    EXPECT_EQ(oFromMs.GetLocaltime(), nLocalMs);
    EXPECT_EQ(oFromMs.GetTime().GetTimeDiff(), (nLocalMs - 2 * 3600000) * kUnitsPerMs);
    EXPECT_EQ(oFromMs.GetHighResolutionLocaltime(), nLocalMs * kUnitsPerMs);

    const CKelLocalTime oFromParts(1, 1, 1970, 1, 2, 3, 4, 2);
    EXPECT_EQ(oFromParts.GetLocaltime(), nLocalMs);
    EXPECT_EQ(oFromParts.Time2Str(CKelUTCTime::eIsoDateTime), "1970-01-01 01:02:03.004");

    const CKelLocalTime oWithMicro(1, 1, 1970, 1, 2, 3, 4, 567, -5);
    EXPECT_EQ(oWithMicro.GetHighResolutionLocaltime(), nLocalMs * kUnitsPerMs + 567 * 100);
    EXPECT_EQ(oWithMicro.GetTime().GetTimeDiff(), nLocalMs * kUnitsPerMs + 567 * 100 + 5 * kUnitsPerHour);

    const CKelLocalTime oFromText("01.01.1970", CKelUTCTime::eDotDate, 3);
    EXPECT_EQ(oFromText.GetLocaltime(), kEpochDay * kMsPerDay);
    EXPECT_EQ(oFromText.GetTime().GetTimeDiff(), CKelUTCTime::kUnixEpochOffset - 3 * kUnitsPerHour);
    std::ostringstream oOut;
    oOut << oFromText;
    EXPECT_EQ(oOut.str(), "1970-01-01 00:00:00.000");

    const CKelLocalTime oBadText("no date", CKelUTCTime::eDotDate, 1);
    EXPECT_EQ(oBadText.GetLocaltime(), 0);
}

TEST(KelLocalTimeTest, SetHighResolutionLocaltimeStoresUtcUnchanged)
{
    CKelLocalTime oTime(0, 4);
    oTime.SetHighResolutionLocaltime(123456789);
    EXPECT_EQ(oTime.GetTime().GetTimeDiff(), 123456789);
    EXPECT_EQ(oTime.GetHighResolutionLocaltime(), 123456789 + 4 * kUnitsPerHour);
    oTime.SetLocaltime(5000);
    EXPECT_EQ(oTime.GetTime().GetTimeDiff(), (5000 - 4 * 3600000LL) * kUnitsPerMs);
}

TEST(KelLocalTimeTest, ZoneChangesMoveReadingOrInstant)
{
    CKelLocalTime oTime(1, 6, 2024, 12, 0, 0, 0, 1);
    const long long nInstant = oTime.GetTime().GetTimeDiff();
    const long long nReading = oTime.GetLocaltime();

    oTime.ChangeTimezone(-3);
    EXPECT_EQ(oTime.GetTimezone(), -3);
    EXPECT_EQ(oTime.GetTime().GetTimeDiff(), nInstant);
    EXPECT_EQ(oTime.GetLocaltime(), nReading - 4 * 3600000LL);

    oTime.AdjustTimezone(5);
    EXPECT_EQ(oTime.GetTimezone(), 5);
    EXPECT_EQ(oTime.GetLocaltime(), nReading - 4 * 3600000LL);
    EXPECT_EQ(oTime.GetTime().GetTimeDiff(), nInstant - 8 * kUnitsPerHour);
}

TEST(KelLocalTimeTest, ComparisonsUseLocalReadings)
{
    const CKelLocalTime oBerlin(1, 6, 2024, 12, 0, 0, 0, 1);
    CKelLocalTime oLondon(oBerlin);
    oLondon.ChangeTimezone(0); // the same instant
    EXPECT_NE(oBerlin, oLondon);
    EXPECT_TRUE(oBerlin > oLondon);
    EXPECT_TRUE(oLondon < oBerlin);
    EXPECT_TRUE(oLondon <= oBerlin && oBerlin >= oLondon);

    // Twelve o'clock in two zones reads the same.
    const CKelLocalTime oNoonTokyo(1, 6, 2024, 12, 0, 0, 0, 9);
    EXPECT_EQ(oBerlin, oNoonTokyo);

    // Less than a millisecond apart: equal.
    CKelLocalTime oNear(oBerlin);
    oNear.SetHighResolutionLocaltime(oBerlin.GetTime().GetTimeDiff() + 99999);
    EXPECT_EQ(oNear, oBerlin);
    EXPECT_FALSE(oNear > oBerlin);
    oNear.SetHighResolutionLocaltime(oBerlin.GetTime().GetTimeDiff() + 100000);
    EXPECT_TRUE(oNear > oBerlin);
}

TEST(KelLocalTimeTest, ArithmeticWithDifferencesHasMillisecondResolution)
{
    const CKelLocalTime oStart(1, 6, 2024, 23, 59, 59, 500, 2);
    EXPECT_EQ(oStart + CKelTimeDiff(0, 999, 0), oStart);
    EXPECT_EQ((oStart + CKelTimeDiff(0, 999, 0)).GetTime(), oStart.GetTime());

    const CKelLocalTime oLater = oStart + CKelTimeDiff(1500);
    EXPECT_EQ(oLater.GetTimezone(), 2);
    EXPECT_EQ(oLater.Time2Str(CKelUTCTime::eIsoDateTime), "2024-06-02 00:00:01.000");
    EXPECT_EQ((oLater - CKelTimeDiff(1500)).GetTime(), oStart.GetTime());

    CKelLocalTime oMoved(oStart);
    oMoved += CKelTimeDiff(1, 999, 0); // 1.999 ms adds 1 ms
    EXPECT_EQ(oMoved.GetLocaltime(), oStart.GetLocaltime() + 1);
    oMoved -= CKelTimeDiff(0, 0, 0, 1, 0, 0, 0);
    EXPECT_EQ(oMoved.GetLocaltime(), oStart.GetLocaltime() - 999);
    oMoved += CKelTimeDiff(-1);
    EXPECT_EQ(oMoved.GetLocaltime(), oStart.GetLocaltime() - 1000);

    const CKelLocalTime oNoonTokyo(1, 6, 2024, 12, 0, 0, 0, 9);
    const CKelLocalTime oNoonUtc(1, 6, 2024, 12, 0, 0, 0, 0);
    EXPECT_EQ((oNoonTokyo - oNoonUtc).GetTimeDiff(), 0);
    EXPECT_EQ((oLater - oStart).GetTotalMilliSeconds(), 1500u);
}

TEST(KelLocalTimeTest, WeekdaysInMonth)
{
    // June 2024 starts on a Saturday; its Sundays are 2, 9, 16, 23, 30.
    EXPECT_EQ(CKelLocalTime::CalcFirstWeekdayOfMonth(2024, 6, CKelUTCTime::eSaturday), 1);
    EXPECT_EQ(CKelLocalTime::CalcFirstWeekdayOfMonth(2024, 6, CKelUTCTime::eSunday), 2);
    EXPECT_EQ(CKelLocalTime::CalcFirstWeekdayOfMonth(2024, 6, CKelUTCTime::eFriday), 7);
    EXPECT_EQ(CKelLocalTime::CalcDayFromWeek(2024, 6, CKelUTCTime::eSunday, 0), 2);
    EXPECT_EQ(CKelLocalTime::CalcDayFromWeek(2024, 6, CKelUTCTime::eSunday, 1), 2);
    EXPECT_EQ(CKelLocalTime::CalcDayFromWeek(2024, 6, CKelUTCTime::eSunday, 2), 9);
    EXPECT_EQ(CKelLocalTime::CalcDayFromWeek(2024, 6, CKelUTCTime::eSunday, 5), 30);
    EXPECT_EQ(CKelLocalTime::CalcDayFromWeek(2024, 6, CKelUTCTime::eSunday, 9), 30);
    // February 2023 has four Sundays: 5, 12, 19, 26. The fifth means the last.
    EXPECT_EQ(CKelLocalTime::CalcDayFromWeek(2023, 2, CKelUTCTime::eSunday, 5), 26);
    // Leap February 2024: Thursdays 1 ... 29.
    EXPECT_EQ(CKelLocalTime::CalcDayFromWeek(2024, 2, CKelUTCTime::eThursday, 5), 29);
    EXPECT_EQ(CKelLocalTime::CalcDayFromWeek(2023, 2, CKelUTCTime::eThursday, 5), 23);
    // Last Sunday of March 2024 (the European DST switch).
    EXPECT_EQ(CKelLocalTime::CalcDayFromWeek(2024, 3, CKelUTCTime::eSunday, 99), 31);
}

TEST(KelLocalTimeTest, SystemZoneAsLegacyFieldsReportIt)
{
    struct SCase
    {
        const char* pcZone;
        int nHours;
    };
    // Zones without daylight saving, and two with daylight saving all year.
    const SCase aoCases[] = {{"UTC0", 0},         {"<+05>-5", 5},      {"EST5", -5},
                             {"<-0330>3:30", -3}, {"<+0530>-5:30", 5}, {"AAA-2BBB,J1/0,J365/25", 3},
                             {"AAA3BBB,J1/0,J365/25", -2}};
    for (const SCase& oCase : aoCases)
    {
        CScopedTimezone oZone(oCase.pcZone);
        EXPECT_EQ(CKelLocalTime::GetCurrentTimezone(), oCase.nHours) << oCase.pcZone;
        CKelLocalTime oTime(0, 0);
        oTime.SetTimeZone();
        EXPECT_EQ(oTime.GetTimezone(), oCase.nHours) << oCase.pcZone;
        EXPECT_EQ(oTime.GetTime().GetTimeDiff(), 0) << oCase.pcZone;
    }
}

TEST(KelLocalTimeTest, CurrentLocalTimeIsNowInTheSystemZone)
{
    CScopedTimezone oZone("<+05>-5");
    const CKelUTCTime oBefore = CKelUTCTime::CurrentUTCTime();
    const CKelLocalTime oNow = CKelLocalTime::CurrentLocalTime();
    const CKelUTCTime oAfter = CKelUTCTime::CurrentUTCTime();
    EXPECT_EQ(oNow.GetTimezone(), 5);
    EXPECT_EQ(oNow.GetTime().GetTimeDiff() % kUnitsPerMs, 0); // milliseconds only
    EXPECT_GE(oNow.GetTime().GetTimeDiff(), oBefore.GetTime().GetTimeDiff() / kUnitsPerMs * kUnitsPerMs);
    EXPECT_LE(oNow.GetTime().GetTimeDiff(), oAfter.GetTime().GetTimeDiff());
    EXPECT_EQ(oNow.GetLocaltime() - oNow.CKelUTCTime::GetLocaltime(), 5 * 3600000LL);
}

// A trace viewer on a loopback UDP socket that activates the trace server.
class CTraceViewer
{
public:
    CTraceViewer()
    {
        m_nSocket = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in oAddress{};
        oAddress.sin_family = AF_INET;
        oAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(m_nSocket, reinterpret_cast<sockaddr*>(&oAddress), sizeof oAddress);
    }
    ~CTraceViewer() { close(m_nSocket); }

    // Activate request: levels, masks for categories 0..n-1, CRC over the rest.
    void Activate(unsigned short nServerPort, unsigned char nLevels, const std::vector<unsigned int>& anMasks)
    {
        std::vector<unsigned char> anData{nLevels, static_cast<unsigned char>(anMasks.size())};
        for (unsigned int nMask : anMasks)
        {
            for (int i = 0; i < 4; ++i)
            {
                anData.push_back(static_cast<unsigned char>(nMask >> (8 * i)));
            }
        }
        const unsigned short nLength = static_cast<unsigned short>(anData.size() + 1 + 4);
        unsigned char nCrc = static_cast<unsigned char>((nLength & 0xFF) ^ (nLength >> 8) ^ 0x01);
        for (unsigned char n : anData)
        {
            nCrc ^= n;
        }
        anData.push_back(nCrc);
        std::vector<unsigned char> anTelegram{static_cast<unsigned char>(nLength & 0xFF),
                                              static_cast<unsigned char>(nLength >> 8), 0x01, 0x00, 0x00, 0x00};
        anTelegram.insert(anTelegram.end(), anData.begin(), anData.end());
        sockaddr_in oServer{};
        oServer.sin_family = AF_INET;
        oServer.sin_port = htons(nServerPort);
        oServer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        sendto(m_nSocket, anTelegram.data(), anTelegram.size(), 0, reinterpret_cast<sockaddr*>(&oServer),
               sizeof oServer);
    }

    // Next datagram, waiting up to 5 seconds; empty when none came.
    std::string Receive()
    {
        pollfd oPoll{m_nSocket, POLLIN, 0};
        if (poll(&oPoll, 1, 5000) != 1)
        {
            return std::string();
        }
        char acBuffer[2048];
        const ssize_t nRead = recv(m_nSocket, acBuffer, sizeof acBuffer, 0);
        return nRead > 0 ? std::string(acBuffer, static_cast<std::size_t>(nRead)) : std::string();
    }

private:
    int m_nSocket = -1;
};

unsigned int Little(const std::string& s, std::size_t nOffset, int nBytes)
{
    unsigned int nValue = 0;
    for (int i = nBytes - 1; i >= 0; --i)
    {
        nValue = (nValue << 8) | static_cast<unsigned char>(s[nOffset + i]);
    }
    return nValue;
}

TEST(KelLocalTimeTest, OutOfRangeZoneIsStoredAndTraced)
{
    ASSERT_EQ(CTraceServer::Init(0), 0);
    sockaddr_in oBound{};
    socklen_t nLength = sizeof oBound;
    ASSERT_EQ(getsockname(CTraceServer::m_nSocket, reinterpret_cast<sockaddr*>(&oBound), &nLength), 0);

    CTraceViewer oViewer;
    // Level 0x01 for the zone message, level 0x04 / category 1 / mask 0x02 makes
    // the server confirm the activation with a message of its own.
    oViewer.Activate(ntohs(oBound.sin_port), 0x05, {0, 0x02, 0xFFFFFFFF});
    ASSERT_FALSE(oViewer.Receive().empty()) << "activation not traced";

    CKelLocalTime oTime(0, 0);
    oTime.ChangeTimezone(12);  // in range: no message
    oTime.ChangeTimezone(-12); // in range: no message
    oTime.ChangeTimezone(-13);
    EXPECT_EQ(oTime.GetTimezone(), -13);
    oTime.ChangeTimezone(13);
    EXPECT_EQ(oTime.GetTimezone(), 13);

    for (const char* pcZone : {"-13", "13"})
    {
        const std::string sTelegram = oViewer.Receive();
        ASSERT_GE(sTelegram.size(), 27u);
        EXPECT_EQ(Little(sTelegram, 2, 2), 0x4001u); // trace message
        const std::string sData = sTelegram.substr(6);
        EXPECT_EQ(static_cast<unsigned char>(sData[8]), 0x01);  // level
        EXPECT_EQ(static_cast<unsigned char>(sData[9]), 2);     // category
        EXPECT_EQ(Little(sData, 10, 4), 0xFFFFFFFFu);          // filter mask
        EXPECT_EQ(static_cast<unsigned char>(sData[14]), 0);    // flags
        EXPECT_EQ(Little(sData, 15, 2), 442u);                 // line
        const unsigned int nFile = Little(sData, 17, 2);
        ASSERT_GE(sData.size(), 21u + nFile);
        const unsigned int nText = Little(sData, 19 + nFile, 2);
        ASSERT_EQ(sData.size(), 21u + nFile + nText);
        EXPECT_EQ(sData.substr(21 + nFile),
                  std::string("CKelLocalTime: Timezone im ung\xFC" "ltigen Bereich: ") + pcZone);
    }
    EXPECT_EQ(CTraceServer::Disable(), 0);
}

} // namespace
