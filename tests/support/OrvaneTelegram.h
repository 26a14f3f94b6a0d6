// Gateway telegrams as COrvaneMsg, for tests that link the client library
// (orvane_api): what a CRawPeer received, taken apart.
#ifndef ORVANE_TEST_ORVANE_TELEGRAM_H
#define ORVANE_TEST_ORVANE_TELEGRAM_H

#include "Bytes.h"

#include "OrvaneMsg.h"

#include <string>

namespace OrvaneTest
{

// The telegram as the client library parses it (check IsValid/IsCRCValid).
inline COrvaneMsg ToOrvaneMsg(const std::string& sBytes)
{
    return COrvaneMsg(sBytes.data(), static_cast<unsigned short>(sBytes.size()));
}

// The bytes of a well-formed confirmation of oRequest carrying sData (which
// starts with the device's result byte).
inline std::string ConfirmationOf(const COrvaneMsg& oRequest, const std::string& sData)
{
    return Confirmation(oRequest.GetCmdCode(), oRequest.GetMsgID(), sData);
}

} // namespace OrvaneTest

#endif
