#include "ApiSim.h"

#include "OrvaneProtocol.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

namespace ApiTest
{

namespace
{

constexpr int FIRST_PORT = 10;
constexpr int PORTS = 90; // CAN ports 10 to 99

int StartPort()
{
    return FIRST_PORT + static_cast<int>(getpid() % PORTS);
}

bool CanBind(unsigned short nTcpPort)
{
    const int nSocket = socket(AF_INET, SOCK_STREAM, 0);
    if (nSocket < 0)
        return false;
    sockaddr_in oAddress = {};
    oAddress.sin_family = AF_INET;
    oAddress.sin_port = htons(nTcpPort);
    oAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool bFree = bind(nSocket, reinterpret_cast<sockaddr*>(&oAddress), sizeof(oAddress)) == 0;
    close(nSocket);
    return bFree;
}

} // namespace

int UnusedCanPort()
{
    // Counted down from the top, away from where the simulators start.
    for (int i = 0; i < PORTS; ++i)
    {
        const int nPort = FIRST_PORT + (StartPort() - FIRST_PORT + PORTS / 2 + i) % PORTS;
        if (CanBind(OrvaneCan::TcpPort(nPort)))
            return nPort;
    }
    return -1;
}

CApiSim::CApiSim(const GatewaySim::SSimOptions& oOptions)
{
    for (int i = 0; i < PORTS && m_poSim == nullptr; ++i)
    {
        const int nPort = FIRST_PORT + (StartPort() - FIRST_PORT + i) % PORTS;
        GatewaySim::SSimOptions oTry = oOptions;
        oTry.sBindAddress = HOST;
        oTry.nTcpBase = OrvaneCan::TcpPort(0);
        oTry.anCanPorts = {nPort};
        oTry.bQuiet = getenv("GATEWAY_SIM_LOG") == nullptr;
        std::unique_ptr<GatewaySim::CGatewaySim> poSim(new GatewaySim::CGatewaySim(oTry, stderr));
        if (poSim->Start(m_sError))
        {
            m_poSim = std::move(poSim);
            m_nCanPort = nPort;
        }
    }
}

CApiSim::~CApiSim()
{
    if (m_poSim)
        m_poSim->Stop();
}

} // namespace ApiTest
