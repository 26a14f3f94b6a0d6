#include "SimConnection.h"

namespace GatewaySim
{

CSimConnection::CSimConnection(SPortContext& oPort, CKelIPServerContainer* pContainer, int nSocket)
    : CLinkedConnection(pContainer, OrvaneCan::DEVICE_TYPE, nSocket), m_roPort(oPort), m_nClient(oPort.nNextClient++),
      m_oSession(oPort.roModel, oPort.roBus, oPort.oSession, oPort.roCounters, oPort.roLog, *this,
                 oPort.sName + " client " + std::to_string(m_nClient))
{
    if (GetState() == eConnected && !m_oSession.Start())
        CloseConnection();
}

CSimConnection::~CSimConnection()
{
    // No more sends from the session, then no more hooks from the transport.
    m_oSession.OnLinkLost();
    Shutdown();
}

void CSimConnection::ConnectInd(bool bConnected)
{
    if (bConnected)
    {
        m_roPort.roLog.Line(m_oSession.Name() + ": TCP connection from " + GetPeerAddress() + ":" +
                            std::to_string(GetPort()));
        return;
    }
    if (m_bEnded.exchange(true))
        return;
    m_oSession.OnLinkLost();
    if (m_bAccepted.load())
    {
        --m_roPort.nConnected;
        m_roPort.roLog.Line(m_oSession.Name() + ": disconnected");
    }
    else
    {
        ++m_roPort.roCounters.nRefused;
        if (m_roPort.nConnected.load() >= m_roPort.nMaxClients)
            m_roPort.roLog.Line(m_oSession.Name() + ": refused, connection limit of " +
                                std::to_string(m_roPort.nMaxClients) + " reached");
        else
            m_roPort.roLog.Line(m_oSession.Name() + ": closed before connecting");
    }
}

bool CSimConnection::IsConnectMsgAccepted(const std::string&)
{
    if (m_bAccepted.exchange(true))
        return true; // a repeated connect request changes nothing
    ++m_roPort.nConnected;
    ++m_roPort.roCounters.nConnections;
    m_oSession.JoinBus();
    m_roPort.roLog.Line(m_oSession.Name() + ": connected");
    return true;
}

void CSimConnection::DataInd(const char* pData, unsigned short nLength)
{
    m_oSession.OnTelegram(pData, nLength);
}

bool CSimConnection::AnswersConnectionMessages() const
{
    // A frozen gateway answers nothing, alive and disconnect requests
    // included, while its TCP connection stays open.
    return !m_oSession.IsFrozen();
}

void CSimConnection::ReadEndInd()
{
    m_oSession.OnReadEnd();
}

CSimContainer::CSimContainer(SPortContext& oPort, unsigned short nTcpPort)
    : CKelIPServerContainer(OrvaneCan::DEVICE_TYPE, oPort.nMaxClients, nTcpPort, false), m_roPort(oPort)
{
}

CSimContainer::~CSimContainer()
{
    Shutdown();
}

CKelIPConnection* CSimContainer::CreateNewClass(CKelIPBase::EProtocol, int nSocket)
{
    return new CSimConnection(m_roPort, this, nSocket);
}

} // namespace GatewaySim
