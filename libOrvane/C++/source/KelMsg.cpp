#include "KelMsg.h"

#include <cstring>

CKelMsg::CKelMsg() : m_nLength(0), m_nCommand(0), m_nNumber(0), m_nCRC(0) {}

CKelMsg::CKelMsg(unsigned short command, unsigned short number, const char* data, unsigned short dataLength)
    : CKelMsg()
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
    if (bytes == nullptr || count <= kHeaderSize)
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
    m_sData.assign(bytes + kHeaderSize, count - kOverhead);
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
        std::memcpy(buffer + kHeaderSize, m_sData.data(), m_sData.size());
    buffer[total - 1] = static_cast<char>(m_nCRC);
    return total;
}

unsigned int CKelMsg::Build(char* buffer, unsigned int size, unsigned short command, unsigned short number,
                            const char* data, unsigned short dataLength)
{
    if (data == nullptr)
        dataLength = 0;
    const unsigned int total = static_cast<unsigned int>(dataLength) + kOverhead;
    if (total > size)
        return 0;
    PutU16(buffer, static_cast<unsigned short>(dataLength + 5));
    PutU16(buffer + 2, command);
    PutU16(buffer + 4, number);
    if (dataLength != 0)
        std::memcpy(buffer + kHeaderSize, data, dataLength);
    buffer[total - 1] = static_cast<char>(ComputeCRC(command, number, data, dataLength));
    return total;
}

void CKelMsg::PutU16(char* out, unsigned short value)
{
    out[0] = static_cast<char>(value & 0xFF);
    out[1] = static_cast<char>(value >> 8);
}

void CKelMsg::PutU32(char* out, unsigned int value)
{
    for (int i = 0; i < 4; ++i)
        out[i] = static_cast<char>((value >> (8 * i)) & 0xFF);
}

unsigned short CKelMsg::GetU16(const char* bytes)
{
    return static_cast<unsigned short>(static_cast<unsigned char>(bytes[0]) |
                                       (static_cast<unsigned char>(bytes[1]) << 8));
}

unsigned int CKelMsg::GetU32(const char* bytes)
{
    unsigned int value = 0;
    for (int i = 3; i >= 0; --i)
        value = (value << 8) | static_cast<unsigned char>(bytes[i]);
    return value;
}

std::string CKelMsg::ToChar(short value)
{
    char bytes[2];
    PutU16(bytes, static_cast<unsigned short>(value));
    return std::string(bytes, sizeof(bytes));
}

std::string CKelMsg::ToChar(int value)
{
    char bytes[4];
    PutU32(bytes, static_cast<unsigned int>(value));
    return std::string(bytes, sizeof(bytes));
}

std::string CKelMsg::ToChar(long long value)
{
    char bytes[8];
    const unsigned long long bits = static_cast<unsigned long long>(value);
    PutU32(bytes, static_cast<unsigned int>(bits & 0xFFFFFFFFu));
    PutU32(bytes + 4, static_cast<unsigned int>(bits >> 32));
    return std::string(bytes, sizeof(bytes));
}

void CKelMsg::FromChar(short& value, const char* bytes)
{
    value = static_cast<short>(GetU16(bytes));
}

void CKelMsg::FromChar(int& value, const char* bytes)
{
    value = static_cast<int>(GetU32(bytes));
}

void CKelMsg::FromChar(long long& value, const char* bytes)
{
    const unsigned long long low = GetU32(bytes);
    const unsigned long long high = GetU32(bytes + 4);
    value = static_cast<long long>(low | (high << 32));
}
