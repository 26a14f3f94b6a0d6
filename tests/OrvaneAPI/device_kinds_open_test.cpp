// Opening the I2C, SPI, Renesas, test-system and aWire kinds through the device
// manager against a loopback listener that answers the connect handshake for
// the kind's connection identifier. Kinds without a client are refused
// (device_manager_test).
#include "DeviceManager.h"
#include "KelIPServerContainer.h"
#include "OrvaneClientAWire.h"
#include "OrvaneClientI2C.h"
#include "OrvaneClientRenesas.h"
#include "OrvaneClientSPI.h"
#include "OrvaneClientTestSystem.h"
#include "OrvaneErrors.h"
#include "OrvaneProtocol.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <memory>

namespace
{

constexpr const char* HOST = "127.0.0.1";
constexpr int TIMEOUT_MS = 5000;
constexpr unsigned char TCP = 1;

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

} // namespace

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
        ASSERT_EQ(CDeviceManager::OpenDevice(&nHandle, HOST, TIMEOUT_MS, oKind.nType, oListener.m_nPort, TCP, true), 0);
        EXPECT_TRUE(oKind.fnIsA(nHandle));
        const CDeviceManager::CDeviceRef poDevice = CDeviceManager::GetDevice(nHandle);
        ASSERT_TRUE(poDevice);
        EXPECT_EQ(poDevice->GetPort(), OrvaneTcpPort(oKind.nType, oListener.m_nPort));
        EXPECT_EQ(poDevice->GetClient()->GetConnectState(), 3);
        EXPECT_EQ(poDevice->GetClient()->GetDeviceType(), oKind.nType);
        EXPECT_EQ(CDeviceManager::CloseDevice(nHandle), 0);
    }
}
