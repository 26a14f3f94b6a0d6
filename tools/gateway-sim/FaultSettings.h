// Faults a test can make the simulator show.
#ifndef GATEWAY_SIM_FAULT_SETTINGS_H
#define GATEWAY_SIM_FAULT_SETTINGS_H

#include <map>

namespace GatewaySim
{

struct SFaultSettings
{
    // Command code (request form, e.g. 0x207) -> device result byte sent
    // instead of executing the command.
    std::map<unsigned short, unsigned char> aoFailCommands;
    // After this many telegrams on a connection, answer nothing more while
    // keeping the TCP connection open (0: never).
    unsigned int nFreezeAfter = 0;
    // After this many telegrams on a connection, close it (0: never).
    unsigned int nCloseAfter = 0;
    // Connections accepted per CAN port; the next one is refused with connect
    // result 1 (maximum number of connections reached).
    int nMaxClients = 32;
};

} // namespace GatewaySim

#endif
