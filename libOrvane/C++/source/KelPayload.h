// Building and reading the payload of a telegram, field by field, in wire
// order (little-endian, through KelByteOrder.h).
//
// The reader never reads past the end of what was received: a field that the
// data does not reach reads as 0 and a byte run is cut at the end. A decoder
// therefore checks the payload size once against its layout and can never
// read garbage from a short telegram.
#ifndef KEL_PAYLOAD_H
#define KEL_PAYLOAD_H

#include "KelByteOrder.h"

#include <cstddef>
#include <string>
#include <vector>

// Appends fields to a payload.
class CKelPayloadWriter
{
public:
    CKelPayloadWriter() = default;
    explicit CKelPayloadWriter(std::size_t nReserve) { m_sData.reserve(nReserve); }

    CKelPayloadWriter& U8(unsigned char nValue)
    {
        m_sData.push_back(static_cast<char>(nValue));
        return *this;
    }
    CKelPayloadWriter& U16(unsigned short nValue) { return Put(nValue); }
    CKelPayloadWriter& S16(short nValue) { return Put(nValue); }
    CKelPayloadWriter& U32(unsigned int nValue) { return Put(nValue); }
    CKelPayloadWriter& S32(int nValue) { return Put(nValue); }
    CKelPayloadWriter& Bytes(const void* pData, std::size_t nCount)
    {
        if (nCount > 0)
            m_sData.append(static_cast<const char*>(pData), nCount);
        return *this;
    }
    CKelPayloadWriter& Bytes(const std::string& sBytes)
    {
        m_sData += sBytes;
        return *this;
    }

    const std::string& Data() const { return m_sData; }
    std::size_t Size() const { return m_sData.size(); }

private:
    template <typename T>
    CKelPayloadWriter& Put(T nValue)
    {
        KelAppendLE(m_sData, nValue);
        return *this;
    }

    std::string m_sData;
};

// Reads fields of received bytes, either at fixed offsets (U8(3)) or front to
// back (NextU8()). The bytes must outlive the reader.
class CKelPayloadReader
{
public:
    CKelPayloadReader(const void* pData, std::size_t nSize) : m_pData(static_cast<const char*>(pData)), m_nSize(nSize)
    {
    }
    explicit CKelPayloadReader(const std::string& sData) : CKelPayloadReader(sData.data(), sData.size()) {}
    explicit CKelPayloadReader(const std::vector<char>& aData) : CKelPayloadReader(aData.data(), aData.size()) {}

    std::size_t Size() const { return m_nSize; }
    // True when nCount bytes from nOffset on were received.
    bool Has(std::size_t nOffset, std::size_t nCount) const
    {
        return nOffset <= m_nSize && m_nSize - nOffset >= nCount;
    }

    // Fixed offsets.
    template <typename T>
    T Get(std::size_t nOffset) const
    {
        return Has(nOffset, sizeof(T)) ? KelGetLE<T>(m_pData + nOffset) : T(0);
    }
    unsigned char U8(std::size_t nOffset) const { return Get<unsigned char>(nOffset); }
    signed char S8(std::size_t nOffset) const { return Get<signed char>(nOffset); }
    unsigned short U16(std::size_t nOffset) const { return Get<unsigned short>(nOffset); }
    short S16(std::size_t nOffset) const { return Get<short>(nOffset); }
    unsigned int U32(std::size_t nOffset) const { return Get<unsigned int>(nOffset); }
    int S32(std::size_t nOffset) const { return Get<int>(nOffset); }
    // Up to nCount bytes from nOffset (fewer at the end, none past it).
    std::string Bytes(std::size_t nOffset, std::size_t nCount) const
    {
        if (nOffset >= m_nSize)
            return std::string();
        return std::string(m_pData + nOffset, nCount < m_nSize - nOffset ? nCount : m_nSize - nOffset);
    }
    // The bytes from nOffset to the end.
    std::string Tail(std::size_t nOffset) const { return Bytes(nOffset, m_nSize); }

    // Front to back: each field is read at the cursor, which moves past it
    // only when the field was there.
    template <typename T>
    T Next()
    {
        const T nValue = Get<T>(m_nPos);
        if (Has(m_nPos, sizeof(T)))
            m_nPos += sizeof(T);
        return nValue;
    }
    unsigned char NextU8() { return Next<unsigned char>(); }
    unsigned short NextU16() { return Next<unsigned short>(); }
    unsigned int NextU32() { return Next<unsigned int>(); }
    // Up to nCount bytes at the cursor, which moves past what was read.
    std::string NextBytes(std::size_t nCount)
    {
        std::string sBytes = Bytes(m_nPos, nCount);
        m_nPos += sBytes.size();
        return sBytes;
    }
    std::size_t Position() const { return m_nPos; }

private:
    const char* m_pData;
    std::size_t m_nSize;
    std::size_t m_nPos = 0;
};

#endif
