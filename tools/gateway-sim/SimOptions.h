// Command line of orvane-gateway-sim.
#ifndef GATEWAY_SIM_OPTIONS_H
#define GATEWAY_SIM_OPTIONS_H

#include "AWirePortModel.h"
#include "FaultSettings.h"

#include <string>
#include <vector>

namespace GatewaySim
{

struct SSimOptions
{
    std::string sBindAddress = "127.0.0.1";
    std::vector<int> anCanPorts; // empty: CAN port 0
    // CAN port P listens on nTcpBase + 100 * P; 0: every port on a port the
    // system chooses (in-process tests).
    unsigned int nTcpBase = 5001;
    bool bEcho = false;
    std::string sSocketCan;     // empty: the bus joins the clients only
    unsigned int nLoadRate = 0; // generated frames per second per port
    unsigned int nLoadIdentifier = 0x1F0;
    SFaultSettings oFaults;
    // aWire programmer ports: port P listens on nTcpBase + 12 + 100 * P
    // (5013 + 100 * P), the aWire device type's port beside the CAN ports.
    std::vector<int> anAWirePorts;
    SAWireSettings oAWire;
    unsigned int nAWireDelayMs = 2; // a block write stays pending this long
    bool bQuiet = false;
};

enum class EParseResult
{
    eRun,
    eHelp, // --help: print HelpText() and exit 0
    eError // print the error text and exit 2
};

EParseResult ParseSimOptions(int nArgc, char** apArgv, SSimOptions& oOptions, std::string& sError);
std::string HelpText(const char* pProgram);

} // namespace GatewaySim

#endif
