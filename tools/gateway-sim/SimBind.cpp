#include "SimBind.h"

#include "KelIPServerContainer.h"

#include <arpa/inet.h>

#include <cstring>

namespace GatewaySim
{

bool BindPort(CKelIPServerContainer& oContainer, const std::string& sAddress, std::string& sError)
{
    in_addr oAddress{};
    if (inet_pton(AF_INET, sAddress.c_str(), &oAddress) != 1)
    {
        sError = "bind address " + sAddress + " is not a numeric IPv4 address";
        return false;
    }
    // The port before binding: the one asked for, 0 when the system chooses.
    const unsigned short nPort = oContainer.GetPort();
    const int nError = oContainer.Bind(sAddress.c_str());
    if (nError != 0)
    {
        sError = "cannot listen on " + sAddress + ":" + std::to_string(nPort) + ": " + std::strerror(nError);
        return false;
    }
    return true;
}

} // namespace GatewaySim
