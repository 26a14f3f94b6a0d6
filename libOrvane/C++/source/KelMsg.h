// CKelMsg: the connection message two CKelIPConnections exchange about the
// connection itself (connect, disconnect, alive), and the little-endian wire
// helpers the transport shares.
//
// Wire layout (little-endian words), n data bytes, n + 7 bytes in all:
//   0 length = n + 5 | 2 command | 4 number | 6 data (n) | 6 + n CRC
// The CRC is the XOR of the command's two bytes, the number's two bytes and
// every data byte; the length word is not included. Bit 15 of the command
// marks a confirmation. The commands of one connection carry its id byte
// (low 7 bits) in their high byte, e.g. for the CAN device type 2:
// connect request 0x0201, its confirmation 0x8201.
#ifndef KEL_MSG_H
#define KEL_MSG_H

#include <string>

class CKelMsg
{
public:
    // Low parts of the connection-level commands.
    enum ECommand : unsigned short
    {
        eConnectReq = 0x0001,
        eDisconnectReq = 0x0002,
        eAliveReq = 0x000D,
        eConfirmation = 0x8000
    };

    static const unsigned short HEADER_SIZE = 6; // length word, command, number
    static const unsigned short OVERHEAD = 7;    // header plus CRC

    // The command `nCode` (one of ECommand, optionally ORed with
    // eConfirmation) for connection identifier `nId`: (nId & 127) * 256 + nCode.
    static unsigned short Command(unsigned char nId, unsigned short nCode)
    {
        return static_cast<unsigned short>(((nId & 127u) << 8) + nCode);
    }

    // All fields 0, no data.
    CKelMsg();
    // Sets the fields and computes length and CRC (see SetMessage).
    CKelMsg(unsigned short nCommand, unsigned short nNumber, const char* pcData, unsigned short nDataLength);
    // Parses wire bytes (see SetMessage).
    CKelMsg(const char* pcBytes, unsigned short nCount);
    virtual ~CKelMsg();

    // True when the length field equals data length + 5.
    virtual bool IsValid() const;

    // No data when `pcData` is null or `nDataLength` is 0; length = nDataLength + 5.
    void SetMessage(unsigned short nCommand, unsigned short nNumber, const char* pcData, unsigned short nDataLength);
    // count > 6: length, command, number from bytes 0-5, data = bytes 6 ..
    // count - 2, CRC = last byte; returns IsValid(). count <= 6: the message is
    // cleared (length 5, everything else 0) and the result is false.
    bool SetMessage(const char* pcBytes, unsigned short nCount);

    bool IsCRCValid() const { return ComputeCRC() == m_nCRC; }
    unsigned char ComputeCRC() const;
    bool IsConfirmation() const { return (m_nCommand & eConfirmation) != 0; }

    // The wire bytes; `sOut` is cleared first.
    void GetMessageData(std::string& sOut) const;
    // Writes the wire bytes into `pcBuffer` without allocating; returns their
    // number, or 0 when they do not fit into `nSize`.
    unsigned int WriteTo(char* pcBuffer, unsigned int nSize) const;
    unsigned int GetWireSize() const { return static_cast<unsigned int>(m_sData.size()) + OVERHEAD; }

    unsigned short GetLength() const { return m_nLength; }
    unsigned short GetCommand() const { return m_nCommand; }
    unsigned short GetNumber() const { return m_nNumber; }
    const std::string& GetData() const { return m_sData; }
    unsigned char GetCRC() const { return m_nCRC; }

    // Builds a whole message into `pcBuffer` without a CKelMsg object; returns
    // the byte count (dataLength + 7), or 0 when it does not fit.
    static unsigned int Build(char* pcBuffer, unsigned int nSize, unsigned short nCommand, unsigned short nNumber,
                              const char* pcData, unsigned short nDataLength);
    static unsigned char ComputeCRC(unsigned short nCommand, unsigned short nNumber, const char* pcData,
                                    unsigned int nDataLength);
    // What parsing the bytes and asking IsValid() and IsCRCValid() would say,
    // without copying: more than 6 bytes, a length word that counts the bytes
    // after it, and a matching CRC.
    static bool IsIntact(const char* pcBytes, unsigned short nCount);

    // The header's two integer widths, through KelByteOrder.h (the one
    // byte-order API; new code uses it or KelPayload.h directly).
    static void PutU16(char* pcOut, unsigned short nValue);
    static void PutU32(char* pcOut, unsigned int nValue);
    static unsigned short GetU16(const char* pcBytes);
    static unsigned int GetU32(const char* pcBytes);

private:
    unsigned short m_nLength;
    unsigned short m_nCommand;
    unsigned short m_nNumber;
    std::string m_sData;
    unsigned char m_nCRC;
};

#endif
