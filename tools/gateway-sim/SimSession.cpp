#include "SimSession.h"

#include "IndicationEncoder.h"

#include <cstdio>

namespace GatewaySim
{

namespace
{

std::string Hex(unsigned int nValue, int nDigits)
{
    char acText[16];
    std::snprintf(acText, sizeof(acText), "0x%0*X", nDigits, nValue);
    return acText;
}

} // namespace

CSimSession::CSimSession(CCanPortModel& oPort, CCanBus& oBus, const SSessionOptions& oOptions, SSimCounters& oCounters,
                         CSimLog& oLog, ITelegramLink& oLink, const std::string& sName)
    : m_roPort(oPort), m_roBus(oBus), m_oOptions(oOptions), m_roCounters(oCounters), m_roLog(oLog), m_sName(sName),
      m_oOutbox(oLink, oCounters, oOptions.nMaxQueued)
{
}

CSimSession::~CSimSession()
{
    OnLinkLost();
}

bool CSimSession::Start()
{
    return m_oOutbox.Start();
}

void CSimSession::JoinBus()
{
    m_bOnBus.store(true);
    m_roBus.Attach(this);
}

void CSimSession::OnLinkLost()
{
    if (m_bOnBus.exchange(false))
        m_roBus.Detach(this);
    m_oOutbox.Stop();
}

void CSimSession::OnTelegram(const char* pData, unsigned short nLength)
{
    if (m_bFrozen.load() || m_bClosing.load())
    {
        ++m_roCounters.nIgnoredFrozen;
        return;
    }
    ++m_roCounters.nTelegrams;
    ++m_nTelegrams;
    // The telegrams of one read share one reading of the clock.
    if (!CGatewayClock::IsHeld())
        CGatewayClock::Hold();

    COrvaneMsg oRequest;
    if (nLength < COrvaneMsg::MIN_TELEGRAM_SIZE || !oRequest.SetMessage(pData, nLength))
    {
        ++m_roCounters.nBadLength;
        m_roLog.Line(m_sName + ": telegram of " + std::to_string(nLength) + " bytes with an invalid length ignored");
        CountFaultAfter();
        return;
    }
    if (!oRequest.IsCRCValid())
    {
        ++m_roCounters.nBadCrc;
        m_roLog.Line(m_sName + ": telegram " + Hex(oRequest.GetCmdCode(), 4) + " id " +
                     std::to_string(oRequest.GetMsgID()) + " with wrong CRC " + Hex(oRequest.GetCRC(), 2) +
                     " (expected " + Hex(oRequest.ComputeCRC(), 2) + ") ignored");
        CountFaultAfter();
        return;
    }

    SClientSettings oClient;
    {
        CKelLockGuard oLock(m_oClientMutex);
        oClient = m_oClient;
    }
    SCommandOutcome oOutcome = m_roPort.Handle(oRequest, oClient);
    {
        CKelLockGuard oLock(m_oClientMutex);
        m_oClient = oClient;
    }

    switch (oOutcome.eFault)
    {
    case EInputFault::eNone:
        break;
    case EInputFault::eBadLength:
        ++m_roCounters.nBadLength;
        m_roLog.Line(m_sName + ": command " + Hex(oRequest.GetCmdCode(), 4) + " with a payload of " +
                     std::to_string(oRequest.GetData().size()) + " bytes refused");
        break;
    case EInputFault::eUnknownCommand:
        ++m_roCounters.nUnknownCommands;
        m_roLog.Line(m_sName + ": unknown command " + Hex(oRequest.GetCmdCode(), 4) + " refused");
        break;
    }
    if (oOutcome.bInjected)
        ++m_roCounters.nInjectedErrors;

    // A freeze takes effect before the answer goes out: a client that has its
    // answer gets nothing more, frames of other clients included.
    FreezeIfDue();
    if (oOutcome.bConfirm)
        m_oOutbox.PostConfirmation(oOutcome.oConfirmation.GetMessageData());
    if (!oOutcome.aoBusFrames.empty())
        CCanBus::HoldWrites();
    for (const SCanFrame& oFrame : oOutcome.aoBusFrames)
    {
        m_roBus.Transmit(oFrame, oOutcome.oTime, this);
        if (m_oOptions.bEcho)
            PostIndication(oFrame, oOutcome.oTime);
    }
    CountFaultAfter();
}

void CSimSession::OnReadEnd()
{
    CGatewayClock::Release();
    if (CCanBus::WritesHeld())
        m_roBus.Flush();
}

void CSimSession::FreezeIfDue()
{
    const bool bCloseDue = m_oOptions.nCloseAfter != 0 && m_nTelegrams >= m_oOptions.nCloseAfter;
    if (!bCloseDue && m_oOptions.nFreezeAfter != 0 && m_nTelegrams >= m_oOptions.nFreezeAfter && !m_bFrozen.load())
    {
        m_bFrozen.store(true);
        m_roLog.Line(m_sName + ": frozen after " + std::to_string(m_nTelegrams) + " telegrams (fault injection)");
    }
}

// Applies the per-connection telegram limits once a telegram was handled.
void CSimSession::CountFaultAfter()
{
    if (m_oOptions.nCloseAfter != 0 && m_nTelegrams >= m_oOptions.nCloseAfter)
    {
        m_bClosing.store(true);
        m_roLog.Line(m_sName + ": closing the connection after " + std::to_string(m_nTelegrams) +
                     " telegrams (fault injection)");
        m_oOutbox.PostClose();
    }
    else
        FreezeIfDue();
}

void CSimSession::OnBusFrame(const SCanFrame& oFrame, const STimeStamp& oTime)
{
    if (!m_bFrozen.load() && !m_bClosing.load())
        PostIndication(oFrame, oTime);
}

void CSimSession::PostIndication(const SCanFrame& oFrame, const STimeStamp& oTime)
{
    bool bTimeStamps;
    {
        CKelLockGuard oLock(m_oClientMutex);
        bTimeStamps = m_oClient.bTimeStamps;
    }
    const COrvaneMsg oIndication = EncodeIndication(oFrame, oTime, bTimeStamps, m_roPort.CANopenMode() != 0);
    m_oOutbox.PostIndication(oIndication.GetMessageData());
}

} // namespace GatewaySim
