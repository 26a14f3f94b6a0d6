// For the VM tests: orvane-bridge on vcan0 and orvane-gateway-sim with its bus
// on vcan1, both on 127.0.0.1, with their output shown when a test fails.
#ifndef ORVANE_TEST_BRIDGE_PROCESSES_H
#define ORVANE_TEST_BRIDGE_PROCESSES_H

#include "support/ChildProcess.h"
#include "support/Wait.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>

#include <memory>
#include <string>
#include <vector>

namespace OrvaneTest
{

const std::string ESTABLISHED = "+++ connection to Orvane CAN established\n";
const std::string LOST = "+++ error: connection to Orvane CAN lost, reconnecting\n";
const std::string NOT_ESTABLISHED = "+++ error: could not establish connection to Orvane CAN\n";
constexpr unsigned int PATIENCE_MS = 20000; // generous: the VM is emulated and slow

inline int Count(const std::string& sText, const std::string& sPart)
{
    int nCount = 0;
    for (size_t nAt = sText.find(sPart); nAt != std::string::npos; nAt = sText.find(sPart, nAt + sPart.size()))
        ++nCount;
    return nCount;
}

inline bool ExitedWith(int nStatus, int nCode)
{
    return nStatus >= 0 && WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == nCode;
}

class CBridgeProcesses : public ::testing::Test
{
protected:
    void TearDown() override
    {
        if (!HasFailure())
            return;
        for (const auto& oProcess : {std::make_pair("bridge", m_poBridge.get()), std::make_pair("sim", m_poSim.get())})
        {
            const std::string sOutput = oProcess.second != nullptr ? oProcess.second->Output() : "";
            std::printf("--- %s output (last 3000 bytes) ---\n%s", oProcess.first,
                        sOutput.substr(sOutput.size() > 3000 ? sOutput.size() - 3000 : 0).c_str());
        }
    }

    void StartSim(const std::vector<std::string>& asOptions = {})
    {
        std::vector<std::string> asArgs = {"orvane-gateway-sim", "--socketcan", "vcan1", "--bind", "127.0.0.1"};
        asArgs.insert(asArgs.end(), asOptions.begin(), asOptions.end());
        m_poSim = std::make_unique<CChildProcess>(asArgs);
        ASSERT_TRUE(m_poSim->WaitForOutput("listening on 127.0.0.1:5001", PATIENCE_MS)) << m_poSim->Output();
    }
    void StopSim() { ASSERT_TRUE(ExitedWith(m_poSim->Stop(SIGTERM), 0)); }

    void StartBridge(const std::vector<std::string>& asOptions = {})
    {
        std::vector<std::string> asArgs = {"orvane-bridge", "vcan0", "-i", "127.0.0.1"};
        asArgs.insert(asArgs.end(), asOptions.begin(), asOptions.end());
        m_poBridge = std::make_unique<CChildProcess>(asArgs);
    }
    std::string BridgeOutput() const { return m_poBridge->Output(); }
    // True once the bridge has printed sLine at least nCount times.
    bool WaitForBridge(const std::string& sLine, int nCount = 1, unsigned int nTimeoutMs = PATIENCE_MS) const
    {
        return WaitUntil([&] { return Count(BridgeOutput(), sLine) >= nCount; }, nTimeoutMs);
    }

    std::unique_ptr<CChildProcess> m_poSim;
    std::unique_ptr<CChildProcess> m_poBridge;
};

} // namespace OrvaneTest

#endif
