#include "KelStringFunc.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

namespace
{
constexpr unsigned int BYTES_PER_LINE = 16;
constexpr unsigned int BYTES_PER_HALF = 8;
constexpr unsigned int NO_LIMIT = 0xFFFFFFFF;

bool IsSpace(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool IsShown(unsigned char c)
{
    return (std::isalnum(c) || std::isprint(c)) && !std::iscntrl(c);
}

// Byte columns of one half line: "xx " per byte present, three blanks per missing one.
void AppendHalf(std::string& sLine, const unsigned char* pBytes, unsigned int nPresent)
{
    static const char s_acHex[] = "0123456789abcdef";
    for (unsigned int i = 0; i < BYTES_PER_HALF; ++i)
    {
        if (i < nPresent)
        {
            sLine += s_acHex[pBytes[i] >> 4];
            sLine += s_acHex[pBytes[i] & 0x0F];
            sLine += ' ';
        }
        else
        {
            sLine += "   ";
        }
    }
}
} // namespace

std::string KelMemDump(const void* pData, unsigned int nSize, unsigned int nHeadLines, unsigned int nTailLines)
{
    if (pData == nullptr)
    {
        return std::string();
    }
    std::ostringstream oHeader;
    oHeader << "Address: 0x" << pData << "  Length : 0x" << std::hex << nSize << '\n';
    std::string sDump = oHeader.str();

    const unsigned int nLines = nSize / BYTES_PER_LINE + (nSize % BYTES_PER_LINE != 0 ? 1 : 0);
    auto appendLine = [&](unsigned int nLine) {
        sDump += KelMemDumpLine(pData, nSize, nLine * BYTES_PER_LINE);
        sDump += '\n';
    };
    // The sum is taken in 64 bits so that one unlimited side cannot wrap it.
    const bool bAll = (nHeadLines == NO_LIMIT && nTailLines == NO_LIMIT) ||
        nLines <= static_cast<unsigned long long>(nHeadLines) + nTailLines;
    if (bAll)
    {
        for (unsigned int nLine = 0; nLine < nLines; ++nLine)
        {
            appendLine(nLine);
        }
        return sDump;
    }
    for (unsigned int nLine = 0; nLine < nHeadLines; ++nLine)
    {
        appendLine(nLine);
    }
    sDump += "...\n";
    for (unsigned int nLine = nLines - nTailLines; nLine < nLines; ++nLine)
    {
        appendLine(nLine);
    }
    return sDump;
}

std::string KelMemDumpLine(const void* pData, unsigned int nSize, unsigned int nOffset)
{
    const unsigned char* pBytes = static_cast<const unsigned char*>(pData);
    const unsigned int nLeft = (pData != nullptr && nOffset < nSize) ? nSize - nOffset : 0;
    const unsigned int nPresent = std::min(nLeft, BYTES_PER_LINE);
    const unsigned char* pLine = nPresent != 0 ? pBytes + nOffset : nullptr;

    char acOffset[16];
    std::snprintf(acOffset, sizeof acOffset, "0x%04x ", nOffset);
    std::string sLine(acOffset);
    sLine.reserve(sLine.size() + 3 * BYTES_PER_LINE + 1 + BYTES_PER_LINE);

    AppendHalf(sLine, pLine, std::min(nPresent, BYTES_PER_HALF));
    sLine += ' ';
    AppendHalf(sLine, pLine + (nPresent > BYTES_PER_HALF ? BYTES_PER_HALF : 0),
               nPresent > BYTES_PER_HALF ? nPresent - BYTES_PER_HALF : 0);
    for (unsigned int i = 0; i < nPresent; ++i)
    {
        sLine += IsShown(pLine[i]) ? static_cast<char>(pLine[i]) : '.';
    }
    return sLine;
}

void KelDeQuoteString(std::string& sText)
{
    if (sText.size() > 1 && sText.front() == '"' && sText.back() == '"')
    {
        sText = sText.substr(1, sText.size() - 2);
    }
}

void KelQuoteString(std::string& sText, bool bOnlyIfWhiteSpace)
{
    KelDeQuoteString(sText);
    if (bOnlyIfWhiteSpace && std::none_of(sText.begin(), sText.end(), IsSpace))
    {
        return;
    }
    sText = '"' + sText + '"';
}

std::string KelStrLTrim(const char* pcText)
{
    if (pcText == nullptr)
    {
        return std::string();
    }
    while (*pcText != '\0' && IsSpace(*pcText))
    {
        ++pcText;
    }
    return std::string(pcText);
}

std::string KelStrRTrim(const char* pcText)
{
    if (pcText == nullptr)
    {
        return std::string();
    }
    std::size_t nLength = std::strlen(pcText);
    while (nLength > 0 && IsSpace(pcText[nLength - 1]))
    {
        --nLength;
    }
    return std::string(pcText, nLength);
}

std::string KelStrTrim(const char* pcText)
{
    return KelStrLTrim(KelStrRTrim(pcText).c_str());
}

std::vector<std::string> KelGetParameterList(const char* pcText, char cSeparator)
{
    std::vector<std::string> asPieces;
    if (pcText == nullptr)
    {
        return asPieces;
    }
    std::string sPiece;
    for (; *pcText != '\0'; ++pcText)
    {
        if (*pcText == cSeparator)
        {
            asPieces.push_back(sPiece);
            sPiece.clear();
        }
        else
        {
            sPiece += *pcText;
        }
    }
    asPieces.push_back(sPiece);
    return asPieces;
}

std::string KelBigString(const std::string& sText)
{
    std::string sResult;
    sResult.reserve(sText.size() * 4);
    for (char c : sText)
    {
        sResult += c;
        sResult += " . ";
    }
    return sResult;
}
