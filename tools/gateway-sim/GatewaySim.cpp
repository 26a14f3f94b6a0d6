#include "GatewaySim.h"

#include "SimPort.h"

namespace GatewaySim
{

CGatewaySim::CGatewaySim(const SSimOptions& oOptions, FILE* pLog)
    : m_oOptions(oOptions), m_oLog(oOptions.bQuiet ? nullptr : pLog)
{
    if (m_oOptions.anCanPorts.empty())
        m_oOptions.anCanPorts.push_back(0);
}

CGatewaySim::~CGatewaySim()
{
    Stop();
}

bool CGatewaySim::Start(std::string& sError)
{
    for (int nCanPort : m_oOptions.anCanPorts)
    {
        m_apPorts.emplace_back(new CSimPort(nCanPort, m_oOptions, m_oCounters, m_oLog));
        if (!m_apPorts.back()->Open(sError))
        {
            Stop();
            return false;
        }
    }
    return true;
}

void CGatewaySim::Stop()
{
    for (auto& poPort : m_apPorts)
        poPort->Close();
    m_apPorts.clear();
}

unsigned short CGatewaySim::TcpPort(std::size_t nIndex) const
{
    return nIndex < m_apPorts.size() ? m_apPorts[nIndex]->TcpPort() : 0;
}

int CGatewaySim::ConnectedClients(std::size_t nIndex) const
{
    return nIndex < m_apPorts.size() ? m_apPorts[nIndex]->ConnectedClients() : 0;
}

} // namespace GatewaySim
