// COrvaneClientCAN: the client of one CAN port of a gateway. Each operation
// is one request telegram (command codes and layouts in OrvaneProtocol.h);
// every operation returns the return code of the request (OrvaneClient.h),
// and writes its output arguments only when that code is 0 and the
// confirmation is long enough.
//
// Indications (received frames, CANopen traffic) are handled by the derived
// COrvaneClientCANDll; this class ignores them.
#ifndef ORVANE_CLIENT_CAN_H
#define ORVANE_CLIENT_CAN_H

#include "OrvaneClient.h"
#include "OrvaneDllCan.h"

#include <sys/time.h>

#include <atomic>

// Sixteen filter words, carried to and from the gateway in their order; their
// meaning is the gateway's.
struct SConfigFilter
{
    unsigned int m_anWords[16];
};

class COrvaneClientCAN : public COrvaneClient
{
public:
    // nTimeout: the default time-out in milliseconds (see COrvaneClient).
    explicit COrvaneClientCAN(int nTimeout);
    ~COrvaneClientCAN() override;

    using COrvaneClient::Open;
    // Open() of the base, then SetConfig(bConfirmData, bMonitor).
    int Open(bool bConfirmData, bool bMonitor);
    // Keep-alive period of the connection: nSeconds * 1000 ms. Sends nothing
    // itself; returns 0.
    int StartAlive(unsigned int nSeconds);

    // Whether Write waits for the gateway's confirmation (set by a
    // successful SetConfig or GetConfig).
    bool GetConfirmData() const { return m_bConfirmData.load(std::memory_order_relaxed); }

    // Sends one CAN frame (nFlags: OrvaneCan::FRAME_FLAG_*). With data
    // confirmations on, waits for the confirmation and reports the gateway's
    // transmit time; otherwise does not wait and reports the host's local
    // time since 01.01.1970 00:00 local time. Null pointers are left alone.
    int Write(int nIdentifier, const char* pcBuffer, unsigned char nBufferLen, unsigned char nFlags, int* pnSeconds,
              int* pnMicroseconds);
    // Sends nCount frames in order, each as the telegram Write would send
    // (its own ID and CRC), in as few sends as the connection allows. With
    // data confirmations on, or telegrams traced, it is Write frame by
    // frame. nWritten: frames sent whole, also on failure. A frame longer
    // than 64 bytes fails the call before anything is sent.
    int WriteBatch(const SCANFrame* pFrames, int nCount, int& nWritten);
    int SetConfig(bool bConfirmData, bool bMonitor);
    int GetConfig(bool& bConfirmData, bool& bMonitor);
    int SetGlobals(unsigned int nBaudrate, unsigned char nOperatingMode, bool bTermination, bool bHighSpeed,
                   bool bTimeStamp);
    // High speed and time stamp read as false when the confirmation ends
    // before them.
    int GetGlobals(unsigned int& nBaudrate, unsigned char& nOperatingMode, bool& bTermination, bool& bHighSpeed,
                   bool& bTimeStamp);
    int SetTime(const timeval& oTime);
    int GetTime(bool& bValid, timeval& oTime);
    int SetFilter(const SConfigFilter& oFilter);
    int GetFilter(SConfigFilter& oFilter);
    // Power status: three counted lists (16-bit values, A flags, B flags) and
    // four single values. The counts returned are the gateway's; element i of
    // a list is stored only when i is below the matching nMax... and the
    // array pointer is not null. A confirmation whose lists run past its end
    // gives 0xC0200 (confirmation invalid) and nothing is written.
    int GetPowerStatus(unsigned char nMaxValues, unsigned char& nValues, unsigned char nMaxFlagsA,
                       unsigned char& nFlagsA, unsigned char nMaxFlagsB, unsigned char& nFlagsB, short& nValue1,
                       unsigned short& nValue2, unsigned short& nValue3, bool& bFlag, unsigned short* pValues,
                       bool* pFlagsA, bool* pFlagsB);
    int SetPowerRelais(bool bOn);
    int SetActivePowerSupplies(unsigned int nBitmask);
    int SetZCardParameter(unsigned char nInterval, unsigned short nIDStart, unsigned short nIDEnd);
    int GetZCardParameter(unsigned char& nInterval, unsigned short& nIDStart, unsigned short& nIDEnd);

    // Digital inputs and outputs of the gateway.
    int ReadDigital(unsigned int& nInputs, unsigned int& nOutputs) { return BaseReadDigital(nInputs, nOutputs); }
    int WriteDigital(unsigned int nOutputs) { return BaseWriteDigital(nOutputs); }

    // CANopen master services. The SDO services wait up to 2 * nTimeout ms
    // for their confirmation; the others use the default time-out.
    int CANopenSetConfig(unsigned char nMode);
    int CANopenGetConfig(unsigned char& nMode);
    int CANopenSetSYNCMode(unsigned short nPeriodTime);
    int CANopenSendNMT(unsigned char nNodeID, unsigned char nNMTType);
    int CANopenSendSYNC();
    int CANopenSendTIME(unsigned short nDay, unsigned int nMs);
    int CANopenSendPDO(unsigned char nNodeID, unsigned char nPDOType, unsigned char nLen, const char* pcData);
    int CANopenSendSDORead(unsigned char nNodeID, unsigned short nIndex, unsigned char nSubindex,
                           unsigned short nTimeout, unsigned char& nResult, unsigned int& nValue);
    int CANopenSendSDOWrite(unsigned char nNodeID, unsigned char nSDOWriteType, unsigned short nIndex,
                            unsigned char nSubindex, unsigned short nTimeout, unsigned int nValue,
                            unsigned char& nResult, unsigned int& nAbort);
    // Copies min(nBufferLen, confirmation length - 2) bytes, starting with
    // the confirmation's result byte, into pData and reports that count in
    // nLen.
    int CANopenSendSDOReadBlock(unsigned char nNodeID, unsigned short nIndex, unsigned char nSubindex,
                                unsigned short nTimeout, unsigned short nBufferLen, unsigned char& nResult,
                                unsigned short& nLen, unsigned char* pData);
    int CANopenSendSDOWriteBlock(unsigned char nNodeID, unsigned short nIndex, unsigned char nSubindex,
                                 unsigned short nTimeout, unsigned short nLen, const unsigned char* pData,
                                 unsigned char& nResult, unsigned int& nAbort);


private:
    std::atomic<bool> m_bConfirmData;
};

#endif // ORVANE_CLIENT_CAN_H
