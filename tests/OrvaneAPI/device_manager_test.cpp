// Handles: numbering across successful and failed opens, an open whose
// configuration fails, and closing a handle while other threads use it or
// while its callbacks run. Handle numbers are checked relative to the first
// one a test gets, so the tests also pass when repeated. Last, the kinds
// other than CAN, each against a loopback listener that answers the connect
// handshake for the kind's connection identifier.
#include "DeviceManager.h"
#include "KelIPServerContainer.h"
#include "OrvaneClientAWire.h"
#include "OrvaneClientI2C.h"
#include "OrvaneClientRenesas.h"
#include "OrvaneClientSPI.h"
#include "OrvaneClientTestSystem.h"
#include "OrvaneDllCan.h"
#include "OrvaneErrors.h"
#include "OrvaneProtocol.h"
#include "support/ApiSim.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

using namespace ApiTest;

namespace
{

constexpr int TIMEOUT_MS = 5000;
// Transport failures: the connection's results 2 to 6, shifted left by 16.
constexpr int TRANSPORT_FIRST = CAN_ERROR_TCP_SOCKET;
constexpr int TRANSPORT_LAST = CAN_ERROR_TCP_NOT_INITIALIZED;

int Open(int nCanPort, int* pnHandle, int nTimeout = TIMEOUT_MS)
{
    return CANOpenDevice(pnHandle, 0, 0, nCanPort, HOST, nTimeout);
}

TEST(DeviceManager, HandlesCountEveryAttemptPastTheParameterCheck)
{
    CApiSim oSim;
    ASSERT_TRUE(oSim.Started()) << oSim.Error();
    const int nNobody = UnusedCanPort();
    ASSERT_GE(nNobody, 0);

    int nHandle = 0;
    const int nRefused = Open(nNobody, &nHandle, 1000);
    EXPECT_TRUE(nRefused >= TRANSPORT_FIRST && nRefused <= TRANSPORT_LAST && (nRefused & 0xFFFF) == 0) << nRefused;
    // Counted from the failed open's handle (1 in a fresh process).
    const int nFirst = nHandle;
    EXPECT_GE(nFirst, 1);
    nHandle = 0;
    for (int nBadPort : {100, -1, 256})
        EXPECT_EQ(Open(nBadPort, &nHandle), CAN_ERROR_INVALID_PARAMETER) << nBadPort;
    EXPECT_EQ(CDeviceManager::OpenDevice(&nHandle, HOST, 1000, eOrvaneCAN, 100, 1, true), CAN_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(nHandle, 0) << "no handle for a bad port";
    const unsigned char anRefusedTypes[] = {0, 4, 8, 10, 15};
    for (unsigned char nType : anRefusedTypes)
    {
        EXPECT_EQ(CDeviceManager::OpenDevice(&nHandle, HOST, 1000, nType, 0, 1, true), CAN_ERROR_INVALID_DEVICE_TYPE)
            << +nType;
        EXPECT_FALSE(CDeviceManager::GetDevice(nHandle));
    }
    EXPECT_EQ(nHandle, nFirst + 5) << "each refused type consumed one";

    ASSERT_EQ(Open(oSim.CanPort(), &nHandle), 0);
    EXPECT_EQ(nHandle, nFirst + 6);
    ASSERT_TRUE(CDeviceManager::GetDevice(nHandle));
    const int nClosed = nHandle;
    EXPECT_EQ(CANCloseDevice(nClosed), 0);
    EXPECT_EQ(CANWrite(nClosed, 1, "a", 1, 0), CAN_ERROR_INVALID_HANDLE);
    EXPECT_EQ(CANCloseDevice(nClosed), CAN_ERROR_INVALID_HANDLE);

    ASSERT_EQ(Open(oSim.CanPort(), &nHandle), 0);
    EXPECT_EQ(nHandle, nClosed + 1) << "closed handles are not reused";
    int nSecond = 0;
    ASSERT_EQ(Open(oSim.CanPort(), &nSecond), 0);
    EXPECT_EQ(nSecond, nHandle + 1);
    CDeviceManager::CloseAllDevices();
    EXPECT_EQ(CANDeviceConnectState(nHandle), CAN_ERROR_INVALID_HANDLE);
    EXPECT_EQ(CANDeviceConnectState(nSecond), CAN_ERROR_INVALID_HANDLE);
    EXPECT_TRUE(WaitUntil([&] { return oSim.ConnectedClients() == 0; }));
    ASSERT_EQ(Open(oSim.CanPort(), &nHandle), 0);
    EXPECT_EQ(nHandle, nSecond + 1);
    EXPECT_EQ(CANCloseDevice(nHandle), 0);
}

TEST(DeviceManager, FailedConfigurationLeavesNoHandle)
{
    GatewaySim::SSimOptions oOptions;
    oOptions.oFaults.aoFailCommands[0x205] = 0x24; // SET_CONFIG
    CApiSim oSim(oOptions);
    ASSERT_TRUE(oSim.Started()) << oSim.Error();
    int nHandle = 0;
    EXPECT_EQ(Open(oSim.CanPort(), &nHandle), 0x224);
    EXPECT_EQ(nHandle, CAN_NO_HANDLE);
    int nNext = 0;
    EXPECT_EQ(CDeviceManager::OpenDevice(&nNext, HOST, 1000, 4, 0, 1, true), CAN_ERROR_INVALID_DEVICE_TYPE);
    EXPECT_FALSE(CDeviceManager::GetDevice(nNext - 1)) << "the failed open's handle is gone";
    EXPECT_TRUE(WaitUntil([&] { return oSim.ConnectedClients() == 0; })) << "and its connection closed";
}

// Closing a handle while another thread writes on it: the writer sees 0 or a
// transport error until the handle is gone, then 0x900000, and nothing
// touches a destroyed client.
TEST(DeviceManager, CloseWhileAnotherThreadWrites)
{
    CApiSim oSim;
    ASSERT_TRUE(oSim.Started()) << oSim.Error();
    int nHandle = 0;
    ASSERT_EQ(Open(oSim.CanPort(), &nHandle), 0);
    std::atomic<int> nWrites{0}, nUnexpected{0};
    std::thread oWriter([&] {
        for (;;)
        {
            const int nRet = CANWrite(nHandle, 0x10, "abcdefgh", 8, 0);
            if (nRet == CAN_ERROR_INVALID_HANDLE)
                return;
            if (nRet != 0 && (nRet & 0xFFFF) != 0)
                ++nUnexpected;
            ++nWrites;
        }
    });
    EXPECT_TRUE(WaitUntil([&] { return nWrites.load() >= 200; }));
    EXPECT_EQ(CANCloseDevice(nHandle), 0);
    oWriter.join();
    EXPECT_EQ(nUnexpected.load(), 0);
    EXPECT_TRUE(WaitUntil([&] { return oSim.ConnectedClients() == 0; }));
}

// Callbacks run on the receive thread while the main thread closes.
std::atomic<int> g_nFrames{0};
std::atomic<bool> g_bClosed{false};
std::atomic<int> g_nLate{0};
void CountFrame(unsigned int, const char*, int, int, int, int, int)
{
    if (g_bClosed.load())
        ++g_nLate;
    ++g_nFrames;
}

TEST(DeviceManager, CloseWhileCallbacksRun)
{
    GatewaySim::SSimOptions oOptions;
    oOptions.nLoadRate = 20000;
    CApiSim oSim(oOptions);
    ASSERT_TRUE(oSim.Started()) << oSim.Error();
    for (int nRound = 0; nRound < 5; ++nRound)
    {
        int nHandle = 0;
        ASSERT_EQ(Open(oSim.CanPort(), &nHandle), 0);
        g_nFrames = 0;
        g_bClosed = false;
        ASSERT_EQ(CANSetCallbackEx(nHandle, CountFrame), 0);
        ASSERT_TRUE(WaitUntil([] { return g_nFrames.load() >= 100; }));
        EXPECT_EQ(CANCloseDevice(nHandle), 0);
        g_bClosed = true;
    }
    EXPECT_EQ(g_nLate.load(), 0) << "no callback after CANCloseDevice returned";
}

// A callback that closes its own handle: the close returns at once (no wait
// for a disconnect that only this receive thread could complete), the
// handle is gone for every later call, and the client is destroyed on a
// helper thread once the callback has returned.
std::atomic<int> g_nSelfHandle{0};
std::atomic<int> g_nSelfClose{-1};
std::atomic<int> g_nWriteAfter{-1};
void CloseOwnHandle(unsigned int, const char*, int, int, int nHandle)
{
    if (g_nSelfClose.load() != -1)
        return;
    g_nSelfClose = CANCloseDevice(nHandle);
    g_nWriteAfter = CANWrite(nHandle, 1, "a", 1, 0);
}

TEST(DeviceManager, CallbackClosesItsOwnHandle)
{
    g_nSelfClose = -1;
    g_nWriteAfter = -1;
    CApiSim oSim;
    ASSERT_TRUE(oSim.Started()) << oSim.Error();
    int nReader = 0, nWriter = 0;
    // A long default time-out: a close that waited for it would miss the
    // event below.
    ASSERT_EQ(Open(oSim.CanPort(), &nReader, 60000), 0);
    ASSERT_EQ(Open(oSim.CanPort(), &nWriter), 0);
    ASSERT_EQ(CANSetCallback(nReader, CloseOwnHandle), 0);
    ASSERT_EQ(CANWrite(nWriter, 0x55, "x", 1, 0), 0);
    ASSERT_TRUE(WaitUntil([] { return g_nWriteAfter.load() != -1; }));
    EXPECT_EQ(g_nSelfClose.load(), 0);
    EXPECT_EQ(g_nWriteAfter.load(), CAN_ERROR_INVALID_HANDLE);
    EXPECT_EQ(CANDeviceConnectState(nReader), CAN_ERROR_INVALID_HANDLE);
    CDeviceManager::WaitForReleasedDevices();
    EXPECT_TRUE(WaitUntil([&] { return oSim.ConnectedClients() == 1; }));
    EXPECT_EQ(CANCloseDevice(nWriter), 0);
}

// A listener on the TCP port of some port number of nType, found by trying
// port numbers from one that differs between processes.
struct SListener
{
    std::unique_ptr<CKelIPServerContainer> m_poContainer;
    unsigned char m_nPort = 0;

    explicit SListener(unsigned char nType)
    {
        for (int nTry = 0; nTry < 90; ++nTry)
        {
            const unsigned char nPort = static_cast<unsigned char>(10 + (getpid() + nTry) % 90);
            std::unique_ptr<CKelIPServerContainer> poContainer(
                new CKelIPServerContainer(nType, 4, OrvaneTcpPort(nType, nPort), false));
            poContainer->StartListening();
            if (poContainer->IsServerListening())
            {
                m_poContainer = std::move(poContainer);
                m_nPort = nPort;
                return;
            }
        }
    }
};

template <class TClient>
bool IsA(int nHandle)
{
    const CDeviceManager::CDeviceRef poDevice = CDeviceManager::GetDevice(nHandle);
    return poDevice && dynamic_cast<TClient*>(poDevice->GetClient()) != nullptr;
}

TEST(DeviceKinds, EachBuiltKindOpensOnItsPort)
{
    struct SKind
    {
        unsigned char nType;
        bool (*fnIsA)(int);
    };
    const SKind aoKinds[] = {
        {eOrvaneI2C, IsA<COrvaneClientI2C>},
        {eOrvaneSPI, IsA<COrvaneClientSPI>},
        {eOrvaneRenesas, IsA<COrvaneClientRenesas>},
        {eOrvaneTestSystemIO, IsA<COrvaneClientTestSystemIO>},
        {eOrvaneTestSystemPWR, IsA<COrvaneClientTestSystemPWR>},
        {eOrvaneTestSystemCOM, IsA<COrvaneClientTestSystemCOM>},
        {eOrvaneAWire, IsA<COrvaneClientAWire>},
    };
    for (const SKind& oKind : aoKinds)
    {
        SCOPED_TRACE(+oKind.nType);
        SListener oListener(oKind.nType);
        ASSERT_TRUE(oListener.m_poContainer) << "no free port";
        int nHandle = 0;
        ASSERT_EQ(CDeviceManager::OpenDevice(&nHandle, HOST, TIMEOUT_MS, oKind.nType, oListener.m_nPort, 1, true), 0);
        EXPECT_TRUE(oKind.fnIsA(nHandle));
        const CDeviceManager::CDeviceRef poDevice = CDeviceManager::GetDevice(nHandle);
        ASSERT_TRUE(poDevice);
        EXPECT_EQ(poDevice->GetPort(), OrvaneTcpPort(oKind.nType, oListener.m_nPort));
        EXPECT_EQ(poDevice->GetClient()->GetConnectState(), 3);
        EXPECT_EQ(poDevice->GetClient()->GetDeviceType(), oKind.nType);
        EXPECT_EQ(CDeviceManager::CloseDevice(nHandle), 0);
    }
}

} // namespace
