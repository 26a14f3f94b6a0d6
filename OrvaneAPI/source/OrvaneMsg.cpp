#include "OrvaneMsg.h"

#include <cstring>
#include <type_traits>

namespace
{

template <typename T>
void PutLE(char* pOut, T nValue)
{
    using U = std::make_unsigned_t<T>;
    U nBits = static_cast<U>(nValue);
    for (std::size_t i = 0; i < sizeof(T); ++i)
    {
        pOut[i] = static_cast<char>(nBits & 0xFFu);
        nBits = static_cast<U>(nBits >> 8);
    }
}

template <typename T>
std::string ToCharLE(T nValue)
{
    char acBytes[sizeof(T)];
    PutLE(acBytes, nValue);
    return std::string(acBytes, sizeof(T));
}

template <typename T>
void FromCharLE(T& nValue, const unsigned char* p)
{
    using U = std::make_unsigned_t<T>;
    U nBits = 0;
    for (std::size_t i = sizeof(T); i-- > 0;)
        nBits = static_cast<U>((nBits << 8) | p[i]);
    nValue = static_cast<T>(nBits);
}

const unsigned char* AsBytes(const void* p)
{
    return static_cast<const unsigned char*>(p);
}

} // namespace

COrvaneMsg::COrvaneMsg()
{
    Clear();
}

COrvaneMsg::COrvaneMsg(unsigned short nCmdCode, short nMsgID, const void* pData, unsigned short nSize)
{
    SetMessage(nCmdCode, nMsgID, pData, nSize);
}

COrvaneMsg::COrvaneMsg(const void* pRaw, unsigned short nSize)
{
    SetMessage(pRaw, nSize);
}

COrvaneMsg::~COrvaneMsg() = default;

void COrvaneMsg::Clear()
{
    m_sData.clear();
    m_nCmdCode = 0;
    m_nMsgID = 0;
    m_nLength = LENGTH_OVERHEAD;
    m_nCRC = ComputeCRC();
}

unsigned char COrvaneMsg::SetMessage(unsigned short nCmdCode, short nMsgID, const void* pData,
                                     unsigned short nSize)
{
    if (pData != nullptr && nSize != 0)
        m_sData.assign(static_cast<const char*>(pData), nSize);
    else
        m_sData.clear();
    m_nCmdCode = nCmdCode;
    m_nMsgID = nMsgID;
    m_nLength = static_cast<unsigned short>(m_sData.size() + LENGTH_OVERHEAD);
    m_nCRC = ComputeCRC();
    return m_nCRC;
}

bool COrvaneMsg::SetMessage(const void* pRaw, unsigned short nSize)
{
    if (pRaw == nullptr || nSize < MIN_TELEGRAM_SIZE)
    {
        Clear();
        return false;
    }
    const unsigned char* p = AsBytes(pRaw);
    FromChar(m_nLength, p);
    FromChar(m_nCmdCode, p + 2);
    FromChar(m_nMsgID, p + 4);
    m_sData.assign(reinterpret_cast<const char*>(p + HEADER_SIZE), nSize - MIN_TELEGRAM_SIZE);
    m_nCRC = p[nSize - 1];
    return IsValid();
}

bool COrvaneMsg::IsValid() const
{
    return m_nLength == static_cast<unsigned short>(m_sData.size() + LENGTH_OVERHEAD);
}

unsigned char COrvaneMsg::ComputeCRC() const
{
    unsigned char nCRC = static_cast<unsigned char>((m_nCmdCode & 0xFF) ^ (m_nCmdCode >> 8) ^
                                                    (m_nMsgID & 0xFF) ^
                                                    ((static_cast<unsigned short>(m_nMsgID) >> 8) & 0xFF));
    for (char c : m_sData)
        nCRC = static_cast<unsigned char>(nCRC ^ static_cast<unsigned char>(c));
    return nCRC;
}

std::string COrvaneMsg::GetMessageData() const
{
    std::string sWire(HEADER_SIZE + m_sData.size() + 1, '\0');
    char* p = &sWire[0];
    PutLE(p, m_nLength);
    PutLE(p + 2, m_nCmdCode);
    PutLE(p + 4, m_nMsgID);
    if (!m_sData.empty())
        std::memcpy(p + HEADER_SIZE, m_sData.data(), m_sData.size());
    p[HEADER_SIZE + m_sData.size()] = static_cast<char>(m_nCRC);
    return sWire;
}

std::string COrvaneMsg::ToChar(short nValue) { return ToCharLE(nValue); }
std::string COrvaneMsg::ToChar(unsigned short nValue) { return ToCharLE(nValue); }
std::string COrvaneMsg::ToChar(int nValue) { return ToCharLE(nValue); }
std::string COrvaneMsg::ToChar(unsigned int nValue) { return ToCharLE(nValue); }
std::string COrvaneMsg::ToChar(long long nValue) { return ToCharLE(nValue); }
std::string COrvaneMsg::ToChar(unsigned long long nValue) { return ToCharLE(nValue); }

void COrvaneMsg::FromChar(short& nValue, const unsigned char* p) { FromCharLE(nValue, p); }
void COrvaneMsg::FromChar(unsigned short& nValue, const unsigned char* p) { FromCharLE(nValue, p); }
void COrvaneMsg::FromChar(int& nValue, const unsigned char* p) { FromCharLE(nValue, p); }
void COrvaneMsg::FromChar(unsigned int& nValue, const unsigned char* p) { FromCharLE(nValue, p); }
void COrvaneMsg::FromChar(long long& nValue, const unsigned char* p) { FromCharLE(nValue, p); }
void COrvaneMsg::FromChar(unsigned long long& nValue, const unsigned char* p) { FromCharLE(nValue, p); }
void COrvaneMsg::FromChar(short& nValue, const char* p) { FromCharLE(nValue, AsBytes(p)); }
void COrvaneMsg::FromChar(unsigned short& nValue, const char* p) { FromCharLE(nValue, AsBytes(p)); }
void COrvaneMsg::FromChar(int& nValue, const char* p) { FromCharLE(nValue, AsBytes(p)); }
void COrvaneMsg::FromChar(unsigned int& nValue, const char* p) { FromCharLE(nValue, AsBytes(p)); }
void COrvaneMsg::FromChar(long long& nValue, const char* p) { FromCharLE(nValue, AsBytes(p)); }
void COrvaneMsg::FromChar(unsigned long long& nValue, const char* p) { FromCharLE(nValue, AsBytes(p)); }
