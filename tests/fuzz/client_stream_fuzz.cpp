// The client side of the transport and everything behind it, through the
// real read path: a raw peer on 127.0.0.1 confirms the client's connect
// request, then sends the input as telegrams (cut by their length
// words; with bit 1 of the first byte set, each rebuilt with a correct CRC
// so that it gets past the check), in chunks whose size the second byte
// chooses, and closes. The client is a CAN client of the application
// interface with callbacks or queues (CAN frames with and without time
// stamps, CANopen indications), or an aWire client (write-status
// indications) when bit 0 is set. A request made meanwhile takes the
// confirmation path. The client must see the end of the connection, and
// nothing may crash, hang or leak.
#include "OrvaneClientAWire.h"
#include "OrvaneClientCANDll.h"
#include "support/RawPeer.h"

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

using namespace OrvaneTest;

namespace
{

void OnFrame(unsigned int, const char*, int, int, int, int, int) {}
void OnPDO(unsigned char, unsigned char, unsigned char, const char*, int, int, int) {}
void OnSYNC(unsigned char, int, int, int) {}
void OnEMCY(unsigned char, unsigned short, unsigned char, const unsigned char*, int, int, int) {}
void OnGUARD(unsigned char, unsigned char, int, int, int) {}
void OnUndefined(int, unsigned char, unsigned char, unsigned char, const char*, int, int, int) {}

// The telegrams of the input, each rebuilt with a correct CRC when asked.
std::string Stream(const uint8_t* pData, size_t nSize, bool bFixCrc)
{
    const std::string sInput(reinterpret_cast<const char*>(pData), nSize);
    if (!bFixCrc)
        return sInput;
    std::string sOut;
    size_t nAt = 0;
    while (nAt + 2 <= nSize)
    {
        size_t nLength = static_cast<size_t>(pData[nAt] | pData[nAt + 1] << 8);
        if (nLength < 2 || nAt + nLength > nSize)
            nLength = nSize - nAt;
        COrvaneMsg oParsed;
        if (oParsed.SetMessage(pData + nAt, static_cast<unsigned short>(nLength)))
        {
            const std::string& sData = oParsed.GetData();
            sOut += COrvaneMsg(oParsed.GetCmdCode(), oParsed.GetMsgID(), sData.data(),
                               static_cast<unsigned short>(sData.size()))
                        .GetMessageData();
        }
        else
            sOut += sInput.substr(nAt, nLength);
        nAt += nLength;
    }
    return sOut + sInput.substr(nAt);
}

void Drain(COrvaneClientCANDll& oClient)
{
    char acData[72];
    unsigned char anBytes[8];
    int nInt = 0;
    unsigned short nShort = 0;
    unsigned char nByte = 0, nLength = 0;
    while (oClient.CANGetMessage(&nInt, acData, &nLength, &nInt, &nInt, &nInt) > 0)
        ;
    while (oClient.CANopenGetPDO(&nByte, &nByte, &nLength, acData) > 0)
        ;
    while (oClient.CANopenGetSYNC(&nByte) > 0)
        ;
    while (oClient.CANopenGetEMCY(&nByte, &nShort, &nByte, anBytes) > 0)
        ;
    while (oClient.CANopenGetGUARD(&nByte, &nByte) > 0)
        ;
    while (oClient.CANopenGetUndefined(&nInt, &nByte, &nByte, &nLength, acData, &nInt, &nInt) > 0)
        ;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    if (nSize < 2 || nSize > 70000)
        return 0;
    static CRawListener s_oListener;
    const bool bAWire = (pData[0] & 1) != 0;
    const bool bCallbacks = (pData[0] & 4) != 0;
    const unsigned char nId = bAWire ? 14 : DEVICE_CAN;
    const size_t nChunk = 1 + pData[1] % 97;

    // A short time-out: the request below waits for a confirmation that
    // only the input can bring.
    std::unique_ptr<COrvaneClientCANDll> poCan(bAWire ? nullptr : new COrvaneClientCANDll(1, 20));
    std::unique_ptr<COrvaneClientAWire> poAWire(bAWire ? new COrvaneClientAWire(20) : nullptr);
    COrvaneClient& oClient = bAWire ? static_cast<COrvaneClient&>(*poAWire) : *poCan;
    if (poCan && bCallbacks)
    {
        poCan->SetCallbackEx(OnFrame);
        poCan->CANopenSetCallback(OnPDO, OnSYNC, OnEMCY, OnGUARD, OnUndefined);
    }
    else if (poCan)
        poCan->SetMaxSizePerQueue(8);
    // Connect waits for the confirmation, so the gateway answers on its own
    // thread. The client's short time-out covers the connect too: on a busy
    // machine the answer can come late, and the client tries again.
    CRawPeer oGateway;
    int nConnected = -1;
    for (int nTry = 0; nTry < 100 && nConnected != 0; ++nTry)
    {
        std::thread oAnswer([&] {
            oGateway = s_oListener.Accept();
            if (oGateway.ReceiveMessage() == ConnectRequest(nId))
                oGateway.Send(ConnectConfirmation(nId, 0));
        });
        nConnected = oClient.Connect(LOOPBACK, s_oListener.Port(), CKelIPBase::eTCP, true);
        oAnswer.join();
    }
    if (nConnected != 0)
        std::abort();

    const std::string sStream = Stream(pData + 2, nSize - 2, (pData[0] & 2) != 0);
    for (size_t nAt = 0; nAt < sStream.size(); nAt += nChunk)
        oGateway.Send(sStream.substr(nAt, nChunk));
    if (poCan)
    {
        unsigned int nBaudrate = 0;
        unsigned char nMode = 0;
        bool b1 = false, b2 = false, b3 = false;
        poCan->GetGlobals(nBaudrate, nMode, b1, b2, b3);
        Drain(*poCan);
    }
    else
    {
        unsigned int n1 = 0, n2 = 0, n3 = 0, n4 = 0;
        std::string sText;
        poAWire->GetConfig(n1, n2, n3, n4, sText);
    }
    oGateway.Close();
    if (!WaitUntil([&] { return oClient.GetConnectState() != CKelIPBase::eConnected; }, 10000))
        std::abort(); // the client missed the end of its connection
    return 0;
}
