#include "OrvaneHexfile.h"

#include "TraceServer.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <istream>
#include <ostream>

namespace
{

constexpr unsigned char TRACE_CATEGORY = 3;
constexpr unsigned int TRACE_MASK = 0xFFFFFFFFu;
constexpr const char* TRACE_FILE = "OrvaneAPI/source/OrvaneHexfile";

constexpr std::size_t MAX_LINE_LENGTH = 1024;
constexpr uint32_t BYTES_PER_RECORD = 16;
constexpr uint64_t ADDRESS_SPACE = 0x100000000ull;
constexpr uint32_t DUMP_BYTES_PER_LINE = 16;

const char* const BINARY_REFUSED =
    "Data could not be saved in binary format because of StartAddress != 0 OR multiple blocks in hex data.\n\n";

// Callers build a trace text only when a viewer would receive it.
bool TraceActive(unsigned char nLevel)
{
    return CTraceServer::IsActive(nLevel, TRACE_CATEGORY, TRACE_MASK);
}

void Trace(unsigned char nLevel, unsigned short nLine, const char* pcText)
{
    CTraceServer::SendTraceMessage(nLevel, TRACE_CATEGORY, TRACE_MASK, nLine, TRACE_FILE, pcText, 0);
}

// Hex digit in either case; any other character counts as 0.
unsigned int HexDigit(char cDigit)
{
    if (cDigit >= '0' && cDigit <= '9')
        return static_cast<unsigned int>(cDigit - '0');
    if (cDigit >= 'a' && cDigit <= 'f')
        return static_cast<unsigned int>(cDigit - 'a' + 10);
    if (cDigit >= 'A' && cDigit <= 'F')
        return static_cast<unsigned int>(cDigit - 'A' + 10);
    return 0;
}

// The byte written as two digits at nPos; digits past the end count as 0.
unsigned char HexByte(const std::string& sLine, std::size_t nPos)
{
    const unsigned int nHigh = nPos < sLine.size() ? HexDigit(sLine[nPos]) : 0;
    const unsigned int nLow = nPos + 1 < sLine.size() ? HexDigit(sLine[nPos + 1]) : 0;
    return static_cast<unsigned char>(nHigh << 4 | nLow);
}

bool IsBlank(const std::string& sLine)
{
    return std::all_of(sLine.begin(), sLine.end(), [](char c) { return std::isspace(static_cast<unsigned char>(c)); });
}

// One line up to '\n' (not stored); characters past MAX_LINE_LENGTH are
// dropped. False when the input had nothing left.
bool ReadLine(std::istream& oInput, std::string& sLine)
{
    sLine.clear();
    std::streambuf* poBuffer = oInput.rdbuf();
    if (poBuffer == nullptr)
        return false;
    bool bAny = false;
    for (int nChar = poBuffer->sbumpc(); nChar != std::char_traits<char>::eof(); nChar = poBuffer->sbumpc())
    {
        bAny = true;
        if (nChar == '\n')
            return true;
        if (sLine.size() < MAX_LINE_LENGTH)
            sLine.push_back(static_cast<char>(nChar));
    }
    return bAny;
}

void AppendHex(std::string& sOut, uint32_t nValue, int nDigits)
{
    static const char kDigits[] = "0123456789ABCDEF";
    for (int nShift = (nDigits - 1) * 4; nShift >= 0; nShift -= 4)
        sOut.push_back(kDigits[(nValue >> nShift) & 0xF]);
}

uint64_t BlockEnd(const SMemoryBlock* poBlock)
{
    return static_cast<uint64_t>(poBlock->m_nStartAddress) + poBlock->m_nSize;
}

} // namespace

std::atomic<bool> COrvaneHexfile::m_bExtendedAddressSeen{false};

SMemoryBlock::SMemoryBlock(uint32_t nStartAddress, const unsigned char* pcData, uint32_t nSize)
    : m_nStartAddress(nStartAddress), m_nSize(pcData != nullptr ? nSize : 0),
      m_acData(pcData, pcData != nullptr ? pcData + nSize : pcData)
{
}

bool SMemoryBlock::operator==(const SMemoryBlock& oOther) const
{
    return m_nStartAddress == oOther.m_nStartAddress && m_nSize == oOther.m_nSize && m_acData == oOther.m_acData;
}

void CByteMap::SetByte(uint32_t nAddress, unsigned char nValue)
{
    const uint32_t nPage = nAddress & ~(PAGE_SIZE - 1);
    std::vector<std::pair<unsigned char, bool>>& aoPage = m_aoPages[nPage];
    if (aoPage.empty())
        aoPage.resize(PAGE_SIZE);
    aoPage[nAddress - nPage] = {nValue, true};
}

void CByteMap::Clear()
{
    m_aoPages.clear();
}

void CByteMap::ToMemoryBlocks(std::vector<SMemoryBlock*>& aoBlocks) const
{
    std::vector<unsigned char> acRun;
    uint64_t nRunStart = 0;
    auto flush = [&]() {
        if (!acRun.empty())
            aoBlocks.push_back(
                new SMemoryBlock(static_cast<uint32_t>(nRunStart), acRun.data(), static_cast<uint32_t>(acRun.size())));
        acRun.clear();
    };
    for (const auto& oPage : m_aoPages)
    {
        for (uint32_t i = 0; i < PAGE_SIZE; ++i)
        {
            if (!oPage.second[i].second)
            {
                flush();
                continue;
            }
            const uint64_t nAddress = static_cast<uint64_t>(oPage.first) + i;
            // A block's size is 32 bits: a run over the whole address space
            // is cut one byte short of it.
            if (nAddress != nRunStart + acRun.size() || acRun.size() == 0xFFFFFFFFu)
                flush();
            if (acRun.empty())
                nRunStart = nAddress;
            acRun.push_back(oPage.second[i].first);
        }
    }
    flush();
}

COrvaneHexfile::COrvaneHexfile() : m_nType(eDetect), m_nHighestAddress(0), m_nLowestStartAddress(0) {}

COrvaneHexfile::~COrvaneHexfile()
{
    ClearMemoryBlocks();
}

int COrvaneHexfile::LoadFile(const char* pcName, EType nType)
{
    ClearMemoryBlocks();
    m_nHighestAddress = 0;
    m_nLowestStartAddress = 0;
    m_sErrorMessage.clear();
    m_sFilename = pcName != nullptr ? pcName : "";
    m_nType = nType;

    std::ifstream oFile(m_sFilename, std::ios::in | std::ios::binary);
    if (!oFile.is_open())
    {
        m_sErrorMessage = "File <" + m_sFilename + "> could not be opened.";
        return HEXFILE_FILE_ERROR;
    }
    const int nResult = AnalizeFile(oFile, nType);
    if (nResult == 0 && m_nType == eBinary)
    {
        oFile.close();
        return LoadFileBinary(m_sFilename.c_str());
    }
    if (nResult == HEXFILE_INVALID_CHECKSUM)
        m_sErrorMessage = "File <" + m_sFilename + ">: checksum error.\n\n" + "\nIgnore error? ";
    return nResult;
}

int COrvaneHexfile::AnalizeFile(std::istream& oInput, EType nType)
{
    if (TraceActive(0x04))
        Trace(0x04, __LINE__, ("Datei " + m_sFilename + " wird geladen. ").c_str());

    std::string sLine;
    if (!ReadLine(oInput, sLine))
    {
        m_sErrorMessage = "Eingabe " + m_sFilename + " enthaelt keine Daten.";
        Trace(0x02, __LINE__, m_sErrorMessage.c_str());
        return HEXFILE_NO_DATA;
    }
    if (nType == eDetect)
        nType = sLine.empty() ? eBinary : sLine[0] == ':' ? eIntel : sLine[0] == 'S' ? eMotorola : eBinary;
    if (nType != eIntel && nType != eMotorola && nType != eBinary)
    {
        m_sErrorMessage = "Inputfile format is not supported (use Intel or Motorola).";
        return HEXFILE_NOT_SUPPORTED;
    }
    m_nType = nType;
    if (nType == eBinary)
        return 0;

    int nResult = 0;
    std::vector<SMemoryBlock*> aoBlocks;
    {
        CByteMap oMap;
        uint32_t nBase = 0;
        Trace(0x10, __LINE__, "start reading input lines.");
        do
        {
            if (!sLine.empty() && sLine.back() == '\r')
                sLine.pop_back();
            const int nLineResult =
                nType == eIntel ? AnalizeLineIntel(sLine, oMap, nBase) : AnalizeLineMotorola(sLine, oMap);
            if (nLineResult != 0)
                nResult = nLineResult;
        } while (ReadLine(oInput, sLine));
        Trace(0x10, __LINE__, "reading input lines completed.");
        oMap.ToMemoryBlocks(aoBlocks);
        Trace(0x10, __LINE__, "input lines converted to internal data structure.");
    }
    Trace(0x10, __LINE__, "internal byte map is destructed.");
    for (SMemoryBlock* poBlock : aoBlocks)
        MergeBlock(poBlock);
    return nResult;
}

int COrvaneHexfile::AnalizeLineIntel(const std::string& sLine, CByteMap& oMap, uint32_t& nBase)
{
    if (sLine.empty() || sLine[0] == ';')
        return 0;
    if (sLine[0] != ':' || sLine.size() < 11)
        return IsBlank(sLine) ? 0 : LineError(HEXFILE_INVALID_FORMAT, "Invalid format in data line: ", sLine);

    const unsigned int nCount = HexByte(sLine, 1);
    const unsigned int nAddressHigh = HexByte(sLine, 3);
    const unsigned int nAddressLow = HexByte(sLine, 5);
    const unsigned int nRecordType = HexByte(sLine, 7);
    if (2 * nCount + 11 > sLine.size())
        return LineError(HEXFILE_INVALID_FORMAT, "Invalid format in data line: ", sLine);

    const std::size_t nDataPos = 9;
    const uint32_t nAddress = nAddressHigh << 8 | nAddressLow;
    switch (nRecordType)
    {
    case 0: // data
        for (unsigned int i = 0; i < nCount; ++i)
        {
            const uint32_t nByteAddress = nBase + nAddress + i; // wraps at 4 GiB
            oMap.SetByte(nByteAddress, HexByte(sLine, nDataPos + 2 * i));
            RaiseHighestAddress(nByteAddress);
        }
        break;
    case 1: // end of file
    case 5: // start linear address: only part of the checksum
        break;
    case 2: // extended segment address
    case 4: // extended linear address
    {
        if (nCount != 2)
            return LineError(HEXFILE_INVALID_FORMAT, "Invalid format in data line: ", sLine);
        const uint32_t nValue = static_cast<uint32_t>(HexByte(sLine, nDataPos)) << 8 | HexByte(sLine, nDataPos + 2);
        nBase = nRecordType == 4 ? nValue << 16 : nValue * 16;
        // The first-time flag belongs to the process, not to this file.
        const bool bFirst = !m_bExtendedAddressSeen.exchange(true);
        if (bFirst || nBase < m_nLowestStartAddress)
            m_nLowestStartAddress = nBase;
        break;
    }
    default: // 3 (start segment address) is refused on purpose, like 6 and above
        return LineError(HEXFILE_INVALID_RECORD_TYPE, "Invalid record type in data line: ", sLine);
    }

    unsigned int nSum = nCount + nAddressHigh + nAddressLow + nRecordType;
    for (unsigned int i = 0; i < nCount; ++i)
        nSum += HexByte(sLine, nDataPos + 2 * i);
    if (((0x100 - (nSum & 0xFF)) & 0xFF) != HexByte(sLine, nDataPos + 2 * nCount))
    {
        // The line's bytes stay in the map: the caller decides whether to keep them.
        const int nCode = LineError(HEXFILE_INVALID_CHECKSUM, "Invalid checksum in data line: ", sLine);
        std::fwrite(m_sErrorMessage.data(), 1, m_sErrorMessage.size(), stdout);
        std::fputc('\n', stdout);
        return nCode;
    }
    return 0;
}

int COrvaneHexfile::AnalizeLineMotorola(const std::string& sLine, CByteMap& oMap)
{
    if (sLine.empty())
        return 0;
    if (sLine[0] != 'S' || sLine.size() < 8)
        return IsBlank(sLine) ? 0 : LineError(HEXFILE_INVALID_FORMAT, "Invalid format in data line: ", sLine);

    uint32_t nAddressBytes = 0;
    switch (sLine[1])
    {
    case '1':
    case '2':
    case '3':
        nAddressBytes = static_cast<uint32_t>(sLine[1] - '0') + 1;
        break;
    case '0':
    case '7':
    case '8':
    case '9':
        if (TraceActive(0x08))
            Trace(0x08, __LINE__, ("Ignored S-record format: " + sLine).c_str());
        return 0;
    case '5':
        if (TraceActive(0x02))
            Trace(0x02, __LINE__, ("Not supported S-record format: " + sLine).c_str());
        return 0;
    default:
        return LineError(HEXFILE_INVALID_RECORD_TYPE, "Invalid record type in data line: ", sLine);
    }

    const uint32_t nCount = HexByte(sLine, 2);
    if (2 * nCount + 4 > sLine.size())
        return LineError(HEXFILE_INVALID_FORMAT, "Invalid format in data line (line length): ", sLine);
    uint32_t nAddress = 0;
    for (uint32_t i = 0; i < nAddressBytes; ++i)
        nAddress = nAddress << 8 | HexByte(sLine, 4 + 2 * i);
    // The count covers address, data and checksum; the data follow the address.
    const std::size_t nDataPos = 4 + 2 * nAddressBytes;
    const uint32_t nDataBytes = nCount > nAddressBytes + 1 ? nCount - nAddressBytes - 1 : 0;
    for (uint32_t i = 0; i < nDataBytes; ++i)
    {
        const uint32_t nByteAddress = nAddress + i; // wraps at 4 GiB
        oMap.SetByte(nByteAddress, HexByte(sLine, nDataPos + 2 * i));
        RaiseHighestAddress(nByteAddress);
    }
    return 0;
}

int COrvaneHexfile::LoadFileBinary(const char* pcName)
{
    const std::string sName = pcName != nullptr ? pcName : "";
    std::ifstream oFile(sName, std::ios::in | std::ios::binary);
    if (!oFile.is_open())
    {
        m_sErrorMessage = "File <" + sName + ">: could not be opened.\n\n";
        return HEXFILE_FILE_ERROR;
    }
    oFile.seekg(0, std::ios::end);
    const std::streamoff nLength = oFile.tellg();
    oFile.seekg(0, std::ios::beg);
    if (nLength < 0 || !oFile)
    {
        m_sErrorMessage = "File <" + sName + ">: could not be opened.\n\n";
        return HEXFILE_FILE_ERROR;
    }
    if (static_cast<uint64_t>(nLength) >= ADDRESS_SPACE)
    {
        m_sErrorMessage = "File <" + sName + ">: larger than the 32-bit address space.\n\n";
        return HEXFILE_NOT_SUPPORTED;
    }
    if (nLength == 0)
    {
        m_sErrorMessage = "Eingabe " + sName + " enthaelt keine Daten.";
        return HEXFILE_NO_DATA;
    }
    std::vector<unsigned char> acData(static_cast<std::size_t>(nLength));
    if (!oFile.read(reinterpret_cast<char*>(acData.data()), nLength))
    {
        m_sErrorMessage = "File <" + sName + ">: could not be opened.\n\n";
        return HEXFILE_FILE_ERROR;
    }
    m_nType = eBinary;
    RaiseHighestAddress(static_cast<uint32_t>(nLength - 1));
    return MergeBlock(new SMemoryBlock(0, acData.data(), static_cast<uint32_t>(nLength)));
}

int COrvaneHexfile::SaveFile(const char* pcName, EType nType)
{
    const std::string sName = pcName != nullptr ? pcName : "";
    // Refused before opening, so an existing file is not truncated for nothing.
    if (nType != eIntel && nType != eMotorola && !CanSaveBinary())
    {
        m_sErrorMessage = BINARY_REFUSED;
        return HEXFILE_NOT_SUPPORTED;
    }
    std::ofstream oFile(sName, std::ios::out | std::ios::trunc | std::ios::binary);
    int nResult = HEXFILE_FILE_ERROR;
    if (oFile.is_open())
    {
        nResult = nType == eIntel ? SaveAsFileIntel(oFile)
            : nType == eMotorola  ? SaveAsFileMotorola(oFile)
                                  : SaveAsFileBinary(oFile);
        oFile.close();
        if (nResult == 0 && oFile.fail())
            nResult = HEXFILE_FILE_ERROR;
    }
    if (nResult == HEXFILE_FILE_ERROR)
        m_sErrorMessage = "File " + sName + " could not be saved.\n\n";
    return nResult;
}

int COrvaneHexfile::SaveAsFileIntel(std::ostream& oOutput) const
{
    uint32_t nUpper = 0;
    std::string sLine;
    for (const SMemoryBlock* poBlock : m_aoMemoryBlocks)
    {
        for (uint32_t nOffset = 0; nOffset < poBlock->m_nSize; nOffset += BYTES_PER_RECORD)
        {
            // Records follow the block's start, so one may run across a
            // 64 KiB boundary: readers add its offset to the base unwrapped.
            const uint32_t nAddress = poBlock->m_nStartAddress + nOffset;
            const uint32_t nLength = std::min(BYTES_PER_RECORD, poBlock->m_nSize - nOffset);
            if (nAddress >> 16 != nUpper)
            {
                nUpper = nAddress >> 16;
                sLine = ":02000004";
                AppendHex(sLine, nUpper, 4);
                AppendHex(sLine, (0x100 - ((6 + (nUpper >> 8) + nUpper) & 0xFF)) & 0xFF, 2);
                oOutput << sLine << '\n';
            }
            sLine = ":";
            AppendHex(sLine, nLength, 2);
            AppendHex(sLine, nAddress & 0xFFFF, 4);
            sLine += "00";
            uint32_t nSum = nLength + ((nAddress >> 8) & 0xFF) + (nAddress & 0xFF);
            for (uint32_t i = 0; i < nLength; ++i)
            {
                const unsigned char nByte = poBlock->m_acData[nOffset + i];
                AppendHex(sLine, nByte, 2);
                nSum += nByte;
            }
            AppendHex(sLine, (0x100 - (nSum & 0xFF)) & 0xFF, 2);
            oOutput << sLine << '\n';
        }
    }
    oOutput << ":00000001FF\n";
    return oOutput.good() ? 0 : HEXFILE_FILE_ERROR;
}

int COrvaneHexfile::SaveAsFileMotorola(std::ostream& oOutput) const
{
    std::string sLine;
    for (const SMemoryBlock* poBlock : m_aoMemoryBlocks)
    {
        for (uint32_t nOffset = 0; nOffset < poBlock->m_nSize; nOffset += BYTES_PER_RECORD)
        {
            const uint32_t nAddress = poBlock->m_nStartAddress + nOffset;
            const uint32_t nLength = std::min(BYTES_PER_RECORD, poBlock->m_nSize - nOffset);
            const uint32_t nAddressBytes = nAddress <= 0xFFFF ? 2 : nAddress <= 0xFFFFFF ? 3 : 4;
            const uint32_t nCount = nLength + nAddressBytes + 1;
            sLine = nAddressBytes == 2 ? "S1" : nAddressBytes == 3 ? "S2" : "S3";
            AppendHex(sLine, nCount, 2);
            AppendHex(sLine, nAddress, static_cast<int>(2 * nAddressBytes));
            uint32_t nSum = nCount;
            for (uint32_t i = 0; i < nAddressBytes; ++i)
                nSum += (nAddress >> (8 * i)) & 0xFF;
            for (uint32_t i = 0; i < nLength; ++i)
            {
                const unsigned char nByte = poBlock->m_acData[nOffset + i];
                AppendHex(sLine, nByte, 2);
                nSum += nByte;
            }
            AppendHex(sLine, ~nSum & 0xFF, 2);
            oOutput << sLine << '\n';
        }
    }
    return oOutput.good() ? 0 : HEXFILE_FILE_ERROR;
}

int COrvaneHexfile::SaveAsFileBinary(std::ostream& oOutput)
{
    if (!CanSaveBinary())
    {
        m_sErrorMessage = BINARY_REFUSED;
        return HEXFILE_NOT_SUPPORTED;
    }
    const SMemoryBlock* poBlock = m_aoMemoryBlocks.front();
    oOutput.write(reinterpret_cast<const char*>(poBlock->m_acData.data()),
                  static_cast<std::streamsize>(poBlock->m_nSize));
    return oOutput.good() ? 0 : HEXFILE_FILE_ERROR;
}

bool COrvaneHexfile::CanSaveBinary() const
{
    // The block's own address is tested too: after a load the lowest start
    // address comes from the extended address records, and a file may have none.
    return m_aoMemoryBlocks.size() == 1 && m_nLowestStartAddress == 0 && m_aoMemoryBlocks.front()->m_nStartAddress == 0;
}

int COrvaneHexfile::AddMemoryBlock(SMemoryBlock* poBlock)
{
    if (poBlock == nullptr || poBlock->m_nSize != poBlock->m_acData.size())
    {
        delete poBlock;
        m_sErrorMessage = "Invalid memory block.";
        return HEXFILE_INVALID_PARAMETER;
    }
    if (poBlock->m_nSize == 0)
    {
        delete poBlock;
        return 0;
    }
    if (BlockEnd(poBlock) > ADDRESS_SPACE)
    {
        char acText[128];
        std::snprintf(acText, sizeof acText, "Memory block at 0x%08X with %u byte runs past address 0xFFFFFFFF.",
                      poBlock->m_nStartAddress, poBlock->m_nSize);
        delete poBlock;
        m_sErrorMessage = acText;
        return HEXFILE_INVALID_PARAMETER;
    }
    const int nResult = MergeBlock(poBlock);
    RecalcMinMax();
    return nResult;
}

int COrvaneHexfile::AddMemoryBlock(uint32_t nStartAddress, const unsigned char* pcData, uint32_t nSize)
{
    if (pcData == nullptr && nSize != 0)
    {
        m_sErrorMessage = "Invalid memory block.";
        return HEXFILE_INVALID_PARAMETER;
    }
    return AddMemoryBlock(new SMemoryBlock(nStartAddress, pcData, nSize));
}

int COrvaneHexfile::SetDataByte(uint32_t nAddress, unsigned char nValue)
{
    return AddMemoryBlock(nAddress, &nValue, 1);
}

int COrvaneHexfile::GetDataByte(uint32_t nAddress) const
{
    // The last block starting at or below the address.
    auto it = std::upper_bound(
        m_aoMemoryBlocks.begin(), m_aoMemoryBlocks.end(), nAddress,
        [](uint32_t nValue, const SMemoryBlock* poBlock) { return nValue < poBlock->m_nStartAddress; });
    if (it == m_aoMemoryBlocks.begin())
        return -1;
    const SMemoryBlock* poBlock = *(it - 1);
    if (nAddress >= BlockEnd(poBlock))
        return -1;
    return poBlock->m_acData[nAddress - poBlock->m_nStartAddress];
}

int COrvaneHexfile::MergeBlock(SMemoryBlock* poBlock)
{
    const uint64_t nNewStart = poBlock->m_nStartAddress;
    const uint64_t nNewEnd = BlockEnd(poBlock);
    // Blocks are disjoint and sorted, so their ends are sorted too: the first
    // one ending at or after the new start is the first to overlap or touch.
    auto itFirst =
        std::lower_bound(m_aoMemoryBlocks.begin(), m_aoMemoryBlocks.end(), nNewStart,
                         [](const SMemoryBlock* poOld, uint64_t nValue) { return BlockEnd(poOld) < nValue; });
    auto itLast = itFirst;
    while (itLast != m_aoMemoryBlocks.end() && (*itLast)->m_nStartAddress <= nNewEnd)
        ++itLast;
    if (itFirst == itLast)
    {
        m_aoMemoryBlocks.insert(itFirst, poBlock);
        return 0;
    }

    const uint64_t nStart = std::min<uint64_t>(nNewStart, (*itFirst)->m_nStartAddress);
    const uint64_t nEnd = std::max(nNewEnd, BlockEnd(*(itLast - 1)));
    if (nEnd - nStart > 0xFFFFFFFFu)
    {
        delete poBlock;
        m_sErrorMessage = "Memory blocks cannot be merged beyond a size of 4 GiB.";
        return HEXFILE_INVALID_PARAMETER;
    }
    std::vector<unsigned char> acData(static_cast<std::size_t>(nEnd - nStart));
    for (auto it = itFirst; it != itLast; ++it)
    {
        std::copy((*it)->m_acData.begin(), (*it)->m_acData.end(), acData.begin() + ((*it)->m_nStartAddress - nStart));
        delete *it;
    }
    std::copy(poBlock->m_acData.begin(), poBlock->m_acData.end(), acData.begin() + (nNewStart - nStart));
    delete poBlock;
    const auto itAt = m_aoMemoryBlocks.erase(itFirst, itLast);
    m_aoMemoryBlocks.insert(
        itAt, new SMemoryBlock(static_cast<uint32_t>(nStart), acData.data(), static_cast<uint32_t>(acData.size())));
    return 0;
}

void COrvaneHexfile::RecalcMinMax()
{
    m_nLowestStartAddress = m_aoMemoryBlocks.empty() ? 0 : m_aoMemoryBlocks.front()->m_nStartAddress;
    m_nHighestAddress = m_aoMemoryBlocks.empty() ? 0 : static_cast<uint32_t>(BlockEnd(m_aoMemoryBlocks.back()) - 1);
}

void COrvaneHexfile::ClearMemoryBlocks()
{
    for (SMemoryBlock* poBlock : m_aoMemoryBlocks)
        delete poBlock;
    m_aoMemoryBlocks.clear();
}

uint64_t COrvaneHexfile::GetTotalBytes() const
{
    uint64_t nTotal = 0;
    for (const SMemoryBlock* poBlock : m_aoMemoryBlocks)
        nTotal += poBlock->m_nSize;
    return nTotal;
}

std::string COrvaneHexfile::GetSizeString(int nBytes)
{
    if (nBytes % 1024 == 0)
        return std::to_string(nBytes / 1024) + " kbyte";
    return std::to_string(nBytes) + " byte";
}

std::string COrvaneHexfile::MemDumpLine(uint32_t nAddress) const
{
    static const char kDigits[] = "0123456789abcdef";
    std::string sLine = "0x";
    for (int nShift = 28; nShift >= 0; nShift -= 4)
        sLine.push_back(kDigits[(nAddress >> nShift) & 0xF]);
    sLine.push_back(' ');
    std::string sChars;
    for (uint32_t i = 0; i < DUMP_BYTES_PER_LINE; ++i)
    {
        const uint64_t nByteAddress = static_cast<uint64_t>(nAddress) + i;
        const int nByte = nByteAddress < ADDRESS_SPACE ? GetDataByte(static_cast<uint32_t>(nByteAddress)) : -1;
        if (nByte < 0)
        {
            sLine += "-- ";
            sChars.push_back(' ');
        }
        else
        {
            sLine.push_back(kDigits[nByte >> 4]);
            sLine.push_back(kDigits[nByte & 0xF]);
            sLine.push_back(' ');
            sChars.push_back(std::isprint(nByte) ? static_cast<char>(nByte) : '.');
        }
        if (i == DUMP_BYTES_PER_LINE / 2 - 1)
            sLine.push_back(' ');
    }
    return sLine + sChars;
}

uint32_t COrvaneHexfile::GetNumberOfBytesNeedForLine()
{
    // "0x", 8 digits, blank, 16 columns of 3, the middle blank, 16 characters, line end.
    return 2 + 8 + 1 + 3 * DUMP_BYTES_PER_LINE + 1 + DUMP_BYTES_PER_LINE + 1;
}

std::string COrvaneHexfile::MemDump(uint32_t nAddress, uint32_t nLength) const
{
    const uint64_t nEnd = static_cast<uint64_t>(nAddress) + nLength;
    std::string sDump;
    uint64_t nNextLine = 0; // lines below this one are already written
    for (const SMemoryBlock* poBlock : m_aoMemoryBlocks)
    {
        const uint64_t nFrom = std::max<uint64_t>(nAddress, poBlock->m_nStartAddress);
        const uint64_t nTo = std::min(nEnd, BlockEnd(poBlock));
        for (uint64_t nLine = std::max(nFrom & ~uint64_t(DUMP_BYTES_PER_LINE - 1), nNextLine); nLine < nTo;
             nLine += DUMP_BYTES_PER_LINE)
        {
            sDump += MemDumpLine(static_cast<uint32_t>(nLine));
            sDump.push_back('\n');
            nNextLine = nLine + DUMP_BYTES_PER_LINE;
        }
    }
    return sDump;
}

int COrvaneHexfile::GetPrintDump(char* pcBuffer, uint32_t nBufferSize, uint32_t nAddress, uint32_t nLength)
{
    if (pcBuffer == nullptr || nBufferSize == 0)
    {
        m_sErrorMessage = "No buffer for the dump.";
        return HEXFILE_INVALID_PARAMETER;
    }
    const std::string sDump = MemDump(nAddress, nLength);
    std::size_t nCopy = sDump.size();
    if (nCopy >= nBufferSize)
    {
        // Whole lines only: cut after the last line end that fits with the NUL.
        const std::size_t nLastEnd = nBufferSize >= 2 ? sDump.rfind('\n', nBufferSize - 2) : std::string::npos;
        nCopy = nLastEnd != std::string::npos ? nLastEnd + 1 : 0;
    }
    sDump.copy(pcBuffer, nCopy);
    pcBuffer[nCopy] = '\0';
    if (nCopy < sDump.size())
    {
        m_sErrorMessage = "The dump needs " + std::to_string(sDump.size() + 1) + " bytes of buffer.";
        return HEXFILE_BUFFER_TOO_SMALL;
    }
    return 0;
}

int COrvaneHexfile::LineError(int nCode, const char* pcText, const std::string& sLine)
{
    m_sErrorMessage = pcText + sLine;
    std::replace(m_sErrorMessage.begin(), m_sErrorMessage.end(), '\0', '.');
    return nCode;
}

void COrvaneHexfile::RaiseHighestAddress(uint32_t nAddress)
{
    if (nAddress > m_nHighestAddress)
        m_nHighestAddress = nAddress;
}
