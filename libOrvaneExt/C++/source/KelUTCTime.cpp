#include "KelUTCTime.h"

#include "StreamExtension.h"

#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <istream>
#include <limits>
#include <ostream>
#include <sstream>

namespace
{
// Date parts of one reading.
struct SDateParts
{
    unsigned int nYear = 0;
    unsigned int nMonth = 1;
    unsigned int nDay = 1;
    unsigned int nHour = 0;
    unsigned int nMinute = 0;
    unsigned int nSecond = 0;
    unsigned int nMilliSecond = 0;
};

// Days before the first of each month in a common year.
const unsigned int s_anDaysBeforeMonth[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};

// Largest day number whose start still fits into the 64-bit count.
const long long s_nMaxDayNumber = std::numeric_limits<long long>::max() / CKelTimeDiff::UNITS_PER_DAY - 1;

int FormatFlagIndex()
{
    static const int s_nIndex = std::ios_base::xalloc();
    return s_nIndex;
}

// Splits a non-negative count of 10-ns units into date parts.
bool SplitUnits(long long nUnits, SDateParts& oParts)
{
    if (nUnits < 0)
    {
        return false;
    }
    const long long nDays = nUnits / CKelTimeDiff::UNITS_PER_DAY;
    const long long nRest = nUnits % CKelTimeDiff::UNITS_PER_DAY;

    // 146,097 days per 400 years gives a close first guess of the year.
    int nYear = static_cast<int>(nDays * 400 / 146097);
    while (CKelUTCTime::CalcDayNumber(nYear + 1, 1, 1) <= nDays)
    {
        ++nYear;
    }
    while (nYear > 0 && CKelUTCTime::CalcDayNumber(nYear, 1, 1) > nDays)
    {
        --nYear;
    }
    unsigned int nDayOfYear = static_cast<unsigned int>(nDays - CKelUTCTime::CalcDayNumber(nYear, 1, 1));
    unsigned int nMonth = 1;
    while (nMonth < 12 && nDayOfYear >= CKelUTCTime::DaysInMonth(nYear, nMonth))
    {
        nDayOfYear -= CKelUTCTime::DaysInMonth(nYear, nMonth);
        ++nMonth;
    }
    oParts.nYear = static_cast<unsigned int>(nYear);
    oParts.nMonth = nMonth;
    oParts.nDay = nDayOfYear + 1;
    oParts.nHour = static_cast<unsigned int>(nRest / CKelTimeDiff::UNITS_PER_HOUR);
    oParts.nMinute = static_cast<unsigned int>(nRest % CKelTimeDiff::UNITS_PER_HOUR / CKelTimeDiff::UNITS_PER_MINUTE);
    oParts.nSecond = static_cast<unsigned int>(nRest % CKelTimeDiff::UNITS_PER_MINUTE / CKelTimeDiff::UNITS_PER_SECOND);
    oParts.nMilliSecond =
        static_cast<unsigned int>(nRest % CKelTimeDiff::UNITS_PER_SECOND / CKelTimeDiff::UNITS_PER_MILLI_SECOND);
    return true;
}

// Count of 10-ns units for date parts; wraps rather than overflowing.
long long JoinUnits(const SDateParts& oParts)
{
    using Unsigned = unsigned long long;
    const long long nDayNumber = CKelUTCTime::CalcDayNumber(static_cast<int>(oParts.nYear), oParts.nMonth, oParts.nDay);
    const Unsigned nUnits = static_cast<Unsigned>(nDayNumber) * CKelTimeDiff::UNITS_PER_DAY +
        Unsigned(oParts.nHour) * CKelTimeDiff::UNITS_PER_HOUR +
        Unsigned(oParts.nMinute) * CKelTimeDiff::UNITS_PER_MINUTE +
        Unsigned(oParts.nSecond) * CKelTimeDiff::UNITS_PER_SECOND +
        Unsigned(oParts.nMilliSecond) * CKelTimeDiff::UNITS_PER_MILLI_SECOND;
    return static_cast<long long>(nUnits);
}

std::string FormatParts(const SDateParts& oParts, CKelUTCTime::ETimeFormat eFormat)
{
    char acText[64];
    switch (eFormat)
    {
    case CKelUTCTime::eIsoDate:
        std::snprintf(acText, sizeof acText, "%04u-%02u-%02u", oParts.nYear, oParts.nMonth, oParts.nDay);
        break;
    case CKelUTCTime::eDotDateTime:
        std::snprintf(acText, sizeof acText, "%02u.%02u.%04u %02u:%02u:%02u.%03u", oParts.nDay, oParts.nMonth,
                      oParts.nYear, oParts.nHour, oParts.nMinute, oParts.nSecond, oParts.nMilliSecond);
        break;
    case CKelUTCTime::eDotDate:
        std::snprintf(acText, sizeof acText, "%02u.%02u.%04u", oParts.nDay, oParts.nMonth, oParts.nYear);
        break;
    case CKelUTCTime::eIsoDateTime:
    default:
        std::snprintf(acText, sizeof acText, "%04u-%02u-%02u %02u:%02u:%02u.%03u", oParts.nYear, oParts.nMonth,
                      oParts.nDay, oParts.nHour, oParts.nMinute, oParts.nSecond, oParts.nMilliSecond);
        break;
    }
    return acText;
}

bool ReadField(std::istream& oStream, unsigned int nMaxDigits, unsigned int& nField)
{
    unsigned long long nValue = 0;
    if (!KelReadDigits(oStream, nMaxDigits, nValue))
    {
        return false;
    }
    nField = static_cast<unsigned int>(nValue);
    return true;
}

// Reads "hh:mm:ss[.mmm]".
bool ReadClock(std::istream& oStream, SDateParts& oParts)
{
    if (!ReadField(oStream, 2, oParts.nHour) || oParts.nHour >= 24 || !KelTryChar(oStream, ':') ||
        !ReadField(oStream, 2, oParts.nMinute) || oParts.nMinute >= 60 || !KelTryChar(oStream, ':') ||
        !ReadField(oStream, 2, oParts.nSecond) || oParts.nSecond >= 60)
    {
        return false;
    }
    if (KelTryChar(oStream, '.'))
    {
        unsigned long long nDigits = 0;
        unsigned int nCount = 0;
        if (!KelReadDigits(oStream, 3, nDigits, &nCount))
        {
            return false;
        }
        for (; nCount < 3; ++nCount)
        {
            nDigits *= 10;
        }
        oParts.nMilliSecond = static_cast<unsigned int>(nDigits);
    }
    return true;
}

bool ReadParts(std::istream& oStream, CKelUTCTime::ETimeFormat eFormat, SDateParts& oParts)
{
    bool bRead = false;
    bool bWithClock = false;
    switch (eFormat)
    {
    case CKelUTCTime::eDotDateTime:
    case CKelUTCTime::eDotDate:
        bRead = ReadField(oStream, 2, oParts.nDay) && KelTryChar(oStream, '.') &&
            ReadField(oStream, 2, oParts.nMonth) && KelTryChar(oStream, '.') && ReadField(oStream, 4, oParts.nYear);
        bWithClock = eFormat == CKelUTCTime::eDotDateTime;
        break;
    case CKelUTCTime::eIsoDateTime:
    case CKelUTCTime::eIsoDate:
    default:
        bRead = ReadField(oStream, 4, oParts.nYear) && KelTryChar(oStream, '-') &&
            ReadField(oStream, 2, oParts.nMonth) && KelTryChar(oStream, '-') && ReadField(oStream, 2, oParts.nDay);
        bWithClock = eFormat != CKelUTCTime::eIsoDate;
        break;
    }
    if (!bRead || oParts.nDay == 0 ||
        oParts.nDay > CKelUTCTime::DaysInMonth(static_cast<int>(oParts.nYear), oParts.nMonth))
    {
        return false;
    }
    if (bWithClock && !(KelTryChar(oStream, ' ') && ReadClock(oStream, oParts)))
    {
        return false;
    }
    return CKelUTCTime::CalcDayNumber(static_cast<int>(oParts.nYear), oParts.nMonth, oParts.nDay) <= s_nMaxDayNumber;
}
} // namespace

CKelUTCTime::CKelUTCTime(unsigned int nDay, unsigned int nMonth, unsigned int nYear, unsigned int nHour,
                         unsigned int nMinute, unsigned int nSecond, unsigned int nMilliSecond)
{
    SetDate(nDay, nMonth, nYear, nHour, nMinute, nSecond, nMilliSecond);
}

CKelUTCTime CKelUTCTime::CurrentUTCTime()
{
    timeval oNow{};
    gettimeofday(&oNow, nullptr);
    CKelUTCTime oTime;
    oTime.m_oTime.SetTimeDiff(static_cast<long long>(oNow.tv_sec) * CKelTimeDiff::UNITS_PER_SECOND +
                                  static_cast<long long>(oNow.tv_usec) * CKelTimeDiff::UNITS_PER_MICRO_SECOND +
                                  UNIX_EPOCH_OFFSET,
                              true);
    return oTime;
}

bool CKelUTCTime::IsLeapYear(int nYear)
{
    return (nYear % 4 == 0 && nYear % 100 != 0) || nYear % 400 == 0;
}

unsigned int CKelUTCTime::DaysInMonth(int nYear, unsigned int nMonth)
{
    static const unsigned int s_anDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (nMonth < 1 || nMonth > 12)
    {
        return 0;
    }
    return s_anDays[nMonth - 1] + (nMonth == 2 && IsLeapYear(nYear) ? 1 : 0);
}

long long CKelUTCTime::CalcDayNumber(int nYear, unsigned int nMonth, unsigned int nDay)
{
    // Months beyond December run on into the following years; month 0 counts as January.
    if (nMonth > 12)
    {
        nYear += static_cast<int>((nMonth - 1) / 12);
        nMonth = (nMonth - 1) % 12 + 1;
    }
    else if (nMonth == 0)
    {
        nMonth = 1;
    }
    const long long nAbsYear = std::llabs(static_cast<long long>(nYear));
    // Leap years before this one, year 0 included.
    const long long nLeapYears = (nAbsYear + 3) / 4 - (nAbsYear - 1) / 100 + (nAbsYear - 1) / 400;
    long long nDays = static_cast<long long>(nYear) * 365 + nLeapYears + s_anDaysBeforeMonth[nMonth - 1];
    if (nMonth > 2 && IsLeapYear(nYear))
    {
        ++nDays;
    }
    return nDays + static_cast<long long>(nDay) - 1;
}

CKelUTCTime::EWeekday CKelUTCTime::CalcWeekday(long long nDayNumber)
{
    return static_cast<EWeekday>(((nDayNumber + 4) % 7 + 7) % 7);
}

bool CKelUTCTime::GetDate(unsigned int& nDay, unsigned int& nMonth, unsigned int& nYear, unsigned int& nHour,
                          unsigned int& nMinute, unsigned int& nSecond, unsigned int& nMilliSecond) const
{
    SDateParts oParts;
    if (!SplitUnits(m_oTime.GetTimeDiff(), oParts))
    {
        return false;
    }
    nDay = oParts.nDay;
    nMonth = oParts.nMonth;
    nYear = oParts.nYear;
    nHour = oParts.nHour;
    nMinute = oParts.nMinute;
    nSecond = oParts.nSecond;
    nMilliSecond = oParts.nMilliSecond;
    return true;
}

void CKelUTCTime::SetDate(unsigned int nDay, unsigned int nMonth, unsigned int nYear, unsigned int nHour,
                          unsigned int nMinute, unsigned int nSecond, unsigned int nMilliSecond)
{
    SDateParts oParts;
    oParts.nDay = nDay;
    oParts.nMonth = nMonth;
    oParts.nYear = nYear;
    oParts.nHour = nHour;
    oParts.nMinute = nMinute;
    oParts.nSecond = nSecond;
    oParts.nMilliSecond = nMilliSecond;
    m_oTime.SetTimeDiff(JoinUnits(oParts), true);
}

CKelUTCTime::EWeekday CKelUTCTime::GetWeekday() const
{
    long long nUnits = m_oTime.GetTimeDiff();
    long long nDayNumber = nUnits / CKelTimeDiff::UNITS_PER_DAY - (nUnits % CKelTimeDiff::UNITS_PER_DAY < 0 ? 1 : 0);
    return CalcWeekday(nDayNumber);
}

std::string CKelUTCTime::Time2Str(ETimeFormat eFormat) const
{
    SDateParts oParts;
    if (!SplitUnits(GetHighResolutionLocaltime(), oParts))
    {
        return std::string();
    }
    return FormatParts(oParts, eFormat);
}

bool CKelUTCTime::Str2Time(const std::string& sText, ETimeFormat eFormat)
{
    std::istringstream oStream(sText);
    SDateParts oParts;
    if (!ReadParts(oStream, eFormat, oParts) || !KelAtEnd(oStream))
    {
        return false;
    }
    SetLocaltime(JoinUnits(oParts) / CKelTimeDiff::UNITS_PER_MILLI_SECOND);
    return true;
}

void CKelUTCTime::SetTimeFlag(std::ios_base& oStream, ETimeFormat eFormat)
{
    oStream.iword(FormatFlagIndex()) = static_cast<long>(eFormat);
}

CKelUTCTime::ETimeFormat CKelUTCTime::GetTimeFlag(std::ios_base& oStream)
{
    const long nFormat = oStream.iword(FormatFlagIndex());
    if (nFormat < eIsoDateTime || nFormat > eDotDate)
    {
        return eIsoDateTime;
    }
    return static_cast<ETimeFormat>(nFormat);
}

std::istream& CKelUTCTime::GetStream(std::istream& oStream)
{
    if (!oStream.good())
    {
        oStream.setstate(std::ios_base::failbit);
        return oStream;
    }
    KelSkipLeadingSpace(oStream);
    SDateParts oParts;
    if (!ReadParts(oStream, GetTimeFlag(oStream), oParts))
    {
        oStream.setstate(std::ios_base::failbit);
        return oStream;
    }
    SetLocaltime(JoinUnits(oParts) / CKelTimeDiff::UNITS_PER_MILLI_SECOND);
    return oStream;
}

std::ostream& CKelUTCTime::PutStream(std::ostream& oStream) const
{
    SDateParts oParts;
    if (!SplitUnits(GetHighResolutionLocaltime(), oParts))
    {
        oStream.setstate(std::ios_base::failbit);
        return oStream;
    }
    return oStream << FormatParts(oParts, GetTimeFlag(oStream));
}

long long CKelUTCTime::GetLocaltime() const
{
    return m_oTime.GetTimeDiff() / CKelTimeDiff::UNITS_PER_MILLI_SECOND;
}

long long CKelUTCTime::GetHighResolutionLocaltime() const
{
    return m_oTime.GetTimeDiff();
}

void CKelUTCTime::SetLocaltime(long long nMilliSeconds)
{
    m_oTime.SetTimeDiff(nMilliSeconds, false);
}

void CKelUTCTime::SetHighResolutionLocaltime(long long nUnits)
{
    m_oTime.SetTimeDiff(nUnits, true);
}

std::ostream& operator<<(std::ostream& oStream, const CKelUTCTime& oTime)
{
    return oTime.PutStream(oStream);
}

std::istream& operator>>(std::istream& oStream, CKelUTCTime& oTime)
{
    return oTime.GetStream(oStream);
}

std::string KelToString(const CKelUTCTime& oTime, CKelUTCTime::ETimeFormat eFormat)
{
    return oTime.Time2Str(eFormat);
}

bool KelFromString(CKelUTCTime& oTime, CKelUTCTime::ETimeFormat eFormat, const std::string& sText)
{
    return oTime.Str2Time(sText, eFormat);
}
