// The clients of the test-system device kinds. COrvaneClientTestSystemCOM
// manages named configuration files on the device: queries and selects them,
// uploads a file in pieces with its CRC-32, installs it. The IO and PWR
// clients set and read arrays of 16-bit values. Command codes and layouts in
// OrvaneProtocol.h; every operation returns the request's return code
// (OrvaneClient.h) and writes its outputs only on result 0.
#ifndef ORVANE_CLIENT_TEST_SYSTEM_H
#define ORVANE_CLIENT_TEST_SYSTEM_H

#include "OrvaneClient.h"

#include <istream>
#include <string>

class COrvaneClientTestSystemCOM : public COrvaneClient
{
public:
    explicit COrvaneClientTestSystemCOM(int nTimeout);
    ~COrvaneClientTestSystemCOM() override;

    // Names are at most 255 bytes (0x920000 otherwise).
    int SetConfig(const std::string& sName);
    int GetConfig(std::string& sName);
    // nCrc is written only when the configuration is available.
    int IsConfigAvailable(const std::string& sName, bool& bAvailable, unsigned int& nCrc);
    // Uploads the file at sPath under its file name: the first piece with
    // its CRC-32 and size, further pieces of up to 32768 bytes while the
    // device asks for them (result 0x21). nPieceTimeout: milliseconds to
    // wait for the confirmation of each piece (0: the default time-out),
    // for devices that store each piece before they answer. A file that
    // cannot be read gives 0xD20.
    int SendFile(const std::string& sPath, unsigned int nPieceTimeout = 0);
    // Installs the uploaded file sPath (by its file name and CRC-32) as the
    // configuration sName. A file that cannot be read gives 0xD20.
    int InstallConfig(const std::string& sPath, const std::string& sName);

    // The part of sPath after its last '\' or '/'.
    static std::string GetFileName(const std::string& sPath);
    // CRC-32 (the reflected 0x04C11DB7 one) of everything left in the
    // stream.
    static unsigned int GetCRC32(std::istream& oStream);
};

class COrvaneClientTestSystemIO : public COrvaneClient
{
public:
    explicit COrvaneClientTestSystemIO(int nTimeout);
    ~COrvaneClientTestSystemIO() override;

    // nCount values, element 0 first.
    int SetValue(unsigned short* pnValues, unsigned char nCount);
    // nCount values into pnValues; values the confirmation does not reach
    // read as 0.
    int GetValue(unsigned short* pnValues, unsigned char nCount);
};

class COrvaneClientTestSystemPWR : public COrvaneClient
{
public:
    explicit COrvaneClientTestSystemPWR(int nTimeout);
    ~COrvaneClientTestSystemPWR() override;

    int SetValue(unsigned short* pnValues, unsigned char nCount);
    int GetValue(unsigned short* pnValues, unsigned char nCount);
};

#endif // ORVANE_CLIENT_TEST_SYSTEM_H
