// CDeviceManager: the process-wide table from the integer device handles of
// the application interface to device clients.
//
// Handles start at 1 and grow by one for every open attempt that gets past
// the parameter check, failed ones included; they are never reused.
//
// Lifetime: the table holds a shared reference to each CDevice, and
// GetDevice hands out another one. CloseDevice removes the entry at once (the
// handle is unknown from then on), while the device and its client live on
// until the last caller that looked it up has returned. A device whose last
// reference is dropped on a client's receive thread (an application callback
// that closes a handle) is destroyed on a helper thread instead: a client's
// destructor joins its receive thread and must not run on it.
#ifndef ORVANE_DEVICE_MANAGER_H
#define ORVANE_DEVICE_MANAGER_H

#include "libKelMutex.h"

#include <map>
#include <memory>
#include <string>

class COrvaneClient;

// One open device: its client and where it is connected.
class CDevice
{
public:
    CDevice(COrvaneClient* poClient, const std::string& sHost, unsigned short nPort, int nHandle,
            unsigned char nDeviceType, bool bOwnsClient);
    // Destroys the client when the entry owns it.
    ~CDevice();
    CDevice(const CDevice&) = delete;
    CDevice& operator=(const CDevice&) = delete;

    COrvaneClient* GetClient() const { return m_poClient; }
    const std::string& GetHost() const { return m_sHost; }
    unsigned short GetPort() const { return m_nPort; }
    int GetHandle() const { return m_nHandle; }
    unsigned char GetDeviceType() const { return m_nDeviceType; }

private:
    friend class CDeviceManager;

    COrvaneClient* m_poClient;
    std::string m_sHost;
    unsigned short m_nPort;
    int m_nHandle;
    unsigned char m_nDeviceType;
    bool m_bOwnsClient;
};

class CDeviceManager
{
public:
    using CDeviceRef = std::shared_ptr<CDevice>;

    // Creates the client of nDeviceType, connects it to pcHost on TCP port
    // OrvaneTcpPort(nDeviceType, nPort) and files it under a new handle,
    // which is written to *pnHandle once issued (also when a later step
    // fails). 0x920000 for a port above 99 or a null pointer (no handle
    // issued), 0x910000 for a device type without a client, else the code of
    // Connect.
    static int OpenDevice(int* pnHandle, const char* pcHost, int nTimeout, unsigned char nDeviceType,
                          unsigned char nPort, unsigned char nProtocol, bool bUseConnectionMessages);
    // The device filed under nHandle, or null.
    static CDeviceRef GetDevice(int nHandle);
    // Issues a new handle and files poDevice under it (the table takes it).
    static void SetDevice(int* pnHandle, CDevice* poDevice);
    // Removes the entry: 0, or 0x900000 for an unknown handle.
    static int CloseDevice(int nHandle);
    // Removes every entry; handles issued later continue the sequence. Also
    // waits until devices handed to helper threads are destroyed.
    static void CloseAllDevices();
    // Waits until every device handed to a helper thread is destroyed
    // (returns at once on a receive thread, which such a helper may await).
    static void WaitForReleasedDevices();

private:
    static CDeviceRef File(CDevice* poDevice);
    static void TraceClosed(int nHandle);

    static int m_nMaxHandle;
    static CKelMutex m_oMutexMaxHandle;
    static std::map<int, CDeviceRef> m_aoHandleMap;
    static CKelMutex m_oMutexHandleMap;
};

#endif
