#include "DeviceManager.h"

#include "OrvaneClientAWire.h"
#include "OrvaneClientCANDll.h"
#include "OrvaneClientI2C.h"
#include "OrvaneClientRenesas.h"
#include "OrvaneClientSPI.h"
#include "OrvaneClientTestSystem.h"
#include "OrvaneErrors.h"
#include "OrvaneProtocol.h"
#include "TraceServer.h"

#include <condition_variable>
#include <sstream>
#include <thread>
#include <utility>

int CDeviceManager::m_nMaxHandle = 0;
CKelMutex CDeviceManager::m_oMutexMaxHandle;
CKelMutex CDeviceManager::m_oMutexHandleMap;
std::map<int, CDeviceManager::CDeviceRef> CDeviceManager::m_aoHandleMap;

namespace
{

constexpr unsigned char MAX_PORT = 99;
constexpr unsigned char MAX_DEVICE_TYPE = eOrvaneAWire;

using FCreateClient = COrvaneClient* (*)(int nHandle, int nTimeout);

COrvaneClient* CreateCAN(int nHandle, int nTimeout)
{
    return new COrvaneClientCANDll(nHandle, nTimeout);
}

// The other kinds' clients know nothing of handles.
template <class TClient>
COrvaneClient* Create(int /*nHandle*/, int nTimeout)
{
    return new TClient(nTimeout);
}

// The client of each device type. Types without a row, and rows without a
// client, are refused with 0x910000.
struct SDeviceKind
{
    EOrvaneDevice eType;
    FCreateClient fnCreate;
};
const SDeviceKind s_aoDeviceKinds[] = {
    {eOrvaneI2C, Create<COrvaneClientI2C>},
    {eOrvaneCAN, CreateCAN},
    {eOrvaneSPI, Create<COrvaneClientSPI>},
    {eOrvaneRenesas, Create<COrvaneClientRenesas>},
    {eOrvaneTestSystemIO, Create<COrvaneClientTestSystemIO>},
    {eOrvaneTestSystemPWR, Create<COrvaneClientTestSystemPWR>},
    {eOrvaneTestSystemCOM, Create<COrvaneClientTestSystemCOM>},
    {eOrvaneAWire, Create<COrvaneClientAWire>},
};

FCreateClient ClientFactory(unsigned char nDeviceType)
{
    for (const SDeviceKind& oKind : s_aoDeviceKinds)
        if (oKind.eType == nDeviceType)
            return oKind.fnCreate;
    return nullptr;
}

void Trace(unsigned char nLevel, unsigned short nLine, const std::string& sText)
{
    // Named like the other sources' traces: the path in the tree, no suffix.
    CTraceServer::SendTraceMessage(nLevel, COrvaneClient::TRACE_CATEGORY, 0xFFFFFFFFu, nLine,
                                   "OrvaneAPI/source/DeviceManager", sText.c_str(), 0);
}

std::string HandleText(int nHandle, const char* pcWhat)
{
    std::ostringstream oText;
    oText << "Device handle 0x" << std::hex << nHandle << pcWhat;
    return oText.str();
}

// Destroys devices whose last reference went on a receive thread, each on a
// thread of its own: a client's destructor joins its receive thread, which
// may be the very thread that let go of it. The counter lets CloseAllDevices
// wait for them. Never destroyed, so a helper still running at process exit
// finds it intact.
class CReleaser
{
public:
    static CReleaser& Instance()
    {
        static CReleaser* s_poReleaser = new CReleaser;
        return *s_poReleaser;
    }

    void Release(CDevice* poDevice)
    {
        if (!COrvaneClient::IsIndicationThread())
        {
            delete poDevice;
            return;
        }
        {
            std::lock_guard<SLockable> oGuard(m_oLock);
            ++m_nPending;
        }
        try
        {
            std::thread([this, poDevice] {
                delete poDevice;
                std::lock_guard<SLockable> oGuard(m_oLock);
                --m_nPending;
                m_oDone.notify_all();
            }).detach();
        }
        catch (...)
        {
            // No thread to be had: the device is left alive rather than
            // destroyed on its own receive thread.
            std::lock_guard<SLockable> oGuard(m_oLock);
            --m_nPending;
        }
    }

    void WaitIdle()
    {
        std::unique_lock<SLockable> oGuard(m_oLock);
        m_oDone.wait(oGuard, [this] { return m_nPending == 0; });
    }

private:
    struct SLockable
    {
        CKelMutex& mutex;
        void lock() { mutex.Lock(KEL_INFINITE); }
        void unlock() { mutex.Unlock(); }
    };

    CKelMutex m_oMutex;
    SLockable m_oLock{m_oMutex};
    std::condition_variable_any m_oDone;
    int m_nPending = 0;
};

// Devices still open at process exit are closed before the table and its
// mutex go (this object is destroyed first, being defined after them), so a
// callback running meanwhile still finds both intact.
struct SCloseAtExit
{
    ~SCloseAtExit() { CDeviceManager::CloseAllDevices(); }
} s_oCloseAtExit;

} // namespace

CDevice::CDevice(COrvaneClient* poClient, const std::string& sHost, unsigned short nPort, int nHandle,
                 unsigned char nDeviceType, bool bOwnsClient)
    : m_poClient(poClient), m_sHost(sHost), m_nPort(nPort), m_nHandle(nHandle), m_nDeviceType(nDeviceType),
      m_bOwnsClient(bOwnsClient)
{
}

CDevice::~CDevice()
{
    if (m_bOwnsClient)
        delete m_poClient;
}

CDeviceManager::CDeviceRef CDeviceManager::File(CDevice* poDevice)
{
    return CDeviceRef(poDevice, [](CDevice* p) { CReleaser::Instance().Release(p); });
}

int CDeviceManager::OpenDevice(int* pnHandle, const char* pcHost, int nTimeout, unsigned char nDeviceType,
                               unsigned char nPort, unsigned char nProtocol, bool bUseConnectionMessages)
{
    if (nPort > MAX_PORT || pnHandle == nullptr || pcHost == nullptr)
        return ORVANE_ERR_INVALID_PARAMETER;
    int nHandle;
    {
        CKelLockGuard oGuard(m_oMutexMaxHandle);
        nHandle = ++m_nMaxHandle;
    }
    *pnHandle = nHandle;

    const FCreateClient fnCreate = nDeviceType <= MAX_DEVICE_TYPE ? ClientFactory(nDeviceType) : nullptr;
    if (fnCreate == nullptr)
        return ORVANE_ERR_INVALID_DEVICE_TYPE;
    const unsigned short nTcpPort = OrvaneTcpPort(nDeviceType, nPort);
    std::unique_ptr<CDevice> poDevice(
        new CDevice(fnCreate(nHandle, nTimeout), pcHost, nTcpPort, nHandle, nDeviceType, true));

    const int nRet = poDevice->GetClient()->Connect(pcHost, nTcpPort, nProtocol, bUseConnectionMessages);
    if (nRet != ORVANE_OK)
    {
        Trace(COrvaneClient::TRACE_LEVEL_ERROR, __LINE__, "OpenDevice failed: RC =" + std::to_string(nRet));
        return nRet;
    }

    CDeviceRef poReplaced;
    {
        CKelLockGuard oGuard(m_oMutexHandleMap);
        CDeviceRef& poEntry = m_aoHandleMap[nHandle];
        poReplaced = std::move(poEntry);
        poEntry = File(poDevice.release());
    }
    Trace(COrvaneClient::TRACE_LEVEL_TELEGRAM, __LINE__, HandleText(nHandle, " is allocted."));
    return ORVANE_OK;
}

CDeviceManager::CDeviceRef CDeviceManager::GetDevice(int nHandle)
{
    CKelLockGuard oGuard(m_oMutexHandleMap);
    const auto it = m_aoHandleMap.find(nHandle);
    return it != m_aoHandleMap.end() ? it->second : CDeviceRef();
}

void CDeviceManager::SetDevice(int* pnHandle, CDevice* poDevice)
{
    CDeviceRef poNew = File(poDevice);
    int nHandle;
    {
        CKelLockGuard oGuard(m_oMutexMaxHandle);
        nHandle = ++m_nMaxHandle;
    }
    if (pnHandle != nullptr)
        *pnHandle = nHandle;
    poDevice->m_nHandle = nHandle;
    CDeviceRef poReplaced;
    {
        CKelLockGuard oGuard(m_oMutexHandleMap);
        CDeviceRef& poEntry = m_aoHandleMap[nHandle];
        poReplaced = std::move(poEntry);
        poEntry = std::move(poNew);
    }
}

int CDeviceManager::CloseDevice(int nHandle)
{
    // The entry's reference is dropped outside the map mutex: destroying a
    // client joins its receive thread, whose callback may be waiting for
    // that mutex in a look-up of its own.
    CDeviceRef poDevice;
    {
        CKelLockGuard oGuard(m_oMutexHandleMap);
        const auto it = m_aoHandleMap.find(nHandle);
        if (it == m_aoHandleMap.end())
            return ORVANE_ERR_INVALID_HANDLE;
        poDevice = std::move(it->second);
        m_aoHandleMap.erase(it);
    }
    TraceClosed(nHandle);
    return ORVANE_OK;
}

void CDeviceManager::CloseAllDevices()
{
    std::map<int, CDeviceRef> aoDevices;
    {
        CKelLockGuard oGuard(m_oMutexHandleMap);
        aoDevices.swap(m_aoHandleMap);
    }
    for (auto& oEntry : aoDevices)
    {
        TraceClosed(oEntry.first);
        oEntry.second.reset();
    }
    WaitForReleasedDevices();
}

void CDeviceManager::WaitForReleasedDevices()
{
    // On a receive thread the wait could be for this very thread.
    if (!COrvaneClient::IsIndicationThread())
        CReleaser::Instance().WaitIdle();
}

void CDeviceManager::TraceClosed(int nHandle)
{
    Trace(COrvaneClient::TRACE_LEVEL_TELEGRAM, __LINE__, HandleText(nHandle, " is closed."));
}
