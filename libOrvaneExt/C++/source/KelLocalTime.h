// CKelLocalTime: a point in time seen in a time zone of whole hours east of UTC.
//
// The stored count stays UTC; the zone only shifts how the value is read and
// written through the virtual Localtime accessors (and so how it prints and
// parses). SetHighResolutionLocaltime is deliberately left as the UTC version:
// it stores the count as UTC without removing the zone, unlike its getter.
//
// Comparisons and subtraction of two local times use their local readings:
// the same instant in two zones compares unequal, and readings less than a
// millisecond apart compare equal.
#ifndef ORVANE_KEL_LOCAL_TIME_H
#define ORVANE_KEL_LOCAL_TIME_H

#include "KelTimeDiff.h"
#include "KelUTCTime.h"

#include <string>

class CKelLocalTime : public CKelUTCTime
{
public:
    // Source line reported with the out-of-range zone trace message.
    static constexpr unsigned short INVALID_ZONE_TRACE_LINE = 442;

    // Now, in the system's zone, to the millisecond.
    static CKelLocalTime CurrentLocalTime();

    // 0000-01-01 00:00:00 UTC in zone 0.
    CKelLocalTime() = default;
    // Local milliseconds since 0000-01-01 in the given zone.
    CKelLocalTime(long long nLocalMilliSeconds, int nZone);
    // Local wall-clock parts in the given zone.
    CKelLocalTime(unsigned int nDay, unsigned int nMonth, unsigned int nYear, unsigned int nHour, unsigned int nMinute,
                  unsigned int nSecond, unsigned int nMilliSecond, int nZone);
    // The same with microseconds after the milliseconds.
    CKelLocalTime(unsigned int nDay, unsigned int nMonth, unsigned int nYear, unsigned int nHour, unsigned int nMinute,
                  unsigned int nSecond, unsigned int nMilliSecond, unsigned int nMicroSecond, int nZone);
    // Local wall-clock text in one of the UTC text forms, read in the given
    // zone. Text that does not parse leaves 0000-01-01 00:00:00 local time;
    // use Str2Time to learn whether it parsed.
    CKelLocalTime(const std::string& sTime, CKelUTCTime::ETimeFormat eFormat, int nZone);

    // Sets the zone: the instant stays, the local reading moves. A zone outside
    // -12..+12 is stored as well, after an error trace message.
    void ChangeTimezone(int nZone);
    // Sets the zone keeping the local reading: the instant moves.
    void AdjustTimezone(int nZone);
    // Sets the zone to the system's (GetCurrentTimezone), keeping the instant.
    void SetTimeZone();
    int GetTimezone() const { return m_nTimezone; }

    // The system's zone in whole hours, in the manner of the legacy ftime()
    // fields: -(minutes west of Greenwich for standard time / 60, truncated)
    // plus 1 while daylight saving time is in force. The values come from
    // localtime_r (tm_gmtoff less the DST hour, tm_isdst), as ftime() in
    // current C libraries no longer fills them.
    static int GetCurrentTimezone();

    // Day (1...) of the first such weekday in the month.
    static int CalcFirstWeekdayOfMonth(int nYear, int nMonth, CKelUTCTime::EWeekday eWeekday);
    // Day of the nWeek-th such weekday in the month; nWeek < 2 gives the first,
    // a week past the last such weekday gives the last.
    static int CalcDayFromWeek(int nYear, int nMonth, CKelUTCTime::EWeekday eWeekday, int nWeek);

    long long GetLocaltime() const override;
    long long GetHighResolutionLocaltime() const override;
    void SetLocaltime(long long nMilliSeconds) override;

    // Local reading moved by the difference's whole milliseconds (truncated
    // toward zero, so a negative difference moves back); the zone stays.
    CKelLocalTime& operator+=(const CKelTimeDiff& oDiff);
    CKelLocalTime& operator-=(const CKelTimeDiff& oDiff);

    bool operator<(const CKelLocalTime& oOther) const { return GetLocaltime() < oOther.GetLocaltime(); }
    bool operator>(const CKelLocalTime& oOther) const { return GetLocaltime() > oOther.GetLocaltime(); }
    bool operator<=(const CKelLocalTime& oOther) const { return GetLocaltime() <= oOther.GetLocaltime(); }
    bool operator>=(const CKelLocalTime& oOther) const { return GetLocaltime() >= oOther.GetLocaltime(); }
    bool operator==(const CKelLocalTime& oOther) const { return GetLocaltime() == oOther.GetLocaltime(); }
    bool operator!=(const CKelLocalTime& oOther) const { return GetLocaltime() != oOther.GetLocaltime(); }

private:
    int m_nTimezone = 0;
};

CKelLocalTime operator+(const CKelLocalTime& oTime, const CKelTimeDiff& oDiff);
CKelLocalTime operator-(const CKelLocalTime& oTime, const CKelTimeDiff& oDiff);
// Difference of the local readings (10-ns resolution).
CKelTimeDiff operator-(const CKelLocalTime& oLeft, const CKelLocalTime& oRight);

#endif // ORVANE_KEL_LOCAL_TIME_H
