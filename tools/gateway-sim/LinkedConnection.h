// A server-side connection of the simulator that an outbox sends through:
// whole telegrams, each given a time-out, and closing without a disconnect
// message. The CAN port's and the aWire programmer's connections build on it.
#ifndef GATEWAY_SIM_LINKED_CONNECTION_H
#define GATEWAY_SIM_LINKED_CONNECTION_H

#include "KelIPConnection.h"
#include "Outbox.h"

#include <string>

namespace GatewaySim
{

class CLinkedConnection : public CKelIPConnection, protected ITelegramLink
{
public:
    // Connection messages on, for the device type nId.
    CLinkedConnection(CKelIPServerContainer* pContainer, unsigned char nId, int nSocket)
        : CKelIPConnection(pContainer, nId, CKelIPBase::eTCP, nSocket, true)
    {
    }

protected:
    bool SendBytes(const std::string& sBytes) override;
    void CloseLink() override;
};

} // namespace GatewaySim

#endif
