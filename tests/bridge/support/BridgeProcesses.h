// For the bridge's tests: in the VM, orvane-bridge on vcan0 and
// orvane-gateway-sim with its bus on vcan1, both on 127.0.0.1, with their
// output shown when a test fails, and raw CAN sockets of the test itself; a
// service manager's end of the notify socket.
#ifndef ORVANE_TEST_BRIDGE_PROCESSES_H
#define ORVANE_TEST_BRIDGE_PROCESSES_H

#include "support/ChildProcess.h"
#include "support/Wait.h"

#include <gtest/gtest.h>

#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
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

// A raw CAN socket of the test itself, for bursts far beyond what cansend
// and candump keep up with. A receiving one gets a buffer that holds every
// burst, so nothing is lost in the test's own socket.
class CRawCan
{
public:
    explicit CRawCan(const char* pcInterface, bool bReceive = true) : m_nSocket(socket(PF_CAN, SOCK_RAW, CAN_RAW))
    {
        const int nBuffer = 16 << 20;
        if (bReceive)
            setsockopt(m_nSocket, SOL_SOCKET, SO_RCVBUFFORCE, &nBuffer, sizeof(nBuffer));
        else
            setsockopt(m_nSocket, SOL_CAN_RAW, CAN_RAW_FILTER, nullptr, 0);
        sockaddr_can oAddress{};
        oAddress.can_family = AF_CAN;
        oAddress.can_ifindex = static_cast<int>(if_nametoindex(pcInterface));
        EXPECT_EQ(bind(m_nSocket, reinterpret_cast<sockaddr*>(&oAddress), sizeof(oAddress)), 0) << pcInterface;
    }
    ~CRawCan() { close(m_nSocket); }
    CRawCan(const CRawCan&) = delete;
    CRawCan& operator=(const CRawCan&) = delete;

    // Writes as fast as the socket takes frames, waiting only while it is full.
    bool Send(const can_frame& oFrame)
    {
        for (;;)
        {
            if (write(m_nSocket, &oFrame, sizeof(oFrame)) == static_cast<ssize_t>(sizeof(oFrame)))
                return true;
            if (errno != ENOBUFS && errno != EAGAIN)
                return false;
            pollfd oWait{m_nSocket, POLLOUT, 0};
            poll(&oWait, 1, 10);
        }
    }
    // The next frame, or false when none comes within nTimeoutMs.
    bool Receive(can_frame& oFrame, int nTimeoutMs = PATIENCE_MS)
    {
        pollfd oWait{m_nSocket, POLLIN, 0};
        return poll(&oWait, 1, nTimeoutMs) == 1 &&
            read(m_nSocket, &oFrame, sizeof(oFrame)) == static_cast<ssize_t>(sizeof(oFrame));
    }

private:
    int m_nSocket;
};

// Frame nIndex of a burst: standard and extended identifiers, every length,
// the index in the first data bytes; remote frames now and then.
inline can_frame BurstFrame(unsigned int nIndex)
{
    can_frame oFrame{};
    oFrame.can_id = nIndex % 5 == 0 ? (CAN_EFF_FLAG | (nIndex * 2654435761u & CAN_EFF_MASK)) : nIndex % 0x800;
    if (nIndex % 97 == 0)
        oFrame.can_id |= CAN_RTR_FLAG;
    else
        oFrame.can_dlc = static_cast<unsigned char>(nIndex % 9);
    for (unsigned int i = 0; i < oFrame.can_dlc; ++i)
        oFrame.data[i] = static_cast<unsigned char>(nIndex >> (8 * (i % 4)));
    return oFrame;
}

// The frame as text, for comparing and for messages.
inline std::string Text(const can_frame& oFrame)
{
    std::ostringstream oText;
    oText << std::hex << oFrame.can_id << "#" << int(oFrame.can_dlc);
    for (unsigned int i = 0; i < oFrame.can_dlc && i < CAN_MAX_DLEN; ++i)
        oText << "." << int(oFrame.data[i]);
    return oText.str();
}

// A service manager's end of the notify socket, bound to a path or ('@'
// first) an abstract name, with NOTIFY_SOCKET naming it while the object
// lives: every datagram received, in order.
class CServiceManager
{
public:
    explicit CServiceManager(const std::string& sName) : m_sName(sName), m_nSocket(socket(AF_UNIX, SOCK_DGRAM, 0))
    {
        sockaddr_un oAddress{};
        oAddress.sun_family = AF_UNIX;
        std::memcpy(oAddress.sun_path, sName.data(), sName.size());
        if (sName[0] == '@')
            oAddress.sun_path[0] = '\0';
        unlink(sName.c_str());
        bind(m_nSocket, reinterpret_cast<sockaddr*>(&oAddress),
             static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + sName.size()));
        setenv("NOTIFY_SOCKET", sName.c_str(), 1);
    }
    ~CServiceManager()
    {
        unsetenv("NOTIFY_SOCKET");
        close(m_nSocket);
        unlink(m_sName.c_str());
    }
    CServiceManager(const CServiceManager&) = delete;
    CServiceManager& operator=(const CServiceManager&) = delete;

    // The datagrams received so far.
    const std::vector<std::string>& Messages()
    {
        char acBuffer[512];
        ssize_t nCount;
        while ((nCount = recv(m_nSocket, acBuffer, sizeof(acBuffer), MSG_DONTWAIT)) > 0)
            m_asMessages.emplace_back(acBuffer, static_cast<size_t>(nCount));
        return m_asMessages;
    }
    // How many datagrams so far contain sPart.
    int Count(const std::string& sPart)
    {
        int nCount = 0;
        for (const std::string& sMessage : Messages())
            nCount += sMessage.find(sPart) != std::string::npos ? 1 : 0;
        return nCount;
    }
    bool WaitFor(const std::string& sPart, int nCount, unsigned int nTimeoutMs)
    {
        return WaitUntil([&] { return Count(sPart) >= nCount; }, nTimeoutMs);
    }

private:
    std::string m_sName;
    int m_nSocket;
    std::vector<std::string> m_asMessages;
};

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

    void StartBridge(const std::vector<std::string>& asOptions = {})
    {
        std::vector<std::string> asArgs = {"orvane-bridge", "vcan0", "-i", "127.0.0.1"};
        asArgs.insert(asArgs.end(), asOptions.begin(), asOptions.end());
        m_poBridge = std::make_unique<CChildProcess>(asArgs);
    }
    std::string BridgeOutput() const { return m_poBridge->Output(); }
    // Frames nFirst to nFirst + nCount - 1 of a burst, sent each way once
    // the link is up: every one arrives once, unchanged and in order. Frames
    // with identifier nOther (other traffic on the buses) are passed over.
    static void ExpectBurstBothWays(unsigned int nFirst, unsigned int nCount, canid_t nOther = CAN_ERR_FLAG)
    {
        for (const auto& oWay : {std::make_pair("vcan0", "vcan1"), std::make_pair("vcan1", "vcan0")})
        {
            SCOPED_TRACE(std::string(oWay.first) + " -> " + oWay.second);
            CRawCan oReceiver(oWay.second), oSender(oWay.first, false);
            for (unsigned int i = nFirst; i < nFirst + nCount; ++i)
                ASSERT_TRUE(oSender.Send(BurstFrame(i)));
            for (unsigned int i = nFirst; i < nFirst + nCount; ++i)
            {
                can_frame oFrame{};
                do
                    ASSERT_TRUE(oReceiver.Receive(oFrame)) << "frame " << i << " of " << nFirst << " + " << nCount;
                while (oFrame.can_id == nOther);
                ASSERT_EQ(Text(oFrame), Text(BurstFrame(i))) << "frame " << i;
            }
        }
    }
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
