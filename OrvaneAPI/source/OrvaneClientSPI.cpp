#include "OrvaneClientSPI.h"

#include "KelPayload.h"
#include "OrvaneProtocol.h"

#include <algorithm>
#include <cstring>

using namespace OrvaneSPI;

namespace
{

constexpr unsigned char TRACE_LEVEL_TRANSFER = 0x08;
constexpr unsigned char TRACE_LEVEL_COLLECT = 0x10;

void CopyOut(char* pcTarget, const std::string& sBytes)
{
    if (pcTarget != nullptr && !sBytes.empty())
        std::memcpy(pcTarget, sBytes.data(), sBytes.size());
}

} // namespace

COrvaneClientSPI::COrvaneClientSPI(int nTimeout)
    : COrvaneClient(eOrvaneSPI, static_cast<unsigned int>(nTimeout)), m_nBaudrate(100000)
{
}

COrvaneClientSPI::~COrvaneClientSPI()
{
    ShutdownConnection();
}

int COrvaneClientSPI::SetGlobals(unsigned int nBaudrate, unsigned char nSignalLevel, unsigned char nAuxVoltage,
                                 unsigned char nClockMode)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(
        eCmdSetGlobals, CKelPayloadWriter().U32(nBaudrate).U8(nSignalLevel).U8(nAuxVoltage).U8(nClockMode).Data(),
        "SET_GLOBALS",
        [&](std::string& sText) {
            // The three settings go into the text as raw characters.
            sText.append(", SignalLevel=").push_back(static_cast<char>(nSignalLevel));
            sText.append(", AuXVoltage=").push_back(static_cast<char>(nAuxVoltage));
            sText.append(", ClockMode=").push_back(static_cast<char>(nClockMode));
            sText.append(", Baudrate=").append(std::to_string(nBaudrate));
        },
        oCnf);
    if (nRet == ORVANE_OK)
        m_nBaudrate.store(nBaudrate, std::memory_order_relaxed);
    return nRet;
}

int COrvaneClientSPI::GetGlobals(unsigned int& nBaudrate, unsigned char& nSignalLevel, unsigned char& nAuxVoltage,
                                 unsigned char& nClockMode)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(eCmdGetGlobals, std::string(), "GET_GLOBALS", oCnf);
    if (nRet == ORVANE_OK && oCnf->GetData().size() > 7)
    {
        const CKelPayloadReader oData(oCnf->GetData());
        nBaudrate = oData.U32(1);
        nSignalLevel = oData.U8(5);
        nAuxVoltage = oData.U8(6);
        nClockMode = oData.U8(7);
        m_nBaudrate.store(nBaudrate, std::memory_order_relaxed);
    }
    return nRet;
}

int COrvaneClientSPI::DataReq(const char* pcOut, unsigned short nOutLength, char* pcIn, unsigned short nInLength)
{
    std::string sOut(pcOut != nullptr ? pcOut : "", pcOut != nullptr ? nOutLength : 0);
    if (sOut.size() < nInLength)
        sOut.resize(nInLength, '\0');
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nSent = SendRequest(eCmdData, sOut, "DATA REQ", NoParams, oCnf, nullptr, TRACE_LEVEL_TRANSFER);
    if (nSent != ORVANE_OK)
        return nSent;
    CopyOut(pcIn, CKelPayloadReader(oCnf->GetData()).Bytes(1, nInLength));
    return GetCnfRetCode(*oCnf);
}

int COrvaneClientSPI::SequenceReq(const char* pcSequence, unsigned short nLength, char* pcIn, unsigned short nInLength)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nSent = SendRequest(eCmdSequence, std::string(pcSequence, pcSequence != nullptr ? nLength : 0),
                                  "SEQUENCE REQ", NoParams, oCnf, nullptr, TRACE_LEVEL_TRANSFER);
    if (nSent != ORVANE_OK)
        return nSent;
    CopyOut(pcIn, CKelPayloadReader(oCnf->GetData()).Bytes(0, nInLength));
    return GetCnfRetCode(*oCnf);
}

int COrvaneClientSPI::SequenceReq(const char* pcSequence, unsigned short nLength, short* pnId)
{
    const short nId = NextTelegramID();
    if (pnId != nullptr)
        *pnId = nId;
    if (IsTraceActive(TRACE_LEVEL_TRANSFER))
        Trace(TRACE_LEVEL_TRANSFER, __LINE__, RequestTraceText("SEQUENCE REQ"));
    const COrvaneMsg oRequest(eCmdSequence, nId, pcSequence, pcSequence != nullptr ? nLength : 0);
    return SendMsg(oRequest);
}

int COrvaneClientSPI::SequenceGetCnf(short nId, char* pcIn, unsigned short nInLength)
{
    if (IsTraceActive(TRACE_LEVEL_COLLECT))
        Trace(TRACE_LEVEL_COLLECT, __LINE__, "SEQUENCE GET CNF id=" + std::to_string(nId));
    const std::unique_ptr<COrvaneMsg> oCnf(WaitForMsg(nId, nullptr));
    if (!oCnf)
        return ORVANE_ERR_TCP_TIMEOUT;
    if (!oCnf->IsCRCValid())
        return ORVANE_ERR_TELEGRAM_CRC;
    if (oCnf->GetCmdCode() != (eCmdSequence | COrvaneMsg::CONFIRMATION_FLAG))
        return ORVANE_ERR_TELEGRAM_NOT_CONFIRMED;
    CopyOut(pcIn, CKelPayloadReader(oCnf->GetData()).Bytes(1, nInLength));
    return GetCnfRetCode(*oCnf);
}

unsigned short COrvaneClientSPI::GetEEPROMSlaveAddress(unsigned short nChip, unsigned int nAddress,
                                                       unsigned int nFormat)
{
    const unsigned int nOffsetBits = std::min(nFormat & 0xFFu, 16u);
    const unsigned int nBlockBits = (nFormat & 0x300u) >> 8;
    const unsigned int nBlockValue =
        nAddress & ((1u << ((nBlockBits + nOffsetBits) & 31u)) - (1u << (nOffsetBits & 31u)));
    unsigned int nSlave = 0xA0;
    switch (nFormat & 0x300u)
    {
    case 0x000:
        nSlave |= (nChip & 7u) << 1;
        break;
    case 0x100:
        nSlave |= (nChip & 3u) << 2;
        break;
    case 0x200:
        nSlave |= (nChip & 1u) << 3;
        break;
    default:
        break;
    }
    // Shift counts modulo 32, as the processor takes them.
    nSlave |= nBlockValue >> ((nOffsetBits - 1u) & 31u);
    return static_cast<unsigned short>(nSlave);
}

std::string COrvaneClientSPI::ToOffset(unsigned int nAddress, EOffsetFormat eFormat)
{
    const int nBytes = std::max(0, std::min(static_cast<int>(eFormat), 4));
    std::string sOffset;
    for (int i = nBytes - 1; i >= 0; --i)
        sOffset.push_back(static_cast<char>(nAddress >> (8 * i)));
    return sOffset;
}
