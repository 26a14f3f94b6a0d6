// Little-endian payload building and reading for the simulator's telegrams,
// on top of the byte-order helpers of COrvaneMsg.
#ifndef GATEWAY_SIM_WIRE_H
#define GATEWAY_SIM_WIRE_H

#include "OrvaneMsg.h"

#include <cstddef>
#include <string>

namespace GatewaySim
{

// Appends fields to a payload in wire order.
class CPayloadWriter
{
public:
    CPayloadWriter& U8(unsigned char nValue)
    {
        m_sData.push_back(static_cast<char>(nValue));
        return *this;
    }
    CPayloadWriter& U16(unsigned short nValue)
    {
        m_sData += COrvaneMsg::ToChar(nValue);
        return *this;
    }
    CPayloadWriter& S16(short nValue)
    {
        m_sData += COrvaneMsg::ToChar(nValue);
        return *this;
    }
    CPayloadWriter& U32(unsigned int nValue)
    {
        m_sData += COrvaneMsg::ToChar(nValue);
        return *this;
    }
    CPayloadWriter& S32(int nValue)
    {
        m_sData += COrvaneMsg::ToChar(nValue);
        return *this;
    }
    CPayloadWriter& Bytes(const std::string& sBytes)
    {
        m_sData += sBytes;
        return *this;
    }
    const std::string& Data() const { return m_sData; }

private:
    std::string m_sData;
};

// Reads fields at fixed offsets of a received payload. Every read is bounds
// checked: a field past the end reads as 0, so callers check Size() once for
// the whole layout and never read garbage when a telegram is short.
class CPayloadReader
{
public:
    explicit CPayloadReader(const std::string& sData) : m_rsData(sData) {}

    std::size_t Size() const { return m_rsData.size(); }

    unsigned char U8(std::size_t nOffset) const
    {
        return nOffset < m_rsData.size() ? static_cast<unsigned char>(m_rsData[nOffset]) : 0;
    }
    unsigned short U16(std::size_t nOffset) const
    {
        unsigned short nValue = 0;
        if (nOffset + 2 <= m_rsData.size())
            COrvaneMsg::FromChar(nValue, m_rsData.data() + nOffset);
        return nValue;
    }
    unsigned int U32(std::size_t nOffset) const
    {
        unsigned int nValue = 0;
        if (nOffset + 4 <= m_rsData.size())
            COrvaneMsg::FromChar(nValue, m_rsData.data() + nOffset);
        return nValue;
    }
    int S32(std::size_t nOffset) const { return static_cast<int>(U32(nOffset)); }
    // The bytes from nOffset to the end (empty past the end).
    std::string Tail(std::size_t nOffset) const
    {
        return nOffset < m_rsData.size() ? m_rsData.substr(nOffset) : std::string();
    }

private:
    const std::string& m_rsData;
};

// Wire bytes of a telegram with the given code, ID and payload.
inline std::string BuildTelegram(unsigned short nCmdCode, short nMsgID, const std::string& sPayload)
{
    COrvaneMsg oMsg(nCmdCode, nMsgID, sPayload.data(), static_cast<unsigned short>(sPayload.size()));
    return oMsg.GetMessageData();
}

} // namespace GatewaySim

#endif
