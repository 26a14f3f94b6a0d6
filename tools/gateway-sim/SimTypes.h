// Values shared by every part of the gateway simulator: the CAN frame as it
// travels on a simulated bus, gateway time stamps, and the command codes of a
// CAN port (device type 2, so every code has the high byte 0x02).
#ifndef GATEWAY_SIM_TYPES_H
#define GATEWAY_SIM_TYPES_H

#include <string>

namespace GatewaySim
{

// Flag bits of a CAN frame telegram (request and indication alike).
constexpr unsigned char FRAME_FLAG_EXTENDED = 0x01;  // 29-bit identifier
constexpr unsigned char FRAME_FLAG_REMOTE = 0x02;    // remote frame
constexpr unsigned char FRAME_FLAG_TIMESTAMP = 0x04; // 8-byte time stamp appended

// Longest data field a frame telegram may carry.
constexpr unsigned int MAX_FRAME_DATA = 64;

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

// Command codes a CAN port answers (requests; confirmations add 0x8000).
enum ECanCommand : unsigned short
{
    // Common to every device kind.
    eCmdInfo = 0x209,
    eCmdStatus = 0x20A,
    eCmdClose = 0x20C,
    eCmdReadDigital = 0x240,
    eCmdWriteDigital = 0x241,
    eCmdReadAnalog = 0x242,
    eCmdWriteAnalog = 0x243,
    // CAN.
    eCmdWrite = 0x203,
    eCmdSetConfig = 0x205,
    eCmdGetConfig = 0x206,
    eCmdSetGlobals = 0x207,
    eCmdGetGlobals = 0x208,
    eCmdSetTime = 0x20B,
    eCmdGetTime = 0x20E,
    eCmdSetFilter = 0x220,
    eCmdGetFilter = 0x221,
    eCmdGetPowerStatus = 0x222,
    eCmdSetPowerRelais = 0x223,
    eCmdSetActivePowerSupplies = 0x224,
    eCmdSetZCardParameter = 0x251,
    eCmdGetZCardParameter = 0x252,
    // CANopen.
    eCmdCANopenSetConfig = 0x260,
    eCmdCANopenGetConfig = 0x261,
    eCmdCANopenSyncMode = 0x262,
    eCmdCANopenNMT = 0x263,
    eCmdCANopenSYNC = 0x264,
    eCmdCANopenTIME = 0x265,
    eCmdCANopenPDO = 0x267,
    eCmdCANopenSDORead = 0x268,
    eCmdCANopenSDOWrite = 0x269,
    eCmdCANopenSDOReadBlock = 0x26A,
    eCmdCANopenSDOWriteBlock = 0x26B
};

// Codes of the indications a CAN port sends on its own.
enum ECanIndication : unsigned short
{
    eIndFrame = 0x203,
    eIndSYNC = 0x264,
    eIndEMCY = 0x266,
    eIndPDO = 0x267,
    eIndUndefined = 0x26C,
    eIndGUARD = 0x26D
};

// Device result bytes (the first confirmation byte). The client adds the
// device type shifted left by 8, so 0x21 reads as 0x221 on a CAN port.
constexpr unsigned char RESULT_OK = 0x00;
constexpr unsigned char RESULT_CAN_TRANSMIT_ERROR = 0x21;
constexpr unsigned char RESULT_CANOPEN_MODE_OFF = 0xFE;
constexpr unsigned char RESULT_COMMAND_FAILED = 0xFF;

// Connection identifier and device type of a CAN port.
constexpr unsigned char CAN_DEVICE_TYPE = 2;

// TCP port on which CAN port nCanPort of a gateway listens.
inline unsigned short DefaultTcpPort(int nCanPort)
{
    return static_cast<unsigned short>(4999 + CAN_DEVICE_TYPE + 100 * nCanPort);
}

} // namespace GatewaySim

#endif
