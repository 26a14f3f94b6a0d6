// Small reading helpers shared by the text parsers of the time classes.
//
// They read character by character from a std::istream, so a value can be
// parsed in place from a stream (operator>>) as well as from a whole string.
// None of them throws; a failed read leaves the stream position after the
// characters that were consumed and reports false, and the caller sets failbit.
#ifndef ORVANE_STREAM_EXTENSION_H
#define ORVANE_STREAM_EXTENSION_H

#include <istream>

// Reads between 1 and nMaxDigits decimal digits into nValue. false when no
// digit is there or the value does not fit into 64 bits. nDigits (optional)
// receives the number of digits read.
bool KelReadDigits(std::istream& oStream, unsigned int nMaxDigits, unsigned long long& nValue,
                   unsigned int* pnDigits = nullptr);

// Consumes the next character when it equals c; false (nothing consumed) otherwise.
bool KelTryChar(std::istream& oStream, char c);

// Reads a fraction of a second given after a decimal point: 1 to 8 digits,
// returned in 10-nanosecond units (".5" gives 50,000,000).
bool KelReadFraction(std::istream& oStream, unsigned long long& nUnits);

// Reads the sign and then the decimal digits of a whole number that may be
// negative ("-12", "7"); nMagnitude holds the digits, bNegative the sign.
bool KelReadSignedDigits(std::istream& oStream, unsigned int nMaxDigits, bool& bNegative,
                         unsigned long long& nMagnitude);

// Skips leading white space when the stream asks for it (std::skipws).
void KelSkipLeadingSpace(std::istream& oStream);

// True when the text was read up to its end with nothing left over.
bool KelAtEnd(std::istream& oStream);

#endif // ORVANE_STREAM_EXTENSION_H
