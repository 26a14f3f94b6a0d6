// Gateway telegram: the unit exchanged with a gateway device over TCP
// (request, confirmation or unsolicited indication).
//
// Wire layout, every multi-byte field little-endian:
//   [0..1] length  = number of bytes after this field (data size + 5)
//   [2..3] command code (bit 15 set marks a confirmation)
//   [4..5] message ID   (chosen by the requester, echoed in the confirmation)
//   [6..]  data
//   [last] CRC = XOR of command code, message ID and data bytes
#ifndef ORVANE_MSG_H
#define ORVANE_MSG_H

#include <cstddef>
#include <string>

class COrvaneMsg
{
public:
    // Bit of the command code that marks a confirmation.
    static constexpr unsigned short CONFIRMATION_FLAG = 0x8000;
    // Bytes counted by the length field besides the data: code, ID, CRC.
    static constexpr unsigned short LENGTH_OVERHEAD = 5;
    // Bytes before the data on the wire: length, code, ID.
    static constexpr unsigned short HEADER_SIZE = 6;
    // Size on the wire of a telegram without data.
    static constexpr unsigned short MIN_TELEGRAM_SIZE = HEADER_SIZE + 1;

    // Empty telegram: no data, code 0, ID 0, length 5, CRC 0.
    COrvaneMsg();
    // Request or confirmation to send; see SetMessage(nCmdCode, ...).
    COrvaneMsg(unsigned short nCmdCode, short nMsgID, const void* pData, unsigned short nSize);
    // Telegram received on the wire; see SetMessage(pRaw, nSize).
    COrvaneMsg(const void* pRaw, unsigned short nSize);

    COrvaneMsg(const COrvaneMsg&) = default;
    COrvaneMsg(COrvaneMsg&&) = default;
    COrvaneMsg& operator=(const COrvaneMsg&) = default;
    COrvaneMsg& operator=(COrvaneMsg&&) = default;
    virtual ~COrvaneMsg();

    // Stores code, ID and data (null pointer or size 0: no data), sets the
    // length to data size + 5 and computes the CRC, which is returned.
    unsigned char SetMessage(unsigned short nCmdCode, short nMsgID, const void* pData, unsigned short nSize);

    // Takes a received telegram apart. Up to 6 bytes (or no bytes at all)
    // leave an empty telegram and give false. Otherwise length, code, ID,
    // data and CRC are taken as received and the result is IsValid(), i.e.
    // whether the length field matches the received size. The CRC is not
    // checked here: that is IsCRCValid().
    bool SetMessage(const void* pRaw, unsigned short nSize);

    unsigned short GetCmdCode() const { return m_nCmdCode; }
    short GetMsgID() const { return m_nMsgID; }
    unsigned char GetCRC() const { return m_nCRC; }
    unsigned short GetLength() const { return m_nLength; }
    const std::string& GetData() const { return m_sData; }

    bool IsConfirmation() const { return (m_nCmdCode & CONFIRMATION_FLAG) != 0; }

    // True when the length field equals the data size plus 5 (16-bit compare).
    virtual bool IsValid() const;
    // XOR over command code, message ID (little-endian) and data.
    virtual unsigned char ComputeCRC() const;

    bool IsCRCValid() const { return m_nCRC == ComputeCRC(); }

    // The wire form; length and CRC are written as stored, not recomputed.
    std::string GetMessageData() const;
    // Size of the wire form.
    std::size_t GetMessageSize() const { return HEADER_SIZE + m_sData.size() + 1; }
    // Writes the wire form into pBuffer (nSize bytes of room) and returns its
    // size; 0, and nothing written, when it does not fit.
    std::size_t CopyMessageData(void* pBuffer, std::size_t nSize) const;

    // Command code of a command on a device type: (type & 0x7F) << 8 | low byte.
    static constexpr unsigned short MakeCmdCode(int nDeviceType, unsigned char nCommand)
    {
        return static_cast<unsigned short>(((nDeviceType & 0x7F) << 8) | nCommand);
    }

private:
    void Clear();

    std::string m_sData;
    unsigned short m_nLength;
    unsigned short m_nCmdCode;
    short m_nMsgID;
    unsigned char m_nCRC;
};

#endif // ORVANE_MSG_H
