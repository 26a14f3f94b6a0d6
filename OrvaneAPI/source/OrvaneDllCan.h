/* Application interface for the CAN ports of an Orvane gateway: plain
 * functions over integer device handles, usable from C, C++ and any
 * language that can call a C function in a shared library.
 *
 * Every function returns a return code (CAN_OK = 0 = success; the texts come
 * from CANErrorMessage), except CANDeviceConnectState, which returns the
 * state of the device's connection (CAN_STATE_CONNECTED = 3 = connected). A
 * handle that is not open gives CAN_ERROR_INVALID_HANDLE (0x900000). No
 * function lets an exception escape.
 *
 * Callbacks are called on the device's receive thread and must return soon.
 * A callback may call any function, CANCloseDevice of its own handle
 * included: the handle is gone at once, and the device is disconnected and
 * destroyed on a helper thread after the callback has returned.
 *
 * A handle closed while other threads still call functions on it stays
 * valid for those calls; later calls get CAN_ERROR_INVALID_HANDLE. */
#ifndef ORVANE_DLL_CAN_H
#define ORVANE_DLL_CAN_H

/* Return codes made by the interface and the transport under it. Other
 * codes are the device's own, its code ORed with the device type (2 for CAN)
 * shifted left by 8. */
#define CAN_OK 0
#define CAN_ERROR_TCP_SOCKET 0x20000          /* socket could not be created or used */
#define CAN_ERROR_TCP_NOT_CONNECTED 0x30000   /* the gateway link is down */
#define CAN_ERROR_TCP_TIMEOUT 0x40000         /* no answer in time */
#define CAN_ERROR_TCP_INITIALIZING 0x50000    /* connection still being set up */
#define CAN_ERROR_TCP_NOT_INITIALIZED 0x60000 /* connection never set up */
#define CAN_ERROR_INVALID_HANDLE 0x900000     /* handle not open (or closed) */
#define CAN_ERROR_INVALID_DEVICE_TYPE 0x910000
#define CAN_ERROR_INVALID_PARAMETER 0x920000 /* e.g. CAN port above 99, length above 255 */
#define CAN_ERROR_FAILED 0xFF                /* the call could not complete (out of memory, threads) */

/* A handle variable that holds no open device. */
#define CAN_NO_HANDLE (-1)

/* Values of CANDeviceConnectState (besides the return codes above). */
#define CAN_STATE_DISCONNECTED 1
#define CAN_STATE_CONNECTING 2
#define CAN_STATE_CONNECTED 3
#define CAN_STATE_DISCONNECTING 4
#define CAN_STATE_WAITING 5

/* Bits of the flags of CANWrite, CANWriteEx, CANGetMessage and the CAN
 * callbacks. */
#define CAN_FLAG_EXTENDED 0x01  /* 29-bit identifier */
#define CAN_FLAG_REMOTE 0x02    /* remote frame */
#define CAN_FLAG_TIMESTAMP 0x04 /* the frame carries the gateway's time stamp */

#ifdef __cplusplus
extern "C"
{
#endif

    /* A CAN frame from the gateway: identifier, data, length, flags
 * (CAN_FLAG_...), device handle. */
    typedef void (*CANCallback)(unsigned int nIdentifier, const char* pcData, int nLength, int nFlags, int nHandle);
    /* The same with the gateway's time stamp of the frame. */
    typedef void (*CANCallbackEx)(unsigned int nIdentifier, const char* pcData, int nLength, int nFlags, int nHandle,
                                  int nSeconds, int nMicroseconds);
    /* CANopen indications. */
    typedef void (*CANopenPDOCallback)(unsigned char nNodeID, unsigned char nPDOType, unsigned char nLength,
                                       const char* pcData, int nHandle, int nSeconds, int nMicroseconds);
    typedef void (*CANopenSYNCCallback)(unsigned char nCounter, int nHandle, int nSeconds, int nMicroseconds);
    typedef void (*CANopenEMCYCallback)(unsigned char nNodeID, unsigned short nErrorCode, unsigned char nErrorRegister,
                                        const unsigned char* pcData, int nHandle, int nSeconds, int nMicroseconds);
    typedef void (*CANopenGUARDCallback)(unsigned char nNodeID, unsigned char nState, int nHandle, int nSeconds,
                                         int nMicroseconds);
    typedef void (*CANopenUndefinedCallback)(int nIdentifier, unsigned char nByte0, unsigned char nByte1,
                                             unsigned char nLength, const char* pcData, int nHandle, int nSeconds,
                                             int nMicroseconds);

    /* Called once after the frames of one read from the gateway have all gone
     * to the frame callback: a callback that collects frames can pass them
     * on here in one step. */
    typedef void (*CANReadEndCallback)(int nHandle);
    /* One frame of a batch write: identifier, flags and data as for CANWrite
     * (bit 0 29-bit identifier, bit 1 remote frame), m_nLength data bytes of
     * m_acData (at most 64). */
    typedef struct SCANFrame
    {
        unsigned int m_nIdentifier;
        unsigned char m_nFlags;
        unsigned char m_nLength;
        char m_acData[64];
    } SCANFrame;
    /* Devices. */
    int CANOpenDevice(int* pnHandle, int bSendDataConfirm, int bSendDataInd, int nCANPort, const char* pcIPAddress,
                      int nTimeout);
    int CANOpenDeviceEx(int* pnHandle, int bSendDataConfirm, int bSendDataInd, int nCANPort, const char* pcIPAddress,
                        int nTimeout, unsigned char nProtocol);
    int CANCloseDevice(int nHandle);
    int CANRestart(const char* pcIPAddress, int nTimeout);
    int CANDeviceConnectState(int nHandle);
    int CANStartAlive(int nHandle, unsigned int nSeconds);
    int CANErrorMessage(int nRetCode, char* pcMessage, int nMessageLen);

    /* Configuration. */
    int CANSetGlobals(int nHandle, unsigned int nBaudrate, unsigned char nOperatingMode, int bTermination,
                      int bHighSpeed, int bTimeStamp);
    int CANGetGlobals(int nHandle, unsigned int* pnBaudrate, unsigned char* pnOperatingMode, int* pbTermination,
                      int* pbHighSpeed, int* pbTimeStamp);
    int CANSetFilter(int nHandle, const int* pnFilter);
    int CANGetFilter(int nHandle, int* pnFilter);
    int CANSetTime(int nHandle, int nSeconds, int nMicroseconds);
    int CANGetTime(int nHandle, int* pbValid, int* pnSeconds, int* pnMicroseconds);
    int CANGetPowerStatus(int nHandle, unsigned char nMaxValues, unsigned char* pnValues, unsigned char nMaxFlagsA,
                          unsigned char* pnFlagsA, unsigned char nMaxFlagsB, unsigned char* pnFlagsB, short* pnValue1,
                          unsigned short* pnValue2, unsigned short* pnValue3, int* pbFlag, unsigned short* pValues,
                          int* pFlagsA, int* pFlagsB);
    int CANSetPowerRelais(int nHandle, int bOn);
    int CANSetActivePowerSupplies(int nHandle, unsigned int nBitmask);

    /* Frames. */
    int CANWrite(int nHandle, int nIdentifier, const char* pcBuffer, int nBufferLen, int nFlags);
    int CANWriteEx(int nHandle, int nIdentifier, const char* pcBuffer, int nBufferLen, int nFlags, int* pnSeconds,
                   int* pnMicroseconds);
    /* Writes nCount frames in their order, each as its own telegram, the
     * same bytes as nCount calls of CANWrite, handed to the network in as
     * few sends as possible. *pnWritten (when not null) takes the number of
     * frames sent whole, also when the call fails part of the way; the
     * frames after them were not sent. A frame longer than 64 bytes fails
     * the call before anything is sent. */
    int CANWriteBatch(int nHandle, const SCANFrame* pFrames, int nCount, int* pnWritten);
    int CANSetCallback(int nHandle, CANCallback pCallback);
    int CANSetCallbackEx(int nHandle, CANCallbackEx pCallback);
    /* Null switches the read-end callback off (the default). */
    int CANSetReadEndCallback(int nHandle, CANReadEndCallback pCallback);
    int CANSetMaxSizePerQueue(int nHandle, unsigned int nMaxSize);
    /* Polling (queueing is on once CANSetMaxSizePerQueue set a maximum and no
     * callback takes the frames): *pnAvailable = frames still queued, -1 when
     * there was none; the function returns 0. pcData receives every byte
     * behind the frame's header, its 8-byte time stamp included: allow 72
     * bytes. *pnLength is the data length without the time stamp. */
    int CANGetMessage(int nHandle, int* pnAvailable, int* pnIdentifier, char* pcData, unsigned char* pnLength,
                      int* pnFlags, int* pnSeconds, int* pnMicroseconds);

    /* Digital and analog I/O of the gateway. */
    int CANReadDigital(int nHandle, unsigned int* pnInputs, unsigned int* pnOutputs);
    int CANWriteDigital(int nHandle, unsigned int nOutputs);
    int CANReadAnalog(int nHandle, unsigned int* pnValues, unsigned int nMaxValues, unsigned short* pnCount);
    int CANWriteAnalog(int nHandle, unsigned int* pnValues, unsigned short nCount);

    /* CANopen. */
    int CANopenSetCallback(int nHandle, CANopenPDOCallback pPDO, CANopenSYNCCallback pSYNC, CANopenEMCYCallback pEMCY,
                           CANopenGUARDCallback pGUARD, CANopenUndefinedCallback pUndefined);
    int CANopenGetPDO(int nHandle, int* pnAvailable, unsigned char* pnNodeID, unsigned char* pnPDOType,
                      unsigned char* pnLength, char* pcData);
    int CANopenGetSYNC(int nHandle, int* pnAvailable, unsigned char* pnCounter);
    int CANopenGetEMCY(int nHandle, int* pnAvailable, unsigned char* pnNodeID, unsigned short* pnErrorCode,
                       unsigned char* pnErrorRegister, unsigned char* pcData);
    int CANopenGetGUARD(int nHandle, int* pnAvailable, unsigned char* pnNodeID, unsigned char* pnState);
    int CANopenGetUndefined(int nHandle, int* pnAvailable, int* pnIdentifier, unsigned char* pnByte0,
                            unsigned char* pnByte1, unsigned char* pnLength, char* pcData, int* pnSeconds,
                            int* pnMicroseconds);
    int CANopenSetConfig(int nHandle, unsigned char nMode);
    int CANopenGetConfig(int nHandle, unsigned char* pnMode);
    int CANopenSetSYNCMode(int nHandle, unsigned short nPeriodTime);
    int CANopenSendNMT(int nHandle, unsigned char nNodeID, unsigned char nNMTType);
    int CANopenSendSYNC(int nHandle);
    int CANopenSendTIME(int nHandle, unsigned short nDay, unsigned int nMs);
    int CANopenSendPDO(int nHandle, unsigned char nNodeID, unsigned char nPDOType, unsigned char nLen,
                       const char* pcData);
    int CANopenSendSDORead(int nHandle, unsigned char nNodeID, unsigned short nIndex, unsigned char nSubindex,
                           unsigned short nTimeout, unsigned char* pnResult, unsigned int* pnValue);
    int CANopenSendSDOWrite(int nHandle, unsigned char nNodeID, unsigned char nSDOWriteType, unsigned short nIndex,
                            unsigned char nSubindex, unsigned short nTimeout, unsigned int nValue,
                            unsigned char* pnResult, unsigned int* pnAbort);
    int CANopenSendSDOReadBlock(int nHandle, unsigned char nNodeID, unsigned short nIndex, unsigned char nSubindex,
                                unsigned short nTimeout, unsigned short nBufferLen, unsigned char* pnResult,
                                unsigned short* pnLen, unsigned char* pData);
    int CANopenSendSDOWriteBlock(int nHandle, unsigned char nNodeID, unsigned short nIndex, unsigned char nSubindex,
                                 unsigned short nTimeout, unsigned short nLen, const unsigned char* pData,
                                 unsigned char* pnResult, unsigned int* pnAbort);

#ifdef __cplusplus
}
#endif

#endif /* ORVANE_DLL_CAN_H */
