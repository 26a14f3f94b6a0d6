// One simulated CAN port with everything it owns.
#ifndef GATEWAY_SIM_PORT_H
#define GATEWAY_SIM_PORT_H

#include "CanBus.h"
#include "CanPortModel.h"
#include "LoadGenerator.h"
#include "SimConnection.h"
#include "SimOptions.h"
#include "SocketCanLink.h"

#include <memory>
#include <string>

namespace GatewaySim
{

class CSimPort
{
public:
    CSimPort(int nCanPort, const SSimOptions& oOptions, SSimCounters& oCounters, CSimLog& oLog);
    ~CSimPort();

    CSimPort(const CSimPort&) = delete;
    CSimPort& operator=(const CSimPort&) = delete;

    bool Open(std::string& sError);
    // Stops accepting, closes every connection, the bus links and the
    // generator.
    void Close();

    int CanPort() const { return m_nCanPort; }
    unsigned short TcpPort() const { return m_nTcpPort; }
    int ConnectedClients() const { return m_oContext.nConnected.load(); }

private:
    const int m_nCanPort;
    const SSimOptions& m_roOptions;
    CSimLog& m_roLog;
    CCanPortModel m_oModel;
    CCanBus m_oBus;
    SPortContext m_oContext;
    std::unique_ptr<CSimContainer> m_poContainer;
    unsigned short m_nTcpPort = 0; // the bound port, kept after Close
    std::unique_ptr<CSocketCanLink> m_poSocketCan;
    std::unique_ptr<CLoadGenerator> m_poLoad;
};

} // namespace GatewaySim

#endif
