#include "LinkedConnection.h"

namespace GatewaySim
{

namespace
{

// A client that reads nothing gets this long for each send (one or more
// telegrams) before the transport gives it up.
constexpr unsigned int SEND_TIMEOUT_MS = 2000;

} // namespace

bool CLinkedConnection::SendBytes(const std::string& sBytes)
{
    return DataReqBatch(sBytes.data(), sBytes.size(), SEND_TIMEOUT_MS, nullptr) == eKelIPSuccess;
}

void CLinkedConnection::CloseLink()
{
    CloseConnection();
}

} // namespace GatewaySim
