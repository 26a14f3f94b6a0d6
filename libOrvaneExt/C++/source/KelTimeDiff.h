// CKelTimeDiff: a span of time, one signed 64-bit count of 10-nanosecond units.
//
// Comparisons read the count as signed; the total getters, CutOffParts and
// division read it as unsigned (a negative span gives very large totals).
// Addition, subtraction and multiplication wrap at 64 bits.
//
// Text forms (EDiffFormat), all with a leading "-" for a negative count:
//   eDiffDayTime          "D hh:mm:ss.mmm"       e.g. "1 02:03:04.005"; days unpadded,
//                                                 milliseconds truncated
//   eDiffDayTimeHighRes   "D hh:mm:ss.ffffffff"  the same with all eight digits
//                                                 of the 10-ns count (lossless)
//   eDiffMilliSeconds     "N"                    whole milliseconds, e.g. "1500"
//   eDiffSeconds          "S.mmm"                seconds with three fraction digits
// Reading accepts exactly these shapes; where a fraction is allowed it may have
// one to eight digits (".5" is half a second) and may be left out in the two
// day forms and in eDiffSeconds. Hours must be below 24, minutes and seconds
// below 60. A failed read sets failbit and leaves the value unchanged.
// eDiffDayTime is the default of a stream that has no format set.
#ifndef ORVANE_KEL_TIME_DIFF_H
#define ORVANE_KEL_TIME_DIFF_H

#include <sys/time.h>

#include <iosfwd>
#include <string>

class CKelTimeDiff
{
public:
    // Units of the count.
    static constexpr long long UNITS_PER_MICRO_SECOND = 100;
    static constexpr long long UNITS_PER_MILLI_SECOND = 100000;
    static constexpr long long UNITS_PER_SECOND = 100000000;
    static constexpr long long UNITS_PER_MINUTE = 6000000000;
    static constexpr long long UNITS_PER_HOUR = 360000000000;
    static constexpr long long UNITS_PER_DAY = 8640000000000;

    // Parts that CutOffParts keeps whole.
    enum ETimeDiffPart
    {
        eDays = 0,
        eHours = 1,
        eMinutes = 2,
        eSeconds = 3
    };

    // Text forms, see above.
    enum EDiffFormat
    {
        eDiffDayTime = 0,
        eDiffDayTimeHighRes = 1,
        eDiffMilliSeconds = 2,
        eDiffSeconds = 3
    };

    CKelTimeDiff() = default;
    explicit CKelTimeDiff(long long nMilliSeconds);
    CKelTimeDiff(long long nMilliSeconds, unsigned int nMicroSeconds, unsigned int nNanoSeconds);
    CKelTimeDiff(int nDays, int nHours, int nMinutes, int nSeconds, int nMilliSeconds, int nMicroSeconds,
                 int nNanoSeconds);

    // Sum of each part times its unit; nanoseconds / 10, truncated.
    void SetTime(int nDays, int nHours, int nMinutes, int nSeconds, int nMilliSeconds, int nMicroSeconds,
                 int nNanoSeconds);

    // bRaw true: nValue is the count itself; false: nValue is milliseconds.
    void SetTimeDiff(long long nValue, bool bRaw);

    // The raw count of 10-ns units.
    long long GetTimeDiff() const { return m_nTimeDiff; }

    // Truncates to whole days, hours, minutes or seconds. Another value of
    // ePart leaves the span unchanged.
    void CutOffParts(ETimeDiffPart ePart);

    unsigned long long GetTotalDays() const;
    unsigned long long GetTotalHours() const;
    unsigned long long GetTotalMinutes() const;
    unsigned long long GetTotalSeconds() const;
    unsigned long long GetTotalMilliSeconds() const;
    unsigned long long GetTotalMicroSeconds() const;
    unsigned long long GetTotalNanoSeconds() const; // count x 10, wraps

    timeval GetTimeval() const;

    CKelTimeDiff& operator+=(const CKelTimeDiff& oOther);
    CKelTimeDiff& operator-=(const CKelTimeDiff& oOther);
    CKelTimeDiff& operator*=(unsigned long long nFactor);
    // A divisor of 0 leaves the span unchanged.
    CKelTimeDiff& operator/=(unsigned long long nDivisor);

    bool operator<(const CKelTimeDiff& oOther) const { return m_nTimeDiff < oOther.m_nTimeDiff; }
    bool operator>(const CKelTimeDiff& oOther) const { return m_nTimeDiff > oOther.m_nTimeDiff; }
    bool operator<=(const CKelTimeDiff& oOther) const { return m_nTimeDiff <= oOther.m_nTimeDiff; }
    bool operator>=(const CKelTimeDiff& oOther) const { return m_nTimeDiff >= oOther.m_nTimeDiff; }
    bool operator==(const CKelTimeDiff& oOther) const { return m_nTimeDiff == oOther.m_nTimeDiff; }
    bool operator!=(const CKelTimeDiff& oOther) const { return m_nTimeDiff != oOther.m_nTimeDiff; }

    // Text in the given form.
    std::string Time2Str(EDiffFormat eFormat) const;

    // Writes / reads the text form selected on the stream with SetDiffTimeFlag.
    std::ostream& PutStream(std::ostream& oStream) const;
    std::istream& GetStream(std::istream& oStream);

    // Selects the text form that operator<< and operator>> use on this stream.
    static void SetDiffTimeFlag(std::ios_base& oStream, EDiffFormat eFormat);
    static EDiffFormat GetDiffTimeFlag(std::ios_base& oStream);

private:
    long long m_nTimeDiff = 0;
};

CKelTimeDiff operator+(const CKelTimeDiff& oLeft, const CKelTimeDiff& oRight);
CKelTimeDiff operator-(const CKelTimeDiff& oLeft, const CKelTimeDiff& oRight);
CKelTimeDiff operator*(const CKelTimeDiff& oDiff, unsigned long long nFactor);
CKelTimeDiff operator*(unsigned long long nFactor, const CKelTimeDiff& oDiff);
CKelTimeDiff operator/(const CKelTimeDiff& oDiff, unsigned long long nDivisor);

std::ostream& operator<<(std::ostream& oStream, const CKelTimeDiff& oDiff);
std::istream& operator>>(std::istream& oStream, CKelTimeDiff& oDiff);

std::string KelToString(const CKelTimeDiff& oDiff, CKelTimeDiff::EDiffFormat eFormat);
// true when the whole text is one span in the given form; else oDiff is unchanged.
bool KelFromString(CKelTimeDiff& oDiff, CKelTimeDiff::EDiffFormat eFormat, const std::string& sText);

#endif // ORVANE_KEL_TIME_DIFF_H
