#include "TelegramBytes.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

namespace SimTest
{

std::string FromHex(const std::string& sHex)
{
    std::string sBytes;
    std::string sDigits;
    for (char c : sHex)
        if (std::isxdigit(static_cast<unsigned char>(c)))
            sDigits.push_back(c);
    for (std::size_t i = 0; i + 1 < sDigits.size(); i += 2)
        sBytes.push_back(static_cast<char>(std::strtoul(sDigits.substr(i, 2).c_str(), nullptr, 16)));
    return sBytes;
}

std::string ToHex(const std::string& sBytes)
{
    std::string sHex;
    char acByte[4];
    for (std::size_t i = 0; i < sBytes.size(); ++i)
    {
        std::snprintf(acByte, sizeof(acByte), i == 0 ? "%02X" : " %02X", static_cast<unsigned char>(sBytes[i]));
        sHex += acByte;
    }
    return sHex;
}

} // namespace SimTest
