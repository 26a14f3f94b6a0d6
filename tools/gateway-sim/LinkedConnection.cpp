#include "LinkedConnection.h"

namespace GatewaySim
{

namespace
{

// A client that reads nothing gets this long for each telegram before the
// transport gives it up.
constexpr unsigned int SEND_TIMEOUT_MS = 2000;

} // namespace

bool CLinkedConnection::SendBytes(const std::string& sBytes)
{
    return DataReq(sBytes.data(), static_cast<unsigned short>(sBytes.size()), SEND_TIMEOUT_MS) == eKelIPSuccess;
}

void CLinkedConnection::CloseLink()
{
    CloseConnection();
}

} // namespace GatewaySim
