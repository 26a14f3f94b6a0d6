#include "OrvaneClient.h"

#include "KelPayload.h"
#include "KelStringFunc.h"
#include "OrvaneProtocol.h"
#include "TraceServer.h"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <type_traits>

static_assert(std::is_standard_layout<SOrvaneDeviceInfo>::value, "SOrvaneDeviceInfo is filled byte-wise");
static_assert(offsetof(SOrvaneDeviceInfo, m_nDeviceType) == ORVANE_INFO_SIZE,
              "the device information from the gateway fills the first bytes of SOrvaneDeviceInfo exactly");
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "SOrvaneDeviceInfo takes the little-endian bytes as they are");

namespace
{

constexpr unsigned int TRACE_FILTER_MASK = 0xFFFFFFFF;
const char* const TRACE_FILE = "OrvaneAPI/source/OrvaneClient";

// Telegrams up to this size are serialised on the stack when sent.
constexpr std::size_t STACK_TELEGRAM_SIZE = 512;

// Takes the item with this ID out of the store (the caller holds the lock).
COrvaneMsg* TakeMessage(std::map<short, COrvaneClient::CMessageItem*>& aoMessages, short nId)
{
    const auto it = aoMessages.find(nId);
    if (it == aoMessages.end())
        return nullptr;
    COrvaneMsg* poMsg = it->second->PopMsg();
    delete it->second;
    aoMessages.erase(it);
    return poMsg;
}

std::string DumpOf(const std::string& sText, const COrvaneMsg& oMsg)
{
    const std::string sWire = oMsg.GetMessageData();
    return sText + KelMemDump(sWire.data(), static_cast<unsigned int>(sWire.size()));
}

} // namespace

// --- CConnection -----------------------------------------------------------

namespace
{
// Depth of telegram delivery on this thread (see IsIndicationThread).
thread_local int t_nIndicationDepth = 0;

// Marks the calling thread as delivering while the scope lasts.
struct SIndicationScope
{
    SIndicationScope() { ++t_nIndicationDepth; }
    ~SIndicationScope() { --t_nIndicationDepth; }
    SIndicationScope(const SIndicationScope&) = delete;
    SIndicationScope& operator=(const SIndicationScope&) = delete;
};
} // namespace

bool COrvaneClient::IsIndicationThread()
{
    return t_nIndicationDepth > 0;
}

COrvaneClient::CConnection::CConnection() : m_poClient(nullptr) {}

COrvaneClient::CConnection::~CConnection()
{
    Shutdown();
}

void COrvaneClient::CConnection::ConnectInd(bool bConnected)
{
    if (m_poClient != nullptr)
        m_poClient->ConInd(bConnected);
}

void COrvaneClient::CConnection::DataInd(const char* pcData, unsigned short nLength)
{
    if (m_poClient == nullptr)
        return;
    const SIndicationScope oScope;
    m_poClient->DataInd(pcData, nLength);
}

void COrvaneClient::CConnection::ReadEndInd()
{
    if (m_poClient == nullptr)
        return;
    const SIndicationScope oScope;
    m_poClient->DataReadEnd();
}

// --- CMessageItem ----------------------------------------------------------

COrvaneClient::CMessageItem::CMessageItem(COrvaneMsg* poMsg)
    : m_poMsg(poMsg), m_oArrival(std::chrono::steady_clock::now())
{
}

COrvaneClient::CMessageItem::~CMessageItem()
{
    delete m_poMsg;
}

COrvaneMsg* COrvaneClient::CMessageItem::PopMsg()
{
    COrvaneMsg* poMsg = m_poMsg;
    m_poMsg = nullptr;
    return poMsg;
}

// --- COrvaneClient ---------------------------------------------------------

COrvaneClient::COrvaneClient(EOrvaneDevice eDeviceType, unsigned int nTimeout)
    : m_nTimeout(nTimeout), m_nTelegramCounter(0), m_eDeviceType(eDeviceType)
{
    m_oConnection.SetParentClass(this);
}

COrvaneClient::~COrvaneClient()
{
    // No read thread may file a confirmation while the store is emptied.
    ShutdownConnection();
    std::lock_guard<std::mutex> oLock(m_oMutex);
    for (auto& oEntry : m_aoMessages)
        delete oEntry.second;
    m_aoMessages.clear();
}

int COrvaneClient::Connect(const char* pcHost, unsigned short nPort, unsigned char nProtocol, bool bConnectionMessages)
{
    if (nPort == 0)
        nPort = OrvaneTcpPort(m_eDeviceType, 0);
    const unsigned int nResult =
        m_oConnection.ConnectReq(pcHost, nPort, m_nTimeout, static_cast<unsigned char>(m_eDeviceType),
                                 static_cast<CKelIPBase::EProtocol>(nProtocol), std::string(), bConnectionMessages);
    return ConvertTCPRetCode(static_cast<int>(nResult));
}

int COrvaneClient::Open()
{
    m_nTelegramCounter.store(2, std::memory_order_relaxed);
    return ORVANE_OK;
}

int COrvaneClient::Close()
{
    return Disconnect();
}

int COrvaneClient::Disconnect()
{
    return ConvertTCPRetCode(static_cast<int>(m_oConnection.DisconnectReq(m_nTimeout)));
}

int COrvaneClient::SendMsg(const COrvaneMsg& oRequest)
{
    int nRet;
    char acWire[STACK_TELEGRAM_SIZE];
    const std::size_t nSize = oRequest.GetMessageSize();
    if (nSize > 0xFFFF)
    {
        nRet = ORVANE_ERR_INVALID_PARAMETER;
    }
    else if (nSize <= sizeof(acWire))
    {
        oRequest.CopyMessageData(acWire, sizeof(acWire));
        nRet = ConvertTCPRetCode(
            static_cast<int>(m_oConnection.DataReq(acWire, static_cast<unsigned short>(nSize), m_nTimeout)));
    }
    else
    {
        const std::string sWire = oRequest.GetMessageData();
        nRet = ConvertTCPRetCode(
            static_cast<int>(m_oConnection.DataReq(sWire.data(), static_cast<unsigned short>(nSize), m_nTimeout)));
    }
    if (IsTraceActive(TRACE_LEVEL_TELEGRAM))
        Trace(TRACE_LEVEL_TELEGRAM, __LINE__, DumpOf("data sended RC=" + std::to_string(nRet) + "\n", oRequest));
    return nRet;
}

int COrvaneClient::SendWire(const char* pcWire, std::size_t nSize, std::size_t& nSent)
{
    return ConvertTCPRetCode(static_cast<int>(m_oConnection.DataReqBatch(pcWire, nSize, m_nTimeout, &nSent)));
}

int COrvaneClient::SendMsg(const COrvaneMsg& oRequest, COrvaneMsg*& poConfirmation, const unsigned int* pnTimeout)
{
    // The waiting below tests the store itself, so nothing needs resetting
    // before the request goes out.
    poConfirmation = nullptr;
    int nRet = SendMsg(oRequest);
    if (nRet == ORVANE_OK)
    {
        poConfirmation = WaitForMsg(oRequest.GetMsgID(), pnTimeout);
        if (poConfirmation == nullptr)
            nRet = ORVANE_ERR_TCP_TIMEOUT;
        else if (!poConfirmation->IsCRCValid())
            nRet = ORVANE_ERR_TELEGRAM_CRC;
        else if (poConfirmation->GetCmdCode() != (oRequest.GetCmdCode() | COrvaneMsg::CONFIRMATION_FLAG))
            nRet = ORVANE_ERR_TELEGRAM_NOT_CONFIRMED;
    }
    if (nRet != ORVANE_OK && IsTraceActive(TRACE_LEVEL_ERROR))
        Trace(TRACE_LEVEL_ERROR, __LINE__, OrvaneErrorMsg(nRet) + ": 0x" + HexText(static_cast<unsigned int>(nRet)));
    return nRet;
}

int COrvaneClient::SendMsg(const COrvaneMsg& oRequest, COrvaneMsg& oConfirmation, const unsigned int* pnTimeout)
{
    COrvaneMsg* poConfirmation = nullptr;
    const int nRet = SendMsg(oRequest, poConfirmation, pnTimeout);
    if (poConfirmation != nullptr)
    {
        oConfirmation = *poConfirmation;
        delete poConfirmation;
    }
    return nRet;
}

int COrvaneClient::SendAndWait(const COrvaneMsg& oRequest, std::unique_ptr<COrvaneMsg>& oConfirmation,
                               const unsigned int* pnTimeout)
{
    COrvaneMsg* poConfirmation = nullptr;
    const int nRet = SendMsg(oRequest, poConfirmation, pnTimeout);
    oConfirmation.reset(poConfirmation);
    return nRet;
}

COrvaneMsg* COrvaneClient::GetMsg(short nId)
{
    std::lock_guard<std::mutex> oLock(m_oMutex);
    return TakeMessage(m_aoMessages, nId);
}

// Several threads may wait at once, each for its own ID, and every stored
// confirmation must wake them all so that each can look for its own. A
// CKelEvent does not do that: a Wait consumes the signal, so a second waiter
// that had looked into the store but not yet started waiting would sleep
// through the confirmation it needs, and one waiter's reset before sending
// would wipe a signal meant for another. A condition variable on the
// store's own mutex has no such gap: the look and the wait are one step
// under the lock. (It waits on the monotonic clock: libstdc++ maps a
// steady_clock deadline to pthread_cond_clockwait with CLOCK_MONOTONIC.)
COrvaneMsg* COrvaneClient::WaitForMsg(short nId, const unsigned int* pnTimeout)
{
    const unsigned int nTimeout = pnTimeout != nullptr ? *pnTimeout : m_nTimeout;
    // The deadline is on the monotonic clock: a step of the wall clock must
    // neither cut nor stretch the wait.
    const auto oDeadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(nTimeout);
    COrvaneMsg* poMsg = nullptr;
    {
        std::unique_lock<std::mutex> oLock(m_oMutex);
        poMsg = TakeMessage(m_aoMessages, nId);
        while (poMsg == nullptr)
        {
            const bool bTimedOut = m_oEvent.wait_until(oLock, oDeadline) == std::cv_status::timeout;
            poMsg = TakeMessage(m_aoMessages, nId);
            if (bTimedOut)
                break;
        }
    }
    RemoveOldMsgs();
    return poMsg;
}

void COrvaneClient::RemoveOldMsgs()
{
    // A confirmation nobody collected is kept for ten time-outs, counted in
    // whole seconds (time-out / 100). Ages are taken on the monotonic clock,
    // so a step of the wall clock neither flushes nor keeps the store.
    const auto oThreshold = std::chrono::steady_clock::now() - std::chrono::seconds(m_nTimeout / 100);
    std::lock_guard<std::mutex> oLock(m_oMutex);
    for (auto it = m_aoMessages.begin(); it != m_aoMessages.end();)
    {
        if (it->second->GetArrival() < oThreshold)
        {
            delete it->second;
            it = m_aoMessages.erase(it);
        }
        else
        {
            ++it;
        }
    }
}

void COrvaneClient::DataInd(const char* pcData, unsigned short nLength)
{
    COrvaneMsg* poMsg = new COrvaneMsg(pcData, nLength);
    if (!poMsg->IsValid())
    {
        if (IsTraceActive(TRACE_LEVEL_TELEGRAM))
            Trace(TRACE_LEVEL_TELEGRAM, __LINE__,
                  "invalid telegram received\n" + KelMemDump(pcData, pcData != nullptr ? nLength : 0));
        delete poMsg;
        return;
    }
    if (IsTraceActive(TRACE_LEVEL_TELEGRAM))
        Trace(TRACE_LEVEL_TELEGRAM, __LINE__, "telegram received\n" + KelMemDump(pcData, nLength));

    if (!poMsg->IsConfirmation())
    {
        if (!DataIndRespond(poMsg))
            delete poMsg;
        return;
    }

    CMessageItem* poItem = new CMessageItem(poMsg);
    CMessageItem* poReplaced = nullptr;
    {
        std::lock_guard<std::mutex> oLock(m_oMutex);
        CMessageItem*& rpoSlot = m_aoMessages[poMsg->GetMsgID()];
        poReplaced = rpoSlot;
        rpoSlot = poItem;
    }
    // Waking the waiters after the store's lock is released spares them
    // waking only to block on it. No waiter can miss it: one that looked
    // before the store was already waiting, as it held the lock from its
    // look until it slept.
    m_oEvent.notify_all();
    delete poReplaced;
}

void COrvaneClient::DataReadEnd() {}

void COrvaneClient::ConInd(bool) {}

bool COrvaneClient::DataIndRespond(COrvaneMsg*)
{
    return false;
}

int COrvaneClient::GetCnfRetCode(const COrvaneMsg& oConfirmation)
{
    const int nType = (static_cast<int>(m_eDeviceType) << 8) & 0xFFFF;
    const std::string& sData = oConfirmation.GetData();
    if (sData.empty())
        return ORVANE_ERR_TELEGRAM_CNF_INVALID | nType;
    const unsigned char nResult = static_cast<unsigned char>(sData[0]);
    return nResult == ORVANE_RESULT_OK ? ORVANE_OK : (nResult | nType);
}

int COrvaneClient::ConvertTCPRetCode(int nCode)
{
    if (nCode == eKelIPSuccess)
        return ORVANE_OK;
    if (nCode == eKelIPRefused)
        return ORVANE_ERR_MAX_CONNECTIONS;
    return static_cast<int>(static_cast<unsigned int>(nCode) << 16);
}

std::string COrvaneClient::GetErrorMsg(int nCode)
{
    return OrvaneErrorMsg(nCode);
}

bool COrvaneClient::IsTraceActive(unsigned char nLevel)
{
    return CTraceServer::IsActive(nLevel, TRACE_CATEGORY, TRACE_FILTER_MASK);
}

void COrvaneClient::Trace(unsigned char nLevel, unsigned short nLine, const std::string& sText)
{
    CTraceServer::SendTraceMessage(nLevel, TRACE_CATEGORY, TRACE_FILTER_MASK, nLine, TRACE_FILE, sText.c_str(), 0);
}

std::string COrvaneClient::HexText(unsigned int nValue)
{
    std::ostringstream oText;
    oText << std::hex << std::uppercase << nValue;
    return oText.str();
}

std::string COrvaneClient::RequestTraceText(const char* pcName) const
{
    return std::string(pcName) + " requested to " + GetHost();
}

// --- Common device commands -----------------------------------------------

int COrvaneClient::Restart()
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(CmdCode(eOrvaneCmdClose), std::string(), "CLOSE", oCnf);
}

int COrvaneClient::Info(SOrvaneDeviceInfo* pInfo)
{
    if (pInfo != nullptr)
    {
        pInfo->m_nDeviceType = m_eDeviceType;
        pInfo->m_nReserved = 0;
    }
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(CmdCode(eOrvaneCmdInfo), std::string(), "INFO", oCnf);
    if (nRet == ORVANE_OK && pInfo != nullptr)
    {
        const std::string sInfo = CKelPayloadReader(oCnf->GetData()).Bytes(1, ORVANE_INFO_SIZE);
        std::memcpy(static_cast<void*>(pInfo), sInfo.data(), sInfo.size());
    }
    return nRet;
}

int COrvaneClient::Status(std::string& sStatus)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    int nRet = SendRequest(CmdCode(eOrvaneCmdStatus), std::string(), "STATUS", NoParams, oCnf);
    if (nRet == ORVANE_OK)
    {
        nRet = GetCnfRetCode(*oCnf);
        if (oCnf->GetData().size() > 1)
            sStatus = CKelPayloadReader(oCnf->GetData()).Tail(1);
    }
    return nRet;
}

int COrvaneClient::BaseReadDigital(unsigned int& nInputs, unsigned int& nOutputs)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    int nRet = SendRequest(CmdCode(eOrvaneCmdReadDigital), std::string(), "READ DIGITAL", NoParams, oCnf);
    // A confirmation too short for both words counts as success and leaves
    // them alone; a long enough one gives its result, and the words whatever
    // that result is.
    if (nRet == ORVANE_OK && oCnf->GetData().size() > 8)
    {
        const CKelPayloadReader oData(oCnf->GetData());
        nRet = GetCnfRetCode(*oCnf);
        nInputs = oData.U32(1);
        nOutputs = oData.U32(5);
    }
    return nRet;
}

int COrvaneClient::BaseWriteDigital(unsigned int nOutputs)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(CmdCode(eOrvaneCmdWriteDigital), CKelPayloadWriter().U32(nOutputs).Data(), "WRITE DIGITAL", oCnf);
}

int COrvaneClient::ReadAnalog(const unsigned int& nMaxValues, unsigned int* pnValues, unsigned short& nCount)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(CmdCode(eOrvaneCmdReadAnalog), std::string(), "READ ANALOG", oCnf);
    if (nRet != ORVANE_OK)
        return nRet;
    const CKelPayloadReader oData(oCnf->GetData());
    if (!oData.Has(1, 2))
        return nRet;
    nCount = oData.U16(1);
    if (pnValues != nullptr)
    {
        // Values the confirmation does not hold are left alone.
        for (unsigned int i = 0; i < nCount && i < nMaxValues && oData.Has(3 + 4 * i, 4); ++i)
            pnValues[i] = oData.U32(3 + 4 * i);
    }
    return nRet;
}

int COrvaneClient::WriteAnalog(const unsigned int* pnValues, unsigned short nCount)
{
    if (pnValues == nullptr && nCount > 0)
        return ORVANE_ERR_INVALID_PARAMETER;
    CKelPayloadWriter oPayload(2 + 4 * static_cast<std::size_t>(nCount));
    oPayload.U16(nCount);
    for (unsigned int i = 0; i < nCount; ++i)
        oPayload.U32(pnValues[i]);
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(CmdCode(eOrvaneCmdWriteAnalog), oPayload.Data(), "WRITE ANALOG", oCnf);
}
