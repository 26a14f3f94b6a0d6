#include "GatewaySim.h"

#include "AWirePort.h"
#include "OrvaneProtocol.h"
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
    for (int nPort : m_oOptions.anAWirePorts)
    {
        // Beside the CAN ports, as the client library derives both from the device type.
        const unsigned int nOffset = OrvaneAWire::DEVICE_TYPE - OrvaneCan::DEVICE_TYPE;
        const unsigned short nTcpPort = m_oOptions.nTcpBase == 0
            ? 0
            : static_cast<unsigned short>(m_oOptions.nTcpBase + nOffset + 100u * static_cast<unsigned int>(nPort));
        m_apAWirePorts.emplace_back(
            new CAWirePort(nPort, nTcpPort, m_oOptions.oAWire, m_oOptions.nAWireDelayMs, m_oCounters, m_oLog));
        if (!m_apAWirePorts.back()->Open(m_oOptions.sBindAddress, sError))
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
    for (auto& poPort : m_apAWirePorts)
        poPort->Close();
    m_apAWirePorts.clear();
}

unsigned short CGatewaySim::AWireTcpPort(std::size_t nIndex) const
{
    return nIndex < m_apAWirePorts.size() ? m_apAWirePorts[nIndex]->TcpPort() : 0;
}

CAWirePortModel& CGatewaySim::AWireModel(std::size_t nIndex)
{
    return m_apAWirePorts.at(nIndex)->Model();
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
