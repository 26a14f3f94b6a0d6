#include "OrvaneClientI2C.h"

#include "KelPayload.h"
#include "OrvaneProtocol.h"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <vector>

using namespace OrvaneI2C;

namespace
{

// Level of the transfer traces.
constexpr unsigned char TRACE_LEVEL_TRANSFER = 0x08;

// Bit mask 1 << n with the shift count taken modulo 32, as the processor
// takes it.
unsigned int Bit(unsigned int nShift)
{
    return 1u << (nShift & 31u);
}

unsigned int ShiftRight(unsigned int nValue, int nShift)
{
    return nValue >> (static_cast<unsigned int>(nShift) & 31u);
}

void CopyOut(char* pcTarget, const std::string& sBytes)
{
    if (!sBytes.empty())
        std::memcpy(pcTarget, sBytes.data(), sBytes.size());
}

} // namespace

COrvaneClientI2C::COrvaneClientI2C(int nTimeout)
    : COrvaneClient(eOrvaneI2C, static_cast<unsigned int>(nTimeout)), m_nBaudrate(100000)
{
}

COrvaneClientI2C::~COrvaneClientI2C()
{
    ShutdownConnection();
}

int COrvaneClientI2C::Open(unsigned int nRate)
{
    const int nRet = COrvaneClient::Open();
    return nRet != ORVANE_OK ? nRet : SetBaudrate(nRate);
}

int COrvaneClientI2C::SetBaudrate(unsigned int nRate)
{
    if (nRate == 100 || nRate == 400)
        nRate *= 1000;
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(
        eCmdSetBaudrate, CKelPayloadWriter().U32(nRate).Data(), "SET GLOBALS",
        [nRate](std::string& sText) { sText += ",Baudrate=" + std::to_string(nRate); }, oCnf);
    if (nRet == ORVANE_OK)
        m_nBaudrate.store(nRate, std::memory_order_relaxed);
    return nRet;
}

int COrvaneClientI2C::GetBaudrate(unsigned int& nRate)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nSent = SendRequest(eCmdGetBaudrate, std::string(), "GET GLOBALS", NoParams, oCnf);
    if (nSent != ORVANE_OK)
        return nSent;
    nRate = CKelPayloadReader(oCnf->GetData()).U32(1);
    const int nRet = GetCnfRetCode(*oCnf);
    if (nRet == ORVANE_OK)
        m_nBaudrate.store(nRate, std::memory_order_relaxed);
    return nRet;
}

int COrvaneClientI2C::Read(unsigned short nSlave, char* pcBuffer, unsigned short nCount, unsigned short& nReceived)
{
    nReceived = 0;
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nSent = SendRequest(
        eCmdRead, CKelPayloadWriter().U16(nSlave).U16(nCount).Data(), "READ",
        [nSlave](std::string& sText) { sText += ",slave address=0x" + HexText(nSlave); }, oCnf, nullptr,
        TRACE_LEVEL_TRANSFER);
    if (nSent != ORVANE_OK)
        return nSent;
    const std::string sData = CKelPayloadReader(oCnf->GetData()).Bytes(1, nCount);
    nReceived = static_cast<unsigned short>(sData.size());
    CopyOut(pcBuffer, sData);
    return GetCnfRetCode(*oCnf);
}

int COrvaneClientI2C::Write(unsigned short nSlave, const char* pcData, unsigned short nCount, unsigned short& nStatus)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nSent = SendRequest(
        eCmdWrite, CKelPayloadWriter().U16(nSlave).Bytes(pcData, nCount).Data(), "WRITE",
        [nSlave](std::string& sText) { sText += ",slave address=0x" + HexText(nSlave); }, oCnf, nullptr,
        TRACE_LEVEL_TRANSFER);
    if (nSent != ORVANE_OK)
        return nSent;
    if (oCnf->GetData().size() > 2)
        nStatus = CKelPayloadReader(oCnf->GetData()).U16(1);
    return GetCnfRetCode(*oCnf);
}

int COrvaneClientI2C::Reset()
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(eCmdReset, std::string(), "RESET", NoParams, oCnf, nullptr, TRACE_LEVEL_TRANSFER);
}

int COrvaneClientI2C::RAWStart()
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(eCmdRawStart, std::string(), "RAW_START", NoParams, oCnf, nullptr, TRACE_LEVEL_TRANSFER);
}

int COrvaneClientI2C::RAWSend(unsigned char nFirst, unsigned char nSecond)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(eCmdRawSend, CKelPayloadWriter().U8(nFirst).U8(nSecond).Data(), "RAW_SEND", NoParams, oCnf, nullptr,
                   TRACE_LEVEL_TRANSFER);
}

int COrvaneClientI2C::RAWGet(unsigned char nFirst, unsigned char& nValue)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(eCmdRawGet, CKelPayloadWriter().U8(nFirst).Data(), "RAW_GET", NoParams, oCnf, nullptr,
                             TRACE_LEVEL_TRANSFER);
    if (nRet == ORVANE_OK && oCnf->GetData().size() > 1)
        nValue = CKelPayloadReader(oCnf->GetData()).U8(1);
    return nRet;
}

int COrvaneClientI2C::RAWStop()
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(eCmdRawStop, std::string(), "RAW_STOP", NoParams, oCnf, nullptr, TRACE_LEVEL_TRANSFER);
}

int COrvaneClientI2C::WriteSequence(const char* pcSequence, unsigned short nSequenceLength, char* pcReadBuffer,
                                    unsigned short nReadBufferSize, unsigned short& nReadCount, unsigned short& nStatus)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nSent =
        SendRequest(eCmdSequence, CKelPayloadWriter().U16(nReadBufferSize).Bytes(pcSequence, nSequenceLength).Data(),
                    "SEQUENCE", NoParams, oCnf, nullptr, TRACE_LEVEL_TRANSFER);
    if (nSent != ORVANE_OK)
        return nSent;
    const CKelPayloadReader oData(oCnf->GetData());
    if (oData.Size() > 2)
        nStatus = oData.U16(1);
    // Data read start behind the result byte and the status word.
    const std::string sRead = oData.Bytes(3, nReadBufferSize);
    nReadCount = static_cast<unsigned short>(sRead.size());
    CopyOut(pcReadBuffer, sRead);
    return GetCnfRetCode(*oCnf);
}

int COrvaneClientI2C::WriteSequence(I2CCommand* poCommands, unsigned short nCommandCount, unsigned short& nStatus)
{
    CKelPayloadWriter oSequence;
    std::size_t nReadSize = 0;
    for (unsigned short i = 0; i < nCommandCount; ++i)
    {
        const I2CCommand& oCommand = poCommands[i];
        oSequence.U16(oCommand.m_nAddress).U16(oCommand.m_nLength);
        if ((oCommand.m_nAddress & 1) == 0)
            oSequence.Bytes(oCommand.m_pcData, oCommand.m_nLength);
        else
            nReadSize += oCommand.m_nLength;
    }
    if (oSequence.Size() > 0xFFFF || nReadSize > 0xFFFF)
        return ORVANE_ERR_INVALID_PARAMETER;

    std::vector<char> acRead(nReadSize);
    unsigned short nReadCount = 0;
    const int nRet = WriteSequence(oSequence.Data().data(), static_cast<unsigned short>(oSequence.Size()),
                                   acRead.data(), static_cast<unsigned short>(nReadSize), nReadCount, nStatus);
    // Each read command takes its bytes from the start of what was read.
    unsigned int nRemaining = nReadCount;
    for (unsigned short i = 0; i < nCommandCount; ++i)
    {
        I2CCommand& oCommand = poCommands[i];
        if ((oCommand.m_nAddress & 1) == 0)
            continue;
        const unsigned int nCopy = std::min<unsigned int>(nRemaining, oCommand.m_nLength);
        if (nCopy > 0)
            std::memcpy(oCommand.m_pcData, acRead.data(), nCopy);
        nRemaining -= nCopy;
    }
    return nRet;
}

int COrvaneClientI2C::ReadEEProm(unsigned short nChip, unsigned int nAddress, unsigned short nFormat, char* pcBuffer,
                                 unsigned short nCount, unsigned short& nReceived)
{
    nReceived = 0;
    const unsigned short nSlave = GetEEPROMSlaveAddress(nChip, nAddress, nFormat);
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nSent = SendRequest(
        eCmdReadEEProm, CKelPayloadWriter().Bytes(EEPromHeader(nChip, nAddress, nFormat)).U16(nCount).Data(),
        "READ EEPROM",
        [nChip, nSlave](std::string& sText) {
            sText += ",chip address=" + std::to_string(nChip) + ",slave address=0x" + HexText(nSlave);
        },
        oCnf, nullptr, TRACE_LEVEL_TRANSFER);
    if (nSent != ORVANE_OK)
        return nSent;
    const CKelPayloadReader oData(oCnf->GetData());
    const unsigned short nData = static_cast<unsigned short>(oData.Size() - 1);
    // A confirmation two bytes longer than asked carries a 16-bit word in
    // front of the data.
    const std::size_t nStart = nData == static_cast<unsigned short>(nCount + 2) ? 3 : 1;
    const std::string sRead = oData.Size() > 0 ? oData.Bytes(nStart, std::min(nCount, nData)) : std::string();
    nReceived = static_cast<unsigned short>(sRead.size());
    CopyOut(pcBuffer, sRead);
    return GetCnfRetCode(*oCnf);
}

int COrvaneClientI2C::WriteEEProm(unsigned short nChip, unsigned int nAddress, unsigned short nFormat,
                                  const char* pcData, unsigned short nCount)
{
    const unsigned short nSlave = GetEEPROMSlaveAddress(nChip, nAddress, nFormat);
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(
        eCmdWriteEEProm, CKelPayloadWriter().Bytes(EEPromHeader(nChip, nAddress, nFormat)).Bytes(pcData, nCount).Data(),
        "WRITE EEPROM",
        [nChip, nSlave](std::string& sText) {
            sText += ",chip address=" + std::to_string(nChip) + ",slave address=0x" + HexText(nSlave);
        },
        oCnf, nullptr, TRACE_LEVEL_TRANSFER);
}

int COrvaneClientI2C::WriteEEPromPollAck(unsigned short nChip, unsigned int nAddress, unsigned short nFormat,
                                         const char* pcData, unsigned short nCount, unsigned short nPoll)
{
    const unsigned short nSlave = GetEEPROMSlaveAddress(nChip, nAddress, nFormat);
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(
        eCmdWriteEEPromPoll,
        CKelPayloadWriter().Bytes(EEPromHeader(nChip, nAddress, nFormat, &nPoll)).Bytes(pcData, nCount).Data(),
        "WRITE EEPROM",
        [nChip, nSlave](std::string& sText) {
            sText += ",chip address=" + std::to_string(nChip) + ",slave address=0x" + HexText(nSlave);
        },
        oCnf, nullptr, TRACE_LEVEL_TRANSFER);
}

unsigned short COrvaneClientI2C::GetEEPROMSlaveAddress(unsigned short nChip, unsigned int nAddress,
                                                       unsigned short nFormat)
{
    const int nOffsetBits = std::min(nFormat & 0xFF, 16);
    const int nBlockBits = (nFormat & 0x300) >> 8;
    const unsigned int nBlockValue = nAddress &
        (Bit(static_cast<unsigned int>(nBlockBits + nOffsetBits)) - Bit(static_cast<unsigned int>(nOffsetBits)));
    unsigned int nSlave = 0xA0;
    switch (nFormat & 0x700)
    {
    case 0x000:
        nSlave |= (nChip & 7u) << 1 | ShiftRight(nBlockValue, nOffsetBits - 1);
        break;
    case 0x100:
        nSlave |= (nChip & 3u) << 2 | ShiftRight(nBlockValue, nOffsetBits - 1);
        break;
    case 0x200:
        nSlave |= (nChip & 1u) << 3 | ShiftRight(nBlockValue, nOffsetBits - 1);
        break;
    case 0x500:
        nSlave |= (nChip & 3u) << 1 | ShiftRight(nBlockValue, nOffsetBits - 3);
        break;
    case 0x600:
        nSlave |= (nChip & 1u) << 1 | ShiftRight(nBlockValue, nOffsetBits - 2);
        break;
    default:
        nSlave |= ShiftRight(nBlockValue, nOffsetBits - 1);
        break;
    }
    return static_cast<unsigned short>(nSlave);
}

std::string COrvaneClientI2C::ToOffset(unsigned int nAddress, unsigned short nFormat)
{
    const unsigned int nBlockBits = (nFormat & 0x300u) >> 8;
    const unsigned int nOffset = nAddress & (Bit((nFormat & 0xFFu) + nBlockBits) - 1);
    std::string sOffset(EEPROM_OFFSET_BYTES, '\0');
    for (unsigned int i = 0; i < EEPROM_OFFSET_BYTES; ++i)
        sOffset[i] = static_cast<char>(nOffset >> (8 * (EEPROM_OFFSET_BYTES - 1 - i)));
    return sOffset;
}

std::string COrvaneClientI2C::EEPromHeader(unsigned short nChip, unsigned int nAddress, unsigned short nFormat,
                                           const unsigned short* pnPoll)
{
    CKelPayloadWriter oHeader;
    oHeader.U16(GetEEPROMSlaveAddress(nChip, nAddress, nFormat));
    if (pnPoll != nullptr)
        oHeader.U16(*pnPoll);
    oHeader.U8((nFormat & 0xFF) < 9 ? 1 : 2).Bytes(ToOffset(nAddress, nFormat));
    return oHeader.Data();
}
