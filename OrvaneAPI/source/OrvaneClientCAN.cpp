#include "OrvaneClientCAN.h"

#include "KelByteOrder.h"
#include "KelLocalTime.h"
#include "KelMsg.h"
#include "KelPayload.h"
#include "OrvaneProtocol.h"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <vector>

using namespace OrvaneCan;

namespace
{

// Trace parameter texts: ", Name=" and the value.
struct SParam
{
    std::string& m_rsText;
    SParam& Num(const char* pcName, unsigned long long nValue)
    {
        m_rsText.append(pcName).append(std::to_string(nValue));
        return *this;
    }
    SParam& Int(const char* pcName, long long nValue)
    {
        m_rsText.append(pcName).append(std::to_string(nValue));
        return *this;
    }
    SParam& Flag(const char* pcName, bool bValue) { return Num(pcName, bValue ? 1 : 0); }
};

// A 32-bit value of the SDO confirmations from payload bytes 2 to 5, filled
// as far as the payload reaches. Each byte is taken as signed and added at
// its place, so a byte of 0x80 or more borrows from the bytes above it: the
// gateway's own arithmetic, kept on purpose (not a little-endian read).
void ReadSdoValue(const CKelPayloadReader& oData, unsigned char& nResult, unsigned int& nValue)
{
    if (oData.Size() > 1)
        nResult = oData.U8(1);
    if (oData.Size() > 2)
        nValue = static_cast<unsigned int>(static_cast<int>(oData.S8(2)));
    for (std::size_t nByte = 1; nByte < 4 && oData.Size() > 2 + nByte; ++nByte)
        nValue += static_cast<unsigned int>(static_cast<int>(oData.S8(2 + nByte))) << (8 * nByte);
}

// A 16-bit value of the ZCard confirmation: (high byte as signed) * 256 plus
// (low byte as signed), kept to 16 bits - the same borrowing arithmetic.
unsigned short ReadZCardWord(const CKelPayloadReader& oData, std::size_t nOffset)
{
    return static_cast<unsigned short>(oData.S8(nOffset + 1) * 256 + oData.S8(nOffset));
}

// Milliseconds from local midnight of 01.01.1970 to now, as the difference
// CKelLocalTime::CurrentLocalTime() - CKelLocalTime("01.01.1970") gives them.
// Write stamps every frame with it, so it is taken apart: the date text is
// read once, and the system's zone (whose look-up reads the zone file) is
// asked once per wall-clock second. The zone depends on nothing but the
// current second, so this gives the same values as asking on every call.
long long MilliSecondsSinceLocalEpoch()
{
    static const long long nEpochLocal = CKelLocalTime("01.01.1970", CKelUTCTime::eDotDate, 0).GetLocaltime();
    thread_local time_t nZoneSecond = -1;
    thread_local int nZone = 0;
    timeval oNow{};
    gettimeofday(&oNow, nullptr);
    if (oNow.tv_sec != nZoneSecond)
    {
        nZone = CKelLocalTime::GetCurrentTimezone();
        nZoneSecond = oNow.tv_sec;
    }
    const long long nNowLocal = CKelUTCTime::UNIX_EPOCH_OFFSET / CKelTimeDiff::UNITS_PER_MILLI_SECOND +
        static_cast<long long>(oNow.tv_sec) * 1000 + oNow.tv_usec / 1000 + static_cast<long long>(nZone) * 3600000;
    return nNowLocal - nEpochLocal;
}

// The payload of a WRITE request: identifier (little-endian), flags, the
// data. pcPayload has room for FRAME_HEADER + nLength bytes; returns the
// payload's length.
unsigned short PutFramePayload(char* pcPayload, unsigned int nIdentifier, unsigned char nFlags, const char* pcData,
                               unsigned char nLength)
{
    KelPutLE(pcPayload, nIdentifier);
    pcPayload[4] = static_cast<char>(nFlags);
    if (nLength > 0)
        std::memcpy(pcPayload + FRAME_HEADER, pcData, nLength);
    return static_cast<unsigned short>(FRAME_HEADER + nLength);
}

} // namespace

COrvaneClientCAN::COrvaneClientCAN(int nTimeout)
    : COrvaneClient(eOrvaneCAN, static_cast<unsigned int>(nTimeout)), m_bConfirmData(false)
{
}

COrvaneClientCAN::~COrvaneClientCAN()
{
    ShutdownConnection();
}

int COrvaneClientCAN::Open(bool bConfirmData, bool bMonitor)
{
    const int nRet = COrvaneClient::Open();
    return nRet != ORVANE_OK ? nRet : SetConfig(bConfirmData, bMonitor);
}

int COrvaneClientCAN::StartAlive(unsigned int nSeconds)
{
    GetConnection().SetAlive(nSeconds * 1000);
    return ORVANE_OK;
}

int COrvaneClientCAN::Write(int nIdentifier, const char* pcBuffer, unsigned char nBufferLen, unsigned char nFlags,
                            int* pnSeconds, int* pnMicroseconds)
{
    if (pcBuffer == nullptr && nBufferLen > 0)
        return ORVANE_ERR_INVALID_PARAMETER;

    // One call per CAN frame: the payload is put together on the stack and
    // each thread reuses its own telegram, whose buffer keeps its size, so a
    // frame costs no allocation once a thread has sent its first one.
    char acPayload[FRAME_HEADER + 255];
    const unsigned short nPayload =
        PutFramePayload(acPayload, static_cast<unsigned int>(nIdentifier), nFlags, pcBuffer, nBufferLen);
    thread_local COrvaneMsg oRequest;
    oRequest.SetMessage(eCmdWrite, NextTelegramID(), acPayload, nPayload);

    if (IsTraceActive(TRACE_LEVEL_REQUEST))
        Trace(TRACE_LEVEL_REQUEST, __LINE__,
              RequestTraceText("WRITE") + ",nIdentifier=0x" + HexText(static_cast<unsigned int>(nIdentifier)));

    if (GetConfirmData())
    {
        std::unique_ptr<COrvaneMsg> oCnf;
        int nRet = SendAndWait(oRequest, oCnf, nullptr);
        // The gateway's transmit time is taken from any confirmation that
        // arrived, whatever the result.
        if (oCnf && oCnf->GetData().size() > 8)
        {
            const CKelPayloadReader oData(oCnf->GetData());
            if (pnSeconds != nullptr)
                *pnSeconds = oData.S32(1);
            if (pnMicroseconds != nullptr)
                *pnMicroseconds = oData.S32(5);
        }
        if (nRet == ORVANE_OK)
            nRet = GetCnfRetCode(*oCnf);
        return nRet;
    }

    const int nRet = SendMsg(oRequest);
    if (pnSeconds != nullptr || pnMicroseconds != nullptr)
    {
        const long long nSince = MilliSecondsSinceLocalEpoch();
        if (pnSeconds != nullptr)
            *pnSeconds = static_cast<int>(nSince / 1000);
        if (pnMicroseconds != nullptr)
            *pnMicroseconds = static_cast<int>(nSince % 1000 * 1000);
    }
    return nRet;
}

int COrvaneClientCAN::WriteBatch(const SCANFrame* pFrames, int nCount, int& nWritten)
{
    nWritten = 0;
    if (nCount < 0 || (pFrames == nullptr && nCount > 0))
        return ORVANE_ERR_INVALID_PARAMETER;
    for (int nFrame = 0; nFrame < nCount; ++nFrame)
        if (pFrames[nFrame].m_nLength > sizeof(pFrames[nFrame].m_acData))
            return ORVANE_ERR_INVALID_PARAMETER;

    // Waiting for each confirmation, or dumping each telegram, is what Write
    // does frame by frame already.
    if (GetConfirmData() || IsTraceActive(TRACE_LEVEL_TELEGRAM))
    {
        for (; nWritten < nCount; ++nWritten)
        {
            const SCANFrame& oFrame = pFrames[nWritten];
            const int nRet = Write(static_cast<int>(oFrame.m_nIdentifier), oFrame.m_acData, oFrame.m_nLength,
                                   oFrame.m_nFlags, nullptr, nullptr);
            if (nRet != ORVANE_OK)
                return nRet;
        }
        return ORVANE_OK;
    }

    // The telegrams go into one buffer per thread, reused from call to call,
    // and leave in sends of up to WIRE_CHUNK bytes.
    constexpr std::size_t WIRE_CHUNK = 60000;
    constexpr std::size_t MAX_TELEGRAM = COrvaneMsg::MIN_TELEGRAM_SIZE + FRAME_HEADER + sizeof(SCANFrame::m_acData);
    thread_local std::vector<char> acWire;
    if (acWire.size() < WIRE_CHUNK + MAX_TELEGRAM)
        acWire.resize(WIRE_CHUNK + MAX_TELEGRAM);
    const bool bTrace = IsTraceActive(TRACE_LEVEL_REQUEST);
    int nFrame = 0;
    while (nFrame < nCount)
    {
        std::size_t nSize = 0;
        for (; nFrame < nCount && nSize < WIRE_CHUNK; ++nFrame)
        {
            const SCANFrame& oFrame = pFrames[nFrame];
            char acPayload[FRAME_HEADER + sizeof(oFrame.m_acData)];
            const unsigned short nPayload =
                PutFramePayload(acPayload, oFrame.m_nIdentifier, oFrame.m_nFlags, oFrame.m_acData, oFrame.m_nLength);
            nSize += CKelMsg::Build(&acWire[nSize], MAX_TELEGRAM, eCmdWrite,
                                    static_cast<unsigned short>(NextTelegramID()), acPayload, nPayload);
            if (bTrace)
                Trace(TRACE_LEVEL_REQUEST, __LINE__,
                      RequestTraceText("WRITE") + ",nIdentifier=0x" + HexText(oFrame.m_nIdentifier));
        }
        std::size_t nSent = 0;
        const int nRet = SendWire(acWire.data(), nSize, nSent);
        // Frames whose telegrams went out whole count as written.
        std::size_t nAt = 0;
        while (nAt < nSent)
        {
            nAt += KelGetLE<unsigned short>(&acWire[nAt]) + 2u;
            if (nAt > nSent)
                break;
            ++nWritten;
        }
        if (nRet != ORVANE_OK)
            return nRet;
    }
    return ORVANE_OK;
}

int COrvaneClientCAN::SetConfig(bool bConfirmData, bool bMonitor)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(
        eCmdSetConfig, CKelPayloadWriter().U8(bConfirmData).U8(bMonitor).Data(), "SET_CONFIG",
        [&](std::string& s) { SParam{s}.Flag(", ConfirmData=", bConfirmData).Flag(", Monitor=", bMonitor); }, oCnf);
    if (nRet == ORVANE_OK)
        m_bConfirmData.store(bConfirmData, std::memory_order_relaxed);
    return nRet;
}

int COrvaneClientCAN::GetConfig(bool& bConfirmData, bool& bMonitor)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(eCmdGetConfig, std::string(), "GET_CONFIG", oCnf);
    if (nRet == ORVANE_OK && oCnf->GetData().size() > 2)
    {
        const CKelPayloadReader oData(oCnf->GetData());
        bConfirmData = oData.U8(1) == 1;
        bMonitor = oData.U8(2) == 1;
        m_bConfirmData.store(bConfirmData, std::memory_order_relaxed);
    }
    return nRet;
}

int COrvaneClientCAN::SetGlobals(unsigned int nBaudrate, unsigned char nOperatingMode, bool bTermination,
                                 bool bHighSpeed, bool bTimeStamp)
{
    const std::string sPayload =
        CKelPayloadWriter(8).U8(nOperatingMode).U32(nBaudrate).U8(bTermination).U8(bHighSpeed).U8(bTimeStamp).Data();
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(
        eCmdSetGlobals, sPayload, "SET_GLOBALS",
        [&](std::string& s) {
            s.append(", Operating mode=").push_back(static_cast<char>(nOperatingMode));
            SParam{s}
                .Num(", Baudrate=", nBaudrate)
                .Flag(", Termination=", bTermination)
                .Flag(", HighSpeed=", bHighSpeed)
                .Flag(", TimestampOn=", bTimeStamp);
        },
        oCnf);
}

int COrvaneClientCAN::GetGlobals(unsigned int& nBaudrate, unsigned char& nOperatingMode, bool& bTermination,
                                 bool& bHighSpeed, bool& bTimeStamp)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(eCmdGetGlobals, std::string(), "GET_GLOBALS", oCnf);
    if (nRet != ORVANE_OK || oCnf->GetData().size() <= 5)
        return nRet;
    // Older gateways end the confirmation early: the flags they do not send
    // read as false.
    const CKelPayloadReader oData(oCnf->GetData());
    bTermination = bHighSpeed = bTimeStamp = false;
    nOperatingMode = oData.U8(1);
    nBaudrate = oData.U32(2);
    if (oData.Size() > 6)
        bTermination = oData.U8(6) == 1;
    if (oData.Size() > 7)
        bHighSpeed = oData.U8(7) == 1;
    if (oData.Size() > 8)
        bTimeStamp = oData.U8(8) == 1;
    return nRet;
}

int COrvaneClientCAN::SetTime(const timeval& oTime)
{
    const int nSeconds = static_cast<int>(oTime.tv_sec);
    const int nMicroseconds = static_cast<int>(oTime.tv_usec);
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(
        eCmdSetTime, CKelPayloadWriter(8).S32(nSeconds).S32(nMicroseconds).Data(), "SET_TIME",
        [&](std::string& s) { SParam{s}.Int(", oTime.tv_sec=", nSeconds).Int(", oTime.tv_usec=", nMicroseconds); },
        oCnf);
}

int COrvaneClientCAN::GetTime(bool& bValid, timeval& oTime)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(eCmdGetTime, std::string(), "GET_TIME", oCnf);
    if (nRet == ORVANE_OK && oCnf->GetData().size() > 9)
    {
        const CKelPayloadReader oData(oCnf->GetData());
        bValid = oData.U8(1) != 0;
        oTime.tv_sec = oData.S32(2);
        oTime.tv_usec = oData.S32(6);
    }
    return nRet;
}

int COrvaneClientCAN::SetFilter(const SConfigFilter& oFilter)
{
    CKelPayloadWriter oPayload(sizeof(oFilter.m_anWords));
    for (unsigned int nWord : oFilter.m_anWords)
        oPayload.U32(nWord);
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(eCmdSetFilter, oPayload.Data(), "SET_FILTER", oCnf);
}

int COrvaneClientCAN::GetFilter(SConfigFilter& oFilter)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(eCmdGetFilter, std::string(), "GET_FILTER", oCnf);
    if (nRet == ORVANE_OK && oCnf->GetData().size() > sizeof(oFilter.m_anWords))
    {
        CKelPayloadReader oData(oCnf->GetData());
        oData.NextU8();
        for (unsigned int& nWord : oFilter.m_anWords)
            nWord = oData.NextU32();
    }
    return nRet;
}

int COrvaneClientCAN::GetPowerStatus(unsigned char nMaxValues, unsigned char& nValues, unsigned char nMaxFlagsA,
                                     unsigned char& nFlagsA, unsigned char nMaxFlagsB, unsigned char& nFlagsB,
                                     short& nValue1, unsigned short& nValue2, unsigned short& nValue3, bool& bFlag,
                                     unsigned short* pValues, bool* pFlagsA, bool* pFlagsB)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(eCmdGetPowerStatus, std::string(), "GET_POWERSTATUS", oCnf);
    if (nRet != ORVANE_OK || oCnf->GetData().size() <= POWER_STATUS_HEADER + 1)
        return nRet;
    const CKelPayloadReader oData(oCnf->GetData());
    const unsigned char nCountValues = oData.U8(1);
    const unsigned char nCountA = oData.U8(2);
    const unsigned char nCountB = oData.U8(3);
    // A confirmation whose lists run past its end is refused as a whole:
    // nothing of it is reported.
    const std::size_t nListsEnd = POWER_STATUS_HEADER + 2 * nCountValues + nCountA + nCountB;
    if (oData.Size() < nListsEnd)
        return ORVANE_ERR_TELEGRAM_CNF_INVALID | (eOrvaneCAN << 8);

    nValues = nCountValues;
    nFlagsA = nCountA;
    nFlagsB = nCountB;
    nValue1 = oData.S16(4);
    nValue2 = oData.U16(6);
    nValue3 = oData.U16(8);
    bFlag = (oData.U8(10) & 0x01) != 0;
    // Each list is walked in full; an element is kept only where the caller
    // has room for it.
    std::size_t nPos = POWER_STATUS_HEADER;
    for (unsigned int i = 0; i < nCountValues; ++i, nPos += 2)
        if (pValues != nullptr && i < nMaxValues)
            pValues[i] = oData.U16(nPos);
    for (unsigned int i = 0; i < nCountA; ++i, ++nPos)
        if (pFlagsA != nullptr && i < nMaxFlagsA)
            pFlagsA[i] = (oData.U8(nPos) & 0x01) != 0;
    for (unsigned int i = 0; i < nCountB; ++i, ++nPos)
        if (pFlagsB != nullptr && i < nMaxFlagsB)
            pFlagsB[i] = (oData.U8(nPos) & 0x01) != 0;
    return nRet;
}

int COrvaneClientCAN::SetPowerRelais(bool bOn)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(eCmdSetPowerRelais, CKelPayloadWriter().U8(bOn).Data(), "SET_POWERRELAIS", oCnf);
}

int COrvaneClientCAN::SetActivePowerSupplies(unsigned int nBitmask)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(
        eCmdSetActivePowerSupplies, CKelPayloadWriter().U32(nBitmask).Data(), "SET_POWERACTIVESUPPLIES",
        [&](std::string& s) { SParam{s}.Num(", nBitmask=", nBitmask); }, oCnf);
}

int COrvaneClientCAN::SetZCardParameter(unsigned char nInterval, unsigned short nIDStart, unsigned short nIDEnd)
{
    // The end identifier goes out twice: gateways that read six bytes ignore
    // the trailing copy.
    const std::string sPayload = CKelPayloadWriter(7).U8(nInterval).U16(nIDStart).U16(nIDEnd).U16(nIDEnd).Data();
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(
        eCmdSetZCardParameter, sPayload, "SET_ZCARD_PI",
        [&](std::string& s) {
            SParam{s}.Num(", ZCardInterval=", nInterval).Num(", ZCardIDStart=", nIDStart).Num(", ZCardIDEnd=", nIDEnd);
        },
        oCnf);
}

int COrvaneClientCAN::GetZCardParameter(unsigned char& nInterval, unsigned short& nIDStart, unsigned short& nIDEnd)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(eCmdGetZCardParameter, std::string(), "GET_ZCARD_PI", oCnf);
    if (nRet == ORVANE_OK && oCnf->GetData().size() > 5)
    {
        const CKelPayloadReader oData(oCnf->GetData());
        nInterval = oData.U8(1);
        nIDStart = ReadZCardWord(oData, 2);
        nIDEnd = ReadZCardWord(oData, 4);
    }
    return nRet;
}

// --- CANopen ---------------------------------------------------------------

int COrvaneClientCAN::CANopenSetConfig(unsigned char nMode)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(
        eCmdCANopenSetConfig, CKelPayloadWriter().U8(nMode).Data(), "CANOPEN_SET_CONFIG",
        [&](std::string& s) { SParam{s}.Num(", CANOpenModus=", nMode); }, oCnf);
}

int COrvaneClientCAN::CANopenGetConfig(unsigned char& nMode)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(eCmdCANopenGetConfig, std::string(), "CANOPEN_GET_CONFIG", oCnf);
    if (nRet == ORVANE_OK && oCnf->GetData().size() > 1)
        nMode = CKelPayloadReader(oCnf->GetData()).U8(1);
    return nRet;
}

int COrvaneClientCAN::CANopenSetSYNCMode(unsigned short nPeriodTime)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(
        eCmdCANopenSyncMode, CKelPayloadWriter().U16(nPeriodTime).Data(), "CANOPEN_SYNC_MODE",
        [&](std::string& s) { SParam{s}.Num(", PeriodTime=", nPeriodTime); }, oCnf);
}

int COrvaneClientCAN::CANopenSendNMT(unsigned char nNodeID, unsigned char nNMTType)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(
        eCmdCANopenNMT, CKelPayloadWriter().U8(nNodeID).U8(nNMTType).Data(), "CANOPEN_NMT",
        [&](std::string& s) { SParam{s}.Num(", NodeID=", nNodeID).Num(", NMTTyp=", nNMTType); }, oCnf);
}

int COrvaneClientCAN::CANopenSendSYNC()
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(eCmdCANopenSYNC, std::string(), "CANOPEN_SYNC", oCnf);
}

int COrvaneClientCAN::CANopenSendTIME(unsigned short nDay, unsigned int nMs)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(
        eCmdCANopenTIME, CKelPayloadWriter(6).U16(nDay).U32(nMs).Data(), "CANOPEN_TIME",
        [&](std::string& s) { SParam{s}.Num(", Day=", nDay).Num(", Ms=", nMs); }, oCnf);
}

int COrvaneClientCAN::CANopenSendPDO(unsigned char nNodeID, unsigned char nPDOType, unsigned char nLen,
                                     const char* pcData)
{
    if (pcData == nullptr && nLen > 0)
        return ORVANE_ERR_INVALID_PARAMETER;
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(
        eCmdCANopenPDO, CKelPayloadWriter(2 + nLen).U8(nNodeID).U8(nPDOType).Bytes(pcData, nLen).Data(), "CANOPEN_PDO",
        [&](std::string& s) { SParam{s}.Num(", NodeID=", nNodeID).Num(", PDOTyp=", nPDOType); }, oCnf);
}

int COrvaneClientCAN::CANopenSendSDORead(unsigned char nNodeID, unsigned short nIndex, unsigned char nSubindex,
                                         unsigned short nTimeout, unsigned char& nResult, unsigned int& nValue)
{
    // The gateway spends up to nTimeout on the bus; the host allows twice that.
    const unsigned int nWait = 2u * nTimeout;
    const std::string sPayload = CKelPayloadWriter(6).U8(nNodeID).U16(nIndex).U8(nSubindex).U16(nTimeout).Data();
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(
        eCmdCANopenSDORead, sPayload, "CANOPEN_SDO_READ",
        [&](std::string& s) {
            SParam{s}
                .Num(", NodeID=", nNodeID)
                .Num(", Index=", nIndex)
                .Num(", Subindex=", nSubindex)
                .Num(", Timeout=", nTimeout);
        },
        oCnf, &nWait);
    if (nRet == ORVANE_OK)
        ReadSdoValue(CKelPayloadReader(oCnf->GetData()), nResult, nValue);
    return nRet;
}

int COrvaneClientCAN::CANopenSendSDOWrite(unsigned char nNodeID, unsigned char nSDOWriteType, unsigned short nIndex,
                                          unsigned char nSubindex, unsigned short nTimeout, unsigned int nValue,
                                          unsigned char& nResult, unsigned int& nAbort)
{
    const unsigned int nWait = 2u * nTimeout;
    const std::string sPayload =
        CKelPayloadWriter(11).U8(nNodeID).U8(nSDOWriteType).U16(nIndex).U8(nSubindex).U16(nTimeout).U32(nValue).Data();
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(
        eCmdCANopenSDOWrite, sPayload, "CANOPEN_SDO_WRITE",
        [&](std::string& s) {
            SParam{s}
                .Num(", NodeID=", nNodeID)
                .Num(", SDOWriteTyp=", nSDOWriteType)
                .Num(", Index=", nIndex)
                .Num(", Subindex=", nSubindex)
                .Num(", Timeout=", nTimeout)
                .Num(", Value=", nValue);
        },
        oCnf, &nWait);
    if (nRet == ORVANE_OK)
        ReadSdoValue(CKelPayloadReader(oCnf->GetData()), nResult, nAbort);
    return nRet;
}

int COrvaneClientCAN::CANopenSendSDOReadBlock(unsigned char nNodeID, unsigned short nIndex, unsigned char nSubindex,
                                              unsigned short nTimeout, unsigned short nBufferLen,
                                              unsigned char& nResult, unsigned short& nLen, unsigned char* pData)
{
    if (pData == nullptr && nBufferLen > 0)
        return ORVANE_ERR_INVALID_PARAMETER;
    const unsigned int nWait = 2u * nTimeout;
    const std::string sPayload = CKelPayloadWriter(6).U8(nNodeID).U16(nIndex).U8(nSubindex).U16(nTimeout).Data();
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(eCmdCANopenSDOReadBlock, sPayload, "CANOPEN_SDO_READ_BLOCK", NoParams, oCnf, &nWait);
    const std::string* psData = nRet == ORVANE_OK ? &oCnf->GetData() : nullptr;
    if (psData != nullptr && psData->size() > 1)
    {
        nResult = static_cast<unsigned char>((*psData)[1]);
        // The copy starts at offset 1, with the result byte, while its length
        // counts from offset 2: the gateway's placement, kept as it is.
        const std::size_t nCopy = std::min<std::size_t>(nBufferLen, psData->size() - 2);
        nLen = static_cast<unsigned short>(nCopy);
        if (nCopy > 0)
            std::memcpy(pData, psData->data() + 1, nCopy);
    }
    return nRet;
}

int COrvaneClientCAN::CANopenSendSDOWriteBlock(unsigned char nNodeID, unsigned short nIndex, unsigned char nSubindex,
                                               unsigned short nTimeout, unsigned short nLen, const unsigned char* pData,
                                               unsigned char& nResult, unsigned int& nAbort)
{
    if (pData == nullptr && nLen > 0)
        return ORVANE_ERR_INVALID_PARAMETER;
    const unsigned int nWait = 2u * nTimeout;
    const std::string sPayload = CKelPayloadWriter(6 + static_cast<std::size_t>(nLen))
                                     .U8(nNodeID)
                                     .U16(nIndex)
                                     .U8(nSubindex)
                                     .U16(nTimeout)
                                     .Bytes(pData, nLen)
                                     .Data();
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(eCmdCANopenSDOWriteBlock, sPayload, "CANOPEN_SDO_WRITE_BLOCK", NoParams, oCnf, &nWait);
    if (nRet == ORVANE_OK)
        ReadSdoValue(CKelPayloadReader(oCnf->GetData()), nResult, nAbort);
    return nRet;
}
