// Makes a real SocketCAN interface the bus of a simulated port: frames the
// clients write go out on the interface, and frames read from the interface
// are put on the bus for the clients. Uses a raw CAN socket (with CAN FD
// frames where the interface allows them, for data above 8 bytes).
//
// Both ways go in batches of what is already there: every frame queued on
// the socket is read in one call, and the frames of one client read (held
// on the bus, see CCanBus::HoldWrites) leave in one call.
#ifndef GATEWAY_SIM_SOCKETCAN_LINK_H
#define GATEWAY_SIM_SOCKETCAN_LINK_H

#include "CanBus.h"
#include "GatewayClock.h"
#include "SimCounters.h"
#include "libKelThread.h"

#include <linux/can.h>

#include <atomic>
#include <string>

namespace GatewaySim
{

class CCanPortModel;

class CSocketCanLink : public ICanBusMember
{
public:
    CSocketCanLink(CCanBus& oBus, const CCanPortModel& oPort, SSimCounters& oCounters);
    ~CSocketCanLink() override;

    CSocketCanLink(const CSocketCanLink&) = delete;
    CSocketCanLink& operator=(const CSocketCanLink&) = delete;

    // Opens the interface, joins the bus and starts reading. False with
    // sError set on failure.
    bool Open(const std::string& sInterface, std::string& sError);
    void Close();

    // A client's frame: out on the interface (never blocks; a full
    // transmit queue drops the frame and counts a send error).
    void OnBusFrame(const SCanFrame& oFrame, const STimeStamp& oTime) override;
    void OnBusFlush() override;

private:
    class CReadThread : public CKelThread
    {
    public:
        explicit CReadThread(CSocketCanLink& oOwner) : m_roOwner(oOwner) {}
        ~CReadThread() override { Terminate(); }

    protected:
        void Run() override { m_roOwner.ReadLoop(); }

    private:
        CSocketCanLink& m_roOwner;
    };

    void ReadLoop();
    // Writes the frames kept back, in order (with the bus locked).
    void WritePending();

    static constexpr unsigned int BATCH = 64;

    CCanBus& m_roBus;
    const CCanPortModel& m_roPort;
    SSimCounters& m_roCounters;
    int m_nSocket = -1;
    bool m_bFdFrames = false;
    bool m_bOnBus = false;
    std::atomic<bool> m_bStop{false};
    // Frames kept back while their writer holds its writes; guarded by the
    // bus's lock, under which every OnBusFrame and OnBusFlush runs.
    canfd_frame m_aoPending[BATCH];
    unsigned int m_anPendingSize[BATCH];
    unsigned int m_nPending = 0;
    CReadThread m_oThread;
};

} // namespace GatewaySim

#endif
