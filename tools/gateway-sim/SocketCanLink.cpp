#include "SocketCanLink.h"

#include "CanPortModel.h"

#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace GatewaySim
{

CSocketCanLink::CSocketCanLink(CCanBus& oBus, const CCanPortModel& oPort, SSimCounters& oCounters)
    : m_roBus(oBus), m_roPort(oPort), m_roCounters(oCounters), m_oThread(*this)
{
}

CSocketCanLink::~CSocketCanLink()
{
    Close();
}

bool CSocketCanLink::Open(const std::string& sInterface, std::string& sError)
{
    if (sInterface.empty() || sInterface.size() >= IFNAMSIZ)
    {
        sError = "invalid SocketCAN interface name \"" + sInterface + "\"";
        return false;
    }
    m_nSocket = socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW);
    if (m_nSocket < 0)
    {
        sError = std::string("SocketCAN socket: ") + std::strerror(errno);
        return false;
    }
    ifreq oRequest{};
    std::strncpy(oRequest.ifr_name, sInterface.c_str(), IFNAMSIZ - 1);
    sockaddr_can oAddress{};
    oAddress.can_family = AF_CAN;
    if (ioctl(m_nSocket, SIOCGIFINDEX, &oRequest) != 0)
    {
        sError = "SocketCAN interface " + sInterface + ": " + std::strerror(errno);
        Close();
        return false;
    }
    oAddress.can_ifindex = oRequest.ifr_ifindex;
    if (bind(m_nSocket, reinterpret_cast<sockaddr*>(&oAddress), sizeof(oAddress)) != 0)
    {
        sError = "bind to " + sInterface + ": " + std::strerror(errno);
        Close();
        return false;
    }
    // A second of a full bus and more may wait while the reader is off the
    // CPU; beyond what the process may force, the system's limit applies.
    const int nBuffer = 8 << 20;
    if (setsockopt(m_nSocket, SOL_SOCKET, SO_RCVBUFFORCE, &nBuffer, sizeof(nBuffer)) != 0)
        setsockopt(m_nSocket, SOL_SOCKET, SO_RCVBUF, &nBuffer, sizeof(nBuffer));
    const int nOn = 1;
    m_bFdFrames = setsockopt(m_nSocket, SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &nOn, sizeof(nOn)) == 0;
    m_bStop.store(false);
    if (!m_oThread.Start())
    {
        sError = "cannot start the SocketCAN reader";
        Close();
        return false;
    }
    m_roBus.Attach(this);
    m_bOnBus = true;
    return true;
}

void CSocketCanLink::Close()
{
    if (m_bOnBus)
    {
        m_roBus.Detach(this);
        m_bOnBus = false;
    }
    m_bStop.store(true);
    m_oThread.Terminate();
    if (m_nSocket >= 0)
    {
        close(m_nSocket);
        m_nSocket = -1;
    }
}

void CSocketCanLink::OnBusFrame(const SCanFrame& oFrame, const STimeStamp&)
{
    const std::size_t nLength = oFrame.sData.size();
    const bool bFd = nLength > CAN_MAX_DLEN;
    if (bFd && !m_bFdFrames)
    {
        ++m_roCounters.nSendErrors;
        return;
    }
    canfd_frame& oOut = m_aoPending[m_nPending];
    oOut = canfd_frame{};
    oOut.can_id = oFrame.nIdentifier & ((oFrame.nFlags & FRAME_FLAG_EXTENDED) ? CAN_EFF_MASK : CAN_SFF_MASK);
    if (oFrame.nFlags & FRAME_FLAG_EXTENDED)
        oOut.can_id |= CAN_EFF_FLAG;
    if (oFrame.nFlags & FRAME_FLAG_REMOTE)
        oOut.can_id |= CAN_RTR_FLAG;
    oOut.len = static_cast<unsigned char>(nLength);
    std::memcpy(oOut.data, oFrame.sData.data(), nLength);
    m_anPendingSize[m_nPending++] = bFd ? CANFD_MTU : CAN_MTU;
    if (!CCanBus::WritesHeld() || m_nPending == BATCH)
        WritePending();
}

void CSocketCanLink::OnBusFlush()
{
    WritePending();
}

void CSocketCanLink::WritePending()
{
    iovec aoData[BATCH];
    mmsghdr aoMessages[BATCH];
    for (unsigned int i = 0; i < m_nPending; ++i)
    {
        aoData[i] = iovec{&m_aoPending[i], m_anPendingSize[i]};
        aoMessages[i] = mmsghdr{};
        aoMessages[i].msg_hdr.msg_iov = &aoData[i];
        aoMessages[i].msg_hdr.msg_iovlen = 1;
    }
    // Never blocks: a frame the full transmit queue refuses is dropped and
    // counted, and the next one is tried.
    for (unsigned int nDone = 0; nDone < m_nPending;)
    {
        const int nSent = sendmmsg(m_nSocket, aoMessages + nDone, m_nPending - nDone, MSG_DONTWAIT);
        if (nSent > 0)
        {
            nDone += static_cast<unsigned int>(nSent);
            continue;
        }
        ++m_roCounters.nSendErrors;
        ++nDone;
    }
    m_nPending = 0;
}

void CSocketCanLink::ReadLoop()
{
    canfd_frame aoIn[BATCH];
    iovec aoData[BATCH];
    mmsghdr aoMessages[BATCH];
    while (!m_bStop.load())
    {
        // Every frame queued now, in one call; only an empty socket is
        // waited on (a tenth of a second at a time, for the stop flag).
        for (unsigned int i = 0; i < BATCH; ++i)
        {
            aoData[i] = iovec{&aoIn[i], sizeof(aoIn[i])};
            aoMessages[i] = mmsghdr{};
            aoMessages[i].msg_hdr.msg_iov = &aoData[i];
            aoMessages[i].msg_hdr.msg_iovlen = 1;
        }
        const int nRead = recvmmsg(m_nSocket, aoMessages, BATCH, MSG_DONTWAIT, nullptr);
        if (nRead <= 0)
        {
            pollfd oPoll{m_nSocket, POLLIN, 0};
            poll(&oPoll, 1, 100);
            continue;
        }
        CGatewayClock::Hold();
        for (int i = 0; i < nRead; ++i)
        {
            const canfd_frame& oIn = aoIn[i];
            const unsigned int nSize = aoMessages[i].msg_len;
            if (nSize != CAN_MTU && nSize != CANFD_MTU)
                continue;
            if (oIn.can_id & CAN_ERR_FLAG)
                continue; // error frames are not traffic
            SCanFrame oFrame;
            const bool bExtended = (oIn.can_id & CAN_EFF_FLAG) != 0;
            oFrame.nIdentifier = oIn.can_id & (bExtended ? CAN_EFF_MASK : CAN_SFF_MASK);
            oFrame.nFlags = static_cast<unsigned char>((bExtended ? FRAME_FLAG_EXTENDED : 0) |
                                                       ((oIn.can_id & CAN_RTR_FLAG) ? FRAME_FLAG_REMOTE : 0));
            const std::size_t nMax = nSize == CAN_MTU ? CAN_MAX_DLEN : CANFD_MAX_DLEN;
            oFrame.sData.assign(reinterpret_cast<const char*>(oIn.data), oIn.len < nMax ? oIn.len : nMax);
            m_roBus.Transmit(oFrame, m_roPort.Now(), this);
        }
        CGatewayClock::Release();
    }
}

} // namespace GatewaySim
