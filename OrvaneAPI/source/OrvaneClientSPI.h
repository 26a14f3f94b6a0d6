// COrvaneClientSPI: the client of an SPI port of a gateway: bus parameters,
// full-duplex transfers and transfer sequences, the latter either waiting or
// in two steps (send now, collect the confirmation later by its telegram
// identifier). Command codes in OrvaneProtocol.h; every operation returns
// the request's return code (OrvaneClient.h).
#ifndef ORVANE_CLIENT_SPI_H
#define ORVANE_CLIENT_SPI_H

#include "OrvaneClient.h"

#include <atomic>
#include <string>

// Width of an EEPROM offset in bytes.
enum EOffsetFormat
{
    eOffset1Byte = 1,
    eOffset2Byte = 2,
    eOffset3Byte = 3,
    eOffset4Byte = 4
};

class COrvaneClientSPI : public COrvaneClient
{
public:
    explicit COrvaneClientSPI(int nTimeout);
    ~COrvaneClientSPI() override;

    // The bus clock as last set or read (100000 at first).
    unsigned int GetStoredBaudrate() const { return m_nBaudrate.load(std::memory_order_relaxed); }

    int SetGlobals(unsigned int nBaudrate, unsigned char nSignalLevel, unsigned char nAuxVoltage,
                   unsigned char nClockMode);
    // Outputs written on result 0 from a confirmation of 8 bytes or more.
    int GetGlobals(unsigned int& nBaudrate, unsigned char& nSignalLevel, unsigned char& nAuxVoltage,
                   unsigned char& nClockMode);
    // Clocks out nOutLength bytes, padded with zeros up to nInLength, and
    // copies up to nInLength bytes clocked in (also on a device error).
    int DataReq(const char* pcOut, unsigned short nOutLength, char* pcIn, unsigned short nInLength);
    // Waiting form: pcIn receives the confirmation from its result byte on
    // (up to nInLength bytes), so pcIn[0] is the device's result.
    int SequenceReq(const char* pcSequence, unsigned short nLength, char* pcIn, unsigned short nInLength);
    // Sending form: only sends; *pnId is the telegram identifier with which
    // SequenceGetCnf collects the confirmation.
    int SequenceReq(const char* pcSequence, unsigned short nLength, short* pnId);
    // Waits (default time-out) for the confirmation of the sequence sent
    // under nId and copies up to nInLength bytes of its data (from byte 1)
    // into pcIn when given. 0x40000 when none came.
    int SequenceGetCnf(short nId, char* pcIn, unsigned short nInLength);

    int ReadDigital(unsigned int& nInputs, unsigned int& nOutputs) { return BaseReadDigital(nInputs, nOutputs); }
    int WriteDigital(unsigned int nOutputs) { return BaseWriteDigital(nOutputs); }

    // Slave address of an EEPROM by format word: chip-select scheme in bits
    // 8-9, word-address bits in bits 0-7, block bits above them.
    static unsigned short GetEEPROMSlaveAddress(unsigned short nChip, unsigned int nAddress, unsigned int nFormat);
    // The low eFormat bytes of nAddress, most significant first.
    static std::string ToOffset(unsigned int nAddress, EOffsetFormat eFormat);

private:
    std::atomic<unsigned int> m_nBaudrate;
};

#endif // ORVANE_CLIENT_SPI_H
