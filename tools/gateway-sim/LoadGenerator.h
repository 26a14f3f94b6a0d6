// Puts frames on a port's bus at a steady rate, as another node on the bus
// would: identifier fixed, 8 data bytes carrying a running 64-bit counter.
#ifndef GATEWAY_SIM_LOAD_GENERATOR_H
#define GATEWAY_SIM_LOAD_GENERATOR_H

#include "CanBus.h"
#include "libKelThread.h"

#include <atomic>

namespace GatewaySim
{

class CCanPortModel;

class CLoadGenerator : public ICanBusMember
{
public:
    CLoadGenerator(CCanBus& oBus, const CCanPortModel& oPort, unsigned int nFramesPerSecond, unsigned int nIdentifier);
    ~CLoadGenerator() override;

    CLoadGenerator(const CLoadGenerator&) = delete;
    CLoadGenerator& operator=(const CLoadGenerator&) = delete;

    bool Start();
    void Stop();
    // The generator listens to nobody.
    void OnBusFrame(const SCanFrame&, const STimeStamp&) override {}
    unsigned long long FramesSent() const { return m_nSent.load(); }

private:
    class CSendThread : public CKelThread
    {
    public:
        explicit CSendThread(CLoadGenerator& oOwner) : m_roOwner(oOwner) {}
        ~CSendThread() override { Terminate(); }

    protected:
        void Run() override { m_roOwner.SendLoop(); }

    private:
        CLoadGenerator& m_roOwner;
    };

    void SendLoop();

    CCanBus& m_roBus;
    const CCanPortModel& m_roPort;
    const unsigned int m_nFramesPerSecond;
    const unsigned int m_nIdentifier;
    std::atomic<bool> m_bStop{false};
    std::atomic<unsigned long long> m_nSent{0};
    CSendThread m_oThread;
};

} // namespace GatewaySim

#endif
