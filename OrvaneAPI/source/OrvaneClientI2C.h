// COrvaneClientI2C: the client of an I2C port of a gateway: bus clock, plain
// transfers, raw bus steps, transfer sequences and serial EEPROM access. Each
// operation is one request telegram (command codes in OrvaneProtocol.h) and
// returns the request's return code (OrvaneClient.h). Outputs are written as
// each operation says; some also when the device reports an error.
#ifndef ORVANE_CLIENT_I2C_H
#define ORVANE_CLIENT_I2C_H

#include "OrvaneClient.h"

#include <atomic>
#include <string>

// One transfer of the list form of WriteSequence.
struct I2CCommand
{
    // 8-bit bus address; bit 0 set means a read transfer.
    unsigned short m_nAddress;
    // Bytes to write, or bytes expected for a read.
    unsigned short m_nLength;
    // The bytes to write, or the caller's buffer for a read.
    char* m_pcData;
};

class COrvaneClientI2C : public COrvaneClient
{
public:
    explicit COrvaneClientI2C(int nTimeout);
    ~COrvaneClientI2C() override;

    using COrvaneClient::Open;
    // Open() of the base, then SetBaudrate(nRate).
    int Open(unsigned int nRate);

    // The bus clock in Hz as last set or read (100000 at first).
    unsigned int GetStoredBaudrate() const { return m_nBaudrate.load(std::memory_order_relaxed); }

    // 100 and 400 are taken as kHz.
    int SetBaudrate(unsigned int nRate);
    // nRate is written whenever a confirmation arrived, whatever its result.
    int GetBaudrate(unsigned int& nRate);
    // nReceived is 0 until a confirmation arrives; then the data it carries
    // (at most nCount bytes) are copied, also on a device error.
    int Read(unsigned short nSlave, char* pcBuffer, unsigned short nCount, unsigned short& nReceived);
    // nStatus is written when a confirmation carries it, whatever the result.
    int Write(unsigned short nSlave, const char* pcData, unsigned short nCount, unsigned short& nStatus);
    int Reset();
    int RAWStart();
    int RAWSend(unsigned char nFirst, unsigned char nSecond);
    int RAWGet(unsigned char nFirst, unsigned char& nValue);
    int RAWStop();
    // Sends a prepared sequence; the device returns up to nReadBufferSize
    // bytes read. nStatus and nReadCount are written whenever a confirmation
    // arrived, whatever its result.
    int WriteSequence(const char* pcSequence, unsigned short nSequenceLength, char* pcReadBuffer,
                      unsigned short nReadBufferSize, unsigned short& nReadCount, unsigned short& nStatus);
    // The list form: builds the sequence from the commands and hands each
    // read command the data read. Every read command receives the data from
    // the start of what was read (the device's sequences read at most once).
    int WriteSequence(I2CCommand* poCommands, unsigned short nCommandCount, unsigned short& nStatus);
    int ReadEEProm(unsigned short nChip, unsigned int nAddress, unsigned short nFormat, char* pcBuffer,
                   unsigned short nCount, unsigned short& nReceived);
    int WriteEEProm(unsigned short nChip, unsigned int nAddress, unsigned short nFormat, const char* pcData,
                    unsigned short nCount);
    int WriteEEPromPollAck(unsigned short nChip, unsigned int nAddress, unsigned short nFormat, const char* pcData,
                           unsigned short nCount, unsigned short nPoll);

    int ReadDigital(unsigned int& nInputs, unsigned int& nOutputs) { return BaseReadDigital(nInputs, nOutputs); }
    int WriteDigital(unsigned int nOutputs) { return BaseWriteDigital(nOutputs); }

    // EEPROM addressing by format word: bits 0-7 the word-address bits
    // inside the chip, bits 8-9 the block bits above them that travel in the
    // slave address, bits 8-10 the scheme placing chip-select and block bits.
    static unsigned short GetEEPROMSlaveAddress(unsigned short nChip, unsigned int nAddress, unsigned short nFormat);
    // The 4 offset bytes, most significant first; the block bits stay in.
    static std::string ToOffset(unsigned int nAddress, unsigned short nFormat);
    // Slave address, offset size and offset bytes; nPoll goes between the
    // slave address and the offset size when given.
    static std::string EEPromHeader(unsigned short nChip, unsigned int nAddress, unsigned short nFormat,
                                    const unsigned short* pnPoll = nullptr);

private:
    std::atomic<unsigned int> m_nBaudrate;
};

#endif // ORVANE_CLIENT_I2C_H
