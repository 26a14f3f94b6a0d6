// A CKelIPConnection that records what its hooks receive, so that a test can
// wait for messages and connection changes.
#ifndef ORVANE_TEST_RECORDING_CONNECTION_H
#define ORVANE_TEST_RECORDING_CONNECTION_H

#include "Wait.h"

#include "KelIPConnection.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace OrvaneTest
{

class CRecordingConnection : public CKelIPConnection
{
public:
    using CKelIPConnection::CKelIPConnection;
    using CKelIPConnection::SetState; // for the states no peer can bring about
    ~CRecordingConnection() override { Shutdown(); }

    void ConnectInd(bool bConnected) override
    {
        std::lock_guard<std::mutex> oLock(m_oMutex);
        ++m_anInd[bConnected];
        m_oChanged.notify_all();
    }
    void DataInd(const char* pData, unsigned short nLength) override
    {
        const std::string sMessage(pData, nLength);
        if (m_fOnData)
            m_fOnData(*this, sMessage);
        std::lock_guard<std::mutex> oLock(m_oMutex);
        m_asMessages.push_back(sMessage);
        m_oChanged.notify_all();
    }
    bool WaitForMessages(size_t nCount)
    {
        std::unique_lock<std::mutex> oLock(m_oMutex);
        return m_oChanged.wait_for(oLock, WAIT, [&] { return m_asMessages.size() >= nCount; });
    }
    bool WaitForConnectInd(bool bConnected, int nCount)
    {
        std::unique_lock<std::mutex> oLock(m_oMutex);
        return m_oChanged.wait_for(oLock, WAIT, [&] { return m_anInd[bConnected] >= nCount; });
    }
    std::vector<std::string> Messages()
    {
        std::lock_guard<std::mutex> oLock(m_oMutex);
        return m_asMessages;
    }
    int ConnectIndCount(bool bConnected)
    {
        std::lock_guard<std::mutex> oLock(m_oMutex);
        return m_anInd[bConnected];
    }

    // Called on the read thread with each message before it is recorded.
    std::function<void(CRecordingConnection&, const std::string&)> m_fOnData;

private:
    static constexpr std::chrono::milliseconds WAIT{WAIT_MS};

    std::mutex m_oMutex;
    std::condition_variable m_oChanged;
    std::vector<std::string> m_asMessages;
    int m_anInd[2] = {0, 0}; // ConnectInd(false), ConnectInd(true)
};

} // namespace OrvaneTest

#endif
