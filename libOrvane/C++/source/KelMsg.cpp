#include "KelMsg.h"

#include "KelByteOrder.h"

#include <cstring>

CKelMsg::CKelMsg() : m_nLength(0), m_nCommand(0), m_nNumber(0), m_nCRC(0) {}

CKelMsg::CKelMsg(unsigned short nCommand, unsigned short nNumber, const char* pcData, unsigned short nDataLength)
    : CKelMsg()
{
    SetMessage(nCommand, nNumber, pcData, nDataLength);
}

CKelMsg::CKelMsg(const char* pcBytes, unsigned short nCount) : CKelMsg()
{
    SetMessage(pcBytes, nCount);
}

CKelMsg::~CKelMsg() = default;

bool CKelMsg::IsValid() const
{
    return m_sData.size() + 5 == m_nLength;
}

void CKelMsg::SetMessage(unsigned short nCommand, unsigned short nNumber, const char* pcData,
                         unsigned short nDataLength)
{
    m_nCommand = nCommand;
    m_nNumber = nNumber;
    if (pcData != nullptr && nDataLength != 0)
        m_sData.assign(pcData, nDataLength);
    else
        m_sData.clear();
    m_nLength = static_cast<unsigned short>(m_sData.size() + 5);
    m_nCRC = ComputeCRC();
}

bool CKelMsg::SetMessage(const char* pcBytes, unsigned short nCount)
{
    if (pcBytes == nullptr || nCount <= HEADER_SIZE)
    {
        m_sData.clear();
        m_nCommand = 0;
        m_nNumber = 0;
        m_nLength = 5;
        m_nCRC = 0;
        return false;
    }
    m_nLength = GetU16(pcBytes);
    m_nCommand = GetU16(pcBytes + 2);
    m_nNumber = GetU16(pcBytes + 4);
    m_sData.assign(pcBytes + HEADER_SIZE, nCount - OVERHEAD);
    m_nCRC = static_cast<unsigned char>(pcBytes[nCount - 1]);
    return IsValid();
}

unsigned char CKelMsg::ComputeCRC() const
{
    return ComputeCRC(m_nCommand, m_nNumber, m_sData.data(), static_cast<unsigned int>(m_sData.size()));
}

unsigned char CKelMsg::ComputeCRC(unsigned short nCommand, unsigned short nNumber, const char* pcData,
                                  unsigned int nDataLength)
{
    unsigned char crc = static_cast<unsigned char>(nCommand & 0xFF);
    crc ^= static_cast<unsigned char>(nCommand >> 8);
    crc ^= static_cast<unsigned char>(nNumber & 0xFF);
    crc ^= static_cast<unsigned char>(nNumber >> 8);
    for (unsigned int i = 0; i < nDataLength; ++i)
        crc ^= static_cast<unsigned char>(pcData[i]);
    return crc;
}

bool CKelMsg::IsIntact(const char* pcBytes, unsigned short nCount)
{
    if (pcBytes == nullptr || nCount <= HEADER_SIZE || GetU16(pcBytes) + 2u != nCount)
        return false;
    const unsigned char crc =
        ComputeCRC(GetU16(pcBytes + 2), GetU16(pcBytes + 4), pcBytes + HEADER_SIZE, nCount - OVERHEAD);
    return crc == static_cast<unsigned char>(pcBytes[nCount - 1]);
}

void CKelMsg::GetMessageData(std::string& sOut) const
{
    sOut.clear();
    sOut.resize(GetWireSize());
    WriteTo(&sOut[0], static_cast<unsigned int>(sOut.size()));
}

unsigned int CKelMsg::WriteTo(char* pcBuffer, unsigned int nSize) const
{
    const unsigned int total = GetWireSize();
    if (total > nSize)
        return 0;
    PutU16(pcBuffer, m_nLength);
    PutU16(pcBuffer + 2, m_nCommand);
    PutU16(pcBuffer + 4, m_nNumber);
    if (!m_sData.empty())
        std::memcpy(pcBuffer + HEADER_SIZE, m_sData.data(), m_sData.size());
    pcBuffer[total - 1] = static_cast<char>(m_nCRC);
    return total;
}

unsigned int CKelMsg::Build(char* pcBuffer, unsigned int nSize, unsigned short nCommand, unsigned short nNumber,
                            const char* pcData, unsigned short nDataLength)
{
    if (pcData == nullptr)
        nDataLength = 0;
    const unsigned int total = static_cast<unsigned int>(nDataLength) + OVERHEAD;
    if (total > nSize)
        return 0;
    PutU16(pcBuffer, static_cast<unsigned short>(nDataLength + 5));
    PutU16(pcBuffer + 2, nCommand);
    PutU16(pcBuffer + 4, nNumber);
    if (nDataLength != 0)
        std::memcpy(pcBuffer + HEADER_SIZE, pcData, nDataLength);
    pcBuffer[total - 1] = static_cast<char>(ComputeCRC(nCommand, nNumber, pcData, nDataLength));
    return total;
}

void CKelMsg::PutU16(char* pcOut, unsigned short nValue)
{
    KelPutLE(pcOut, nValue);
}
void CKelMsg::PutU32(char* pcOut, unsigned int nValue)
{
    KelPutLE(pcOut, nValue);
}
unsigned short CKelMsg::GetU16(const char* pcBytes)
{
    return KelGetLE<unsigned short>(pcBytes);
}
unsigned int CKelMsg::GetU32(const char* pcBytes)
{
    return KelGetLE<unsigned int>(pcBytes);
}
