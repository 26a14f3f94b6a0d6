#include "OrvaneMsg.h"

#include "KelByteOrder.h"
#include "KelMsg.h"

#include <cstring>

namespace
{

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

unsigned char COrvaneMsg::SetMessage(unsigned short nCmdCode, short nMsgID, const void* pData, unsigned short nSize)
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
    m_nLength = KelGetLE<unsigned short>(p);
    m_nCmdCode = KelGetLE<unsigned short>(p + 2);
    m_nMsgID = KelGetLE<short>(p + 4);
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
    // The gateway telegram shares the connection message's layout and checksum.
    return CKelMsg::ComputeCRC(m_nCmdCode, static_cast<unsigned short>(m_nMsgID), m_sData.data(),
                               static_cast<unsigned int>(m_sData.size()));
}

std::string COrvaneMsg::GetMessageData() const
{
    std::string sWire(GetMessageSize(), '\0');
    CopyMessageData(&sWire[0], sWire.size());
    return sWire;
}

std::size_t COrvaneMsg::CopyMessageData(void* pBuffer, std::size_t nSize) const
{
    const std::size_t nWire = GetMessageSize();
    if (pBuffer == nullptr || nSize < nWire)
        return 0;
    char* p = static_cast<char*>(pBuffer);
    KelPutLE(p, m_nLength);
    KelPutLE(p + 2, m_nCmdCode);
    KelPutLE(p + 4, m_nMsgID);
    if (!m_sData.empty())
        std::memcpy(p + HEADER_SIZE, m_sData.data(), m_sData.size());
    p[HEADER_SIZE + m_sData.size()] = static_cast<char>(m_nCRC);
    return nWire;
}
