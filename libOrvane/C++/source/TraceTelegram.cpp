#include "TraceTelegram.h"

#include "KelByteOrder.h"
#include "KelPayload.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace
{
void PutU16(std::vector<char>& out, unsigned short value)
{
    KelAppendLE(out, value);
}
void PutU32(std::vector<char>& out, unsigned int value)
{
    KelAppendLE(out, value);
}
unsigned short GetU16(const char* bytes)
{
    return KelGetLE<unsigned short>(bytes);
}
unsigned int GetU32(const char* bytes)
{
    return KelGetLE<unsigned int>(bytes);
}

// Reads fields front to back from possibly short data: a field that the data
// does not reach reads as 0, a text running past the end is cut.
class CFieldReader : public CKelPayloadReader
{
public:
    explicit CFieldReader(const std::vector<char>& data) : CKelPayloadReader(data) {}

    unsigned char U8() { return NextU8(); }
    unsigned short U16() { return NextU16(); }
    unsigned int U32() { return NextU32(); }
    // A 2-byte length followed by that many bytes (or what is left of them).
    std::string Text() { return NextBytes(NextU16()); }
};

// Appends two texts, each behind its 2-byte length. Where the data would
// exceed what the length field can announce, the second text is cut (and the
// first, if it alone is too long); each length word counts the bytes that
// really follow it.
void PutTexts(std::vector<char>& out, const std::string& first, const std::string& second)
{
    const size_t room = CTraceTelegram::MAX_DATA_LEN - out.size() - 4;
    const size_t firstLen = std::min(first.size(), room);
    const size_t secondLen = std::min(second.size(), room - firstLen);
    PutU16(out, static_cast<unsigned short>(firstLen));
    out.insert(out.end(), first.begin(), first.begin() + firstLen);
    PutU16(out, static_cast<unsigned short>(secondLen));
    out.insert(out.end(), second.begin(), second.begin() + secondLen);
}

std::string TextOf(unsigned short length, const char* text)
{
    return text != nullptr ? std::string(text, length) : std::string();
}
} // namespace

// ---------------------------------------------------------------- frame

CTraceTelegram::CTraceTelegram() : CTraceTelegram(static_cast<unsigned short>(0)) {}

CTraceTelegram::CTraceTelegram(unsigned short type) : m_nDataLen(0), m_nType(type), m_nCounter(0) {}

CTraceTelegram::CTraceTelegram(unsigned short size, const char* bytes) : m_nDataLen(0), m_nType(0), m_nCounter(0)
{
    if (bytes == nullptr || size <= HEADER_SIZE)
    {
        return;
    }
    m_nType = GetU16(bytes + 2);
    m_nCounter = GetU16(bytes + 4);
    // The length field counts the 4 header bytes after it; never read past
    // what was received, whatever the field claims.
    const unsigned short announced = std::min(size, GetU16(bytes));
    const unsigned short received = static_cast<unsigned short>(size - HEADER_SIZE);
    m_nDataLen = announced < 4 ? 0 : std::min(static_cast<unsigned short>(announced - 4), received);
    m_acData.assign(bytes + HEADER_SIZE, bytes + HEADER_SIZE + m_nDataLen);
}

CTraceTelegram::CTraceTelegram(const CTraceTelegram& other) = default;
CTraceTelegram& CTraceTelegram::operator=(const CTraceTelegram& other) = default;
CTraceTelegram::~CTraceTelegram() = default;

void CTraceTelegram::swap(CTraceTelegram& other)
{
    std::swap(m_nDataLen, other.m_nDataLen);
    std::swap(m_nType, other.m_nType);
    std::swap(m_nCounter, other.m_nCounter);
    m_acData.swap(other.m_acData);
}

const char* CTraceTelegram::GetData() const
{
    return m_acData.data();
}

unsigned short CTraceTelegram::GetDataLen() const
{
    return m_nDataLen;
}

void CTraceTelegram::StoreData(std::vector<char> data) const
{
    m_acData = std::move(data);
    m_nDataLen = static_cast<unsigned short>(m_acData.size());
}

std::vector<char> CTraceTelegram::Serialize() const
{
    const char* data = GetData(); // may rebuild, so before the length
    const unsigned short dataLen = GetDataLen();
    std::vector<char> out;
    out.reserve(HEADER_SIZE + dataLen);
    PutU16(out, static_cast<unsigned short>(dataLen + 4));
    PutU16(out, m_nType);
    PutU16(out, m_nCounter);
    out.insert(out.end(), data, data + dataLen);
    return out;
}

// ---------------------------------------------------------------- activate request

CTraceActivateReqTelegram::CTraceActivateReqTelegram() : CTraceTelegram(TRACE_ACTIVATE_REQ), m_nTraceLevel(0), m_nCrc(0)
{
}

CTraceActivateReqTelegram::CTraceActivateReqTelegram(unsigned short size, const char* bytes)
    : CTraceTelegram(size, bytes), m_nTraceLevel(0), m_nCrc(0)
{
    const std::vector<char>& data = Bytes();
    const size_t n = data.size();
    if (n >= 6)
    {
        m_nTraceLevel = static_cast<unsigned char>(data[0]);
    }
    if (n < 2)
    {
        return;
    }
    // The CRC sits behind the announced masks (at most 32), even when the
    // data holds fewer of them.
    const size_t announced = std::min<size_t>(static_cast<unsigned char>(data[1]), MAX_BITMASKS);
    const size_t usable = std::min(announced, (n - 2) / 4);
    for (size_t i = 0; i < usable; ++i)
    {
        m_anFilterBitmasks.push_back(GetU32(&data[2 + 4 * i]));
    }
    const size_t crcPos = 2 + 4 * announced;
    if (crcPos < n)
    {
        m_nCrc = static_cast<unsigned char>(data[crcPos]);
    }
}

CTraceActivateReqTelegram::~CTraceActivateReqTelegram() = default;

void CTraceActivateReqTelegram::swap(CTraceActivateReqTelegram& other)
{
    CTraceTelegram::swap(other);
    std::swap(m_nTraceLevel, other.m_nTraceLevel);
    std::swap(m_nCrc, other.m_nCrc);
    m_anFilterBitmasks.swap(other.m_anFilterBitmasks);
}

unsigned int CTraceActivateReqTelegram::GetFilterBitmask(unsigned char index) const
{
    return index < m_anFilterBitmasks.size() ? m_anFilterBitmasks[index] : 0;
}

unsigned char CTraceActivateReqTelegram::CalcCrc() const
{
    const unsigned short dataLen = GetDataLen();
    const unsigned short length = static_cast<unsigned short>(dataLen + 4);
    unsigned char crc = 0;
    for (unsigned short field : {length, GetType(), GetCounter()})
    {
        crc ^= static_cast<unsigned char>(field & 0xFF);
        crc ^= static_cast<unsigned char>(field >> 8);
    }
    const char* data = GetData();
    for (unsigned short i = 0; i + 1 < dataLen; ++i)
    {
        crc ^= static_cast<unsigned char>(data[i]);
    }
    return crc;
}

// ---------------------------------------------------------------- activate confirmation

CTraceActivateCnfTelegram::CTraceActivateCnfTelegram()
    : CTraceTelegram(TRACE_ACTIVATE_CNF), m_nReturnCode(0xFF), m_bStale(true)
{
}

CTraceActivateCnfTelegram::CTraceActivateCnfTelegram(unsigned short size, const char* bytes)
    : CTraceTelegram(size, bytes), m_nReturnCode(0xFF), m_bStale(false)
{
    if (!Bytes().empty())
    {
        m_nReturnCode = static_cast<unsigned char>(Bytes()[0]);
    }
}

CTraceActivateCnfTelegram::~CTraceActivateCnfTelegram() = default;

void CTraceActivateCnfTelegram::swap(CTraceActivateCnfTelegram& other)
{
    CTraceTelegram::swap(other);
    std::swap(m_nReturnCode, other.m_nReturnCode);
    std::swap(m_bStale, other.m_bStale);
}

void CTraceActivateCnfTelegram::SetReturnCode(unsigned char code)
{
    m_nReturnCode = code;
    m_bStale = true;
}

unsigned short CTraceActivateCnfTelegram::GetDataLen() const
{
    return 1;
}

const char* CTraceActivateCnfTelegram::GetData() const
{
    if (m_bStale || Bytes().size() != GetDataLen())
    {
        StoreData(std::vector<char>(1, static_cast<char>(m_nReturnCode)));
        m_bStale = false;
    }
    return CTraceTelegram::GetData();
}

// ---------------------------------------------------------------- get-categories confirmation

CTraceGetCategoriesCnfTelegram::CTraceGetCategoriesCnfTelegram()
    : CTraceTelegram(TRACE_GET_CATEGORIES_CNF), m_aacNames(), m_anNameLens(), m_bStale(true)
{
}

CTraceGetCategoriesCnfTelegram::CTraceGetCategoriesCnfTelegram(unsigned short size, const char* bytes)
    : CTraceTelegram(size, bytes), m_aacNames(), m_anNameLens(), m_bStale(false)
{
    const std::vector<char>& data = Bytes();
    size_t pos = 0;
    const unsigned char count = data.empty() ? 0 : static_cast<unsigned char>(data[pos++]);
    for (unsigned char category = 0; category < count && pos < data.size(); ++category)
    {
        const unsigned char length = static_cast<unsigned char>(data[pos++]);
        const size_t available = std::min<size_t>(length, data.size() - pos);
        SetCategoryName(category, static_cast<unsigned char>(available), data.data() + pos);
        pos += available;
    }
    m_bStale = false;
}

CTraceGetCategoriesCnfTelegram::~CTraceGetCategoriesCnfTelegram() = default;

void CTraceGetCategoriesCnfTelegram::swap(CTraceGetCategoriesCnfTelegram& other)
{
    CTraceTelegram::swap(other);
    std::swap(m_aacNames, other.m_aacNames);
    std::swap(m_anNameLens, other.m_anNameLens);
    std::swap(m_bStale, other.m_bStale);
}

void CTraceGetCategoriesCnfTelegram::SetCategoryName(unsigned char category, unsigned char length, const char* name)
{
    if (category >= CATEGORY_COUNT)
    {
        return;
    }
    const unsigned char kept = name == nullptr ? 0 : std::min(length, MAX_NAME_LEN);
    if (kept > 0)
    {
        std::memcpy(m_aacNames[category], name, kept);
    }
    m_aacNames[category][kept] = '\0';
    m_anNameLens[category] = kept;
    m_bStale = true;
}

std::string CTraceGetCategoriesCnfTelegram::GetCategoryName(unsigned char category) const
{
    return category < CATEGORY_COUNT ? std::string(m_aacNames[category], m_anNameLens[category]) : std::string();
}

unsigned char CTraceGetCategoriesCnfTelegram::GetCategoriesCount() const
{
    for (unsigned char count = CATEGORY_COUNT; count > 0; --count)
    {
        if (m_anNameLens[count - 1] != 0)
        {
            return count;
        }
    }
    return 0;
}

unsigned short CTraceGetCategoriesCnfTelegram::GetDataLen() const
{
    const unsigned char count = GetCategoriesCount();
    unsigned short length = static_cast<unsigned short>(1 + count);
    for (unsigned char category = 0; category < count; ++category)
    {
        length = static_cast<unsigned short>(length + m_anNameLens[category]);
    }
    return length;
}

const char* CTraceGetCategoriesCnfTelegram::GetData() const
{
    if (m_bStale || Bytes().size() != GetDataLen())
    {
        const unsigned char count = GetCategoriesCount();
        std::vector<char> data;
        data.reserve(GetDataLen());
        data.push_back(static_cast<char>(count));
        for (unsigned char category = 0; category < count; ++category)
        {
            data.push_back(static_cast<char>(m_anNameLens[category]));
            data.insert(data.end(), m_aacNames[category], m_aacNames[category] + m_anNameLens[category]);
        }
        StoreData(std::move(data));
        m_bStale = false;
    }
    return CTraceTelegram::GetData();
}

// ---------------------------------------------------------------- status request

CStatusReqTelegram::CStatusReqTelegram() : CTraceTelegram(TRACE_STATUS_REQ), m_nCategory(0), m_nFilterBitmask(0) {}

CStatusReqTelegram::CStatusReqTelegram(unsigned short size, const char* bytes)
    : CTraceTelegram(size, bytes), m_nCategory(0), m_nFilterBitmask(0)
{
    if (Bytes().size() == 5)
    {
        CFieldReader reader(Bytes());
        m_nCategory = reader.U8();
        m_nFilterBitmask = reader.U32();
    }
}

CStatusReqTelegram::~CStatusReqTelegram() = default;

void CStatusReqTelegram::swap(CStatusReqTelegram& other)
{
    CTraceTelegram::swap(other);
    std::swap(m_nCategory, other.m_nCategory);
    std::swap(m_nFilterBitmask, other.m_nFilterBitmask);
}

// ---------------------------------------------------------------- status confirmation

CStatusCnfTelegram::CStatusCnfTelegram()
    : CTraceTelegram(TRACE_STATUS_CNF), m_nSeconds(0), m_nMicroseconds(0), m_nCategory(0), m_nFilterBitmask(0),
      m_nStatusValue(0), m_bStale(true)
{
}

CStatusCnfTelegram::CStatusCnfTelegram(unsigned short size, const char* bytes)
    : CTraceTelegram(size, bytes), m_bStale(false)
{
    CFieldReader reader(Bytes());
    m_nSeconds = reader.U32();
    m_nMicroseconds = reader.U32();
    m_nCategory = reader.U8();
    m_nFilterBitmask = reader.U32();
    m_nStatusValue = reader.U32();
    m_sName = reader.Text();
    m_sValue = reader.Text();
}

CStatusCnfTelegram::~CStatusCnfTelegram() = default;

void CStatusCnfTelegram::swap(CStatusCnfTelegram& other)
{
    CTraceTelegram::swap(other);
    std::swap(m_nSeconds, other.m_nSeconds);
    std::swap(m_nMicroseconds, other.m_nMicroseconds);
    std::swap(m_nCategory, other.m_nCategory);
    std::swap(m_nFilterBitmask, other.m_nFilterBitmask);
    std::swap(m_nStatusValue, other.m_nStatusValue);
    m_sName.swap(other.m_sName);
    m_sValue.swap(other.m_sValue);
    std::swap(m_bStale, other.m_bStale);
}

void CStatusCnfTelegram::SetTime(unsigned int seconds, unsigned int microseconds)
{
    m_nSeconds = seconds;
    m_nMicroseconds = microseconds;
    m_bStale = true;
}

void CStatusCnfTelegram::SetCategory(unsigned char category)
{
    m_nCategory = category;
    m_bStale = true;
}

void CStatusCnfTelegram::SetFilterBitmask(unsigned int mask)
{
    m_nFilterBitmask = mask;
    m_bStale = true;
}

void CStatusCnfTelegram::SetStatusValue(unsigned int value)
{
    m_nStatusValue = value;
    m_bStale = true;
}

void CStatusCnfTelegram::SetName(unsigned short length, const char* name)
{
    m_sName = TextOf(length, name);
    m_bStale = true;
}

void CStatusCnfTelegram::SetValue(unsigned short length, const char* value)
{
    m_sValue = TextOf(length, value);
    m_bStale = true;
}

unsigned short CStatusCnfTelegram::GetDataLen() const
{
    const size_t length = 21 + m_sName.size() + m_sValue.size();
    return static_cast<unsigned short>(std::min<size_t>(length, MAX_DATA_LEN));
}

const char* CStatusCnfTelegram::GetData() const
{
    if (m_bStale || Bytes().size() != GetDataLen())
    {
        std::vector<char> data;
        data.reserve(21 + m_sName.size() + m_sValue.size());
        PutU32(data, m_nSeconds);
        PutU32(data, m_nMicroseconds);
        data.push_back(static_cast<char>(m_nCategory));
        PutU32(data, m_nFilterBitmask);
        PutU32(data, m_nStatusValue);
        PutTexts(data, m_sName, m_sValue);
        StoreData(std::move(data));
        m_bStale = false;
    }
    return CTraceTelegram::GetData();
}

// ---------------------------------------------------------------- trace message

CTraceMessageTelegram::CTraceMessageTelegram()
    : CTraceTelegram(TRACE_MESSAGE), m_nSeconds(0), m_nMicroseconds(0), m_nTraceLevel(0), m_nCategory(0),
      m_nFilterBitmask(0), m_nFlags(0), m_nLine(0), m_bStale(true)
{
}

CTraceMessageTelegram::CTraceMessageTelegram(unsigned short size, const char* bytes)
    : CTraceTelegram(size, bytes), m_bStale(false)
{
    CFieldReader reader(Bytes());
    m_nSeconds = reader.U32();
    m_nMicroseconds = reader.U32();
    m_nTraceLevel = reader.U8();
    m_nCategory = reader.U8();
    m_nFilterBitmask = reader.U32();
    m_nFlags = reader.U8();
    m_nLine = reader.U16();
    m_sFileName = reader.Text();
    m_sMessageText = reader.Text();
}

CTraceMessageTelegram::~CTraceMessageTelegram() = default;

void CTraceMessageTelegram::swap(CTraceMessageTelegram& other)
{
    CTraceTelegram::swap(other);
    std::swap(m_nSeconds, other.m_nSeconds);
    std::swap(m_nMicroseconds, other.m_nMicroseconds);
    std::swap(m_nTraceLevel, other.m_nTraceLevel);
    std::swap(m_nCategory, other.m_nCategory);
    std::swap(m_nFilterBitmask, other.m_nFilterBitmask);
    std::swap(m_nFlags, other.m_nFlags);
    std::swap(m_nLine, other.m_nLine);
    m_sFileName.swap(other.m_sFileName);
    m_sMessageText.swap(other.m_sMessageText);
    std::swap(m_bStale, other.m_bStale);
}

void CTraceMessageTelegram::SetTime(unsigned int seconds, unsigned int microseconds)
{
    m_nSeconds = seconds;
    m_nMicroseconds = microseconds;
    m_bStale = true;
}

void CTraceMessageTelegram::SetTraceLevel(unsigned char level)
{
    m_nTraceLevel = level;
    m_bStale = true;
}

void CTraceMessageTelegram::SetCategory(unsigned char category)
{
    m_nCategory = category;
    m_bStale = true;
}

void CTraceMessageTelegram::SetFilterBitmask(unsigned int mask)
{
    m_nFilterBitmask = mask;
    m_bStale = true;
}

void CTraceMessageTelegram::SetFlags(unsigned char flags)
{
    m_nFlags = flags;
    m_bStale = true;
}

void CTraceMessageTelegram::SetLine(unsigned short line)
{
    m_nLine = line;
    m_bStale = true;
}

void CTraceMessageTelegram::SetFileName(unsigned short length, const char* name)
{
    m_sFileName = TextOf(length, name);
    m_bStale = true;
}

void CTraceMessageTelegram::SetMessageText(unsigned short length, const char* text)
{
    m_sMessageText = TextOf(length, text);
    m_bStale = true;
}

unsigned short CTraceMessageTelegram::GetDataLen() const
{
    const size_t length = FIXED_DATA_LEN + m_sFileName.size() + m_sMessageText.size();
    return static_cast<unsigned short>(std::min<size_t>(length, MAX_DATA_LEN));
}

const char* CTraceMessageTelegram::GetData() const
{
    if (m_bStale || Bytes().size() != GetDataLen())
    {
        std::vector<char> data;
        data.reserve(GetDataLen());
        PutU32(data, m_nSeconds);
        PutU32(data, m_nMicroseconds);
        data.push_back(static_cast<char>(m_nTraceLevel));
        data.push_back(static_cast<char>(m_nCategory));
        PutU32(data, m_nFilterBitmask);
        data.push_back(static_cast<char>(m_nFlags));
        PutU16(data, m_nLine);
        PutTexts(data, m_sFileName, m_sMessageText);
        StoreData(std::move(data));
        m_bStale = false;
    }
    return CTraceTelegram::GetData();
}
