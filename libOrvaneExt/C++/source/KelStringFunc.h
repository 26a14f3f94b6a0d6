// String helpers and the hexadecimal memory dump used by the trace texts.
//
// All helpers work on byte strings; white space is what std::isspace accepts
// in the current locale.
#ifndef ORVANE_KEL_STRING_FUNC_H
#define ORVANE_KEL_STRING_FUNC_H

#include <sstream>
#include <string>
#include <vector>

// Hex dump of nSize bytes: a header line
//   "Address: 0x<pointer as the stream prints it>  Length : 0x<size in hex>"
// (the stream's pointer format brings its own "0x", so the prefix stands
// twice), then one KelMemDumpLine per 16 bytes, each line ended by '\n'.
// When the dump has more than nHeadLines + nTailLines lines, only the first
// nHeadLines, a line "...", and the last nTailLines are written; 0xFFFFFFFF
// for both means no limit. A null pointer gives an empty string.
std::string KelMemDump(const void* pData, unsigned int nSize, unsigned int nHeadLines = 0xFFFFFFFF,
                       unsigned int nTailLines = 0xFFFFFFFF);

// One dump line (without line break) of up to 16 bytes from nOffset:
// "0x" + offset (hex, at least 4 digits) + " ", eight byte columns "xx " (or
// three blanks for a missing byte), one blank, the next eight columns, then
// the bytes present as characters, "." for those that are not printable.
std::string KelMemDumpLine(const void* pData, unsigned int nSize, unsigned int nOffset);

// Removes one pair of double quotes enclosing the whole string, if there is one.
void KelDeQuoteString(std::string& sText);
// Puts the string between double quotes (never doubling existing ones); with
// bOnlyIfWhiteSpace, only when it contains white space.
void KelQuoteString(std::string& sText, bool bOnlyIfWhiteSpace);

// Copies without leading / trailing / both kinds of white space; null gives "".
std::string KelStrLTrim(const char* pcText);
std::string KelStrRTrim(const char* pcText);
std::string KelStrTrim(const char* pcText);

// Splits at every separator: n separators give n + 1 pieces, empty pieces
// included, nothing trimmed. A null text gives no pieces.
std::vector<std::string> KelGetParameterList(const char* pcText, char cSeparator);

// Every character followed by " . " ("AB" gives "A . B . ").
std::string KelBigString(const std::string& sText);

// Text of a value as operator<< writes it.
template <class T>
std::string KelToString(const T& oValue)
{
    std::ostringstream oStream;
    oStream << oValue;
    return oStream.str();
}

// Reads a value with operator>>; true when the whole text (leading white
// space aside) was one value, else oValue is left unchanged.
template <class T>
bool KelFromString(T& oValue, const std::string& sText)
{
    std::istringstream oStream(sText);
    T oRead{};
    if (!(oStream >> oRead))
    {
        return false;
    }
    if (oStream.peek() != std::istringstream::traits_type::eof())
    {
        return false;
    }
    oValue = oRead;
    return true;
}

// A string takes the whole text as it is.
template <>
inline bool KelFromString<std::string>(std::string& sValue, const std::string& sText)
{
    sValue = sText;
    return true;
}

// The same for a zero-terminated text; null gives false.
template <class T>
bool KelFromString(T& oValue, const char* pcText)
{
    return pcText != nullptr && KelFromString(oValue, std::string(pcText));
}

#endif // ORVANE_KEL_STRING_FUNC_H
