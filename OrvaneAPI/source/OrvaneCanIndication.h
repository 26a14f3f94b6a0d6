// Decoders of the indications a CAN port sends on its own: CAN frames and
// the CANopen services (PDO, SYNC, EMCY, GUARD, undefined messages).
//
// Each decoder is a pure function of the telegram: no trace, no lock, no
// allocation. Data pointers point into the telegram's payload and are valid
// as long as the telegram is. A field that a short payload does not reach
// reads as 0; a byte run never reaches past the payload.
#ifndef ORVANE_CAN_INDICATION_H
#define ORVANE_CAN_INDICATION_H

#include "OrvaneMsg.h"
#include "OrvaneProtocol.h"

#include <sys/time.h>

namespace OrvaneCan
{

// Time stamp step of a frame. With FRAME_FLAG_TIMESTAMP in nFlags the last 8
// of the nLength data bytes are the time stamp (s32 seconds, s32
// microseconds): oTime takes it and nLength loses 8; fewer than 8 bytes make
// nLength 0 and leave oTime as it was. Without the flag oTime becomes 0/0 and
// nLength stays. Returns whether the flag was set.
bool GetTime(int nFlags, const char* pcData, int& nLength, timeval& oTime);

// A CAN frame (eIndFrame) or an undefined CANopen message (eIndUndefined):
// u32 identifier, u8 flags, data, optional time stamp.
struct SFrameInd
{
    unsigned int nIdentifier = 0;
    int nFlags = 0; // the flags byte, sign-extended
    const char* pcData = nullptr;
    int nLength = 0;            // data bytes after the time stamp step
    int nRawLength = 0;         // bytes behind the header, time stamp included
    bool bHasTimeStamp = false; // FRAME_FLAG_TIMESTAMP was set
    timeval oTime = {0, 0};
};
// False when the payload is shorter than the header or the data (after the
// time stamp step) exceed MAX_FRAME_DATA: such a telegram is no valid frame.
bool DecodeFrame(const COrvaneMsg& oMsg, SFrameInd& oInd);

// eIndPDO: u8 node, u8 PDO type, u8 length, data.
constexpr unsigned int MAX_PDO_DATA = 8;
struct SPDOInd
{
    unsigned char nNodeID = 0;
    unsigned char nPDOType = 0;
    unsigned char nLength = 0; // the length byte, capped at 8 and at the data present
    const char* pcData = nullptr;
};
void DecodePDO(const COrvaneMsg& oMsg, SPDOInd& oInd);

// eIndSYNC: u8.
struct SSYNCInd
{
    unsigned char nCounter = 0;
};
void DecodeSYNC(const COrvaneMsg& oMsg, SSYNCInd& oInd);

// eIndEMCY: u8 node, u16 error code, u8 error register, 5 data bytes.
constexpr unsigned int EMCY_DATA = 5;
struct SEMCYInd
{
    unsigned char nNodeID = 0;
    unsigned short nErrorCode = 0;
    unsigned char nErrorRegister = 0;
    unsigned char anData[EMCY_DATA] = {0, 0, 0, 0, 0};
};
void DecodeEMCY(const COrvaneMsg& oMsg, SEMCYInd& oInd);

// eIndGUARD: u8 node, u8 state.
struct SGUARDInd
{
    unsigned char nNodeID = 0;
    unsigned char nState = 0;
};
void DecodeGUARD(const COrvaneMsg& oMsg, SGUARDInd& oInd);

// eIndUndefined: laid out like a frame, with a signed identifier; its first
// two payload bytes are also handed out on their own.
struct SUndefinedInd
{
    SFrameInd oFrame;
    int nIdentifier = 0;
    unsigned char nByte0 = 0;
    unsigned char nByte1 = 0;
};
bool DecodeUndefined(const COrvaneMsg& oMsg, SUndefinedInd& oInd);

} // namespace OrvaneCan

#endif
