#include "AWirePort.h"

#include "OrvaneProtocol.h"
#include "SimBind.h"

namespace GatewaySim
{

namespace
{

// Write-status indications waiting for a slow client: far more than the
// two blocks a client may have outstanding.
constexpr std::size_t MAX_QUEUED = 4096;
// How often an idle completer looks for a stop request.
constexpr unsigned int IDLE_POLL_MS = 50;

} // namespace

CAWireConnection::CAWireConnection(SAWirePortContext& oPort, CKelIPServerContainer* pContainer, int nSocket)
    : CLinkedConnection(pContainer, OrvaneAWire::DEVICE_TYPE, nSocket), m_roPort(oPort),
      m_sName(oPort.sName + " client " + std::to_string(oPort.nNextClient++)),
      m_oOutbox(*this, oPort.roCounters, MAX_QUEUED)
{
    if (GetState() == eConnected && !m_oOutbox.Start())
        CloseConnection();
}

CAWireConnection::~CAWireConnection()
{
    // No more indications from the completer, no more sends, then no more
    // hooks from the transport.
    Leave();
    m_oOutbox.Stop();
    Shutdown();
}

void CAWireConnection::Leave()
{
    if (!m_bJoined.exchange(false))
        return;
    CKelLockGuard oLock(m_roPort.oClientsMutex);
    m_roPort.aoClients.erase(this);
}

void CAWireConnection::ConnectInd(bool bConnected)
{
    if (bConnected)
    {
        m_roPort.roLog.Line(m_sName + ": TCP connection from " + GetPeerAddress() + ":" + std::to_string(GetPort()));
        return;
    }
    const bool bWasJoined = m_bJoined.load();
    Leave();
    m_oOutbox.Stop();
    m_roPort.roLog.Line(m_sName + (bWasJoined ? ": disconnected" : ": closed before connecting"));
}

bool CAWireConnection::IsConnectMsgAccepted(const std::string&)
{
    if (m_bJoined.exchange(true))
        return true; // a repeated connect request changes nothing
    {
        CKelLockGuard oLock(m_roPort.oClientsMutex);
        m_roPort.aoClients.insert(this);
    }
    ++m_roPort.roCounters.nConnections;
    m_roPort.roLog.Line(m_sName + ": connected");
    return true;
}

void CAWireConnection::DataInd(const char* pData, unsigned short nLength)
{
    ++m_roPort.roCounters.nTelegrams;
    COrvaneMsg oRequest;
    if (nLength < COrvaneMsg::MIN_TELEGRAM_SIZE || !oRequest.SetMessage(pData, nLength))
    {
        ++m_roPort.roCounters.nBadLength;
        m_roPort.roLog.Line(m_sName + ": telegram of " + std::to_string(nLength) +
                            " bytes with an invalid length ignored");
        return;
    }
    if (!oRequest.IsCRCValid())
    {
        ++m_roPort.roCounters.nBadCrc;
        m_roPort.roLog.Line(m_sName + ": telegram with wrong CRC ignored");
        return;
    }
    const SAWireOutcome oOutcome = m_roPort.roModel.Handle(oRequest);
    if (!oOutcome.bConfirm)
    {
        ++m_roPort.roCounters.nUnknownCommands;
        m_roPort.roLog.Line(m_sName + ": command " + std::to_string(oRequest.GetCmdCode()) + " with " +
                            std::to_string(oRequest.GetData().size()) + " payload bytes refused");
        return;
    }
    m_oOutbox.PostConfirmation(oOutcome.oConfirmation.GetMessageData());
    if (m_roPort.roModel.PendingWrites() != 0)
        m_roPort.oWriteQueued.Signal();
}

CAWirePort::CContainer::CContainer(SAWirePortContext& oPort, unsigned short nTcpPort)
    : CKelIPServerContainer(OrvaneAWire::DEVICE_TYPE, 32, nTcpPort, false), m_roPort(oPort)
{
}

CKelIPConnection* CAWirePort::CContainer::CreateNewClass(CKelIPBase::EProtocol, int nSocket)
{
    return new CAWireConnection(m_roPort, this, nSocket);
}

CAWirePort::CAWirePort(int nPort, unsigned short nTcpPort, const SAWireSettings& oSettings,
                       unsigned int nCompleteDelayMs, SSimCounters& oCounters, CSimLog& oLog)
    : m_nPort(nPort), m_nCompleteDelayMs(nCompleteDelayMs), m_oSettings(oSettings), m_oModel(oSettings),
      m_oContext(m_oModel, oCounters, oLog), m_poContainer(new CContainer(m_oContext, nTcpPort)), m_oCompleter(*this)
{
}

CAWirePort::~CAWirePort()
{
    Close();
}

bool CAWirePort::Open(const std::string& sBindAddress, std::string& sError)
{
    if (!BindPort(*m_poContainer, sBindAddress, sError))
        return false;
    m_nTcpPort = m_poContainer->GetPort();
    m_oContext.sName = "aWire port " + std::to_string(m_nPort) + " (tcp " + std::to_string(TcpPort()) + ")";
    if (!m_oCompleter.Start() || !m_poContainer->StartListening())
    {
        sError = "cannot start the aWire programmer";
        Close();
        return false;
    }
    m_oContext.roLog.Line(m_oContext.sName + ": listening on " + sBindAddress + ":" + std::to_string(TcpPort()) +
                          ", flash " + std::to_string(m_oSettings.nFlashSize) + " bytes, page size " +
                          std::to_string(m_oSettings.nPageSize));
    return true;
}

void CAWirePort::Close()
{
    m_oCompleter.Terminate();
    // Destroying the container disconnects and destroys every connection.
    m_poContainer.reset();
}

void CAWirePort::CompleteLoop()
{
    for (;;)
    {
        if (m_oModel.PendingWrites() == 0)
        {
            m_oContext.oWriteQueued.Wait(IDLE_POLL_MS);
            if (m_oCompleter.StopRequested(0))
                return;
            continue;
        }
        // The oldest write stays pending for the delay, as the flash is busy.
        if (m_nCompleteDelayMs != 0 && m_oCompleter.StopRequested(m_nCompleteDelayMs))
            return;
        const std::vector<COrvaneMsg> aoIndications = m_oModel.CompleteOldest();
        CKelLockGuard oLock(m_oContext.oClientsMutex);
        for (const COrvaneMsg& oIndication : aoIndications)
            for (CAWireConnection* poClient : m_oContext.aoClients)
                poClient->PostIndication(oIndication.GetMessageData());
    }
}

} // namespace GatewaySim
