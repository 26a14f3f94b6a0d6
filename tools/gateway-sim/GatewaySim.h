// The gateway simulator: one or more simulated CAN ports, each with its
// command model, bus, listening socket and server container, and optionally
// a SocketCAN interface or a load generator on its bus. Tests run it
// in-process; orvane-gateway-sim wraps it in a command line.
#ifndef GATEWAY_SIM_H
#define GATEWAY_SIM_H

#include "SimCounters.h"
#include "SimLog.h"
#include "SimOptions.h"

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace GatewaySim
{

class CSimPort;
class CAWirePort;
class CAWirePortModel;

class CGatewaySim
{
public:
    // pLog: where the log lines go (null: nowhere; --quiet also silences).
    CGatewaySim(const SSimOptions& oOptions, FILE* pLog);
    ~CGatewaySim();

    CGatewaySim(const CGatewaySim&) = delete;
    CGatewaySim& operator=(const CGatewaySim&) = delete;

    // Opens every port. False with sError set when one cannot be opened
    // (then nothing stays open).
    bool Start(std::string& sError);
    // Closes every connection and port; safe to call twice.
    void Stop();

    std::size_t PortCount() const { return m_apPorts.size(); }
    // TCP port the i-th CAN port of the options listens on (after Start).
    unsigned short TcpPort(std::size_t nIndex) const;
    const SSimCounters& Counters() const { return m_oCounters; }
    // Clients past the connect handshake on the i-th port.
    int ConnectedClients(std::size_t nIndex) const;

    // The i-th aWire programmer of the options (after Start): its TCP port
    // and its model, whose flash tests compare.
    unsigned short AWireTcpPort(std::size_t nIndex) const;
    CAWirePortModel& AWireModel(std::size_t nIndex);

private:
    SSimOptions m_oOptions;
    SSimCounters m_oCounters;
    CSimLog m_oLog;
    std::vector<std::unique_ptr<CSimPort>> m_apPorts;
    std::vector<std::unique_ptr<CAWirePort>> m_apAWirePorts;
};

} // namespace GatewaySim

#endif
