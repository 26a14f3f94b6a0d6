// Turns a frame seen on a port's bus into the indication telegram a client
// of that port receives.
#ifndef GATEWAY_SIM_INDICATION_ENCODER_H
#define GATEWAY_SIM_INDICATION_ENCODER_H

#include "OrvaneMsg.h"
#include "SimTypes.h"

namespace GatewaySim
{

// Plain CAN (CANopen mode off): 0x203 with s32 identifier, u8 flags, data,
// and, when bTimeStamps is set, flag 0x04 and the time stamp (s32 seconds,
// s32 microseconds) behind the data.
//
// CANopen mode on: frames with a standard identifier of a CANopen service the
// master consumes become SYNC (0x080), EMCY (0x081-0x0FF), transmit PDO 1-4
// (0x180-0x4FF) or GUARD (0x701-0x77F) indications; every other frame is an
// undefined-message indication 0x26C laid out like 0x203.
COrvaneMsg EncodeIndication(const SCanFrame& oFrame, const STimeStamp& oTime, bool bTimeStamps, bool bCANopen);

} // namespace GatewaySim

#endif
