#include "KelTimeDiff.h"

#include "StreamExtension.h"

#include <cstdio>
#include <istream>
#include <limits>
#include <ostream>
#include <sstream>

namespace
{
using Unsigned = unsigned long long;

// Arithmetic on the count wraps at 64 bits instead of overflowing.
long long Wrap(Unsigned nValue)
{
    return static_cast<long long>(nValue);
}

Unsigned U(long long nValue)
{
    return static_cast<Unsigned>(nValue);
}

int FormatFlagIndex()
{
    static const int s_nIndex = std::ios_base::xalloc();
    return s_nIndex;
}

// Writes the magnitude of a span in one of the text forms.
std::string FormatMagnitude(Unsigned nUnits, CKelTimeDiff::EDiffFormat eFormat)
{
    const Unsigned nSecond = CKelTimeDiff::UNITS_PER_SECOND;
    char acText[64];
    switch (eFormat)
    {
    case CKelTimeDiff::eDiffMilliSeconds:
        std::snprintf(acText, sizeof acText, "%llu", nUnits / CKelTimeDiff::UNITS_PER_MILLI_SECOND);
        break;
    case CKelTimeDiff::eDiffSeconds:
        std::snprintf(acText, sizeof acText, "%llu.%03llu", nUnits / nSecond,
                      nUnits % nSecond / CKelTimeDiff::UNITS_PER_MILLI_SECOND);
        break;
    case CKelTimeDiff::eDiffDayTimeHighRes:
    case CKelTimeDiff::eDiffDayTime:
    default:
    {
        const Unsigned nDays = nUnits / CKelTimeDiff::UNITS_PER_DAY;
        const Unsigned nHours = nUnits % CKelTimeDiff::UNITS_PER_DAY / CKelTimeDiff::UNITS_PER_HOUR;
        const Unsigned nMinutes = nUnits % CKelTimeDiff::UNITS_PER_HOUR / CKelTimeDiff::UNITS_PER_MINUTE;
        const Unsigned nSeconds = nUnits % CKelTimeDiff::UNITS_PER_MINUTE / nSecond;
        if (eFormat == CKelTimeDiff::eDiffDayTimeHighRes)
        {
            std::snprintf(acText, sizeof acText, "%llu %02llu:%02llu:%02llu.%08llu", nDays, nHours, nMinutes, nSeconds,
                          nUnits % nSecond);
        }
        else
        {
            std::snprintf(acText, sizeof acText, "%llu %02llu:%02llu:%02llu.%03llu", nDays, nHours, nMinutes, nSeconds,
                          nUnits % nSecond / CKelTimeDiff::UNITS_PER_MILLI_SECOND);
        }
        break;
    }
    }
    return acText;
}

// a x b + c, false when the result leaves 64 bits.
bool MulAdd(Unsigned a, Unsigned b, Unsigned c, Unsigned& nResult)
{
    Unsigned nProduct = 0;
    return !__builtin_mul_overflow(a, b, &nProduct) && !__builtin_add_overflow(nProduct, c, &nResult);
}

// Reads "D hh:mm:ss[.f]" without the sign.
bool ReadDayTime(std::istream& oStream, Unsigned& nUnits)
{
    Unsigned nDays = 0, nHours = 0, nMinutes = 0, nSeconds = 0, nFraction = 0;
    if (!KelReadDigits(oStream, 20, nDays) || !KelTryChar(oStream, ' ') || !KelReadDigits(oStream, 2, nHours) ||
        nHours >= 24 || !KelTryChar(oStream, ':') || !KelReadDigits(oStream, 2, nMinutes) || nMinutes >= 60 ||
        !KelTryChar(oStream, ':') || !KelReadDigits(oStream, 2, nSeconds) || nSeconds >= 60)
    {
        return false;
    }
    if (KelTryChar(oStream, '.') && !KelReadFraction(oStream, nFraction))
    {
        return false;
    }
    const Unsigned nDayPart = ((nHours * 60 + nMinutes) * 60 + nSeconds) * CKelTimeDiff::UNITS_PER_SECOND + nFraction;
    return MulAdd(nDays, CKelTimeDiff::UNITS_PER_DAY, nDayPart, nUnits);
}

// Reads "S[.f]" without the sign.
bool ReadSeconds(std::istream& oStream, Unsigned& nUnits)
{
    Unsigned nSeconds = 0, nFraction = 0;
    if (!KelReadDigits(oStream, 20, nSeconds))
    {
        return false;
    }
    if (KelTryChar(oStream, '.') && !KelReadFraction(oStream, nFraction))
    {
        return false;
    }
    return MulAdd(nSeconds, CKelTimeDiff::UNITS_PER_SECOND, nFraction, nUnits);
}

bool ReadMilliSeconds(std::istream& oStream, Unsigned& nUnits)
{
    Unsigned nMilliSeconds = 0;
    return KelReadDigits(oStream, 20, nMilliSeconds) &&
        MulAdd(nMilliSeconds, CKelTimeDiff::UNITS_PER_MILLI_SECOND, 0, nUnits);
}
} // namespace

CKelTimeDiff::CKelTimeDiff(long long nMilliSeconds) : m_nTimeDiff(Wrap(U(nMilliSeconds) * UNITS_PER_MILLI_SECOND)) {}

CKelTimeDiff::CKelTimeDiff(long long nMilliSeconds, unsigned int nMicroSeconds, unsigned int nNanoSeconds)
    : m_nTimeDiff(Wrap(U(nMilliSeconds) * UNITS_PER_MILLI_SECOND + Unsigned(nMicroSeconds) * UNITS_PER_MICRO_SECOND +
                       nNanoSeconds / 10))
{
}

CKelTimeDiff::CKelTimeDiff(int nDays, int nHours, int nMinutes, int nSeconds, int nMilliSeconds, int nMicroSeconds,
                           int nNanoSeconds)
{
    SetTime(nDays, nHours, nMinutes, nSeconds, nMilliSeconds, nMicroSeconds, nNanoSeconds);
}

void CKelTimeDiff::SetTime(int nDays, int nHours, int nMinutes, int nSeconds, int nMilliSeconds, int nMicroSeconds,
                           int nNanoSeconds)
{
    m_nTimeDiff = Wrap(U(nDays) * UNITS_PER_DAY + U(nHours) * UNITS_PER_HOUR + U(nMinutes) * UNITS_PER_MINUTE +
                       U(nSeconds) * UNITS_PER_SECOND + U(nMilliSeconds) * UNITS_PER_MILLI_SECOND +
                       U(nMicroSeconds) * UNITS_PER_MICRO_SECOND + U(nNanoSeconds / 10));
}

void CKelTimeDiff::SetTimeDiff(long long nValue, bool bRaw)
{
    m_nTimeDiff = bRaw ? nValue : Wrap(U(nValue) * UNITS_PER_MILLI_SECOND);
}

void CKelTimeDiff::CutOffParts(ETimeDiffPart ePart)
{
    static const Unsigned s_anUnit[] = {UNITS_PER_DAY, UNITS_PER_HOUR, UNITS_PER_MINUTE, UNITS_PER_SECOND};
    const int nPart = static_cast<int>(ePart);
    if (nPart < 0 || nPart > 3)
    {
        return;
    }
    const Unsigned nUnit = s_anUnit[nPart];
    m_nTimeDiff = Wrap(U(m_nTimeDiff) / nUnit * nUnit);
}

unsigned long long CKelTimeDiff::GetTotalDays() const
{
    return U(m_nTimeDiff) / UNITS_PER_DAY;
}

unsigned long long CKelTimeDiff::GetTotalHours() const
{
    return U(m_nTimeDiff) / UNITS_PER_HOUR;
}

unsigned long long CKelTimeDiff::GetTotalMinutes() const
{
    return U(m_nTimeDiff) / UNITS_PER_MINUTE;
}

unsigned long long CKelTimeDiff::GetTotalSeconds() const
{
    return U(m_nTimeDiff) / UNITS_PER_SECOND;
}

unsigned long long CKelTimeDiff::GetTotalMilliSeconds() const
{
    return U(m_nTimeDiff) / UNITS_PER_MILLI_SECOND;
}

unsigned long long CKelTimeDiff::GetTotalMicroSeconds() const
{
    return U(m_nTimeDiff) / UNITS_PER_MICRO_SECOND;
}

unsigned long long CKelTimeDiff::GetTotalNanoSeconds() const
{
    return U(m_nTimeDiff) * 10;
}

timeval CKelTimeDiff::GetTimeval() const
{
    const Unsigned nMicroSeconds = U(m_nTimeDiff) / UNITS_PER_MICRO_SECOND;
    timeval oTime{};
    oTime.tv_sec = static_cast<time_t>(nMicroSeconds / 1000000);
    oTime.tv_usec = static_cast<suseconds_t>(nMicroSeconds % 1000000);
    return oTime;
}

CKelTimeDiff& CKelTimeDiff::operator+=(const CKelTimeDiff& oOther)
{
    m_nTimeDiff = Wrap(U(m_nTimeDiff) + U(oOther.m_nTimeDiff));
    return *this;
}

CKelTimeDiff& CKelTimeDiff::operator-=(const CKelTimeDiff& oOther)
{
    m_nTimeDiff = Wrap(U(m_nTimeDiff) - U(oOther.m_nTimeDiff));
    return *this;
}

CKelTimeDiff& CKelTimeDiff::operator*=(unsigned long long nFactor)
{
    m_nTimeDiff = Wrap(U(m_nTimeDiff) * nFactor);
    return *this;
}

CKelTimeDiff& CKelTimeDiff::operator/=(unsigned long long nDivisor)
{
    if (nDivisor != 0)
    {
        m_nTimeDiff = Wrap(U(m_nTimeDiff) / nDivisor);
    }
    return *this;
}

std::string CKelTimeDiff::Time2Str(EDiffFormat eFormat) const
{
    if (m_nTimeDiff < 0)
    {
        // Magnitude computed unsigned so that the most negative count works too.
        return "-" + FormatMagnitude(Unsigned(0) - U(m_nTimeDiff), eFormat);
    }
    return FormatMagnitude(U(m_nTimeDiff), eFormat);
}

std::ostream& CKelTimeDiff::PutStream(std::ostream& oStream) const
{
    return oStream << Time2Str(GetDiffTimeFlag(oStream));
}

std::istream& CKelTimeDiff::GetStream(std::istream& oStream)
{
    if (!oStream.good())
    {
        oStream.setstate(std::ios_base::failbit);
        return oStream;
    }
    KelSkipLeadingSpace(oStream);
    const bool bNegative = KelTryChar(oStream, '-');
    Unsigned nUnits = 0;
    bool bRead = false;
    switch (GetDiffTimeFlag(oStream))
    {
    case eDiffMilliSeconds:
        bRead = ReadMilliSeconds(oStream, nUnits);
        break;
    case eDiffSeconds:
        bRead = ReadSeconds(oStream, nUnits);
        break;
    case eDiffDayTime:
    case eDiffDayTimeHighRes:
    default:
        bRead = ReadDayTime(oStream, nUnits);
        break;
    }
    const Unsigned nLimit = U(std::numeric_limits<long long>::max()) + (bNegative ? 1 : 0);
    if (!bRead || nUnits > nLimit)
    {
        oStream.setstate(std::ios_base::failbit);
        return oStream;
    }
    m_nTimeDiff = bNegative ? Wrap(Unsigned(0) - nUnits) : Wrap(nUnits);
    return oStream;
}

void CKelTimeDiff::SetDiffTimeFlag(std::ios_base& oStream, EDiffFormat eFormat)
{
    oStream.iword(FormatFlagIndex()) = static_cast<long>(eFormat);
}

CKelTimeDiff::EDiffFormat CKelTimeDiff::GetDiffTimeFlag(std::ios_base& oStream)
{
    const long nFormat = oStream.iword(FormatFlagIndex());
    if (nFormat < eDiffDayTime || nFormat > eDiffSeconds)
    {
        return eDiffDayTime;
    }
    return static_cast<EDiffFormat>(nFormat);
}

CKelTimeDiff operator+(const CKelTimeDiff& oLeft, const CKelTimeDiff& oRight)
{
    CKelTimeDiff oResult(oLeft);
    return oResult += oRight;
}

CKelTimeDiff operator-(const CKelTimeDiff& oLeft, const CKelTimeDiff& oRight)
{
    CKelTimeDiff oResult(oLeft);
    return oResult -= oRight;
}

CKelTimeDiff operator*(const CKelTimeDiff& oDiff, unsigned long long nFactor)
{
    CKelTimeDiff oResult(oDiff);
    return oResult *= nFactor;
}

CKelTimeDiff operator*(unsigned long long nFactor, const CKelTimeDiff& oDiff)
{
    return oDiff * nFactor;
}

CKelTimeDiff operator/(const CKelTimeDiff& oDiff, unsigned long long nDivisor)
{
    CKelTimeDiff oResult(oDiff);
    return oResult /= nDivisor;
}

std::ostream& operator<<(std::ostream& oStream, const CKelTimeDiff& oDiff)
{
    return oDiff.PutStream(oStream);
}

std::istream& operator>>(std::istream& oStream, CKelTimeDiff& oDiff)
{
    return oDiff.GetStream(oStream);
}

std::string KelToString(const CKelTimeDiff& oDiff, CKelTimeDiff::EDiffFormat eFormat)
{
    return oDiff.Time2Str(eFormat);
}

bool KelFromString(CKelTimeDiff& oDiff, CKelTimeDiff::EDiffFormat eFormat, const std::string& sText)
{
    std::istringstream oStream(sText);
    oStream.unsetf(std::ios_base::skipws);
    CKelTimeDiff::SetDiffTimeFlag(oStream, eFormat);
    CKelTimeDiff oRead;
    if (!oRead.GetStream(oStream) || !KelAtEnd(oStream))
    {
        return false;
    }
    oDiff = oRead;
    return true;
}
