#include "KelLocalTime.h"

#include "TraceServer.h"

#include <cstdio>
#include <ctime>

namespace
{
using Unsigned = unsigned long long;

constexpr long long MILLI_SECONDS_PER_HOUR = 3600000;

// Offsets of a zone; computed unsigned so that absurd zones wrap instead of overflowing.
long long ZoneMilliSeconds(int nZone)
{
    return static_cast<long long>(nZone) * MILLI_SECONDS_PER_HOUR;
}

long long ZoneUnits(int nZone)
{
    return static_cast<long long>(static_cast<Unsigned>(ZoneMilliSeconds(nZone)) *
                                  CKelTimeDiff::UNITS_PER_MILLI_SECOND);
}

// Whole milliseconds of a difference, keeping its sign.
long long SignedMilliSeconds(const CKelTimeDiff& oDiff)
{
    return oDiff.GetTimeDiff() / CKelTimeDiff::UNITS_PER_MILLI_SECOND;
}

long long AddWrapped(long long a, long long b)
{
    return static_cast<long long>(static_cast<Unsigned>(a) + static_cast<Unsigned>(b));
}

long long SubWrapped(long long a, long long b)
{
    return static_cast<long long>(static_cast<Unsigned>(a) - static_cast<Unsigned>(b));
}
} // namespace

CKelLocalTime CKelLocalTime::CurrentLocalTime()
{
    const CKelUTCTime oNow = CKelUTCTime::CurrentUTCTime();
    unsigned int nDay = 1, nMonth = 1, nYear = 0, nHour = 0, nMinute = 0, nSecond = 0, nMilliSecond = 0;
    oNow.GetDate(nDay, nMonth, nYear, nHour, nMinute, nSecond, nMilliSecond);
    CKelLocalTime oLocal(nDay, nMonth, nYear, nHour, nMinute, nSecond, nMilliSecond, 0);
    oLocal.ChangeTimezone(GetCurrentTimezone());
    return oLocal;
}

CKelLocalTime::CKelLocalTime(long long nLocalMilliSeconds, int nZone)
{
    ChangeTimezone(nZone);
    m_oTime.SetTimeDiff(SubWrapped(nLocalMilliSeconds, ZoneMilliSeconds(nZone)), false);
}

CKelLocalTime::CKelLocalTime(unsigned int nDay, unsigned int nMonth, unsigned int nYear, unsigned int nHour,
                             unsigned int nMinute, unsigned int nSecond, unsigned int nMilliSecond, int nZone)
    : CKelLocalTime(nDay, nMonth, nYear, nHour, nMinute, nSecond, nMilliSecond, 0, nZone)
{
}

CKelLocalTime::CKelLocalTime(unsigned int nDay, unsigned int nMonth, unsigned int nYear, unsigned int nHour,
                             unsigned int nMinute, unsigned int nSecond, unsigned int nMilliSecond,
                             unsigned int nMicroSecond, int nZone)
{
    ChangeTimezone(nZone);
    // The parts are wall-clock time in the zone: build them as UTC, then take the zone off.
    SetDate(nDay, nMonth, nYear, nHour, nMinute, nSecond, nMilliSecond);
    m_oTime += CKelTimeDiff(0, nMicroSecond, 0);
    m_oTime.SetTimeDiff(SubWrapped(m_oTime.GetTimeDiff(), ZoneUnits(nZone)), true);
}

CKelLocalTime::CKelLocalTime(const std::string& sTime, CKelUTCTime::ETimeFormat eFormat, int nZone)
{
    ChangeTimezone(nZone);
    SetLocaltime(0);
    Str2Time(sTime, eFormat);
}

void CKelLocalTime::ChangeTimezone(int nZone)
{
    if (nZone < -12 || nZone > 12)
    {
        // Rare: the text is built on the stack only on this path.
        char acText[64];
        std::snprintf(acText, sizeof acText,
                      "CKelLocalTime: Timezone im ung\xFC"
                      "ltigen Bereich: %d",
                      nZone);
        CTraceServer::SendTraceMessage(0x01, 2, 0xFFFFFFFFu, INVALID_ZONE_TRACE_LINE,
                                       "libOrvaneExt/C++/source/KelLocalTime", acText, 0);
    }
    m_nTimezone = nZone;
}

void CKelLocalTime::AdjustTimezone(int nZone)
{
    const long long nLocalMilliSeconds = GetLocaltime();
    ChangeTimezone(nZone);
    SetLocaltime(nLocalMilliSeconds);
}

void CKelLocalTime::SetTimeZone()
{
    ChangeTimezone(GetCurrentTimezone());
}

int CKelLocalTime::GetCurrentTimezone()
{
    tzset();
    const time_t nNow = time(nullptr);
    tm oLocal{};
    if (localtime_r(&nNow, &oLocal) == nullptr)
    {
        return 0;
    }
    const bool bDaylightSaving = oLocal.tm_isdst > 0;
    // ftime reported the standard-time offset and a separate DST flag.
    const long nStandardOffset = oLocal.tm_gmtoff - (bDaylightSaving ? 3600 : 0);
    const long nMinutesWest = -nStandardOffset / 60;
    return static_cast<int>(-(nMinutesWest / 60)) + (bDaylightSaving ? 1 : 0);
}

int CKelLocalTime::CalcFirstWeekdayOfMonth(int nYear, int nMonth, CKelUTCTime::EWeekday eWeekday)
{
    const long long nFirst = CalcDayNumber(nYear, static_cast<unsigned int>(nMonth), 1);
    const int nFirstWeekday = static_cast<int>(CalcWeekday(nFirst));
    return 1 + ((static_cast<int>(eWeekday) - nFirstWeekday) % 7 + 7) % 7;
}

int CKelLocalTime::CalcDayFromWeek(int nYear, int nMonth, CKelUTCTime::EWeekday eWeekday, int nWeek)
{
    const int nFirst = CalcFirstWeekdayOfMonth(nYear, nMonth, eWeekday);
    const int nDaysInMonth = static_cast<int>(DaysInMonth(nYear, static_cast<unsigned int>(nMonth)));
    if (nWeek < 2 || nDaysInMonth < nFirst)
    {
        return nFirst;
    }
    // Number of such weekdays in the month; a later week means the last one.
    const int nCount = (nDaysInMonth - nFirst) / 7 + 1;
    const int nUsedWeek = nWeek < nCount ? nWeek : nCount;
    return nFirst + 7 * (nUsedWeek - 1);
}

long long CKelLocalTime::GetLocaltime() const
{
    return AddWrapped(CKelUTCTime::GetLocaltime(), ZoneMilliSeconds(m_nTimezone));
}

long long CKelLocalTime::GetHighResolutionLocaltime() const
{
    return AddWrapped(m_oTime.GetTimeDiff(), ZoneUnits(m_nTimezone));
}

void CKelLocalTime::SetLocaltime(long long nMilliSeconds)
{
    m_oTime.SetTimeDiff(SubWrapped(nMilliSeconds, ZoneMilliSeconds(m_nTimezone)), false);
}

CKelLocalTime& CKelLocalTime::operator+=(const CKelTimeDiff& oDiff)
{
    SetLocaltime(AddWrapped(GetLocaltime(), SignedMilliSeconds(oDiff)));
    return *this;
}

CKelLocalTime& CKelLocalTime::operator-=(const CKelTimeDiff& oDiff)
{
    SetLocaltime(SubWrapped(GetLocaltime(), SignedMilliSeconds(oDiff)));
    return *this;
}

CKelLocalTime operator+(const CKelLocalTime& oTime, const CKelTimeDiff& oDiff)
{
    CKelLocalTime oResult(oTime);
    return oResult += oDiff;
}

CKelLocalTime operator-(const CKelLocalTime& oTime, const CKelTimeDiff& oDiff)
{
    CKelLocalTime oResult(oTime);
    return oResult -= oDiff;
}

CKelTimeDiff operator-(const CKelLocalTime& oLeft, const CKelLocalTime& oRight)
{
    CKelTimeDiff oDiff;
    oDiff.SetTimeDiff(SubWrapped(oLeft.GetHighResolutionLocaltime(), oRight.GetHighResolutionLocaltime()), true);
    return oDiff;
}
