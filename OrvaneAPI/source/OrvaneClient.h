// COrvaneClient: the base of every gateway device client.
//
// It owns one TCP connection to the device, sends request telegrams and
// matches each confirmation to its waiting request by the telegram's message
// ID. Telegrams that are not confirmations (indications) go to the virtual
// DataIndRespond, which device clients override.
//
// A request: take the next telegram ID, build the telegram, trace it, send it
// and wait for the confirmation with SendMsg(request, confirmation, timeout),
// then read the device's result with GetCnfRetCode (first confirmation byte,
// 0 = success) and the command's data from confirmation offset 1 on.
//
// Threads: any number of application threads may send requests on one client
// at the same time; each gets the confirmation with its own ID. DataInd,
// ConInd and DataIndRespond run on the connection's read thread.
//
// Return codes: see OrvaneErrors.h. Transport results are shifted left by 16
// (ConvertTCPRetCode); 0x40000 no confirmation in time, 0xA0000 wrong CRC,
// 0xB0000 a confirmation of another command under the awaited ID; device
// results are the result byte ORed with the device type shifted left by 8.
#ifndef ORVANE_CLIENT_H
#define ORVANE_CLIENT_H

#include "KelIPConnection.h"
#include "OrvaneErrors.h"
#include "OrvaneMsg.h"
#include "libKelMutex.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>

// Device information filled by COrvaneClient::Info. The first 20 bytes are a
// copy of the INFO confirmation's data from offset 1 on (layout in
// OrvaneProtocol.h; multi-byte fields little-endian, as is the host).
struct SOrvaneDeviceInfo
{
    unsigned short m_nFirmwareVersion;
    unsigned short m_nHardwareVersion;
    unsigned int m_nSerialNumber;
    unsigned char m_nGatewayDeviceType; // device type as the gateway reports it
    unsigned char m_nPort;
    char m_acName[10]; // zero padded, not necessarily terminated
    // Set by Info before sending: the client's device type, and 0.
    EOrvaneDevice m_nDeviceType;
    unsigned int m_nReserved;
};

class COrvaneClient
{
public:
    // The TCP connection of a client: hands connection changes and whole
    // telegrams to its client.
    class CConnection : public CKelIPConnection
    {
    public:
        CConnection();
        ~CConnection() override;

        // The client that receives ConInd / DataInd; set before connecting.
        void SetParentClass(COrvaneClient* poClient) { m_poClient = poClient; }

        // Disconnects when connected and stops the threads; see
        // COrvaneClient::ShutdownConnection.
        void Stop() { Shutdown(); }

        void ConnectInd(bool bConnected) override;
        void DataInd(const char* pcData, unsigned short nLength) override;
        void ReadEndInd() override;

    private:
        COrvaneClient* m_poClient;
    };

    // A received confirmation waiting to be collected, with its time of
    // arrival.
    class CMessageItem
    {
    public:
        // Takes ownership of poMsg.
        explicit CMessageItem(COrvaneMsg* poMsg);
        ~CMessageItem();

        CMessageItem(const CMessageItem&) = delete;
        CMessageItem& operator=(const CMessageItem&) = delete;

        // Hands the telegram out; the item is empty afterwards.
        COrvaneMsg* PopMsg();

        // Arrival on the monotonic clock (used for ageing).
        std::chrono::steady_clock::time_point GetArrival() const { return m_oArrival; }

    private:
        COrvaneMsg* m_poMsg;
        std::chrono::steady_clock::time_point m_oArrival;
    };

    // Trace levels and category of the client's trace messages.
    static constexpr unsigned char TRACE_LEVEL_ERROR = 0x02;
    static constexpr unsigned char TRACE_LEVEL_REQUEST = 0x04;
    static constexpr unsigned char TRACE_LEVEL_INDICATION = 0x08;
    static constexpr unsigned char TRACE_LEVEL_TELEGRAM = 0x10;
    static constexpr unsigned char TRACE_CATEGORY = 3;

    // nTimeout: default time-out in milliseconds for connecting, sending,
    // disconnecting and waiting for confirmations.
    COrvaneClient(EOrvaneDevice eDeviceType, unsigned int nTimeout);
    virtual ~COrvaneClient();

    COrvaneClient(const COrvaneClient&) = delete;
    COrvaneClient& operator=(const COrvaneClient&) = delete;

    // Connects to pcHost. nPort 0 selects the device type's default port
    // (4999 + device type; 5099 for type 0). nProtocol is a
    // CKelIPBase::EProtocol; bConnectionMessages switches the connection
    // messages on. The device type is the connection identifier.
    int Connect(const char* pcHost, unsigned short nPort, unsigned char nProtocol, bool bConnectionMessages);
    // Starts the telegram numbering at 2; returns 0.
    virtual int Open();
    // Close and Disconnect: disconnect with the default time-out.
    virtual int Close();
    int Disconnect();

    int GetConnectState() const { return m_oConnection.GetState(); }
    CConnection& GetConnection() { return m_oConnection; }
    EOrvaneDevice GetDeviceType() const { return m_eDeviceType; }
    unsigned int GetTimeout() const { return m_nTimeout; }

    // Sends without waiting.
    virtual int SendMsg(const COrvaneMsg& oRequest);
    // Sends whole telegrams lying back to back in pcWire, in one turn on the
    // connection and without waiting; nSent takes the bytes that went out.
    int SendWire(const char* pcWire, std::size_t nSize, std::size_t& nSent);
    // Sends and waits for the confirmation with the request's ID (pnTimeout
    // null: the default time-out). poConfirmation is set to the received
    // telegram, or null, even when the result is an error; the caller deletes
    // it.
    int SendMsg(const COrvaneMsg& oRequest, COrvaneMsg*& poConfirmation, const unsigned int* pnTimeout);
    // The same, copying a received confirmation into oConfirmation.
    int SendMsg(const COrvaneMsg& oRequest, COrvaneMsg& oConfirmation, const unsigned int* pnTimeout);

    // Takes the stored confirmation with this ID out of the store, or null.
    COrvaneMsg* GetMsg(short nId);
    // Waits until a confirmation with this ID is stored (pnTimeout null: the
    // default time-out) and takes it out; null when none came in time.
    COrvaneMsg* WaitForMsg(short nId, const unsigned int* pnTimeout);
    // Deletes stored confirmations older than ten time-outs (whole seconds).
    void RemoveOldMsgs();

    // True while the calling thread delivers a received telegram of any
    // client, i.e. inside an application callback: a client must not be
    // destroyed there, as its destructor joins that very thread.
    static bool IsIndicationThread();

    // One whole received telegram, length word included (read thread).
    virtual void DataInd(const char* pcData, unsigned short nLength);
    // The telegrams of one read have all gone to DataInd (read thread);
    // does nothing here.
    virtual void DataReadEnd();
    // Connection came up or went down (read thread); does nothing here.
    virtual void ConInd(bool bConnected);
    // An indication; true when the hook took the telegram (and will delete
    // it). Returns false here.
    virtual bool DataIndRespond(COrvaneMsg* poMsg);
    // Device result of a confirmation: 0 when its first byte is 0, else that
    // byte ORed with the device type shifted left by 8; an empty confirmation
    // gives 0xC0000 ORed with the device type shifted left by 8.
    virtual int GetCnfRetCode(const COrvaneMsg& oConfirmation);

    // Transport result to return code: 1 -> 0, 7 -> 1, v -> v << 16.
    static int ConvertTCPRetCode(int nCode);
    static std::string GetErrorMsg(int nCode);

    // Common device commands.
    // Restarts the device.
    int Restart();
    // Device information; pInfo may be null (then only the result counts).
    int Info(SOrvaneDeviceInfo* pInfo);
    // The device's status text.
    int Status(std::string& sStatus);
    // Digital inputs and outputs.
    int BaseReadDigital(unsigned int& nInputs, unsigned int& nOutputs);
    int BaseWriteDigital(unsigned int nOutputs);
    // Analog values. nMaxValues: room in pnValues. On 0, nCount is the number
    // of values the device reported; the first min(nCount, nMaxValues) of
    // them are stored in pnValues (nothing when pnValues is null).
    int ReadAnalog(const unsigned int& nMaxValues, unsigned int* pnValues, unsigned short& nCount);
    // Sets nCount analog outputs to pnValues[0 .. nCount-1] (pnValues may be
    // null only when nCount is 0).
    int WriteAnalog(const unsigned int* pnValues, unsigned short nCount);

protected:
    // Takes the next telegram ID (post-increment, wraps from 32767 to
    // -32768). Safe from any number of threads.
    short NextTelegramID() { return m_nTelegramCounter.fetch_add(1, std::memory_order_relaxed); }

    // The host given to Connect (for trace texts).
    std::string GetHost() const { return m_oConnection.GetHost(); }

    // True when a trace message of this level (category 3) would be sent:
    // only then is its text worth building.
    static bool IsTraceActive(unsigned char nLevel);
    // Sends a trace message (category 3, all filter bits).
    static void Trace(unsigned char nLevel, unsigned short nLine, const std::string& sText);

    // The common request: next telegram ID, telegram of the command code
    // nCmdCode and payload sPayload, a trace of "<pcName> requested to <host>"
    // followed by what fnParams(std::string&) appends (at nLevel, 4 unless
    // given; built only when that trace would be sent), then SendMsg with
    // pnTimeout (null: the default). Returns the result of SendMsg;
    // oConfirmation holds what arrived, if anything.
    template <typename TParams>
    int SendRequest(unsigned short nCmdCode, const std::string& sPayload, const char* pcName, TParams fnParams,
                    std::unique_ptr<COrvaneMsg>& oConfirmation, const unsigned int* pnTimeout = nullptr,
                    unsigned char nLevel = TRACE_LEVEL_REQUEST)
    {
        if (sPayload.size() > MAX_PAYLOAD)
            return ORVANE_ERR_INVALID_PARAMETER;
        const short nId = NextTelegramID();
        if (IsTraceActive(nLevel))
        {
            std::string sText = RequestTraceText(pcName);
            fnParams(sText);
            Trace(nLevel, __LINE__, sText);
        }
        const COrvaneMsg oRequest(nCmdCode, nId, sPayload.data(), static_cast<unsigned short>(sPayload.size()));
        return SendAndWait(oRequest, oConfirmation, pnTimeout);
    }
    // SendRequest, then GetCnfRetCode of the confirmation when SendMsg
    // succeeded.
    template <typename TParams>
    int Request(unsigned short nCmdCode, const std::string& sPayload, const char* pcName, TParams fnParams,
                std::unique_ptr<COrvaneMsg>& oConfirmation, const unsigned int* pnTimeout = nullptr,
                unsigned char nLevel = TRACE_LEVEL_REQUEST)
    {
        const int nRet = SendRequest(nCmdCode, sPayload, pcName, fnParams, oConfirmation, pnTimeout, nLevel);
        return nRet == ORVANE_OK ? GetCnfRetCode(*oConfirmation) : nRet;
    }
    // The same for commands without trace parameters.
    int Request(unsigned short nCmdCode, const std::string& sPayload, const char* pcName,
                std::unique_ptr<COrvaneMsg>& oConfirmation, const unsigned int* pnTimeout = nullptr)
    {
        return Request(nCmdCode, sPayload, pcName, NoParams, oConfirmation, pnTimeout);
    }
    static void NoParams(std::string&) {}

    // SendMsg with confirmation into a smart pointer.
    int SendAndWait(const COrvaneMsg& oRequest, std::unique_ptr<COrvaneMsg>& oConfirmation,
                    const unsigned int* pnTimeout);
    // "<pcName> requested to <host>".
    std::string RequestTraceText(const char* pcName) const;
    // A value in upper-case hexadecimal without prefix, as the trace texts print it.
    static std::string HexText(unsigned int nValue);

    // Stops the connection's threads (disconnecting first when connected):
    // after it no thread calls DataInd, ConInd or DataIndRespond any more.
    // A derived client that overrides a hook calls this first thing in its
    // destructor. Safe to call more than once.
    void ShutdownConnection() { m_oConnection.Stop(); }

    // Longest payload that still fits the telegram's 16-bit sizes.
    static constexpr std::size_t MAX_PAYLOAD = 0xFFFF - COrvaneMsg::MIN_TELEGRAM_SIZE;

    // Command code of a command low byte on this client's device type.
    unsigned short CmdCode(unsigned char nLowByte) const { return COrvaneMsg::MakeCmdCode(m_eDeviceType, nLowByte); }

private:
    CConnection m_oConnection;
    const unsigned int m_nTimeout;
    // Confirmations by message ID, guarded by m_oMutex. The store's lock is
    // a std::mutex, not a CKelMutex, because waiting for a confirmation needs
    // a condition variable bound to exactly this lock (see WaitForMsg).
    std::map<short, CMessageItem*> m_aoMessages;
    std::mutex m_oMutex;
    std::atomic<short> m_nTelegramCounter;
    const EOrvaneDevice m_eDeviceType;
    // Signalled whenever a confirmation is stored; see WaitForMsg for why
    // this is a condition variable and not a CKelEvent.
    std::condition_variable m_oEvent;
};

#endif // ORVANE_CLIENT_H
