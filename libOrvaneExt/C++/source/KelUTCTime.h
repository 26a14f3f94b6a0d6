// CKelUTCTime: a point in time, held as a CKelTimeDiff of 10-ns units since
// 0000-01-01 00:00:00 UTC of the proleptic Gregorian calendar (year 0 is a
// leap year), plus a one-byte flag that travels with the value.
//
// The virtual "Localtime" accessors read and write the value as seen in the
// object's time zone; for this class the zone is UTC itself. Derived classes
// (CKelLocalTime) shift the reading by their zone; text is printed from and
// parsed into that reading, so a local time prints its wall-clock time.
//
// Text forms (ETimeFormat):
//   eIsoDateTime   "YYYY-MM-DD hh:mm:ss.mmm"   e.g. "2024-02-29 13:05:09.042"
//   eIsoDate       "YYYY-MM-DD"                (reads as midnight)
//   eDotDateTime   "DD.MM.YYYY hh:mm:ss.mmm"   e.g. "29.02.2024 13:05:09.042"
//   eDotDate       "DD.MM.YYYY"                (reads as midnight)
// Years are written with at least four digits; reading takes one to four
// digits for the year, one or two for the other fields, and one to three
// for the milliseconds (".5" is 500 ms), which may be left out. The date must
// exist. A failed read sets failbit and leaves the value unchanged.
// eIsoDateTime is the default of a stream that has no format set. Values
// before 0000-01-01 cannot be written: the stream's failbit is set instead.
#ifndef ORVANE_KEL_UTC_TIME_H
#define ORVANE_KEL_UTC_TIME_H

#include "KelTimeDiff.h"

#include <iosfwd>
#include <string>

class CKelUTCTime
{
public:
    // Weekday numbers: (day number + 4) mod 7.
    enum EWeekday
    {
        eTuesday = 0,
        eWednesday = 1,
        eThursday = 2,
        eFriday = 3,
        eSaturday = 4,
        eSunday = 5,
        eMonday = 6
    };

    enum ETimeFormat
    {
        eIsoDateTime = 0,
        eIsoDate = 1,
        eDotDateTime = 2,
        eDotDate = 3
    };

    // 10-ns units from 0000-01-01 to 1970-01-01 (719,528 days).
    static constexpr long long UNIX_EPOCH_OFFSET = 62167219200LL * CKelTimeDiff::UNITS_PER_SECOND;

    CKelUTCTime() = default;
    // Parts of a UTC date; see SetDate.
    CKelUTCTime(unsigned int nDay, unsigned int nMonth, unsigned int nYear, unsigned int nHour, unsigned int nMinute,
                unsigned int nSecond, unsigned int nMilliSecond);
    virtual ~CKelUTCTime() = default;
    CKelUTCTime(const CKelUTCTime&) = default;
    CKelUTCTime& operator=(const CKelUTCTime&) = default;

    // The current time from the system's wall clock (microsecond resolution).
    static CKelUTCTime CurrentUTCTime();

    // Calendar rules.
    static bool IsLeapYear(int nYear);
    static unsigned int DaysInMonth(int nYear, unsigned int nMonth); // 0 for a month outside 1-12
    // Day number of a date, 0000-01-01 being day 0; the day and month are
    // not checked.
    static long long CalcDayNumber(int nYear, unsigned int nMonth, unsigned int nDay);
    static EWeekday CalcWeekday(long long nDayNumber);

    // The UTC value split into date parts / set from them. GetDate returns
    // false (parts untouched) for a value before 0000-01-01. SetDate checks
    // nothing: a day 32 runs on into the next month, an hour 24 into the next day.
    bool GetDate(unsigned int& nDay, unsigned int& nMonth, unsigned int& nYear, unsigned int& nHour,
                 unsigned int& nMinute, unsigned int& nSecond, unsigned int& nMilliSecond) const;
    void SetDate(unsigned int nDay, unsigned int nMonth, unsigned int nYear, unsigned int nHour, unsigned int nMinute,
                 unsigned int nSecond, unsigned int nMilliSecond);
    // Weekday of the UTC date.
    EWeekday GetWeekday() const;

    // The UTC count itself.
    const CKelTimeDiff& GetTime() const { return m_oTime; }
    void SetTime(const CKelTimeDiff& oTime) { m_oTime = oTime; }

    // A caller-defined marker byte, copied along with the value.
    unsigned char GetFlag() const { return m_nFlag; }
    void SetFlag(unsigned char nFlag) { m_nFlag = nFlag; }

    // Text in the given form, of the reading in this object's zone.
    std::string Time2Str(ETimeFormat eFormat) const;
    // Reads text in the given form as a reading in this object's zone; true
    // when the whole text was one time, else the value is unchanged.
    bool Str2Time(const std::string& sText, ETimeFormat eFormat);

    // Selects the text form that operator<< and operator>> use on this stream.
    static void SetTimeFlag(std::ios_base& oStream, ETimeFormat eFormat);
    static ETimeFormat GetTimeFlag(std::ios_base& oStream);

    virtual std::istream& GetStream(std::istream& oStream);
    virtual std::ostream& PutStream(std::ostream& oStream) const;
    // Milliseconds of the reading (here: count / 100,000).
    virtual long long GetLocaltime() const;
    // 10-ns units of the reading (here: the count).
    virtual long long GetHighResolutionLocaltime() const;
    virtual void SetLocaltime(long long nMilliSeconds);
    virtual void SetHighResolutionLocaltime(long long nUnits);

protected:
    CKelTimeDiff m_oTime;
    unsigned char m_nFlag = 0;
};

std::ostream& operator<<(std::ostream& oStream, const CKelUTCTime& oTime);
std::istream& operator>>(std::istream& oStream, CKelUTCTime& oTime);

std::string KelToString(const CKelUTCTime& oTime, CKelUTCTime::ETimeFormat eFormat);
bool KelFromString(CKelUTCTime& oTime, CKelUTCTime::ETimeFormat eFormat, const std::string& sText);

#endif // ORVANE_KEL_UTC_TIME_H
