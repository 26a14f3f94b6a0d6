// Values shared by every part of the gateway simulator: the CAN frame as it
// travels on a simulated bus and gateway time stamps. The wire facts of a CAN
// port (command and indication codes, frame flags, result bytes) are the
// protocol's own, named here as the simulator uses them.
#ifndef GATEWAY_SIM_TYPES_H
#define GATEWAY_SIM_TYPES_H

#include "KelPayload.h"
#include "OrvaneMsg.h"
#include "OrvaneProtocol.h"

#include <string>

namespace GatewaySim
{

using namespace OrvaneCan;

// A frame on a simulated bus.
struct SCanFrame
{
    unsigned int nIdentifier = 0;
    unsigned char nFlags = 0; // FRAME_FLAG_EXTENDED / FRAME_FLAG_REMOTE only
    std::string sData;
};

// Gateway time: seconds and microseconds since 1970 on the gateway's clock.
struct STimeStamp
{
    int nSeconds = 0;
    int nMicroseconds = 0;
};

// Wire bytes of a telegram with the given code, ID and payload.
inline std::string BuildTelegram(unsigned short nCmdCode, short nMsgID, const std::string& sPayload)
{
    return COrvaneMsg(nCmdCode, nMsgID, sPayload.data(), static_cast<unsigned short>(sPayload.size())).GetMessageData();
}

} // namespace GatewaySim

#endif
