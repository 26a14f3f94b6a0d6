#include "KelMsg.h"

#include "KelByteOrder.h"

#include <cstring>

CKelMsg::CKelMsg() : m_nLength(0), m_nCommand(0), m_nNumber(0), m_nCRC(0) {}

CKelMsg::CKelMsg(unsigned short command, unsigned short number, const char* data, unsigned short dataLength) : CKelMsg()
{
    SetMessage(command, number, data, dataLength);
}

CKelMsg::CKelMsg(const char* bytes, unsigned short count) : CKelMsg()
{
    SetMessage(bytes, count);
}

CKelMsg::~CKelMsg() = default;

bool CKelMsg::IsValid() const
{
    return m_sData.size() + 5 == m_nLength;
}

void CKelMsg::SetMessage(unsigned short command, unsigned short number, const char* data, unsigned short dataLength)
{
    m_nCommand = command;
    m_nNumber = number;
    if (data != nullptr && dataLength != 0)
        m_sData.assign(data, dataLength);
    else
        m_sData.clear();
    m_nLength = static_cast<unsigned short>(m_sData.size() + 5);
    m_nCRC = ComputeCRC();
}

bool CKelMsg::SetMessage(const char* bytes, unsigned short count)
{
    if (bytes == nullptr || count <= HEADER_SIZE)
    {
        m_sData.clear();
        m_nCommand = 0;
        m_nNumber = 0;
        m_nLength = 5;
        m_nCRC = 0;
        return false;
    }
    m_nLength = GetU16(bytes);
    m_nCommand = GetU16(bytes + 2);
    m_nNumber = GetU16(bytes + 4);
    m_sData.assign(bytes + HEADER_SIZE, count - OVERHEAD);
    m_nCRC = static_cast<unsigned char>(bytes[count - 1]);
    return IsValid();
}

unsigned char CKelMsg::ComputeCRC() const
{
    return ComputeCRC(m_nCommand, m_nNumber, m_sData.data(), static_cast<unsigned int>(m_sData.size()));
}

unsigned char CKelMsg::ComputeCRC(unsigned short command, unsigned short number, const char* data,
                                  unsigned int dataLength)
{
    unsigned char crc = static_cast<unsigned char>(command & 0xFF);
    crc ^= static_cast<unsigned char>(command >> 8);
    crc ^= static_cast<unsigned char>(number & 0xFF);
    crc ^= static_cast<unsigned char>(number >> 8);
    for (unsigned int i = 0; i < dataLength; ++i)
        crc ^= static_cast<unsigned char>(data[i]);
    return crc;
}

bool CKelMsg::IsIntact(const char* bytes, unsigned short count)
{
    if (bytes == nullptr || count <= HEADER_SIZE || GetU16(bytes) + 2u != count)
        return false;
    const unsigned char crc = ComputeCRC(GetU16(bytes + 2), GetU16(bytes + 4), bytes + HEADER_SIZE, count - OVERHEAD);
    return crc == static_cast<unsigned char>(bytes[count - 1]);
}

void CKelMsg::GetMessageData(std::string& out) const
{
    out.clear();
    out.resize(GetWireSize());
    WriteTo(&out[0], static_cast<unsigned int>(out.size()));
}

unsigned int CKelMsg::WriteTo(char* buffer, unsigned int size) const
{
    const unsigned int total = GetWireSize();
    if (total > size)
        return 0;
    PutU16(buffer, m_nLength);
    PutU16(buffer + 2, m_nCommand);
    PutU16(buffer + 4, m_nNumber);
    if (!m_sData.empty())
        std::memcpy(buffer + HEADER_SIZE, m_sData.data(), m_sData.size());
    buffer[total - 1] = static_cast<char>(m_nCRC);
    return total;
}

unsigned int CKelMsg::Build(char* buffer, unsigned int size, unsigned short command, unsigned short number,
                            const char* data, unsigned short dataLength)
{
    if (data == nullptr)
        dataLength = 0;
    const unsigned int total = static_cast<unsigned int>(dataLength) + OVERHEAD;
    if (total > size)
        return 0;
    PutU16(buffer, static_cast<unsigned short>(dataLength + 5));
    PutU16(buffer + 2, command);
    PutU16(buffer + 4, number);
    if (dataLength != 0)
        std::memcpy(buffer + HEADER_SIZE, data, dataLength);
    buffer[total - 1] = static_cast<char>(ComputeCRC(command, number, data, dataLength));
    return total;
}

void CKelMsg::PutU16(char* out, unsigned short value)
{
    KelPutLE(out, value);
}
void CKelMsg::PutU32(char* out, unsigned int value)
{
    KelPutLE(out, value);
}
unsigned short CKelMsg::GetU16(const char* bytes)
{
    return KelGetLE<unsigned short>(bytes);
}
unsigned int CKelMsg::GetU32(const char* bytes)
{
    return KelGetLE<unsigned int>(bytes);
}
