#include "StreamExtension.h"

#include <limits>
#include <string>

namespace
{
bool IsDigit(int c)
{
    return c >= '0' && c <= '9';
}
} // namespace

bool KelReadDigits(std::istream& oStream, unsigned int nMaxDigits, unsigned long long& nValue, unsigned int* pnDigits)
{
    using Traits = std::istream::traits_type;
    unsigned long long nResult = 0;
    unsigned int nCount = 0;
    while (nCount < nMaxDigits)
    {
        const Traits::int_type c = oStream.peek();
        if (Traits::eq_int_type(c, Traits::eof()) || !IsDigit(c))
        {
            break;
        }
        const unsigned long long nDigit = static_cast<unsigned long long>(c - '0');
        if (nResult > (std::numeric_limits<unsigned long long>::max() - nDigit) / 10)
        {
            return false;
        }
        nResult = nResult * 10 + nDigit;
        oStream.get();
        ++nCount;
    }
    if (oStream.rdstate() & std::ios_base::badbit)
    {
        return false;
    }
    // peek() at the end of the text sets eofbit; that is not an error here.
    oStream.clear(oStream.rdstate() & ~std::ios_base::failbit);
    if (pnDigits != nullptr)
    {
        *pnDigits = nCount;
    }
    if (nCount == 0)
    {
        return false;
    }
    nValue = nResult;
    return true;
}

bool KelTryChar(std::istream& oStream, char c)
{
    using Traits = std::istream::traits_type;
    const Traits::int_type nNext = oStream.peek();
    if (Traits::eq_int_type(nNext, Traits::eof()) || Traits::to_char_type(nNext) != c)
    {
        oStream.clear(oStream.rdstate() & ~std::ios_base::failbit);
        return false;
    }
    oStream.get();
    return true;
}

bool KelReadFraction(std::istream& oStream, unsigned long long& nUnits)
{
    // Eight digits are the resolution of the 10-ns count.
    constexpr unsigned int MAX_FRACTION_DIGITS = 8;
    unsigned long long nDigits = 0;
    unsigned int nCount = 0;
    if (!KelReadDigits(oStream, MAX_FRACTION_DIGITS, nDigits, &nCount))
    {
        return false;
    }
    for (unsigned int i = nCount; i < MAX_FRACTION_DIGITS; ++i)
    {
        nDigits *= 10;
    }
    nUnits = nDigits;
    return true;
}

bool KelReadSignedDigits(std::istream& oStream, unsigned int nMaxDigits, bool& bNegative,
                         unsigned long long& nMagnitude)
{
    bNegative = KelTryChar(oStream, '-');
    return KelReadDigits(oStream, nMaxDigits, nMagnitude);
}

void KelSkipLeadingSpace(std::istream& oStream)
{
    if (oStream.flags() & std::ios_base::skipws)
    {
        oStream >> std::ws;
        oStream.clear(oStream.rdstate() & ~std::ios_base::failbit);
    }
}

bool KelAtEnd(std::istream& oStream)
{
    using Traits = std::istream::traits_type;
    const bool bEnd = Traits::eq_int_type(oStream.peek(), Traits::eof());
    oStream.clear(oStream.rdstate() & ~std::ios_base::failbit);
    return bEnd;
}
