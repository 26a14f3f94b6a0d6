// Trace telegrams: the UDP datagrams exchanged between the trace server and a
// remote trace viewer.
//
// Every telegram is a 6-byte header followed by the data, all numbers
// little-endian:
//   0  2  length = data length + 4 (the bytes that follow this field)
//   2  2  type
//   4  2  counter (stamped by the server; requests carry whatever the viewer puts)
//   6  n  data
// CTraceTelegram is the frame; one subclass per telegram kind reads or builds
// the data. Telegrams the server builds (confirmations, trace messages) keep
// their fields and serialise them on demand; requests keep the received bytes.
#ifndef ORVANE_TRACE_TELEGRAM_H
#define ORVANE_TRACE_TELEGRAM_H

#include <string>
#include <vector>

enum ETraceTelegramType : unsigned short
{
    TRACE_ACTIVATE_REQ = 0x0001,
    TRACE_ACTIVATE_CNF = 0x8001,
    TRACE_GET_CATEGORIES_REQ = 0x0002,
    TRACE_GET_CATEGORIES_CNF = 0x8002,
    // No viewer of this system sends a status request; 0x0003 pairs it with
    // its confirmation 0x8003 the way the other requests pair with theirs.
    TRACE_STATUS_REQ = 0x0003,
    TRACE_STATUS_CNF = 0x8003,
    TRACE_MESSAGE = 0x4001
};

class CTraceTelegram
{
public:
    static constexpr unsigned short HEADER_SIZE = 6;
    // Largest data length whose whole telegram (header included) still fits
    // the 16-bit sizes of the length field and of the parsing constructor.
    static constexpr unsigned short MAX_DATA_LEN = 0xFFFF - HEADER_SIZE;

    CTraceTelegram();
    // Parses a received datagram. Fewer than 7 bytes give an empty telegram of
    // type 0; otherwise the data is what the length field announces, bounded
    // by the bytes actually received.
    CTraceTelegram(unsigned short size, const char* bytes);
    CTraceTelegram(const CTraceTelegram& other);
    CTraceTelegram& operator=(const CTraceTelegram& other);
    virtual ~CTraceTelegram();

    void swap(CTraceTelegram& other);

    // The serialised data (without the header) and its length.
    virtual const char* GetData() const;
    virtual unsigned short GetDataLen() const;

    unsigned short GetType() const { return m_nType; }
    unsigned short GetCounter() const { return m_nCounter; }
    void SetCounter(unsigned short counter) { m_nCounter = counter; }

    // Header + data, ready to be sent as one datagram.
    std::vector<char> Serialize() const;

protected:
    explicit CTraceTelegram(unsigned short type);

    // Data bytes as received or last serialised.
    const std::vector<char>& Bytes() const { return m_acData; }
    // Replaces the data (used by the subclasses when they serialise their fields).
    void StoreData(std::vector<char> data) const;

private:
    mutable unsigned short m_nDataLen;
    unsigned short m_nType;
    unsigned short m_nCounter;
    mutable std::vector<char> m_acData;
};

// Viewer -> server: switches trace levels and per-category filter masks.
// Data: level, mask count c, min(c, 32) masks of 4 bytes, CRC.
class CTraceActivateReqTelegram : public CTraceTelegram
{
public:
    static constexpr unsigned char MAX_BITMASKS = 32;

    CTraceActivateReqTelegram();
    CTraceActivateReqTelegram(unsigned short size, const char* bytes);
    CTraceActivateReqTelegram(const CTraceActivateReqTelegram& other) = default;
    CTraceActivateReqTelegram& operator=(const CTraceActivateReqTelegram& other) = default;
    ~CTraceActivateReqTelegram() override;

    void swap(CTraceActivateReqTelegram& other);

    unsigned char GetTraceLevel() const { return m_nTraceLevel; }
    // Usable masks: min(announced count, 32, masks the data holds).
    unsigned char GetBitmaskCount() const { return static_cast<unsigned char>(m_anFilterBitmasks.size()); }
    // 0 for an index at or above the usable count.
    unsigned int GetFilterBitmask(unsigned char index) const;
    unsigned char GetCrc() const { return m_nCrc; }
    // XOR of the length field's, type's and counter's bytes and of every data
    // byte but the last.
    unsigned char CalcCrc() const;

private:
    unsigned char m_nTraceLevel;
    unsigned char m_nCrc;
    std::vector<unsigned int> m_anFilterBitmasks;
};

// Server -> viewer: answer to an activate request (defined; this server sends none).
class CTraceActivateCnfTelegram : public CTraceTelegram
{
public:
    CTraceActivateCnfTelegram();
    CTraceActivateCnfTelegram(unsigned short size, const char* bytes);
    CTraceActivateCnfTelegram(const CTraceActivateCnfTelegram& other) = default;
    CTraceActivateCnfTelegram& operator=(const CTraceActivateCnfTelegram& other) = default;
    ~CTraceActivateCnfTelegram() override;

    void swap(CTraceActivateCnfTelegram& other);

    const char* GetData() const override;
    unsigned short GetDataLen() const override;

    // 0xFF until a code is stored.
    unsigned char GetReturnCode() const { return m_nReturnCode; }
    void SetReturnCode(unsigned char code);

private:
    unsigned char m_nReturnCode;
    mutable bool m_bStale;
};

// Server -> viewer: the display names of the categories.
// Data: count k, then k entries of (1-byte length, name bytes).
class CTraceGetCategoriesCnfTelegram : public CTraceTelegram
{
public:
    static constexpr unsigned char CATEGORY_COUNT = 32;
    static constexpr unsigned char MAX_NAME_LEN = 32;

    CTraceGetCategoriesCnfTelegram();
    CTraceGetCategoriesCnfTelegram(unsigned short size, const char* bytes);
    CTraceGetCategoriesCnfTelegram(const CTraceGetCategoriesCnfTelegram& other) = default;
    CTraceGetCategoriesCnfTelegram& operator=(const CTraceGetCategoriesCnfTelegram& other) = default;
    ~CTraceGetCategoriesCnfTelegram() override;

    void swap(CTraceGetCategoriesCnfTelegram& other);

    const char* GetData() const override;
    unsigned short GetDataLen() const override;

    // Categories above 31 are ignored; a null name or length 0 clears the
    // entry; names are cut to 32 bytes.
    void SetCategoryName(unsigned char category, unsigned char length, const char* name);
    std::string GetCategoryName(unsigned char category) const;
    // Highest category with a non-empty name + 1; 0 when all are empty.
    unsigned char GetCategoriesCount() const;

private:
    // Each name in a 33-byte buffer: up to 32 bytes and a terminating zero.
    char m_aacNames[CATEGORY_COUNT][MAX_NAME_LEN + 1];
    unsigned char m_anNameLens[CATEGORY_COUNT];
    mutable bool m_bStale;
};

// Viewer -> server: status request (parsed only). Data: category, filter mask.
class CStatusReqTelegram : public CTraceTelegram
{
public:
    CStatusReqTelegram();
    CStatusReqTelegram(unsigned short size, const char* bytes);
    CStatusReqTelegram(const CStatusReqTelegram& other) = default;
    CStatusReqTelegram& operator=(const CStatusReqTelegram& other) = default;
    ~CStatusReqTelegram() override;

    void swap(CStatusReqTelegram& other);

    // Both read 0 unless the data is exactly 5 bytes.
    unsigned char GetCategory() const { return m_nCategory; }
    unsigned int GetFilterBitmask() const { return m_nFilterBitmask; }

private:
    unsigned char m_nCategory;
    unsigned int m_nFilterBitmask;
};

// Server -> viewer: one status value (defined; this server sends none).
// Data: time (s, us), category, filter mask, numeric value, name, value text.
class CStatusCnfTelegram : public CTraceTelegram
{
public:
    CStatusCnfTelegram();
    // Tolerates short data: missing fields read 0, a name or value running
    // past the end is cut.
    CStatusCnfTelegram(unsigned short size, const char* bytes);
    CStatusCnfTelegram(const CStatusCnfTelegram& other) = default;
    CStatusCnfTelegram& operator=(const CStatusCnfTelegram& other) = default;
    ~CStatusCnfTelegram() override;

    void swap(CStatusCnfTelegram& other);

    const char* GetData() const override;
    unsigned short GetDataLen() const override;

    void SetTime(unsigned int seconds, unsigned int microseconds);
    // The status source's category and filter mask, and a numeric value that
    // goes with the text.
    void SetCategory(unsigned char category);
    void SetFilterBitmask(unsigned int mask);
    void SetStatusValue(unsigned int value);
    // Cut like the trace message's file name and text when they do not fit.
    void SetName(unsigned short length, const char* name);
    void SetValue(unsigned short length, const char* value);

    unsigned int GetSeconds() const { return m_nSeconds; }
    unsigned int GetMicroseconds() const { return m_nMicroseconds; }
    unsigned char GetCategory() const { return m_nCategory; }
    unsigned int GetFilterBitmask() const { return m_nFilterBitmask; }
    unsigned int GetStatusValue() const { return m_nStatusValue; }
    const std::string& GetName() const { return m_sName; }
    const std::string& GetValue() const { return m_sValue; }

private:
    unsigned int m_nSeconds;
    unsigned int m_nMicroseconds;
    unsigned char m_nCategory;
    unsigned int m_nFilterBitmask;
    unsigned int m_nStatusValue;
    std::string m_sName;
    std::string m_sValue;
    mutable bool m_bStale;
};

// Server -> viewer: one trace message.
// Data: time (s, us), level, category, filter mask, flags, line, file, text.
class CTraceMessageTelegram : public CTraceTelegram
{
public:
    static constexpr unsigned short FIXED_DATA_LEN = 21;

    CTraceMessageTelegram();
    // Tolerates short data like CStatusCnfTelegram.
    CTraceMessageTelegram(unsigned short size, const char* bytes);
    CTraceMessageTelegram(const CTraceMessageTelegram& other) = default;
    CTraceMessageTelegram& operator=(const CTraceMessageTelegram& other) = default;
    ~CTraceMessageTelegram() override;

    void swap(CTraceMessageTelegram& other);

    const char* GetData() const override;
    unsigned short GetDataLen() const override;

    void SetTime(unsigned int seconds, unsigned int microseconds);
    void SetTraceLevel(unsigned char level);
    void SetCategory(unsigned char category);
    void SetFilterBitmask(unsigned int mask);
    void SetFlags(unsigned char flags);
    void SetLine(unsigned short line);
    // Where the telegram would exceed MAX_DATA_LEN, its data carries the text
    // (and if need be the file name) cut to fit.
    void SetFileName(unsigned short length, const char* name);
    void SetMessageText(unsigned short length, const char* text);

    unsigned int GetSeconds() const { return m_nSeconds; }
    unsigned int GetMicroseconds() const { return m_nMicroseconds; }
    unsigned char GetTraceLevel() const { return m_nTraceLevel; }
    unsigned char GetCategory() const { return m_nCategory; }
    unsigned int GetFilterBitmask() const { return m_nFilterBitmask; }
    unsigned char GetFlags() const { return m_nFlags; }
    unsigned short GetLine() const { return m_nLine; }
    const std::string& GetFileName() const { return m_sFileName; }
    const std::string& GetMessageText() const { return m_sMessageText; }

private:
    unsigned int m_nSeconds;
    unsigned int m_nMicroseconds;
    unsigned char m_nTraceLevel;
    unsigned char m_nCategory;
    unsigned int m_nFilterBitmask;
    unsigned char m_nFlags;
    unsigned short m_nLine;
    std::string m_sFileName;
    std::string m_sMessageText;
    mutable bool m_bStale;
};

inline void swap(CTraceTelegram& a, CTraceTelegram& b)
{
    a.swap(b);
}
inline void swap(CTraceActivateReqTelegram& a, CTraceActivateReqTelegram& b)
{
    a.swap(b);
}
inline void swap(CTraceActivateCnfTelegram& a, CTraceActivateCnfTelegram& b)
{
    a.swap(b);
}
inline void swap(CTraceGetCategoriesCnfTelegram& a, CTraceGetCategoriesCnfTelegram& b)
{
    a.swap(b);
}
inline void swap(CStatusReqTelegram& a, CStatusReqTelegram& b)
{
    a.swap(b);
}
inline void swap(CStatusCnfTelegram& a, CStatusCnfTelegram& b)
{
    a.swap(b);
}
inline void swap(CTraceMessageTelegram& a, CTraceMessageTelegram& b)
{
    a.swap(b);
}

#endif // ORVANE_TRACE_TELEGRAM_H
