// The application interface: each function looks its handle up in the device
// manager, forwards to the CAN client and returns the client's code. Every
// function body runs inside Guarded, so no exception reaches the caller.
// Arguments are checked once, by the client (a null buffer with a length, a
// batch count below zero); this layer checks only what it must convert or
// touch itself before the client sees it: an int narrowed to the telegram's
// byte, a port number, the filter words and the error text buffer it copies.
#include "OrvaneDllCan.h"

#include "DeviceManager.h"
#include "OrvaneClientCANDll.h"
#include "OrvaneErrors.h"
#include "OrvaneProtocol.h"

#include <cstring>
#include <memory>
#include <string>

// The header's plain C values are the library's own.
static_assert(CAN_OK == ORVANE_OK && CAN_ERROR_TCP_SOCKET == ORVANE_ERR_TCP_SOCKET &&
                  CAN_ERROR_TCP_NOT_CONNECTED == ORVANE_ERR_TCP_NOT_CONNECTED &&
                  CAN_ERROR_TCP_TIMEOUT == ORVANE_ERR_TCP_TIMEOUT &&
                  CAN_ERROR_TCP_INITIALIZING == ORVANE_ERR_TCP_INITIALIZING &&
                  CAN_ERROR_TCP_NOT_INITIALIZED == ORVANE_ERR_TCP_NOT_INITIALIZED &&
                  CAN_ERROR_INVALID_HANDLE == ORVANE_ERR_INVALID_HANDLE &&
                  CAN_ERROR_INVALID_DEVICE_TYPE == ORVANE_ERR_INVALID_DEVICE_TYPE &&
                  CAN_ERROR_INVALID_PARAMETER == ORVANE_ERR_INVALID_PARAMETER &&
                  CAN_ERROR_FAILED == ORVANE_ERR_COMMAND_FAILED,
              "return codes");
static_assert(CAN_STATE_DISCONNECTED == CKelIPBase::eDisconnected && CAN_STATE_CONNECTING == CKelIPBase::eConnecting &&
                  CAN_STATE_CONNECTED == CKelIPBase::eConnected &&
                  CAN_STATE_DISCONNECTING == CKelIPBase::eDisconnecting &&
                  CAN_STATE_WAITING == CKelIPBase::eWaitingForPeer,
              "connection states");
static_assert(CAN_FLAG_EXTENDED == OrvaneCan::FRAME_FLAG_EXTENDED && CAN_FLAG_REMOTE == OrvaneCan::FRAME_FLAG_REMOTE &&
                  CAN_FLAG_TIMESTAMP == OrvaneCan::FRAME_FLAG_TIMESTAMP,
              "frame flags");

namespace
{

// Returned when a function failed with an exception (out of memory, thread
// resources): the request did not complete.
constexpr int RC_EXCEPTION = CAN_ERROR_FAILED;
constexpr int FILTER_WORDS = 16;
constexpr int MAX_CAN_PORT = 99;

template <typename F>
int Guarded(F fnBody) noexcept
{
    try
    {
        return fnBody();
    }
    catch (...)
    {
        return RC_EXCEPTION;
    }
}

// The handle rule of every function that takes one: 0x900000 for a handle
// that is not open, 0 for an entry without a client, 0x910000 for a client
// that is not a CAN client; else what fnCall returns. The device reference
// keeps the client alive during the call even if another thread closes the
// handle meanwhile.
template <typename F>
int WithClient(int nHandle, F fnCall) noexcept
{
    return Guarded([&] {
        const CDeviceManager::CDeviceRef poDevice = CDeviceManager::GetDevice(nHandle);
        if (!poDevice)
            return CAN_ERROR_INVALID_HANDLE;
        if (poDevice->GetClient() == nullptr)
            return CAN_OK;
        COrvaneClientCANDll* poClient = dynamic_cast<COrvaneClientCANDll*>(poDevice->GetClient());
        if (poClient == nullptr)
            return CAN_ERROR_INVALID_DEVICE_TYPE;
        return static_cast<int>(fnCall(*poClient));
    });
}

// An output argument of the caller: a local of the client's type, starting
// with the caller's value, so that a field the client leaves alone is written
// back unchanged. Integer flags become bool and return as 0/1.
template <typename TLocal, typename TOut = TLocal>
class COut
{
public:
    explicit COut(TOut* pOut) : m_pOut(pOut), m_oValue(pOut != nullptr ? static_cast<TLocal>(*pOut) : TLocal()) {}
    TLocal& operator*() { return m_oValue; }
    void Store() const
    {
        if (m_pOut != nullptr)
            *m_pOut = static_cast<TOut>(m_oValue);
    }

private:
    TOut* m_pOut;
    TLocal m_oValue;
};

// Writes the outputs back when the call succeeded; returns its code.
template <typename... TOuts>
int StoreOnSuccess(int nRet, const TOuts&... aoOuts)
{
    if (nRet == CAN_OK)
        (aoOuts.Store(), ...);
    return nRet;
}

// Pollers: the poller's result goes to *pnAvailable; the function returns 0.
int Available(int* pnAvailable, int nResult)
{
    Put(pnAvailable, nResult);
    return CAN_OK;
}

} // namespace

int CANOpenDevice(int* pnHandle, int bSendDataConfirm, int bSendDataInd, int nCANPort, const char* pcIPAddress,
                  int nTimeout)
{
    return CANOpenDeviceEx(pnHandle, bSendDataConfirm, bSendDataInd, nCANPort, pcIPAddress, nTimeout, CKelIPBase::eTCP);
}

int CANOpenDeviceEx(int* pnHandle, int bSendDataConfirm, int bSendDataInd, int nCANPort, const char* pcIPAddress,
                    int nTimeout, unsigned char nProtocol)
{
    return Guarded([&] {
        // A port outside 0..99 would otherwise be cut to a byte and name another port.
        if (nCANPort < 0 || nCANPort > MAX_CAN_PORT)
            return CAN_ERROR_INVALID_PARAMETER;
        int nRet = CDeviceManager::OpenDevice(pnHandle, pcIPAddress, nTimeout, eOrvaneCAN,
                                              static_cast<unsigned char>(nCANPort), nProtocol, true);
        if (nRet != CAN_OK)
            return nRet;
        nRet = WithClient(*pnHandle, [&](COrvaneClientCANDll& oClient) {
            return oClient.Open(bSendDataConfirm != 0, bSendDataInd != 0);
        });
        if (nRet != CAN_OK)
        {
            WithClient(*pnHandle, [](COrvaneClientCANDll& oClient) { return oClient.Close(); });
            CDeviceManager::CloseDevice(*pnHandle);
            *pnHandle = CAN_NO_HANDLE;
        }
        return nRet;
    });
}

int CANCloseDevice(int nHandle)
{
    return Guarded([&] {
        const CDeviceManager::CDeviceRef poDevice = CDeviceManager::GetDevice(nHandle);
        if (!poDevice)
            return CAN_ERROR_INVALID_HANDLE;
        // Inside a callback the disconnect would wait for the receive thread
        // that is running the callback; the client's destructor disconnects
        // instead, on a helper thread once the callback has returned.
        if (poDevice->GetClient() != nullptr && !COrvaneClient::IsIndicationThread())
            poDevice->GetClient()->Close();
        return CDeviceManager::CloseDevice(nHandle);
    });
}

int CANRestart(const char* pcIPAddress, int nTimeout)
{
    return Guarded([&] {
        int nHandle = CAN_NO_HANDLE;
        const int nRet =
            CDeviceManager::OpenDevice(&nHandle, pcIPAddress, nTimeout, eOrvaneCAN, 0, CKelIPBase::eTCP, false);
        if (nRet != CAN_OK)
            return nRet;
        return WithClient(nHandle, [](COrvaneClientCANDll& oClient) { return oClient.Restart(); });
    });
}

int CANDeviceConnectState(int nHandle)
{
    return WithClient(nHandle, [](COrvaneClientCANDll& oClient) { return oClient.GetConnectState(); });
}

int CANStartAlive(int nHandle, unsigned int nSeconds)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) { return oClient.StartAlive(nSeconds); });
}

int CANErrorMessage(int nRetCode, char* pcMessage, int nMessageLen)
{
    return Guarded([&] {
        if (nMessageLen < 1 || pcMessage == nullptr)
            return 0;
        std::string sText = OrvaneErrorMsg(nRetCode);
        if (static_cast<std::size_t>(nMessageLen) < sText.size() + 1)
            sText.resize(static_cast<std::size_t>(nMessageLen) - 1);
        std::memcpy(pcMessage, sText.c_str(), sText.size() + 1);
        return static_cast<int>(sText.size() + 1);
    });
}

int CANSetGlobals(int nHandle, unsigned int nBaudrate, unsigned char nOperatingMode, int bTermination, int bHighSpeed,
                  int bTimeStamp)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        return oClient.SetGlobals(nBaudrate, nOperatingMode, bTermination != 0, bHighSpeed != 0, bTimeStamp != 0);
    });
}

int CANGetGlobals(int nHandle, unsigned int* pnBaudrate, unsigned char* pnOperatingMode, int* pbTermination,
                  int* pbHighSpeed, int* pbTimeStamp)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        COut<unsigned int> oBaudrate(pnBaudrate);
        COut<unsigned char> oMode(pnOperatingMode);
        COut<bool, int> oTermination(pbTermination), oHighSpeed(pbHighSpeed), oTimeStamp(pbTimeStamp);
        return StoreOnSuccess(oClient.GetGlobals(*oBaudrate, *oMode, *oTermination, *oHighSpeed, *oTimeStamp),
                              oBaudrate, oMode, oTermination, oHighSpeed, oTimeStamp);
    });
}

int CANSetFilter(int nHandle, const int* pnFilter)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        if (pnFilter == nullptr)
            return CAN_ERROR_INVALID_PARAMETER;
        SConfigFilter oFilter;
        for (int i = 0; i < FILTER_WORDS; ++i)
            oFilter.m_anWords[i] = static_cast<unsigned int>(pnFilter[i]);
        return oClient.SetFilter(oFilter);
    });
}

int CANGetFilter(int nHandle, int* pnFilter)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        SConfigFilter oFilter = {};
        const int nRet = oClient.GetFilter(oFilter);
        if (nRet == CAN_OK && pnFilter != nullptr)
            for (int i = 0; i < FILTER_WORDS; ++i)
                pnFilter[i] = static_cast<int>(oFilter.m_anWords[i]);
        return nRet;
    });
}

int CANSetTime(int nHandle, int nSeconds, int nMicroseconds)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        timeval oTime;
        oTime.tv_sec = nSeconds;
        oTime.tv_usec = nMicroseconds;
        return oClient.SetTime(oTime);
    });
}

int CANGetTime(int nHandle, int* pbValid, int* pnSeconds, int* pnMicroseconds)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        // A gateway that sends no time reads as invalid, 0/0.
        bool bValid = false;
        timeval oTime = {0, 0};
        const int nRet = oClient.GetTime(bValid, oTime);
        if (nRet == CAN_OK)
        {
            Put(pbValid, bValid ? 1 : 0);
            Put(pnSeconds, oTime.tv_sec);
            Put(pnMicroseconds, oTime.tv_usec);
        }
        return nRet;
    });
}

int CANGetPowerStatus(int nHandle, unsigned char nMaxValues, unsigned char* pnValues, unsigned char nMaxFlagsA,
                      unsigned char* pnFlagsA, unsigned char nMaxFlagsB, unsigned char* pnFlagsB, short* pnValue1,
                      unsigned short* pnValue2, unsigned short* pnValue3, int* pbFlag, unsigned short* pValues,
                      int* pFlagsA, int* pFlagsB)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        COut<unsigned char> oValues(pnValues), oFlagsA(pnFlagsA), oFlagsB(pnFlagsB);
        COut<short> oValue1(pnValue1);
        COut<unsigned short> oValue2(pnValue2), oValue3(pnValue3);
        COut<bool, int> oFlag(pbFlag);
        // The client fills bool lists; the caller's lists are of int.
        std::unique_ptr<bool[]> abFlagsA(new bool[nMaxFlagsA]());
        std::unique_ptr<bool[]> abFlagsB(new bool[nMaxFlagsB]());
        const int nRet = oClient.GetPowerStatus(
            nMaxValues, *oValues, nMaxFlagsA, *oFlagsA, nMaxFlagsB, *oFlagsB, *oValue1, *oValue2, *oValue3, *oFlag,
            pValues, pFlagsA != nullptr ? abFlagsA.get() : nullptr, pFlagsB != nullptr ? abFlagsB.get() : nullptr);
        if (nRet == CAN_OK)
        {
            for (unsigned int i = 0; pFlagsA != nullptr && i < nMaxFlagsA; ++i)
                pFlagsA[i] = abFlagsA[i] ? 1 : 0;
            for (unsigned int i = 0; pFlagsB != nullptr && i < nMaxFlagsB; ++i)
                pFlagsB[i] = abFlagsB[i] ? 1 : 0;
        }
        return StoreOnSuccess(nRet, oValues, oFlagsA, oFlagsB, oValue1, oValue2, oValue3, oFlag);
    });
}

int CANSetPowerRelais(int nHandle, int bOn)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) { return oClient.SetPowerRelais(bOn != 0); });
}

int CANSetActivePowerSupplies(int nHandle, unsigned int nBitmask)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) { return oClient.SetActivePowerSupplies(nBitmask); });
}

int CANWrite(int nHandle, int nIdentifier, const char* pcBuffer, int nBufferLen, int nFlags)
{
    return CANWriteEx(nHandle, nIdentifier, pcBuffer, nBufferLen, nFlags, nullptr, nullptr);
}

int CANWriteEx(int nHandle, int nIdentifier, const char* pcBuffer, int nBufferLen, int nFlags, int* pnSeconds,
               int* pnMicroseconds)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        // A length that does not fit the telegram's byte would be cut to
        // another length before the client could see it.
        if (nBufferLen < 0 || nBufferLen > 0xFF)
            return CAN_ERROR_INVALID_PARAMETER;
        return oClient.Write(nIdentifier, pcBuffer, static_cast<unsigned char>(nBufferLen),
                             static_cast<unsigned char>(nFlags), pnSeconds, pnMicroseconds);
    });
}

int CANWriteBatch(int nHandle, const SCANFrame* pFrames, int nCount, int* pnWritten)
{
    Put(pnWritten, 0);
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        int nWritten = 0;
        const int nRet = oClient.WriteBatch(pFrames, nCount, nWritten);
        Put(pnWritten, nWritten);
        return nRet;
    });
}

int CANSetReadEndCallback(int nHandle, CANReadEndCallback pCallback)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        oClient.SetReadEndCallback(pCallback);
        return ORVANE_OK;
    });
}

int CANSetCallback(int nHandle, CANCallback pCallback)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        oClient.SetCallback(pCallback);
        return CAN_OK;
    });
}

int CANSetCallbackEx(int nHandle, CANCallbackEx pCallback)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        oClient.SetCallbackEx(pCallback);
        return CAN_OK;
    });
}

int CANSetMaxSizePerQueue(int nHandle, unsigned int nMaxSize)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        oClient.SetMaxSizePerQueue(nMaxSize);
        return CAN_OK;
    });
}

int CANGetMessage(int nHandle, int* pnAvailable, int* pnIdentifier, char* pcData, unsigned char* pnLength, int* pnFlags,
                  int* pnSeconds, int* pnMicroseconds)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        return Available(pnAvailable,
                         oClient.CANGetMessage(pnIdentifier, pcData, pnLength, pnFlags, pnSeconds, pnMicroseconds));
    });
}

int CANReadDigital(int nHandle, unsigned int* pnInputs, unsigned int* pnOutputs)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        // The client reports the values it received even with a failure
        // code; they are passed on as they are.
        COut<unsigned int> oInputs(pnInputs), oOutputs(pnOutputs);
        const int nRet = oClient.ReadDigital(*oInputs, *oOutputs);
        oInputs.Store();
        oOutputs.Store();
        return nRet;
    });
}

int CANWriteDigital(int nHandle, unsigned int nOutputs)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) { return oClient.WriteDigital(nOutputs); });
}

int CANReadAnalog(int nHandle, unsigned int* pnValues, unsigned int nMaxValues, unsigned short* pnCount)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        COut<unsigned short> oCount(pnCount);
        return StoreOnSuccess(oClient.ReadAnalog(nMaxValues, pnValues, *oCount), oCount);
    });
}

int CANWriteAnalog(int nHandle, unsigned int* pnValues, unsigned short nCount)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) { return oClient.WriteAnalog(pnValues, nCount); });
}

int CANopenSetCallback(int nHandle, CANopenPDOCallback pPDO, CANopenSYNCCallback pSYNC, CANopenEMCYCallback pEMCY,
                       CANopenGUARDCallback pGUARD, CANopenUndefinedCallback pUndefined)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        oClient.CANopenSetCallback(pPDO, pSYNC, pEMCY, pGUARD, pUndefined);
        return CAN_OK;
    });
}

int CANopenGetPDO(int nHandle, int* pnAvailable, unsigned char* pnNodeID, unsigned char* pnPDOType,
                  unsigned char* pnLength, char* pcData)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        return Available(pnAvailable, oClient.CANopenGetPDO(pnNodeID, pnPDOType, pnLength, pcData));
    });
}

int CANopenGetSYNC(int nHandle, int* pnAvailable, unsigned char* pnCounter)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        return Available(pnAvailable, oClient.CANopenGetSYNC(pnCounter));
    });
}

int CANopenGetEMCY(int nHandle, int* pnAvailable, unsigned char* pnNodeID, unsigned short* pnErrorCode,
                   unsigned char* pnErrorRegister, unsigned char* pcData)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        return Available(pnAvailable, oClient.CANopenGetEMCY(pnNodeID, pnErrorCode, pnErrorRegister, pcData));
    });
}

int CANopenGetGUARD(int nHandle, int* pnAvailable, unsigned char* pnNodeID, unsigned char* pnState)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        return Available(pnAvailable, oClient.CANopenGetGUARD(pnNodeID, pnState));
    });
}

int CANopenGetUndefined(int nHandle, int* pnAvailable, int* pnIdentifier, unsigned char* pnByte0,
                        unsigned char* pnByte1, unsigned char* pnLength, char* pcData, int* pnSeconds,
                        int* pnMicroseconds)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        return Available(
            pnAvailable,
            oClient.CANopenGetUndefined(pnIdentifier, pnByte0, pnByte1, pnLength, pcData, pnSeconds, pnMicroseconds));
    });
}

int CANopenSetConfig(int nHandle, unsigned char nMode)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) { return oClient.CANopenSetConfig(nMode); });
}

int CANopenGetConfig(int nHandle, unsigned char* pnMode)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        COut<unsigned char> oMode(pnMode);
        return StoreOnSuccess(oClient.CANopenGetConfig(*oMode), oMode);
    });
}

int CANopenSetSYNCMode(int nHandle, unsigned short nPeriodTime)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) { return oClient.CANopenSetSYNCMode(nPeriodTime); });
}

int CANopenSendNMT(int nHandle, unsigned char nNodeID, unsigned char nNMTType)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) { return oClient.CANopenSendNMT(nNodeID, nNMTType); });
}

int CANopenSendSYNC(int nHandle)
{
    return WithClient(nHandle, [](COrvaneClientCANDll& oClient) { return oClient.CANopenSendSYNC(); });
}

int CANopenSendTIME(int nHandle, unsigned short nDay, unsigned int nMs)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) { return oClient.CANopenSendTIME(nDay, nMs); });
}

int CANopenSendPDO(int nHandle, unsigned char nNodeID, unsigned char nPDOType, unsigned char nLen, const char* pcData)
{
    return WithClient(
        nHandle, [&](COrvaneClientCANDll& oClient) { return oClient.CANopenSendPDO(nNodeID, nPDOType, nLen, pcData); });
}

int CANopenSendSDORead(int nHandle, unsigned char nNodeID, unsigned short nIndex, unsigned char nSubindex,
                       unsigned short nTimeout, unsigned char* pnResult, unsigned int* pnValue)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        COut<unsigned char> oResult(pnResult);
        COut<unsigned int> oValue(pnValue);
        return StoreOnSuccess(oClient.CANopenSendSDORead(nNodeID, nIndex, nSubindex, nTimeout, *oResult, *oValue),
                              oResult, oValue);
    });
}

int CANopenSendSDOWrite(int nHandle, unsigned char nNodeID, unsigned char nSDOWriteType, unsigned short nIndex,
                        unsigned char nSubindex, unsigned short nTimeout, unsigned int nValue, unsigned char* pnResult,
                        unsigned int* pnAbort)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        COut<unsigned char> oResult(pnResult);
        COut<unsigned int> oAbort(pnAbort);
        return StoreOnSuccess(
            oClient.CANopenSendSDOWrite(nNodeID, nSDOWriteType, nIndex, nSubindex, nTimeout, nValue, *oResult, *oAbort),
            oResult, oAbort);
    });
}

int CANopenSendSDOReadBlock(int nHandle, unsigned char nNodeID, unsigned short nIndex, unsigned char nSubindex,
                            unsigned short nTimeout, unsigned short nBufferLen, unsigned char* pnResult,
                            unsigned short* pnLen, unsigned char* pData)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        COut<unsigned char> oResult(pnResult);
        COut<unsigned short> oLen(pnLen);
        return StoreOnSuccess(
            oClient.CANopenSendSDOReadBlock(nNodeID, nIndex, nSubindex, nTimeout, nBufferLen, *oResult, *oLen, pData),
            oResult, oLen);
    });
}

int CANopenSendSDOWriteBlock(int nHandle, unsigned char nNodeID, unsigned short nIndex, unsigned char nSubindex,
                             unsigned short nTimeout, unsigned short nLen, const unsigned char* pData,
                             unsigned char* pnResult, unsigned int* pnAbort)
{
    return WithClient(nHandle, [&](COrvaneClientCANDll& oClient) {
        COut<unsigned char> oResult(pnResult);
        COut<unsigned int> oAbort(pnAbort);
        return StoreOnSuccess(
            oClient.CANopenSendSDOWriteBlock(nNodeID, nIndex, nSubindex, nTimeout, nLen, pData, *oResult, *oAbort),
            oResult, oAbort);
    });
}
