// Binds the listening socket of one simulated port on the simulator's bind
// address (127.0.0.1 unless told otherwise) through the port's server
// container, which then accepts and does everything else.
#ifndef GATEWAY_SIM_BIND_H
#define GATEWAY_SIM_BIND_H

#include <string>

class CKelIPServerContainer;

namespace GatewaySim
{

// Binds sAddress on the container's port (port 0: the system chooses, see
// GetPort) and listens; peers wait in the backlog until the container's
// StartListening. False with sError set on failure.
bool BindPort(CKelIPServerContainer& oContainer, const std::string& sAddress, std::string& sError);

} // namespace GatewaySim

#endif
