// Wire bytes for loopback tests, built without the code under test's send
// path: connection messages and gateway telegrams (one layout: length word,
// command, number or message ID, data, XOR checksum), hex.
#ifndef ORVANE_TEST_BYTES_H
#define ORVANE_TEST_BYTES_H

#include <cstddef>
#include <string>

namespace OrvaneTest
{

// The CAN port's device type, its connection identifier.
const unsigned char DEVICE_CAN = 2;

// A whole message or telegram with a correct length word and checksum.
std::string MakeMsg(unsigned short nCommand, unsigned short nNumber, const std::string& sData = std::string());
// Connection messages of connection identifier nId: the connect request
// (number 1, no connect data) and its confirmation carrying nResult.
std::string ConnectRequest(unsigned char nId);
std::string ConnectConfirmation(unsigned char nId, unsigned char nResult);

// A length word in front of sPayload, nothing else.
std::string Frame(const std::string& sPayload);
// nCount bytes that differ from message to message (nSeed) and along the way.
std::string Pattern(std::size_t nCount, unsigned char nSeed);
std::string U32(unsigned int nValue); // 4 bytes little-endian
std::string Byte(unsigned char nValue);

std::string FromHex(const std::string& sHex); // "0D 00 07" -> bytes
std::string ToHex(const std::string& sBytes); // bytes -> "0D 00 07"

} // namespace OrvaneTest

#endif
