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
    canfd_frame oOut{};
    oOut.can_id = oFrame.nIdentifier & ((oFrame.nFlags & FRAME_FLAG_EXTENDED) ? CAN_EFF_MASK : CAN_SFF_MASK);
    if (oFrame.nFlags & FRAME_FLAG_EXTENDED)
        oOut.can_id |= CAN_EFF_FLAG;
    if (oFrame.nFlags & FRAME_FLAG_REMOTE)
        oOut.can_id |= CAN_RTR_FLAG;
    const std::size_t nLength = oFrame.sData.size();
    const bool bFd = nLength > CAN_MAX_DLEN;
    if (bFd && !m_bFdFrames)
    {
        ++m_roCounters.nSendErrors;
        return;
    }
    oOut.len = static_cast<unsigned char>(nLength);
    std::memcpy(oOut.data, oFrame.sData.data(), nLength);
    const std::size_t nSize = bFd ? CANFD_MTU : CAN_MTU;
    if (send(m_nSocket, &oOut, nSize, MSG_DONTWAIT) != static_cast<ssize_t>(nSize))
        ++m_roCounters.nSendErrors;
}

void CSocketCanLink::ReadLoop()
{
    while (!m_bStop.load())
    {
        pollfd oPoll{m_nSocket, POLLIN, 0};
        if (poll(&oPoll, 1, 100) <= 0)
            continue;
        canfd_frame oIn{};
        const ssize_t nRead = read(m_nSocket, &oIn, sizeof(oIn));
        if (nRead != static_cast<ssize_t>(CAN_MTU) && nRead != static_cast<ssize_t>(CANFD_MTU))
            continue;
        if (oIn.can_id & CAN_ERR_FLAG)
            continue; // error frames are not traffic
        SCanFrame oFrame;
        const bool bExtended = (oIn.can_id & CAN_EFF_FLAG) != 0;
        oFrame.nIdentifier = oIn.can_id & (bExtended ? CAN_EFF_MASK : CAN_SFF_MASK);
        oFrame.nFlags = static_cast<unsigned char>((bExtended ? FRAME_FLAG_EXTENDED : 0) |
                                                   ((oIn.can_id & CAN_RTR_FLAG) ? FRAME_FLAG_REMOTE : 0));
        const std::size_t nMax = nRead == static_cast<ssize_t>(CAN_MTU) ? CAN_MAX_DLEN : CANFD_MAX_DLEN;
        oFrame.sData.assign(reinterpret_cast<const char*>(oIn.data), oIn.len < nMax ? oIn.len : nMax);
        m_roBus.Transmit(oFrame, m_roPort.Now(), this);
    }
}

} // namespace GatewaySim
