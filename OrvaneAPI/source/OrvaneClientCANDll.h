// COrvaneClientCANDll: the CAN client behind a device handle of the
// application interface. It decodes the indications of its CAN port and
// hands each to the application's callback for its kind or, when none is set
// and queueing is on, files it in one of six bounded receive queues from
// which the application polls.
//
// Threads: DataIndRespond and the callbacks run on the connection's receive
// thread; the setters and pollers on application threads. Callback pointers
// and the queueing switch are single atomic words, so a change applies from
// the next indication on. A received frame that goes to a callback costs no
// allocation and no lock.
#ifndef ORVANE_CLIENT_CAN_DLL_H
#define ORVANE_CLIENT_CAN_DLL_H

#include "OrvaneClientCAN.h"
#include "OrvaneDllCan.h"
#include "OrvaneMsgQueue.h"

#include <atomic>

// Stores nValue, converted, where the caller asked for an output (pOut not
// null); the application interface's outputs are all optional.
template <typename T, typename V>
inline void Put(T* pOut, V nValue)
{
    if (pOut != nullptr)
        *pOut = static_cast<T>(nValue);
}

class COrvaneClientCANDll : public COrvaneClientCAN
{
public:
    // nHandle: passed to every callback; nTimeout: see COrvaneClientCAN.
    COrvaneClientCANDll(int nHandle, int nTimeout);
    // Stops the receive thread first, so no indication arrives while the
    // queues go.
    ~COrvaneClientCANDll() override;

    int GetHandle() const { return m_nHandle; }

    // The simple and the extended frame callback exclude each other: setting
    // one clears the other. Null switches frame callbacks off.
    void SetCallback(CANCallback pCallback);
    void SetCallbackEx(CANCallbackEx pCallback);
    // Called after each read's indications (null: none).
    void SetReadEndCallback(CANReadEndCallback pCallback) { m_pReadEndCallback.store(pCallback); }
    // Sets all five CANopen callbacks (each may be null).
    void CANopenSetCallback(CANopenPDOCallback pPDO, CANopenSYNCCallback pSYNC, CANopenEMCYCallback pEMCY,
                            CANopenGUARDCallback pGUARD, CANopenUndefinedCallback pUndefined);
    // nMaxSize > 0: every queue's maximum becomes nMaxSize and queueing is on
    // (what is queued stays). 0: queueing off and every queue emptied.
    void SetMaxSizePerQueue(unsigned int nMaxSize);

    // Pollers: take the oldest telegram of their queue and write each output
    // whose pointer is not null. Return the number still queued, or -1 (no
    // output touched) when the queue was empty.
    //
    // CANGetMessage copies every byte behind the frame's header into pcData,
    // time stamp included: up to 72 bytes. *pnLength is the data length
    // without the time stamp.
    int CANGetMessage(int* pnIdentifier, char* pcData, unsigned char* pnLength, int* pnFlags, int* pnSeconds,
                      int* pnMicroseconds);
    // pcData: up to 8 bytes.
    int CANopenGetPDO(unsigned char* pnNodeID, unsigned char* pnPDOType, unsigned char* pnLength, char* pcData);
    int CANopenGetSYNC(unsigned char* pnCounter);
    // pcData: 5 bytes.
    int CANopenGetEMCY(unsigned char* pnNodeID, unsigned short* pnErrorCode, unsigned char* pnErrorRegister,
                       unsigned char* pcData);
    int CANopenGetGUARD(unsigned char* pnNodeID, unsigned char* pnState);
    // pcData: *pnLength bytes, at most 64.
    int CANopenGetUndefined(int* pnIdentifier, unsigned char* pnByte0, unsigned char* pnByte1, unsigned char* pnLength,
                            char* pcData, int* pnSeconds, int* pnMicroseconds);

    // Decodes one indication and delivers or queues it; never takes the
    // telegram (returns false).
    bool DataIndRespond(COrvaneMsg* poMsg) override;
    // Calls the read-end callback, if one is set.
    void DataReadEnd() override;

private:
    enum EQueue
    {
        eQueuePDO,
        eQueueSYNC,
        eQueueEMCY,
        eQueueGUARD,
        eQueueUndefined,
        eQueueFrame,
        eQueueCount
    };

    void OnFrame(COrvaneMsg& oMsg);
    void OnPDO(COrvaneMsg& oMsg);
    void OnSYNC(COrvaneMsg& oMsg);
    void OnEMCY(COrvaneMsg& oMsg);
    void OnGUARD(COrvaneMsg& oMsg);
    void OnUndefined(COrvaneMsg& oMsg);
    // Files the telegram when queueing is on (full queue: dropped).
    void Enqueue(EQueue eQueue, COrvaneMsg& oMsg);
    // Traces "CAN Message has no timestamp." for a frame without one.
    static void TraceTimeStamp(bool bHasTimeStamp);
    static void TraceIndication(const char* pcText);

    const int m_nHandle;
    std::atomic<CANCallback> m_pCallback{nullptr};
    std::atomic<CANCallbackEx> m_pCallbackEx{nullptr};
    std::atomic<CANReadEndCallback> m_pReadEndCallback{nullptr};
    std::atomic<CANopenPDOCallback> m_pPDOCallback{nullptr};
    std::atomic<CANopenSYNCCallback> m_pSYNCCallback{nullptr};
    std::atomic<CANopenEMCYCallback> m_pEMCYCallback{nullptr};
    std::atomic<CANopenGUARDCallback> m_pGUARDCallback{nullptr};
    std::atomic<CANopenUndefinedCallback> m_pUndefinedCallback{nullptr};
    std::atomic<bool> m_bQueueing{false};
    COrvaneMsgQueue m_aoQueues[eQueueCount];
};

#endif
