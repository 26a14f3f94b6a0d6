// A CAN client without a socket: every request sent is recorded, and a
// script may answer it at once by feeding telegrams through DataInd, as the
// read thread would.
#ifndef TESTS_CLIENT_SEAMS_H
#define TESTS_CLIENT_SEAMS_H

#include "OrvaneClientCAN.h"
#include "OrvaneMsg.h"

#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <vector>

namespace ClientTest
{

inline std::string Bytes(std::initializer_list<int> anBytes)
{
    std::string s;
    for (int n : anBytes)
        s.push_back(static_cast<char>(n));
    return s;
}

// Wire bytes of a telegram.
inline std::string Wire(unsigned short nCode, short nId, const std::string& sPayload)
{
    return COrvaneMsg(nCode, nId, sPayload.data(), static_cast<unsigned short>(sPayload.size())).GetMessageData();
}

// Wire bytes of the confirmation of oRequest with this payload.
inline std::string Confirmation(const COrvaneMsg& oRequest, const std::string& sPayload)
{
    return Wire(oRequest.GetCmdCode() | COrvaneMsg::CONFIRMATION_FLAG, oRequest.GetMsgID(), sPayload);
}

class CScriptedClient : public COrvaneClientCAN
{
public:
    // Telegrams (wire bytes) to feed in answer to a request.
    using FReply = std::function<std::vector<std::string>(const COrvaneMsg&)>;

    explicit CScriptedClient(int nTimeout = 5000) : COrvaneClientCAN(nTimeout) {}
    ~CScriptedClient() override { ShutdownConnection(); }

    using COrvaneClient::NextTelegramID;
    using COrvaneClientCAN::SendMsg;

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

    void Feed(const std::string& sWire) { DataInd(sWire.data(), static_cast<unsigned short>(sWire.size())); }

    // Every request is confirmed with this payload.
    void ReplyWith(const std::string& sPayload)
    {
        m_fnReply = [sPayload](const COrvaneMsg& oRequest) {
            return std::vector<std::string>{Confirmation(oRequest, sPayload)};
        };
    }

    std::vector<COrvaneMsg> Sent()
    {
        std::lock_guard<std::mutex> oLock(m_oMutex);
        return m_aoSent;
    }

    FReply m_fnReply;
    int m_nSendResult = 0;

private:
    std::mutex m_oMutex;
    std::vector<COrvaneMsg> m_aoSent;
};

} // namespace ClientTest

#endif
