// Raw telegram helpers for the simulator tests: hex text <-> bytes.
#ifndef GATEWAY_SIM_TEST_TELEGRAM_BYTES_H
#define GATEWAY_SIM_TEST_TELEGRAM_BYTES_H

#include <string>

namespace SimTest
{

// "0D 00 07 02" -> bytes (spaces ignored).
std::string FromHex(const std::string& sHex);
// Bytes -> "0D 00 07 02".
std::string ToHex(const std::string& sBytes);

} // namespace SimTest

#endif
