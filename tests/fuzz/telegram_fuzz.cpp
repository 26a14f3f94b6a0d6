// The parsers of bytes from the network: the gateway telegram (COrvaneMsg)
// and the transport's connection message (CKelMsg). Whatever the bytes, a
// parsed telegram serialises back to what its fields say, and the checks
// never read past the input.
#include "KelMsg.h"
#include "OrvaneMsg.h"

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    if (nSize > 0xFFFF)
        return 0;
    const char* pcBytes = reinterpret_cast<const char*>(pData);
    const unsigned short nCount = static_cast<unsigned short>(nSize);

    COrvaneMsg oTelegram;
    if (oTelegram.SetMessage(pcBytes, nCount))
    {
        oTelegram.IsCRCValid();
        const std::string sWire = oTelegram.GetMessageData();
        COrvaneMsg oAgain;
        // A valid telegram's own bytes parse to the same telegram.
        if (!oAgain.SetMessage(sWire.data(), static_cast<unsigned short>(sWire.size())) ||
            oAgain.GetMessageData() != sWire)
            std::abort();
    }

    CKelMsg oMessage(pcBytes, nCount);
    oMessage.IsValid();
    oMessage.IsCRCValid();
    CKelMsg::IsIntact(pcBytes, nCount);
    return 0;
}
