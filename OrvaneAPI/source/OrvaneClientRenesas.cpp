#include "OrvaneClientRenesas.h"

#include "KelPayload.h"
#include "OrvaneProtocol.h"

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <sstream>

using namespace OrvaneRenesas;

namespace
{

constexpr unsigned char TRACE_LEVEL_TRANSFER = 0x08;

} // namespace

COrvaneClientRenesas::COrvaneClientRenesas(int nTimeout)
    : COrvaneClient(eOrvaneRenesas, static_cast<unsigned int>(nTimeout))
{
}

COrvaneClientRenesas::~COrvaneClientRenesas()
{
    ShutdownConnection();
}

int COrvaneClientRenesas::Init()
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(eCmdInit, std::string(), "RENESAS INIT", oCnf);
}

int COrvaneClientRenesas::CheckID(const unsigned char* pnId, unsigned char nLength)
{
    const std::size_t nSend = pnId != nullptr ? std::min<std::size_t>(nLength, MAX_ID_LENGTH) : 0;
    const std::string sId = pnId != nullptr ? std::string(reinterpret_cast<const char*>(pnId), nSend) : std::string();
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(
        eCmdCheckID, sId, "RENESAS CheckID",
        [&sId](std::string& sText) {
            std::ostringstream oText;
            oText << std::hex << std::uppercase << std::setfill('0');
            for (const char c : sId)
                oText << std::setw(2) << static_cast<unsigned int>(static_cast<unsigned char>(c));
            sText += ",ID=0x" + oText.str();
        },
        oCnf);
}

int COrvaneClientRenesas::SetBaudrate(unsigned char nIndex)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(
        eCmdSetBaudrate, CKelPayloadWriter().U8(nIndex).Data(), "RENESAS SetBaudrate",
        [nIndex](std::string& sText) { sText += ",Baudrate Index=0x" + HexText(nIndex); }, oCnf);
}

int COrvaneClientRenesas::ReadPage(unsigned short nPage, char* pcBuffer, unsigned short nSize,
                                   unsigned short& nReceived)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nSent = SendRequest(
        eCmdReadPage, CKelPayloadWriter().U16(nPage).Data(), "RENESAS READ",
        [nPage](std::string& sText) { sText += ",page address=0x" + HexText(nPage); }, oCnf, nullptr,
        TRACE_LEVEL_TRANSFER);
    if (nSent != ORVANE_OK)
        return nSent;
    const std::string sData = CKelPayloadReader(oCnf->GetData()).Bytes(1, nSize);
    nReceived = static_cast<unsigned short>(sData.size());
    if (!sData.empty())
        std::memcpy(pcBuffer, sData.data(), sData.size());
    return GetCnfRetCode(*oCnf);
}

int COrvaneClientRenesas::EraseAll()
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(eCmdEraseAll, std::string(), "RENESAS ERASE ALL", oCnf);
}

int COrvaneClientRenesas::WritePage(unsigned short nPage, const char* pcData, unsigned short nLength)
{
    std::string sPage(pcData != nullptr ? pcData : "",
                      pcData != nullptr ? std::min<std::size_t>(nLength, PAGE_SIZE) : 0);
    sPage.resize(PAGE_SIZE, '\0');
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(
        eCmdWritePage, CKelPayloadWriter(2 + PAGE_SIZE).U16(nPage).Bytes(sPage).Data(), "RENESASA WRITE",
        [nPage](std::string& sText) { sText += ",page address=0x" + HexText(nPage); }, oCnf, nullptr,
        TRACE_LEVEL_TRANSFER);
}

int COrvaneClientRenesas::GetVersion(char* pcBuffer, unsigned char nSize)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet =
        Request(eCmdGetVersion, std::string(), "RENESAS GET VERSION", NoParams, oCnf, nullptr, TRACE_LEVEL_TRANSFER);
    if (nRet == ORVANE_OK && pcBuffer != nullptr)
    {
        const std::string sVersion = CKelPayloadReader(oCnf->GetData()).Bytes(1, nSize);
        if (!sVersion.empty())
            std::memcpy(pcBuffer, sVersion.data(), sVersion.size());
    }
    return nRet;
}

int COrvaneClientRenesas::Complete()
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(eCmdComplete, std::string(), "RENESAS COMPLETE", oCnf);
}

int COrvaneClientRenesas::VerifyCheck(unsigned short nStart, unsigned short nEnd, unsigned short& nResult)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(
        eCmdVerifyCheck, CKelPayloadWriter().U16(nStart).U16(nEnd).Data(), "RENESAS VERIFY CHECK",
        [nStart, nEnd](std::string& sText) {
            sText += ",start address=0x" + HexText(nStart) + ",end address=0x" + HexText(nEnd);
        },
        oCnf, nullptr, TRACE_LEVEL_TRANSFER);
    if (nRet == ORVANE_OK && oCnf->GetData().size() > 2)
        nResult = CKelPayloadReader(oCnf->GetData()).U16(1);
    return nRet;
}

int COrvaneClientRenesas::BlockErase(unsigned short nBlock)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(eCmdBlockErase, CKelPayloadWriter().U16(nBlock).Data(), "RENESAS BLOCK ERASE", oCnf);
}
