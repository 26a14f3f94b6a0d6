#include "LoadGenerator.h"

#include "CanPortModel.h"
#include "SimTypes.h"

#include <time.h>

namespace GatewaySim
{

namespace
{

long long MonotonicMicroseconds()
{
    timespec oNow{};
    clock_gettime(CLOCK_MONOTONIC, &oNow);
    return static_cast<long long>(oNow.tv_sec) * 1000000LL + oNow.tv_nsec / 1000;
}

// Frames owed at one wake-up are capped so that a stalled process does not
// burst afterwards.
constexpr unsigned long long MAX_BURST = 1000;

} // namespace

CLoadGenerator::CLoadGenerator(CCanBus& oBus, const CCanPortModel& oPort, unsigned int nFramesPerSecond,
                               unsigned int nIdentifier)
    : m_roBus(oBus), m_roPort(oPort), m_nFramesPerSecond(nFramesPerSecond), m_nIdentifier(nIdentifier), m_oThread(*this)
{
}

CLoadGenerator::~CLoadGenerator()
{
    Stop();
}

bool CLoadGenerator::Start()
{
    m_bStop.store(false);
    return m_nFramesPerSecond == 0 || m_oThread.Start();
}

void CLoadGenerator::Stop()
{
    m_bStop.store(true);
    m_oThread.Terminate();
}

void CLoadGenerator::SendLoop()
{
    const long long nStart = MonotonicMicroseconds();
    unsigned long long nSent = 0;
    SCanFrame oFrame;
    oFrame.nIdentifier = m_nIdentifier;
    if (m_nIdentifier > 0x7FF)
        oFrame.nFlags = FRAME_FLAG_EXTENDED;
    while (!m_bStop.load())
    {
        const long long nElapsed = MonotonicMicroseconds() - nStart;
        unsigned long long nDue = static_cast<unsigned long long>(nElapsed) * m_nFramesPerSecond / 1000000ULL;
        if (nDue > nSent + MAX_BURST)
            nSent = nDue - MAX_BURST;
        while (nSent < nDue && !m_bStop.load())
        {
            oFrame.sData = CKelPayloadWriter()
                               .U32(static_cast<unsigned int>(nSent))
                               .U32(static_cast<unsigned int>(nSent >> 32))
                               .Data();
            m_roBus.Transmit(oFrame, m_roPort.Now(), this);
            ++nSent;
            m_nSent.store(nSent);
        }
        // Sleep until the next frame is due, at most 50 ms so a stop is seen.
        const long long nNext = static_cast<long long>((nSent + 1) * 1000000ULL / m_nFramesPerSecond);
        long long nWait = nNext - (MonotonicMicroseconds() - nStart);
        if (nWait > 50000)
            nWait = 50000;
        if (nWait > 0)
        {
            timespec oSleep{static_cast<time_t>(nWait / 1000000), static_cast<long>((nWait % 1000000) * 1000)};
            nanosleep(&oSleep, nullptr);
        }
    }
}

} // namespace GatewaySim
