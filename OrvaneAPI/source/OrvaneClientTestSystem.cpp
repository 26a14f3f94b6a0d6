#include "OrvaneClientTestSystem.h"

#include "KelPayload.h"
#include "OrvaneProtocol.h"

#include <boost/crc.hpp>

#include <fstream>
#include <vector>

using namespace OrvaneTestSystem;

namespace
{

constexpr std::size_t CRC_PIECE = 4096;

// A name as one length byte and its bytes; false when it is too long.
bool PutName(CKelPayloadWriter& oPayload, const std::string& sName)
{
    if (sName.size() > MAX_NAME_LENGTH)
        return false;
    oPayload.U8(static_cast<unsigned char>(sName.size())).Bytes(sName);
    return true;
}

std::string Values(const unsigned short* pnValues, unsigned char nCount)
{
    CKelPayloadWriter oPayload(2u * nCount);
    for (unsigned char i = 0; i < nCount; ++i)
        oPayload.U16(pnValues[i]);
    return oPayload.Data();
}

void ReadValues(const COrvaneMsg& oConfirmation, unsigned short* pnValues, unsigned char nCount)
{
    const CKelPayloadReader oData(oConfirmation.GetData());
    for (unsigned char i = 0; i < nCount; ++i)
        pnValues[i] = oData.U16(1 + 2u * i);
}

// The device's error for a file that cannot be opened or read.
constexpr int FileError(EOrvaneDevice eType)
{
    return (eType << 8) | 0x20;
}

} // namespace

COrvaneClientTestSystemCOM::COrvaneClientTestSystemCOM(int nTimeout)
    : COrvaneClient(eOrvaneTestSystemCOM, static_cast<unsigned int>(nTimeout))
{
}

COrvaneClientTestSystemCOM::~COrvaneClientTestSystemCOM()
{
    ShutdownConnection();
}

int COrvaneClientTestSystemCOM::SetConfig(const std::string& sName)
{
    CKelPayloadWriter oPayload;
    if (!PutName(oPayload, sName))
        return ORVANE_ERR_INVALID_PARAMETER;
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(
        eCmdSetConfig, oPayload.Data(), "SET CONFIG", [&sName](std::string& sText) { sText += ",name=" + sName; },
        oCnf);
}

int COrvaneClientTestSystemCOM::GetConfig(std::string& sName)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(eCmdGetConfig, std::string(), "GET CONFIG", oCnf);
    if (nRet == ORVANE_OK)
    {
        const CKelPayloadReader oData(oCnf->GetData());
        sName = oData.Bytes(2, oData.U8(1));
    }
    return nRet;
}

int COrvaneClientTestSystemCOM::IsConfigAvailable(const std::string& sName, bool& bAvailable, unsigned int& nCrc)
{
    CKelPayloadWriter oPayload;
    if (!PutName(oPayload, sName))
        return ORVANE_ERR_INVALID_PARAMETER;
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(
        eCmdIsConfigAvailable, oPayload.Data(), "IS CONFIG AVAILABLE",
        [&sName](std::string& sText) { sText += ",name=" + sName; }, oCnf);
    if (nRet != ORVANE_OK)
        return nRet;
    const CKelPayloadReader oData(oCnf->GetData());
    if (oData.Size() > 1)
    {
        bAvailable = oData.U8(1) != 0;
        if (bAvailable && oData.Size() >= 6)
            nCrc = oData.U32(2);
    }
    return nRet;
}

int COrvaneClientTestSystemCOM::SendFile(const std::string& sPath, unsigned int nPieceTimeout)
{
    const std::string sFileName = GetFileName(sPath);
    std::ifstream oFile(sPath, std::ios::binary);
    if (!oFile || sFileName.size() > MAX_NAME_LENGTH)
        return !oFile ? FileError(GetDeviceType()) : ORVANE_ERR_INVALID_PARAMETER;
    const unsigned int nCrc = GetCRC32(oFile);
    oFile.clear();
    oFile.seekg(0, std::ios::end);
    const std::streamoff nSize = oFile.tellg();
    oFile.seekg(0, std::ios::beg);
    if (!oFile || nSize < 0 || static_cast<unsigned long long>(nSize) > 0xFFFFFFFFull)
        return FileError(GetDeviceType());

    const unsigned int* pnTimeout = nPieceTimeout != 0 ? &nPieceTimeout : nullptr;
    std::vector<char> acPiece(FILE_PIECE);
    oFile.read(acPiece.data(), FILE_PIECE);
    CKelPayloadWriter oFirst(9 + sFileName.size() + FILE_PIECE);
    oFirst.U32(nCrc).U32(static_cast<unsigned int>(nSize));
    PutName(oFirst, sFileName);
    oFirst.Bytes(acPiece.data(), static_cast<std::size_t>(oFile.gcount()));
    std::unique_ptr<COrvaneMsg> oCnf;
    int nRet = Request(
        eCmdFileStart, oFirst.Data(), "SEND FILE",
        [&](std::string& sText) {
            sText += ",file=" + sFileName + ",size=" + std::to_string(nSize) + ",crc=" + std::to_string(nCrc);
        },
        oCnf, pnTimeout);
    // The device asks for each further piece with result 0x21.
    while ((nRet & 0xFF) == RESULT_NEXT_PIECE && !oFile.fail())
    {
        oFile.read(acPiece.data(), FILE_PIECE);
        nRet = Request(eCmdFileNext, std::string(acPiece.data(), static_cast<std::size_t>(oFile.gcount())),
                       "SEND FILE DATA", NoParams, oCnf, pnTimeout);
    }
    return nRet;
}

int COrvaneClientTestSystemCOM::InstallConfig(const std::string& sPath, const std::string& sName)
{
    std::ifstream oFile(sPath, std::ios::binary);
    if (!oFile)
        return FileError(GetDeviceType());
    const unsigned int nCrc = GetCRC32(oFile);
    if (oFile.bad())
        return FileError(GetDeviceType());
    CKelPayloadWriter oPayload;
    oPayload.U32(nCrc);
    if (!PutName(oPayload, GetFileName(sPath)) || !PutName(oPayload, sName))
        return ORVANE_ERR_INVALID_PARAMETER;
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(
        eCmdInstallConfig, oPayload.Data(), "INSTALL CONFIG",
        [&](std::string& sText) { sText += ",file=" + GetFileName(sPath) + ",name=" + sName; }, oCnf);
}

std::string COrvaneClientTestSystemCOM::GetFileName(const std::string& sPath)
{
    const std::size_t nLast = sPath.find_last_of("\\/");
    return nLast == std::string::npos ? sPath : sPath.substr(nLast + 1);
}

unsigned int COrvaneClientTestSystemCOM::GetCRC32(std::istream& oStream)
{
    boost::crc_32_type oCrc;
    std::vector<char> acPiece(CRC_PIECE);
    while (oStream)
    {
        oStream.read(acPiece.data(), CRC_PIECE);
        oCrc.process_bytes(acPiece.data(), static_cast<std::size_t>(oStream.gcount()));
    }
    return oCrc.checksum();
}

COrvaneClientTestSystemIO::COrvaneClientTestSystemIO(int nTimeout)
    : COrvaneClient(eOrvaneTestSystemIO, static_cast<unsigned int>(nTimeout))
{
}

COrvaneClientTestSystemIO::~COrvaneClientTestSystemIO()
{
    ShutdownConnection();
}

int COrvaneClientTestSystemIO::SetValue(unsigned short* pnValues, unsigned char nCount)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(eCmdIOSetValue, Values(pnValues, nCount), "SET VALUE", oCnf);
}

int COrvaneClientTestSystemIO::GetValue(unsigned short* pnValues, unsigned char nCount)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(eCmdIOGetValue, std::string(), "GET VALUE", oCnf);
    if (nRet == ORVANE_OK)
        ReadValues(*oCnf, pnValues, nCount);
    return nRet;
}

COrvaneClientTestSystemPWR::COrvaneClientTestSystemPWR(int nTimeout)
    : COrvaneClient(eOrvaneTestSystemPWR, static_cast<unsigned int>(nTimeout))
{
}

COrvaneClientTestSystemPWR::~COrvaneClientTestSystemPWR()
{
    ShutdownConnection();
}

int COrvaneClientTestSystemPWR::SetValue(unsigned short* pnValues, unsigned char nCount)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(eCmdPWRSetValue, Values(pnValues, nCount), "SET VALUE", oCnf);
}

int COrvaneClientTestSystemPWR::GetValue(unsigned short* pnValues, unsigned char nCount)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(eCmdPWRGetValue, std::string(), "GET VALUE", oCnf);
    if (nRet == ORVANE_OK)
        ReadValues(*oCnf, pnValues, nCount);
    return nRet;
}
