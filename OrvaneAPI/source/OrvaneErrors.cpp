#include "OrvaneErrors.h"

#include <array>

namespace
{

struct SErrorText
{
    int nCode;
    const char* pcText;
};

// Searched in this order; the first equal code wins. The texts are shown to
// users and logged as they are, spelling included.
const std::array<SErrorText, 50> g_aoErrorTexts = {{
    {0x0, "no error"},
    {0x20000, "TCP/IP socket error"},
    {0x30000, "Not connected to TCP/IP partner"},
    {0x40000, "TCP/IP timeout occured"},
    {0x50000, "TCP/IP request not allowed now, stack is intializing"},
    {0x60000, "TCP/IP stack is not initialized"},
    {0xA0000, "Orvane TCP/IP telegram has invalid CRC"},
    {0xB0000, "Orvane TCP/IP telegram is not confirmed by partner"},
    {0xC0000, "Orvane TCP/IP telegram confirmation is invalid"},
    {0x900000, "Device handle is invalid"},
    {0x910000, "Device type invalid (handle is connected device type, which does not support called function"},
    {0x920000, "Invalid function parameter"},
    {0x1, "Open failed, maximum number of connections reached"},
    {0x2, "Read/write request to internal eeprom failed"},
    {0xFF, "Orvane command failed"},
    {0x120, "I2C NACK (No Acknowledge)"},
    {0x121, "I2C timeout occured (no response)"},
    {0x125, "I2C Acknowledge Polling timeout occured"},
    {0x220, "CAN NACK (No Acknowledge)"},
    {0x221, "CAN transmit error"},
    {0x222, "CAN buffer overflow"},
    {0x223, "CAN lost arbitration"},
    {0x224, "CAN no valid baudrate"},
    {0x2FC, "CANOpen block timeout"},
    {0x2FD, "CANOpen NACK (No Acknowledge)"},
    {0x2FE, "CANOpen mode not switched on"},
    {0x320, "SPI inconsistent telegram data"},
    {0x321, "SPI error while sending"},
    {0x330, "SPI sequence unknown command op code"},
    {0x331, "SPI sequence timeout"},
    {0x920, "Renesas timeout"},
    {0x921, "Renesas invalid ID"},
    {0x922, "Renesas failed erase the flash"},
    {0x923, "Renesas program the page failed"},
    {0xA20, "Display wrong bitmap size x"},
    {0xA21, "Display wrong bitmap size y"},
    {0xA22, "Display wrong bitmap size data"},
    {0xD20, "File could not be opened"},
    {0xD21, "File transfer did not complete successfully"},
    {0xD22, "File CRC mismatch"},
    {0xD23, "Requested configuration is already active"},
    {0xD24, "Could not stop configuration"},
    {0xD25, "Could not start configuration"},
    {0xE20, "File could not be opened"},
    {0xE21, "A transfer currently is in progress"},
    {0xE22, "SetConfig failed to initialize target"},
    {0xE23, "SetConfig failed to read Flash or Page size"},
    {0xE24, "EraseBlock not supported"},
    {0xE25, "Failed to erase target"},
    {0xE26, "Failed to read data from target"},
}};

const std::array<const char*, 9> g_apcDeviceNames = {{
    "Orvane I2C",
    "Orvane CAN",
    "Orvane SPI",
    "Orvane RS232",
    "Orvane DIO",
    "Orvane Audio",
    "Orvane AD",
    "Orvane Universal Programmer",
    "Orvane Renesas",
}};

// Bits 8 to 15 carry the device type in device-reported codes.
constexpr int DEVICE_TYPE_BITS = 0xFF00;

} // namespace

std::string OrvaneErrorMsg(int nCode)
{
    for (const SErrorText& oRow : g_aoErrorTexts)
    {
        if (oRow.nCode == nCode)
            return oRow.pcText;
    }
    // The retry builds its own fallback, so an unknown code is reported with
    // the device type bits cleared.
    if ((nCode & DEVICE_TYPE_BITS) != 0)
        return OrvaneErrorMsg(nCode & ~DEVICE_TYPE_BITS);
    return "Unknown error code: " + std::to_string(nCode);
}

std::string OrvaneDeviceName(int nType)
{
    if (nType < 1 || nType > static_cast<int>(g_apcDeviceNames.size()))
        return "Orvane ???";
    return g_apcDeviceNames[static_cast<std::size_t>(nType - 1)];
}
