#include "SimPort.h"

#include "SimBind.h"

namespace GatewaySim
{

namespace
{

unsigned short ConfiguredTcpPort(const SSimOptions& oOptions, int nCanPort)
{
    if (oOptions.nTcpBase == 0)
        return 0;
    return static_cast<unsigned short>(oOptions.nTcpBase + 100u * static_cast<unsigned int>(nCanPort));
}

} // namespace

CSimPort::CSimPort(int nCanPort, const SSimOptions& oOptions, SSimCounters& oCounters, CSimLog& oLog)
    : m_nCanPort(nCanPort), m_roOptions(oOptions), m_roLog(oLog), m_oModel(nCanPort, oOptions.oFaults),
      m_oBus(oCounters), m_oContext(m_oModel, m_oBus, oCounters, oLog)
{
    m_oContext.oSession.bEcho = oOptions.bEcho;
    m_oContext.oSession.nFreezeAfter = oOptions.oFaults.nFreezeAfter;
    m_oContext.oSession.nCloseAfter = oOptions.oFaults.nCloseAfter;
    m_oContext.nMaxClients = oOptions.oFaults.nMaxClients;
    // The container takes the connection limit from the finished context.
    m_poContainer.reset(new CSimContainer(m_oContext, ConfiguredTcpPort(oOptions, nCanPort)));
}

CSimPort::~CSimPort()
{
    Close();
}

bool CSimPort::Open(std::string& sError)
{
    // The container binds the port (on the bind address); with port 0 the
    // name carries the port the system chose.
    if (!BindPort(*m_poContainer, m_roOptions.sBindAddress, sError))
        return false;
    m_nTcpPort = m_poContainer->GetPort();
    m_oContext.sName = "CAN port " + std::to_string(m_nCanPort) + " (tcp " + std::to_string(TcpPort()) + ")";
    if (!m_roOptions.sSocketCan.empty())
    {
        m_poSocketCan.reset(new CSocketCanLink(m_oBus, m_oModel, m_oContext.roCounters));
        if (!m_poSocketCan->Open(m_roOptions.sSocketCan, sError))
        {
            Close();
            return false;
        }
    }
    if (m_roOptions.nLoadRate != 0)
    {
        m_poLoad.reset(new CLoadGenerator(m_oBus, m_oModel, m_roOptions.nLoadRate, m_roOptions.nLoadIdentifier));
        if (!m_poLoad->Start())
        {
            sError = "cannot start the load generator";
            Close();
            return false;
        }
    }
    if (!m_poContainer->StartListening())
    {
        sError = "cannot start accepting connections";
        Close();
        return false;
    }
    m_roLog.Line(
        m_oContext.sName + ": listening on " + m_roOptions.sBindAddress + ":" + std::to_string(TcpPort()) +
        (m_roOptions.sSocketCan.empty() ? std::string() : ", bus on " + m_roOptions.sSocketCan) +
        (m_roOptions.nLoadRate == 0 ? std::string() : ", load " + std::to_string(m_roOptions.nLoadRate) + " frames/s"));
    return true;
}

void CSimPort::Close()
{
    if (m_poLoad)
        m_poLoad->Stop();
    if (m_poSocketCan)
        m_poSocketCan->Close();
    // Destroying the container disconnects and destroys every connection.
    m_poContainer.reset();
}

} // namespace GatewaySim
