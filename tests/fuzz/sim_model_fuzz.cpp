// The gateway simulator's request handling, without sockets: the input is a
// run of telegrams (each cut by its length word, as the transport cuts the
// stream) executed in order by the CAN port model or, when the first byte is
// odd, by the aWire programmer model, whose pending block writes are
// completed now and then.
#include "AWirePortModel.h"
#include "CanPortModel.h"
#include "FaultSettings.h"

#include <cstdint>
#include <memory>
#include <string>

using namespace GatewaySim;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    if (nSize < 1)
        return 0;
    const bool bAWire = (pData[0] & 1) != 0;
    SAWireSettings oSettings;
    oSettings.nFlashSize = 0x10000; // small: the whole flash is allocated per input
    oSettings.nFailBlock = pData[0] >> 4;
    std::unique_ptr<CAWirePortModel> poProgrammer(bAWire ? new CAWirePortModel(oSettings) : nullptr);
    std::unique_ptr<CCanPortModel> poPort(bAWire ? nullptr : new CCanPortModel(0, SFaultSettings()));
    SClientSettings oClient;

    size_t nAt = 1;
    while (nAt + 2 <= nSize)
    {
        size_t nLength = static_cast<size_t>(pData[nAt] | pData[nAt + 1] << 8);
        if (nLength < 2 || nAt + nLength > nSize)
            nLength = nSize - nAt; // the rest as one telegram
        COrvaneMsg oParsed;
        if (oParsed.SetMessage(pData + nAt, static_cast<unsigned short>(nLength)))
        {
            // The session drops telegrams with a wrong CRC before the model
            // sees them: rebuild each with a correct one, so every input
            // reaches the handlers.
            const std::string& sData = oParsed.GetData();
            const COrvaneMsg oRequest(oParsed.GetCmdCode(), oParsed.GetMsgID(), sData.data(),
                                      static_cast<unsigned short>(sData.size()));
            if (bAWire)
            {
                poProgrammer->Handle(oRequest);
                if ((oRequest.GetMsgID() & 3) == 0)
                    poProgrammer->CompleteOldest();
            }
            else
                poPort->Handle(oRequest, oClient);
        }
        nAt += nLength;
    }
    return 0;
}
