// The gateway simulator in-process on 127.0.0.1, on a CAN port P whose TCP
// port 5001 + 100 * P is the one CANOpenDevice(P) connects to, and helpers
// for waiting on events.
#ifndef ORVANE_API_TEST_API_SIM_H
#define ORVANE_API_TEST_API_SIM_H

#include "GatewaySim.h"
#include "support/Wait.h"

#include <memory>
#include <string>

namespace ApiTest
{

constexpr const char* HOST = "127.0.0.1";

using OrvaneTest::WaitUntil;

// A CAN port whose TCP port has nothing listening on 127.0.0.1.
int UnusedCanPort();

class CApiSim
{
public:
    // Starts on the first free CAN port from a start that differs between
    // processes, so test programs running side by side do not collide.
    explicit CApiSim(const GatewaySim::SSimOptions& oOptions = GatewaySim::SSimOptions());
    ~CApiSim();

    bool Started() const { return m_poSim != nullptr; }
    const std::string& Error() const { return m_sError; }
    int CanPort() const { return m_nCanPort; }
    GatewaySim::CGatewaySim& Sim() { return *m_poSim; }
    int ConnectedClients() const { return m_poSim->ConnectedClients(0); }

private:
    std::unique_ptr<GatewaySim::CGatewaySim> m_poSim;
    int m_nCanPort = -1;
    std::string m_sError;
};

} // namespace ApiTest

#endif
