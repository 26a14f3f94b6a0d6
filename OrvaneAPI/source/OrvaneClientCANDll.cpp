#include "OrvaneClientCANDll.h"

#include "OrvaneCanIndication.h"

#include <cstring>
#include <string>

using namespace OrvaneCan;

namespace
{

void PutBytes(void* pOut, const char* pcData, int nLength)
{
    if (pOut != nullptr && nLength > 0)
        std::memcpy(pOut, pcData, static_cast<std::size_t>(nLength));
}

} // namespace

COrvaneClientCANDll::COrvaneClientCANDll(int nHandle, int nTimeout) : COrvaneClientCAN(nTimeout), m_nHandle(nHandle) {}

COrvaneClientCANDll::~COrvaneClientCANDll()
{
    ShutdownConnection();
}

void COrvaneClientCANDll::SetCallback(CANCallback pCallback)
{
    m_pCallback.store(pCallback);
    m_pCallbackEx.store(nullptr);
}

void COrvaneClientCANDll::SetCallbackEx(CANCallbackEx pCallback)
{
    m_pCallbackEx.store(pCallback);
    m_pCallback.store(nullptr);
}

void COrvaneClientCANDll::CANopenSetCallback(CANopenPDOCallback pPDO, CANopenSYNCCallback pSYNC,
                                             CANopenEMCYCallback pEMCY, CANopenGUARDCallback pGUARD,
                                             CANopenUndefinedCallback pUndefined)
{
    m_pPDOCallback.store(pPDO);
    m_pSYNCCallback.store(pSYNC);
    m_pEMCYCallback.store(pEMCY);
    m_pGUARDCallback.store(pGUARD);
    m_pUndefinedCallback.store(pUndefined);
}

void COrvaneClientCANDll::SetMaxSizePerQueue(unsigned int nMaxSize)
{
    if (nMaxSize > 0)
    {
        for (COrvaneMsgQueue& oQueue : m_aoQueues)
            oQueue.SetMaxSize(nMaxSize);
        m_bQueueing.store(true);
        return;
    }
    m_bQueueing.store(false);
    for (COrvaneMsgQueue& oQueue : m_aoQueues)
        oQueue.Clear();
}

bool COrvaneClientCANDll::DataIndRespond(COrvaneMsg* poMsg)
{
    if (poMsg == nullptr)
        return false;
    switch (poMsg->GetCmdCode())
    {
    case eIndFrame:
        OnFrame(*poMsg);
        break;
    case eIndSYNC:
        OnSYNC(*poMsg);
        break;
    case eIndEMCY:
        OnEMCY(*poMsg);
        break;
    case eIndPDO:
        OnPDO(*poMsg);
        break;
    case eIndUndefined:
        OnUndefined(*poMsg);
        break;
    case eIndGUARD:
        OnGUARD(*poMsg);
        break;
    default:
        break;
    }
    return false;
}

void COrvaneClientCANDll::DataReadEnd()
{
    if (CANReadEndCallback pCallback = m_pReadEndCallback.load())
        pCallback(m_nHandle);
}

void COrvaneClientCANDll::OnFrame(COrvaneMsg& oMsg)
{
    SFrameInd oInd;
    if (!DecodeFrame(oMsg, oInd))
    {
        TraceIndication("Invalid CAN-Telegram received.");
        return;
    }
    TraceTimeStamp(oInd.bHasTimeStamp);
    if (CANCallback pCallback = m_pCallback.load())
        pCallback(oInd.nIdentifier, oInd.pcData, oInd.nLength, oInd.nFlags, m_nHandle);
    else if (CANCallbackEx pCallbackEx = m_pCallbackEx.load())
        pCallbackEx(oInd.nIdentifier, oInd.pcData, oInd.nLength, oInd.nFlags, m_nHandle,
                    static_cast<int>(oInd.oTime.tv_sec), static_cast<int>(oInd.oTime.tv_usec));
    else
        Enqueue(eQueueFrame, oMsg);
}

void COrvaneClientCANDll::OnPDO(COrvaneMsg& oMsg)
{
    TraceIndication("PDO Indication.");
    if (CANopenPDOCallback pCallback = m_pPDOCallback.load())
    {
        SPDOInd oInd;
        DecodePDO(oMsg, oInd);
        pCallback(oInd.nNodeID, oInd.nPDOType, oInd.nLength, oInd.pcData, m_nHandle, 0, 0);
    }
    else
        Enqueue(eQueuePDO, oMsg);
}

void COrvaneClientCANDll::OnSYNC(COrvaneMsg& oMsg)
{
    TraceIndication("SYNC Indication.");
    if (CANopenSYNCCallback pCallback = m_pSYNCCallback.load())
    {
        SSYNCInd oInd;
        DecodeSYNC(oMsg, oInd);
        pCallback(oInd.nCounter, m_nHandle, 0, 0);
    }
    else
        Enqueue(eQueueSYNC, oMsg);
}

void COrvaneClientCANDll::OnEMCY(COrvaneMsg& oMsg)
{
    TraceIndication("EMCY Indication.");
    if (CANopenEMCYCallback pCallback = m_pEMCYCallback.load())
    {
        SEMCYInd oInd;
        DecodeEMCY(oMsg, oInd);
        pCallback(oInd.nNodeID, oInd.nErrorCode, oInd.nErrorRegister, oInd.anData, m_nHandle, 0, 0);
    }
    else
        Enqueue(eQueueEMCY, oMsg);
}

void COrvaneClientCANDll::OnGUARD(COrvaneMsg& oMsg)
{
    TraceIndication("GUARD Indication.");
    if (CANopenGUARDCallback pCallback = m_pGUARDCallback.load())
    {
        SGUARDInd oInd;
        DecodeGUARD(oMsg, oInd);
        pCallback(oInd.nNodeID, oInd.nState, m_nHandle, 0, 0);
    }
    else
        Enqueue(eQueueGUARD, oMsg);
}

void COrvaneClientCANDll::OnUndefined(COrvaneMsg& oMsg)
{
    TraceIndication("UNDEFINED Indication.");
    SUndefinedInd oInd;
    if (!DecodeUndefined(oMsg, oInd))
    {
        TraceIndication("Invalid CAN-Telegram received.");
        return;
    }
    TraceTimeStamp(oInd.oFrame.bHasTimeStamp);
    if (CANopenUndefinedCallback pCallback = m_pUndefinedCallback.load())
        pCallback(oInd.nIdentifier, oInd.nByte0, oInd.nByte1, static_cast<unsigned char>(oInd.oFrame.nLength),
                  oInd.oFrame.pcData, m_nHandle, static_cast<int>(oInd.oFrame.oTime.tv_sec),
                  static_cast<int>(oInd.oFrame.oTime.tv_usec));
    else
        Enqueue(eQueueUndefined, oMsg);
}

void COrvaneClientCANDll::Enqueue(EQueue eQueue, COrvaneMsg& oMsg)
{
    // The telegram is not used after this hook returns false, so its bytes
    // move into the queue instead of being copied.
    if (m_bQueueing.load())
        m_aoQueues[eQueue].Push(std::move(oMsg));
}

int COrvaneClientCANDll::CANGetMessage(int* pnIdentifier, char* pcData, unsigned char* pnLength, int* pnFlags,
                                       int* pnSeconds, int* pnMicroseconds)
{
    COrvaneMsg oMsg;
    const int nLeft = m_aoQueues[eQueueFrame].Pop(oMsg);
    if (nLeft < 0)
        return -1;
    SFrameInd oInd;
    DecodeFrame(oMsg, oInd);
    TraceTimeStamp(oInd.bHasTimeStamp);
    Put(pnIdentifier, oInd.nIdentifier);
    PutBytes(pcData, oInd.pcData, oInd.nRawLength);
    Put(pnLength, oInd.nLength > static_cast<int>(MAX_FRAME_DATA) ? MAX_FRAME_DATA : oInd.nLength);
    Put(pnFlags, oInd.nFlags);
    Put(pnSeconds, oInd.oTime.tv_sec);
    Put(pnMicroseconds, oInd.oTime.tv_usec);
    return nLeft;
}

int COrvaneClientCANDll::CANopenGetPDO(unsigned char* pnNodeID, unsigned char* pnPDOType, unsigned char* pnLength,
                                       char* pcData)
{
    COrvaneMsg oMsg;
    const int nLeft = m_aoQueues[eQueuePDO].Pop(oMsg);
    if (nLeft < 0)
        return -1;
    SPDOInd oInd;
    DecodePDO(oMsg, oInd);
    Put(pnNodeID, oInd.nNodeID);
    Put(pnPDOType, oInd.nPDOType);
    Put(pnLength, oInd.nLength);
    PutBytes(pcData, oInd.pcData, oInd.nLength);
    return nLeft;
}

int COrvaneClientCANDll::CANopenGetSYNC(unsigned char* pnCounter)
{
    COrvaneMsg oMsg;
    const int nLeft = m_aoQueues[eQueueSYNC].Pop(oMsg);
    if (nLeft < 0)
        return -1;
    SSYNCInd oInd;
    DecodeSYNC(oMsg, oInd);
    Put(pnCounter, oInd.nCounter);
    return nLeft;
}

int COrvaneClientCANDll::CANopenGetEMCY(unsigned char* pnNodeID, unsigned short* pnErrorCode,
                                        unsigned char* pnErrorRegister, unsigned char* pcData)
{
    COrvaneMsg oMsg;
    const int nLeft = m_aoQueues[eQueueEMCY].Pop(oMsg);
    if (nLeft < 0)
        return -1;
    SEMCYInd oInd;
    DecodeEMCY(oMsg, oInd);
    Put(pnNodeID, oInd.nNodeID);
    Put(pnErrorCode, oInd.nErrorCode);
    Put(pnErrorRegister, oInd.nErrorRegister);
    PutBytes(pcData, reinterpret_cast<const char*>(oInd.anData), EMCY_DATA);
    return nLeft;
}

int COrvaneClientCANDll::CANopenGetGUARD(unsigned char* pnNodeID, unsigned char* pnState)
{
    COrvaneMsg oMsg;
    const int nLeft = m_aoQueues[eQueueGUARD].Pop(oMsg);
    if (nLeft < 0)
        return -1;
    SGUARDInd oInd;
    DecodeGUARD(oMsg, oInd);
    Put(pnNodeID, oInd.nNodeID);
    Put(pnState, oInd.nState);
    return nLeft;
}

int COrvaneClientCANDll::CANopenGetUndefined(int* pnIdentifier, unsigned char* pnByte0, unsigned char* pnByte1,
                                             unsigned char* pnLength, char* pcData, int* pnSeconds, int* pnMicroseconds)
{
    COrvaneMsg oMsg;
    const int nLeft = m_aoQueues[eQueueUndefined].Pop(oMsg);
    if (nLeft < 0)
        return -1;
    SUndefinedInd oInd;
    DecodeUndefined(oMsg, oInd);
    TraceTimeStamp(oInd.oFrame.bHasTimeStamp);
    Put(pnIdentifier, oInd.nIdentifier);
    Put(pnByte0, oInd.nByte0);
    Put(pnByte1, oInd.nByte1);
    Put(pnLength, oInd.oFrame.nLength);
    PutBytes(pcData, oInd.oFrame.pcData, oInd.oFrame.nLength);
    Put(pnSeconds, oInd.oFrame.oTime.tv_sec);
    Put(pnMicroseconds, oInd.oFrame.oTime.tv_usec);
    return nLeft;
}

void COrvaneClientCANDll::TraceTimeStamp(bool bHasTimeStamp)
{
    if (!bHasTimeStamp)
        TraceIndication("CAN Message has no timestamp.");
}

void COrvaneClientCANDll::TraceIndication(const char* pcText)
{
    // The text is made a string only when the trace is going out.
    if (IsTraceActive(TRACE_LEVEL_INDICATION))
        Trace(TRACE_LEVEL_INDICATION, __LINE__, pcText);
}
