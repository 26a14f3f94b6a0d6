// A CAN client without a socket: every request is recorded and may be
// answered at once through DataInd, as the read thread would.
#ifndef TESTS_CLIENT_SEAMS_H
#define TESTS_CLIENT_SEAMS_H

#include "OrvaneClientCAN.h"
#include "support/Bytes.h"

#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace ClientTest
{

// "05 00 01" -> bytes.
inline std::string Hex(const std::string& sHex)
{
    return OrvaneTest::FromHex(sHex);
}

// The nCount bytes at pData.
inline std::string Bytes(const void* pData, int nCount)
{
    return std::string(static_cast<const char*>(pData), static_cast<std::size_t>(nCount));
}

// "a b c" of the values (bytes and flags as numbers), for one-line
// expectations.
template <typename... T>
std::string Out(const T&... aValues)
{
    std::ostringstream oText;
    const auto fnPut = [&oText](const auto& oValue) {
        if constexpr (std::is_arithmetic<std::decay_t<decltype(oValue)>>::value)
            oText << +oValue << ' ';
        else
            oText << oValue << ' ';
    };
    (fnPut(aValues), ...);
    std::string s = oText.str();
    return s.substr(0, s.empty() ? 0 : s.size() - 1);
}

inline std::string Wire(unsigned short nCode, short nId, const std::string& sPayload)
{
    return COrvaneMsg(nCode, nId, sPayload.data(), static_cast<unsigned short>(sPayload.size())).GetMessageData();
}

inline std::string Confirmation(const COrvaneMsg& oRequest, const std::string& sPayload)
{
    return Wire(oRequest.GetCmdCode() | COrvaneMsg::CONFIRMATION_FLAG, oRequest.GetMsgID(), sPayload);
}

inline std::pair<unsigned short, std::string> Req(unsigned short nCode, const std::string& sPayload)
{
    return {nCode, sPayload};
}

// Any device client without a socket (TClient takes the time-out).
template <class TClient>
class CScripted : public TClient
{
public:
    explicit CScripted(int nTimeout = 5000) : TClient(nTimeout) {}
    ~CScripted() override { this->ShutdownConnection(); }

    using COrvaneClient::NextTelegramID;
    using TClient::SendMsg;

    int SendMsg(const COrvaneMsg& oRequest) override
    {
        std::vector<std::string> asReplies;
        {
            std::lock_guard<std::mutex> oLock(m_oMutex);
            m_aoSent.push_back(oRequest);
            if (m_nSendResult != 0)
                return m_nSendResult;
            if (m_fnReply)
                asReplies = m_fnReply(oRequest);
        }
        for (const std::string& sWire : asReplies)
            Feed(sWire);
        return 0;
    }

    void Feed(const std::string& sWire) { this->DataInd(sWire.data(), static_cast<unsigned short>(sWire.size())); }

    // Every request is confirmed with this payload (given as hex).
    void ReplyWith(const std::string& sHex)
    {
        const std::string sPayload = Hex(sHex);
        m_fnReply = [sPayload](const COrvaneMsg& oRequest) {
            return std::vector<std::string>{Confirmation(oRequest, sPayload)};
        };
    }

    COrvaneMsg LastSent()
    {
        std::lock_guard<std::mutex> oLock(m_oMutex);
        return m_aoSent.empty() ? COrvaneMsg() : m_aoSent.back();
    }
    // The last request's command code and payload, compared at once with Req().
    std::pair<unsigned short, std::string> LastRequest()
    {
        const COrvaneMsg oLast = LastSent();
        return {oLast.GetCmdCode(), oLast.GetData()};
    }
    std::size_t SentCount()
    {
        std::lock_guard<std::mutex> oLock(m_oMutex);
        return m_aoSent.size();
    }
    std::vector<COrvaneMsg> Sent()
    {
        std::lock_guard<std::mutex> oLock(m_oMutex);
        return m_aoSent;
    }

    std::function<std::vector<std::string>(const COrvaneMsg&)> m_fnReply;
    int m_nSendResult = 0;

private:
    std::mutex m_oMutex;
    std::vector<COrvaneMsg> m_aoSent;
};

using CScriptedClient = CScripted<COrvaneClientCAN>;

} // namespace ClientTest

#endif
