// Wire facts of the gateway protocol above the telegram: command codes,
// indication codes, frame flags, device result bytes, TCP ports, and the
// payload layouts that more than one side must agree on. The client library
// and the gateway simulator both name these facts from here; each side keeps
// its own encoders and decoders.
//
// A command code is ((device type & 0x7F) << 8) | low byte
// (COrvaneMsg::MakeCmdCode); a confirmation
// carries the request's code | 0x8000 and the request's message ID. Every
// confirmation payload starts with the device's result byte (0 = success),
// the command's own data follow from offset 1. Multi-byte fields are
// little-endian.
#ifndef ORVANE_PROTOCOL_H
#define ORVANE_PROTOCOL_H

#include "OrvaneErrors.h"
#include "OrvaneMsg.h"

// TCP port of port nPort (0..99) of a device kind: 4999 + type + 100 * port;
// 5099 serves device type 0.
constexpr unsigned short OrvaneTcpPort(int nDeviceType, int nPort)
{
    return static_cast<unsigned short>(4999 + (nDeviceType == 0 ? 100 : nDeviceType) + 100 * nPort);
}

// Low bytes of the commands every device kind answers.
enum EOrvaneCommonCommand : unsigned char
{
    eOrvaneCmdInfo = 0x09,         // -> 20 bytes of device information (layout below)
    eOrvaneCmdStatus = 0x0A,       // -> status text
    eOrvaneCmdClose = 0x0C,        // restart the device
    eOrvaneCmdReadDigital = 0x40,  // -> u32 inputs, u32 outputs
    eOrvaneCmdWriteDigital = 0x41, // u32 outputs
    eOrvaneCmdReadAnalog = 0x42,   // layout below
    eOrvaneCmdWriteAnalog = 0x43   // layout below
};

// Device result bytes (the first confirmation byte). The client adds the
// device type shifted left by 8, so 0x21 reads as 0x221 on a CAN port.
constexpr unsigned char ORVANE_RESULT_OK = 0x00;
constexpr unsigned char ORVANE_RESULT_COMMAND_FAILED = 0xFF;

// Payload layouts of the common commands that the protocol leaves to the
// two sides (offsets count from the start of the confirmation payload, so
// offset 0 is the result byte):
//
// INFO confirmation, 20 bytes from offset 1: u16 firmware version, u16
//   hardware version, u32 serial number, u8 device type, u8 port, 10 bytes of
//   name, zero padded.
// STATUS confirmation: the status text, from offset 1 to the end, no
//   terminating zero.
// WRITE ANALOG request: u16 count n, then n u32 output values.
// READ ANALOG request: empty; confirmation: from offset 1 the layout of WRITE
//   ANALOG (u16 count n, then n u32 values).
constexpr unsigned int ORVANE_INFO_SIZE = 20;

// The CAN port of a gateway (device type 2).
namespace OrvaneCan
{

constexpr unsigned char DEVICE_TYPE = eOrvaneCAN;

constexpr unsigned short Code(unsigned char nLowByte)
{
    return COrvaneMsg::MakeCmdCode(DEVICE_TYPE, nLowByte);
}

// TCP port of CAN port nCanPort: 5001 + 100 * nCanPort.
constexpr unsigned short TcpPort(int nCanPort)
{
    return OrvaneTcpPort(DEVICE_TYPE, nCanPort);
}

// Command codes of a CAN port (requests; confirmations add 0x8000).
enum ECommand : unsigned short
{
    // Common to every device kind.
    eCmdInfo = Code(eOrvaneCmdInfo),
    eCmdStatus = Code(eOrvaneCmdStatus),
    eCmdClose = Code(eOrvaneCmdClose),
    eCmdReadDigital = Code(eOrvaneCmdReadDigital),
    eCmdWriteDigital = Code(eOrvaneCmdWriteDigital),
    eCmdReadAnalog = Code(eOrvaneCmdReadAnalog),
    eCmdWriteAnalog = Code(eOrvaneCmdWriteAnalog),
    // CAN.
    eCmdWrite = Code(0x03),                  // s32 identifier, u8 flags, data
    eCmdSetConfig = Code(0x05),              // u8 confirm data, u8 monitor
    eCmdGetConfig = Code(0x06),              // -> u8 confirm data, u8 monitor
    eCmdSetGlobals = Code(0x07),             // u8 mode, u32 baud rate, u8 termination, u8 high speed, u8 time stamp
    eCmdGetGlobals = Code(0x08),             // -> the SET_GLOBALS layout
    eCmdSetTime = Code(0x0B),                // s32 seconds, s32 microseconds
    eCmdGetTime = Code(0x0E),                // -> u8 valid, s32 seconds, s32 microseconds
    eCmdSetFilter = Code(0x20),              // 16 u32 words
    eCmdGetFilter = Code(0x21),              // -> 16 u32 words
    eCmdGetPowerStatus = Code(0x22),         // -> layout below
    eCmdSetPowerRelais = Code(0x23),         // u8 relay state
    eCmdSetActivePowerSupplies = Code(0x24), // u32 bit mask
    eCmdSetZCardParameter = Code(0x51),      // u8 interval, u16 start, u16 end, u16 end again
    eCmdGetZCardParameter = Code(0x52),      // -> u8 interval, u16 start, u16 end
    // CANopen.
    eCmdCANopenSetConfig = Code(0x60),    // u8 mode
    eCmdCANopenGetConfig = Code(0x61),    // -> u8 mode
    eCmdCANopenSyncMode = Code(0x62),     // u16 period
    eCmdCANopenNMT = Code(0x63),          // u8 node, u8 NMT type
    eCmdCANopenSYNC = Code(0x64),         // empty
    eCmdCANopenTIME = Code(0x65),         // u16 days, u32 milliseconds
    eCmdCANopenPDO = Code(0x67),          // u8 node, u8 PDO type, data
    eCmdCANopenSDORead = Code(0x68),      // u8 node, u16 index, u8 subindex, u16 time-out -> u8 result, u32 value
    eCmdCANopenSDOWrite = Code(0x69),     // u8 node, u8 type, u16 index, u8 subindex, u16 time-out, u32 value
    eCmdCANopenSDOReadBlock = Code(0x6A), // as SDO read -> u8 result, data
    eCmdCANopenSDOWriteBlock = Code(0x6B) // u8 node, u16 index, u8 subindex, u16 time-out, data
};

// Codes of the indications a CAN port sends on its own (message ID 0).
enum EIndication : unsigned short
{
    eIndFrame = Code(0x03),     // u32 identifier, u8 flags, data [, s32 seconds, s32 microseconds]
    eIndSYNC = Code(0x64),      // u8
    eIndEMCY = Code(0x66),      // u8, u16, u8, 5 bytes
    eIndPDO = Code(0x67),       // u8, u8, u8 length, data
    eIndUndefined = Code(0x6C), // laid out like eIndFrame
    eIndGUARD = Code(0x6D)      // u8, u8
};

// Flag bits of a frame (WRITE request and frame indications alike).
constexpr unsigned char FRAME_FLAG_EXTENDED = 0x01;  // 29-bit identifier
constexpr unsigned char FRAME_FLAG_REMOTE = 0x02;    // remote frame
constexpr unsigned char FRAME_FLAG_TIMESTAMP = 0x04; // 8-byte time stamp behind the data

// Bytes before a frame's data: identifier and flags.
constexpr unsigned int FRAME_HEADER = 5;
// Longest data field a frame telegram may carry.
constexpr unsigned int MAX_FRAME_DATA = 64;
// Size of the time stamp behind the data: s32 seconds, s32 microseconds.
constexpr unsigned int FRAME_TIMESTAMP_SIZE = 8;

// Device result bytes of a CAN port.
constexpr unsigned char RESULT_CAN_TRANSMIT_ERROR = 0x21;
constexpr unsigned char RESULT_CANOPEN_MODE_OFF = 0xFE;

// GET_POWERSTATUS confirmation, from offset 1: u8 count of u16 values, u8
// count of A flags, u8 count of B flags, s16, u16, u16, u8 (bit 0 a flag);
// then the u16 values, the A flag bytes and the B flag bytes (bit 0 each).
constexpr unsigned int POWER_STATUS_HEADER = 11;

} // namespace OrvaneCan

// The I2C port of a gateway (device type 1).
namespace OrvaneI2C
{

constexpr unsigned short Code(unsigned char nLowByte)
{
    return COrvaneMsg::MakeCmdCode(eOrvaneI2C, nLowByte);
}

enum ECommand : unsigned short
{
    eCmdReset = Code(0x04),          // empty
    eCmdSetBaudrate = Code(0x07),    // u32 rate in Hz
    eCmdGetBaudrate = Code(0x08),    // -> u32 rate
    eCmdRead = Code(0x10),           // u16 slave, u16 count -> data
    eCmdWrite = Code(0x11),          // u16 slave, data -> u16 status
    eCmdReadEEProm = Code(0x12),     // EEPROM header, u16 count -> [u16], data
    eCmdWriteEEProm = Code(0x13),    // EEPROM header, data
    eCmdSequence = Code(0x14),       // u16 read size, sequence -> u16 status, data read
    eCmdRawStart = Code(0x15),       // empty
    eCmdRawSend = Code(0x16),        // u8, u8
    eCmdRawGet = Code(0x17),         // u8 -> u8 value
    eCmdRawStop = Code(0x18),        // empty
    eCmdWriteEEPromPoll = Code(0x19) // u16 slave, u16 poll, u8 offset size, 4 offset bytes, data
};

// EEPROM header: u16 slave address, u8 offset size (1 or 2), then 4 offset
// bytes, most significant first, of which the device uses the last 1 or 2.
constexpr unsigned int EEPROM_OFFSET_BYTES = 4;

} // namespace OrvaneI2C

// The SPI port of a gateway (device type 3).
namespace OrvaneSPI
{

constexpr unsigned short Code(unsigned char nLowByte)
{
    return COrvaneMsg::MakeCmdCode(eOrvaneSPI, nLowByte);
}

enum ECommand : unsigned short
{
    eCmdData = Code(0x03),       // bytes out -> bytes in
    eCmdSetGlobals = Code(0x07), // u32 baud rate, u8 signal level, u8 aux voltage, u8 clock mode
    eCmdGetGlobals = Code(0x08), // -> the SET_GLOBALS layout
    eCmdSequence = Code(0x14)    // sequence bytes -> data
};

} // namespace OrvaneSPI

// The Renesas flash programmer (device type 9).
namespace OrvaneRenesas
{

constexpr unsigned short Code(unsigned char nLowByte)
{
    return COrvaneMsg::MakeCmdCode(eOrvaneRenesas, nLowByte);
}

enum ECommand : unsigned short
{
    eCmdInit = Code(0x20),        // empty
    eCmdCheckID = Code(0x21),     // up to 7 ID bytes
    eCmdSetBaudrate = Code(0x22), // u8 index
    eCmdReadPage = Code(0x23),    // u16 page -> data
    eCmdEraseAll = Code(0x24),    // empty
    eCmdWritePage = Code(0x25),   // u16 page, 256 data bytes
    eCmdGetVersion = Code(0x26),  // -> version bytes
    eCmdComplete = Code(0x27),    // empty
    eCmdVerifyCheck = Code(0x28), // u16 start, u16 end -> u16 result
    eCmdBlockErase = Code(0x29)   // u16 block
};

constexpr unsigned int PAGE_SIZE = 256;
constexpr unsigned int MAX_ID_LENGTH = 7;

} // namespace OrvaneRenesas

// The test-system kinds: IO (type 11), PWR (type 12) and COM (type 13).
namespace OrvaneTestSystem
{

enum ECommand : unsigned short
{
    // COM. A name travels as one length byte and up to 255 bytes.
    eCmdSetConfig = COrvaneMsg::MakeCmdCode(eOrvaneTestSystemCOM, 0x05),         // name
    eCmdGetConfig = COrvaneMsg::MakeCmdCode(eOrvaneTestSystemCOM, 0x06),         // -> name
    eCmdIsConfigAvailable = COrvaneMsg::MakeCmdCode(eOrvaneTestSystemCOM, 0xD2), // name -> u8 available, u32 CRC-32
    eCmdFileStart = COrvaneMsg::MakeCmdCode(eOrvaneTestSystemCOM, 0xD3),     // u32 CRC-32, u32 size, file name, data
    eCmdFileNext = COrvaneMsg::MakeCmdCode(eOrvaneTestSystemCOM, 0xD4),      // data
    eCmdInstallConfig = COrvaneMsg::MakeCmdCode(eOrvaneTestSystemCOM, 0xD5), // u32 CRC-32, file name, config name
    // IO and PWR: n u16 values, element 0 first.
    eCmdIOSetValue = COrvaneMsg::MakeCmdCode(eOrvaneTestSystemIO, 0x10),
    eCmdIOGetValue = COrvaneMsg::MakeCmdCode(eOrvaneTestSystemIO, 0x11),
    eCmdPWRSetValue = COrvaneMsg::MakeCmdCode(eOrvaneTestSystemPWR, 0x10),
    eCmdPWRGetValue = COrvaneMsg::MakeCmdCode(eOrvaneTestSystemPWR, 0x11)
};

// Largest piece of a file in one upload telegram.
constexpr unsigned int FILE_PIECE = 32768;
// Result byte with which the device asks for the next piece of a file.
constexpr unsigned char RESULT_NEXT_PIECE = 0x21;
constexpr unsigned int MAX_NAME_LENGTH = 255;

} // namespace OrvaneTestSystem

// The aWire programmer of a gateway (device type 14).
namespace OrvaneAWire
{

constexpr unsigned char DEVICE_TYPE = eOrvaneAWire;

constexpr unsigned short Code(unsigned char nLowByte)
{
    return COrvaneMsg::MakeCmdCode(DEVICE_TYPE, nLowByte);
}

// TCP port of programmer port nPort: 5013 + 100 * nPort.
constexpr unsigned short TcpPort(int nPort)
{
    return OrvaneTcpPort(DEVICE_TYPE, nPort);
}

// Command codes (requests; confirmations add 0x8000).
enum ECommand : unsigned short
{
    eCmdSetConfig = Code(0x05),     // u32 value1, u32 value2, u32 page size, u32 value4, u8 n, n text bytes
    eCmdGetConfig = Code(0x06),     // -> the SET_CONFIG layout
    eCmdWriteBlock = Code(0xE0),    // u32 address, u16 length, data; progress by eIndWriteStatus
    eCmdErase = Code(0xE2),         // u16 block
    eCmdRead = Code(0xE3),          // u32 address, u16 length -> the bytes read
    eCmdWriteUserPage = Code(0xE4), // as eCmdWriteBlock
    eCmdEraseUserPage = Code(0xE5)  // empty
};

// Progress of a block write, sent by the programmer on its own.
// s16 message ID of the write request, u8 progress, u16 bytes written.
enum EIndication : unsigned short
{
    eIndWriteStatus = Code(0xE1)
};
constexpr unsigned int WRITE_STATUS_SIZE = 5;

// Progress values of a write-status indication; any other value is the
// status of a failed block.
constexpr unsigned char PROGRESS_FINISHED = 0;
constexpr unsigned char PROGRESS_RUNNING = 1;

// Bytes of SET_CONFIG / GET_CONFIG before the text: four u32 values and the
// text length.
constexpr unsigned int CONFIG_HEADER = 17;

// Device result bytes of a programmer.
constexpr unsigned char RESULT_TRANSFER_IN_PROGRESS = 0x21; // refused while a file is written
constexpr unsigned char RESULT_READ_FAILED = 0x26;

} // namespace OrvaneAWire

#endif
