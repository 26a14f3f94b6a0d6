// can_latency: sends numbered 8-byte frames at fixed rates on one SocketCAN
// interface and receives them on another (or the same), printing per rate the
// share received, duplicates, reordering, latency percentiles and the rate
// actually delivered. A rate of 0 sends as fast as the socket takes frames.
//
//   can_latency LABEL TX RX [RATE...]       (default rates: 1000 3000 9000 0)
//
// CAN_LATENCY_FRAMES=N in the environment sends N frames per rate instead of
// a fixed number of seconds' worth (the soak runs a million).
//
// Frame: identifier 0x5A0, bytes 0-3 the sequence number, 4-7 a tag of the
// run, both little-endian, so that late frames of an earlier run are ignored.
// The receiving socket gets a large buffer and counts its own overflows
// (SO_RXQ_OVFL), so losses it reports are the path's, not the receiver's.
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace
{

constexpr canid_t FRAME_ID = 0x5A0;
constexpr double SECONDS_PER_RATE = 2.0;
constexpr uint32_t FLAT_OUT_FRAMES = 30000;
constexpr int64_t QUIET_END_NS = 1000000000; // receiving ends 1 s after the last frame arrived or was sent

int64_t NowNs()
{
    timespec oNow;
    clock_gettime(CLOCK_MONOTONIC, &oNow);
    return int64_t(oNow.tv_sec) * 1000000000 + oNow.tv_nsec;
}

void SleepUntilNs(int64_t nDeadline)
{
    const timespec oAt = {time_t(nDeadline / 1000000000), long(nDeadline % 1000000000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &oAt, nullptr) == EINTR)
    {
    }
}

int OpenSocket(const char* sInterface, bool bReceive)
{
    const int nSocket = socket(PF_CAN, SOCK_RAW, CAN_RAW);
    if (nSocket < 0)
        return -1;
    sockaddr_can oAddress = {};
    oAddress.can_family = AF_CAN;
    oAddress.can_ifindex = static_cast<int>(if_nametoindex(sInterface));
    if (bReceive)
    {
        const can_filter oFilter = {FRAME_ID, CAN_SFF_MASK | CAN_EFF_FLAG | CAN_RTR_FLAG};
        const int nBuffer = 8 << 20, nOn = 1;
        setsockopt(nSocket, SOL_CAN_RAW, CAN_RAW_FILTER, &oFilter, sizeof(oFilter));
        if (setsockopt(nSocket, SOL_SOCKET, SO_RCVBUFFORCE, &nBuffer, sizeof(nBuffer)) != 0)
            setsockopt(nSocket, SOL_SOCKET, SO_RCVBUF, &nBuffer, sizeof(nBuffer));
        setsockopt(nSocket, SOL_SOCKET, SO_RXQ_OVFL, &nOn, sizeof(nOn));
    }
    else // the sender receives nothing
    {
        setsockopt(nSocket, SOL_CAN_RAW, CAN_RAW_FILTER, nullptr, 0);
    }
    if (oAddress.can_ifindex == 0 || bind(nSocket, reinterpret_cast<sockaddr*>(&oAddress), sizeof(oAddress)) != 0)
    {
        close(nSocket);
        return -1;
    }
    return nSocket;
}

struct SResult
{
    uint32_t nSent = 0;
    uint32_t nReceived = 0; // distinct sequence numbers
    uint32_t nDuplicates = 0;
    uint32_t nReordered = 0; // arrived after a higher number
    uint32_t nReceiverDrops = 0;
    int64_t nFirstSendNs = 0, nLastSendNs = 0, nLastReceiveNs = 0;
    std::vector<int64_t> anLatencyNs;
};

// Writes one frame, waiting while the socket's send queue is full.
bool SendFrame(int nSocket, const can_frame& oFrame)
{
    for (;;)
    {
        if (write(nSocket, &oFrame, sizeof(oFrame)) == sizeof(oFrame))
            return true;
        if (errno != ENOBUFS && errno != EAGAIN && errno != EINTR)
            return false;
        pollfd oWait = {nSocket, POLLOUT, 0};
        poll(&oWait, 1, 10);
    }
}

class CRun
{
public:
    CRun(int nTx, int nRx, uint32_t nCount, uint32_t nTag)
        : m_nTx(nTx), m_nRx(nRx), m_nCount(nCount), m_nTag(nTag), m_anSendNs(nCount), m_abSeen(nCount, 0)
    {
    }

    SResult Measure(unsigned int nRate)
    {
        std::thread oReceiver([this] { Receive(); });
        const int64_t nInterval = nRate > 0 ? 1000000000 / nRate : 0;
        const int64_t nStart = NowNs() + 10000000;
        SleepUntilNs(nStart);
        m_oResult.nFirstSendNs = NowNs();
        can_frame oFrame = {};
        oFrame.can_id = FRAME_ID;
        oFrame.can_dlc = 8;
        Put32(oFrame.data + 4, m_nTag);
        for (uint32_t i = 0; i < m_nCount; ++i)
        {
            // A frame whose time has come goes at once, without a sleep call:
            // a late sender catches up and the average rate holds.
            const int64_t nDue = nStart + int64_t(i) * nInterval;
            if (nInterval > 0 && nDue > NowNs())
                SleepUntilNs(nDue);
            Put32(oFrame.data, i);
            m_anSendNs[i].store(NowNs(), std::memory_order_release);
            if (!SendFrame(m_nTx, oFrame))
            {
                std::perror("can_latency: write");
                break;
            }
            ++m_oResult.nSent;
        }
        m_oResult.nLastSendNs = NowNs();
        m_bSenderDone.store(true);
        oReceiver.join();
        return m_oResult;
    }

private:
    static void Put32(uint8_t* pTo, uint32_t nValue)
    {
        for (int i = 0; i < 4; ++i)
            pTo[i] = uint8_t(nValue >> (8 * i));
    }
    static uint32_t Get32(const uint8_t* pFrom)
    {
        return uint32_t(pFrom[0]) | uint32_t(pFrom[1]) << 8 | uint32_t(pFrom[2]) << 16 | uint32_t(pFrom[3]) << 24;
    }

    void Receive()
    {
        int64_t nLastActivity = NowNs();
        int64_t nHighest = -1;
        while (m_oResult.nReceived < m_nCount)
        {
            const int64_t nNow = NowNs();
            if (m_bSenderDone.load())
                nLastActivity = std::max(nLastActivity, m_oResult.nLastSendNs);
            if (m_bSenderDone.load() && nNow - nLastActivity > QUIET_END_NS)
                break;
            pollfd oWait = {m_nRx, POLLIN, 0};
            if (poll(&oWait, 1, 100) <= 0)
                continue;
            can_frame oFrame;
            char acControl[CMSG_SPACE(sizeof(uint32_t))];
            iovec oData = {&oFrame, sizeof(oFrame)};
            msghdr oMsg = {};
            oMsg.msg_iov = &oData;
            oMsg.msg_iovlen = 1;
            oMsg.msg_control = acControl;
            oMsg.msg_controllen = sizeof(acControl);
            if (recvmsg(m_nRx, &oMsg, 0) != sizeof(oFrame))
                continue;
            const int64_t nArrived = NowNs();
            nLastActivity = nArrived;
            for (cmsghdr* pControl = CMSG_FIRSTHDR(&oMsg); pControl != nullptr; pControl = CMSG_NXTHDR(&oMsg, pControl))
                if (pControl->cmsg_level == SOL_SOCKET && pControl->cmsg_type == SO_RXQ_OVFL)
                    std::memcpy(&m_oResult.nReceiverDrops, CMSG_DATA(pControl), sizeof(uint32_t));
            const uint32_t nSeq = Get32(oFrame.data);
            if (oFrame.can_dlc != 8 || Get32(oFrame.data + 4) != m_nTag || nSeq >= m_nCount)
                continue;
            if (m_abSeen[nSeq])
            {
                ++m_oResult.nDuplicates;
                continue;
            }
            m_abSeen[nSeq] = 1;
            ++m_oResult.nReceived;
            if (int64_t(nSeq) < nHighest)
                ++m_oResult.nReordered;
            nHighest = std::max<int64_t>(nHighest, nSeq);
            m_oResult.anLatencyNs.push_back(nArrived - m_anSendNs[nSeq].load(std::memory_order_acquire));
            m_oResult.nLastReceiveNs = nArrived;
        }
    }

    int m_nTx, m_nRx;
    uint32_t m_nCount, m_nTag;
    std::vector<std::atomic<int64_t>> m_anSendNs;
    std::vector<char> m_abSeen;
    std::atomic<bool> m_bSenderDone{false};
    SResult m_oResult;
};

double Percentile(std::vector<int64_t>& anValues, double nShare)
{
    if (anValues.empty())
        return 0;
    const size_t nAt = std::min(anValues.size() - 1, size_t(nShare * double(anValues.size())));
    std::nth_element(anValues.begin(), anValues.begin() + long(nAt), anValues.end());
    return double(anValues[nAt]) / 1e6;
}

void PrintRow(const char* sLabel, unsigned int nRate, SResult& oResult)
{
    const double nSendSeconds = double(oResult.nLastSendNs - oResult.nFirstSendNs) / 1e9;
    const double nDeliverSeconds = double(oResult.nLastReceiveNs - oResult.nFirstSendNs) / 1e9;
    const std::string sRate = nRate > 0 ? std::to_string(nRate) : "max";
    std::printf("%-16s %7s %6u %9.0f %8.2f %5u %6u %8.3f %8.3f %8.3f %10.0f %6u\n", sLabel, sRate.c_str(),
                oResult.nSent, nSendSeconds > 0 ? oResult.nSent / nSendSeconds : 0.0,
                oResult.nSent > 0 ? 100.0 * oResult.nReceived / oResult.nSent : 0.0, oResult.nDuplicates,
                oResult.nReordered, Percentile(oResult.anLatencyNs, 0.50), Percentile(oResult.anLatencyNs, 0.99),
                Percentile(oResult.anLatencyNs, 1.0), nDeliverSeconds > 0 ? oResult.nReceived / nDeliverSeconds : 0.0,
                oResult.nReceiverDrops);
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4)
    {
        std::fprintf(stderr, "usage: %s LABEL TX RX [RATE...]   (frames per second, 0 = as fast as possible)\n",
                     argv[0]);
        return 2;
    }
    std::vector<unsigned int> anRates;
    for (int i = 4; i < argc; ++i)
        anRates.push_back(static_cast<unsigned int>(std::strtoul(argv[i], nullptr, 10)));
    if (anRates.empty())
        anRates = {1000, 3000, 9000, 0};
    const int nTx = OpenSocket(argv[2], false);
    const int nRx = OpenSocket(argv[3], true);
    if (nTx < 0 || nRx < 0)
    {
        std::fprintf(stderr, "can_latency: cannot open %s / %s: %s\n", argv[2], argv[3], std::strerror(errno));
        return 1;
    }
    uint32_t nTag = uint32_t(getpid()) << 8;
    const char* pcFrames = std::getenv("CAN_LATENCY_FRAMES");
    const uint32_t nFixedCount = pcFrames != nullptr ? uint32_t(std::strtoul(pcFrames, nullptr, 10)) : 0;
    for (unsigned int nRate : anRates)
    {
        const uint32_t nCount = nFixedCount > 0 ? nFixedCount
            : nRate > 0                         ? uint32_t(nRate * SECONDS_PER_RATE)
                                                : FLAT_OUT_FRAMES;
        CRun oRun(nTx, nRx, nCount, ++nTag);
        SResult oResult = oRun.Measure(nRate);
        PrintRow(argv[1], nRate, oResult);
    }
    close(nTx);
    close(nRx);
    return 0;
}
