// Return codes of the client library, their texts, and the device types.
//
// A return code is a signed 32-bit value, 0 meaning success. Codes made on
// the host side (transport, handle and parameter errors) lie at 0x20000 and
// above in steps of 0x10000; codes reported by a device lie below 0x10000,
// the device's own code ORed with its device type shifted left by 8.
#ifndef ORVANE_ERRORS_H
#define ORVANE_ERRORS_H

#include <string>

// Device types of the gateway family; the value is also the high byte of
// every command code sent to such a device.
enum EOrvaneDevice
{
    eOrvaneI2C = 1,
    eOrvaneCAN = 2,
    eOrvaneSPI = 3,
    eOrvaneRS232 = 4,
    eOrvaneDIO = 5,
    eOrvaneAudio = 6,
    eOrvaneAD = 7,
    eOrvaneUniversalProgrammer = 8,
    eOrvaneRenesas = 9,
    eOrvaneTestSystemIO = 11,
    eOrvaneTestSystemPWR = 12,
    eOrvaneTestSystemCOM = 13,
    eOrvaneAWire = 14
};

// Success.
constexpr int ORVANE_OK = 0;

// Host-side codes. The transport's own results 2..6 shifted left by 16.
constexpr int ORVANE_ERR_TCP_SOCKET = 0x20000;
constexpr int ORVANE_ERR_TCP_NOT_CONNECTED = 0x30000;
constexpr int ORVANE_ERR_TCP_TIMEOUT = 0x40000;
constexpr int ORVANE_ERR_TCP_INITIALIZING = 0x50000;
constexpr int ORVANE_ERR_TCP_NOT_INITIALIZED = 0x60000;
// Telegram-level faults found by the request engine.
constexpr int ORVANE_ERR_TELEGRAM_CRC = 0xA0000;
constexpr int ORVANE_ERR_TELEGRAM_NOT_CONFIRMED = 0xB0000;
constexpr int ORVANE_ERR_TELEGRAM_CNF_INVALID = 0xC0000;
// Handle and parameter errors of the application interface.
constexpr int ORVANE_ERR_INVALID_HANDLE = 0x900000;
constexpr int ORVANE_ERR_INVALID_DEVICE_TYPE = 0x910000;
constexpr int ORVANE_ERR_INVALID_PARAMETER = 0x920000;

// Device-reported codes common to all device types.
constexpr int ORVANE_ERR_MAX_CONNECTIONS = 0x1;
constexpr int ORVANE_ERR_EEPROM = 0x2;
constexpr int ORVANE_ERR_COMMAND_FAILED = 0xFF;

// Text of a return code. A code without its own text is looked up again
// with bits 8 to 15 cleared (the device type part), so a device code of an
// unknown device type still finds the common text; failing that, the text
// is "Unknown error code: " and the (possibly cleared) code in decimal.
std::string OrvaneErrorMsg(int nCode);

// Display name of a device type; "Orvane ???" outside 1 to 9.
std::string OrvaneDeviceName(int nType);

#endif // ORVANE_ERRORS_H
