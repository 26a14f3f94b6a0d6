// SocketCAN adapter: one raw CAN socket with a controller-like interface.
//
// The bridge reads on its main thread and writes from the gateway library's
// callback thread on the same descriptor, without a lock; the status bits are
// atomics so that both threads may update them.
#include "socket_can.h"

#include <linux/can/error.h>
#include <linux/can/raw.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace socket_can
{

constexpr int kInitialFamily = 29;  // PF_CAN
constexpr int kInitialType = 3;     // SOCK_RAW
constexpr int kInitialProtocol = 1; // CAN_RAW

namespace
{

// Closes a socket that could not be set up, keeping the errno of the call
// that failed for the caller's perror.
int closeKeepingErrno(int fd)
{
    const int reason = errno;
    close(fd);
    errno = reason;
    return -1;
}

std::atomic<int> init{0};
std::atomic<unsigned char> can_state{CAN_STATUS_NOT_STARTED};
char ifname[kIfNameLength + 1] = "";
int family = kInitialFamily;
int type = kInitialType;
int protocol = kInitialProtocol;
std::atomic<int> descriptor{-1};
// The index the socket is bound to, and whether the interface behind it has
// gone away (set by either thread, cleared by can_reopen on the main thread).
std::atomic<int> boundIndex{0};
// The kernel's drop count: SO_RXQ_OVFL reports it per socket, so what
// replaced sockets had dropped is kept apart from the current one's.
std::atomic<unsigned long long> droppedBefore{0};
std::atomic<unsigned int> droppedNow{0};
constexpr int kReceiveBufferBytes = 8 << 20; // the kernel doubles it
std::atomic<bool> interfaceLost{false};

// Errors that mean the bound interface no longer exists: a read reports
// ENODEV once, writes to the unbound socket then fail with ENXIO.
void noteFailure(int reason)
{
    if (reason == ENODEV || reason == ENXIO)
        interfaceLost = true;
}

// Opens a socket of the stored family, type and protocol bound to the
// interface named ifname, with every error class delivered and receive
// times on each frame. Returns the descriptor, or -1 with errno set (and
// the message of a failing error filter printed).
int openBound()
{
    const int fd = socket(family, type, protocol);
    if (fd < 0)
        return -1;

    // The look-up's result is deliberately not checked: a missing interface
    // leaves the index at -1, which names no interface, so bind fails with
    // ENODEV (index 0 would instead bind to every CAN interface).
    struct ifreq request;
    memset(&request, 0, sizeof request);
    memcpy(request.ifr_name, ifname, strnlen(ifname, sizeof request.ifr_name));
    request.ifr_ifindex = -1;
    ioctl(fd, SIOCGIFINDEX, &request);

    struct sockaddr_can address;
    memset(&address, 0, sizeof address);
    address.can_family = static_cast<sa_family_t>(family);
    address.can_ifindex = request.ifr_ifindex;
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address) < 0)
        return closeKeepingErrno(fd);

    // Deliver every error class as an error frame; can_receive drops them.
    const can_err_mask_t errorMask = CAN_ERR_MASK;
    if (setsockopt(fd, SOL_CAN_RAW, CAN_RAW_ERR_FILTER, &errorMask, sizeof errorMask) < 0)
    {
        const int reason = errno;
        printf("Error setsockopt: CAN_RAW_ERR_FILTER\n");
        errno = reason;
        return closeKeepingErrno(fd);
    }

    // Receive times come with each frame; without them can_receive falls
    // back to asking the socket. The kernel's drop count comes along too.
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_TIMESTAMP, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);

    // Room for a second of a full bus (about 9,000 frames of some 1 KiB of
    // kernel memory each) while the main thread is held up; a process that
    // may not go past the system's limit gets what that limit allows.
    const int receiveBuffer = kReceiveBufferBytes;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof receiveBuffer) < 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    boundIndex = request.ifr_ifindex;
    return fd;
}

void setBits(unsigned char bits)
{
    can_state.fetch_or(bits);
}
void clearBits(unsigned char bits)
{
    can_state.fetch_and(static_cast<unsigned char>(~bits));
}
bool started()
{
    return (can_state.load() & CAN_STATUS_NOT_STARTED) == 0;
}


// The socket's last receive time, as SIOCGSTAMP reports it: the stamp of the
// frame read last, or none (-1) before the first. can_receive takes each
// frame's stamp with the frame (SO_TIMESTAMP), so neither direction needs an
// ioctl per frame; can_transmit, on the other thread, reads it from here.
std::atomic<long long> lastReceiveMicros{-1};

// Fills the record's time stamp with the socket's last receive time; before
// any frame was received the record keeps its time stamp, as the failing
// SIOCGSTAMP left it.
void stampFromLastReceive(_can_msg_t* msg)
{
    const long long micros = lastReceiveMicros.load(std::memory_order_relaxed);
    if (micros < 0)
        return;
    msg->timestamp.tv_sec = static_cast<time_t>(micros / 1000000);
    msg->timestamp.tv_usec = static_cast<suseconds_t>(micros % 1000000);
}

// Reads one frame with its receive time. Returns what recvmsg returns.
ssize_t readFrame(int fd, struct can_frame* frame, int flags)
{
    struct iovec vector = {frame, sizeof *frame};
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(struct timeval))];
    struct msghdr header;
    memset(&header, 0, sizeof header);
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    const ssize_t count = recvmsg(fd, &header, flags);
    if (count <= 0)
        return count;
    struct timeval stamp;
    bool stamped = false;
    for (struct cmsghdr* item = CMSG_FIRSTHDR(&header); item != nullptr; item = CMSG_NXTHDR(&header, item))
        if (item->cmsg_level == SOL_SOCKET && item->cmsg_type == SCM_TIMESTAMP)
        {
            memcpy(&stamp, CMSG_DATA(item), sizeof stamp);
            stamped = true;
        }
    if (!stamped && ioctl(fd, SIOCGSTAMP, &stamp) != 0)
        return count; // no time known: the last one stays
    lastReceiveMicros.store(static_cast<long long>(stamp.tv_sec) * 1000000 + stamp.tv_usec, std::memory_order_relaxed);
    return count;
}

// Frames moved by one recvmmsg or sendmmsg call at the most.
constexpr int kBatch = 64;

// Header of one message of a batch read: the frame and room for its
// receive time and the drop count.
struct BatchSlot
{
    struct can_frame frame;
    struct iovec vector;
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(struct timeval)) + CMSG_SPACE(sizeof(uint32_t))];
};

// Takes a batch message's receive time and the socket's drop count.
void noteControl(struct msghdr& header)
{
    for (struct cmsghdr* item = CMSG_FIRSTHDR(&header); item != nullptr; item = CMSG_NXTHDR(&header, item))
    {
        if (item->cmsg_level != SOL_SOCKET)
            continue;
        if (item->cmsg_type == SCM_TIMESTAMP)
        {
            struct timeval stamp;
            memcpy(&stamp, CMSG_DATA(item), sizeof stamp);
            lastReceiveMicros.store(static_cast<long long>(stamp.tv_sec) * 1000000 + stamp.tv_usec,
                                    std::memory_order_relaxed);
        }
        else if (item->cmsg_type == SO_RXQ_OVFL)
        {
            uint32_t dropped;
            memcpy(&dropped, CMSG_DATA(item), sizeof dropped);
            droppedNow.store(dropped, std::memory_order_relaxed);
        }
    }
}

// A record as the frame the socket writes: the identifier is passed on
// unmasked, only the flag bits are added. The length must be at most 8.
void toFrame(const _can_msg_t& msg, struct can_frame& frame)
{
    memset(&frame, 0, sizeof frame);
    frame.can_id = msg.id;
    if (msg.ext)
        frame.can_id |= CAN_EFF_FLAG;
    if (msg.rtr)
        frame.can_id |= CAN_RTR_FLAG;
    frame.can_dlc = msg.len;
    memcpy(frame.data, msg.data, msg.len);
}

// A received data frame as a record, with the socket's last receive time.
void fromFrame(const struct can_frame& frame, _can_msg_t& msg)
{
    msg.id = frame.can_id & CAN_EFF_MASK;
    msg.rtr = (frame.can_id & CAN_RTR_FLAG) ? 1 : 0;
    msg.ext = (frame.can_id & CAN_EFF_FLAG) ? 1 : 0;
    msg.len = frame.can_dlc;
    memcpy(msg.data, frame.data, sizeof msg.data);
    stampFromLastReceive(&msg);
}

// Points each of the first `count` batch headers at its slot.
void prepareBatch(BatchSlot* slot, struct mmsghdr* headers, unsigned int count)
{
    memset(headers, 0, count * sizeof *headers);
    for (unsigned int i = 0; i < count; ++i)
    {
        slot[i].vector = {&slot[i].frame, sizeof slot[i].frame};
        headers[i].msg_hdr.msg_iov = &slot[i].vector;
        headers[i].msg_hdr.msg_iovlen = 1;
        headers[i].msg_hdr.msg_control = slot[i].control;
        headers[i].msg_hdr.msg_controllen = sizeof slot[i].control;
    }
}

struct ErrorText
{
    int code;
    const char* text;
};

constexpr ErrorText kErrorTexts[] = {
    {CAN_RC_OTHER, "SocketCAN: USR - other errors"},
    {CAN_RC_NOT_SUPPORTED, "SocketCAN: USR - not supported"},
    {CAN_RC_ALREADY_INIT, "SocketCAN: USR - already initialized"},
    {CAN_RC_NOT_INIT, "SocketCAN: USR - not initialized"},
    {CAN_RC_NULL_POINTER, "SocketCAN: USR - null-pointer assignement"},
    {CAN_RC_ILLEGAL_PARAMETER, "SocketCAN: USR - illegal parameter"},
    {CAN_RC_ILLEGAL_BAUDRATE, "SocketCAN: USR - illegal baudrate"},
    {CAN_RC_TIMEOUT, "SocketCAN: USR - time-out"},
    {CAN_RC_RX_EMPTY, "SocketCAN: USR - receiver empty"},
    {CAN_RC_TX_BUSY, "SocketCAN: USR - transmitter busy"},
    {CAN_RC_LEC_CHECKSUM, "SocketCAN: LEC - checksum error"},
    {CAN_RC_LEC_DOMINANT_BIT, "SocketCAN: LEC - dominant bit error"},
    {CAN_RC_LEC_RECESSIVE_BIT, "SocketCAN: LEC - recessive bit error"},
    {CAN_RC_LEC_ACKNOWLEDGE, "SocketCAN: LEC - acknowledge error"},
    {CAN_RC_LEC_FORM, "SocketCAN: LEC - form error"},
    {CAN_RC_LEC_STUFF, "SocketCAN: LEC - stuff error"},
    {CAN_RC_MESSAGE_LOST, "SocketCAN: CAN - message lost"},
    {CAN_RC_NOT_STARTED, "SocketCAN: CAN - not started"},
    {CAN_RC_ALREADY_STARTED, "SocketCAN: CAN - already started"},
    {CAN_RC_BUS_ERROR, "SocketCAN: CAN - bus error"},
    {CAN_RC_ERROR_WARNING, "SocketCAN: CAN - error warning status"},
    {CAN_RC_BUS_OFF, "SocketCAN: CAN - busoff status"},
};

} // namespace
} // namespace socket_can

using namespace socket_can;

extern "C" int can_init(int channel, const can_socket_params_t* params, const struct can_filter* /*filters*/,
                        int /*filter_count*/, bool /*flag1*/, bool /*flag2*/)
{
    if (init)
        return CAN_RC_ALREADY_INIT;
    if (channel != -1)
        return CAN_RC_ILLEGAL_PARAMETER;
    if (params == nullptr)
        return CAN_RC_NULL_POINTER;

    const char* name = params->ifname != nullptr ? params->ifname : "";
    const size_t length = strnlen(name, kIfNameLength);
    memcpy(ifname, name, length);
    ifname[length] = '\0';
    family = params->family;
    type = params->type;
    protocol = params->protocol;

    const int fd = openBound();
    if (fd < 0)
        return CAN_RC_SYSTEM;
    descriptor = fd;
    interfaceLost = false;
    lastReceiveMicros = -1;

    can_state = CAN_STATUS_NOT_STARTED;
    init = 1;
    return 0;
}

extern "C" int can_start(int channel)
{
    if (!init)
        return CAN_RC_NOT_INIT;
    if (started())
        return CAN_RC_ALREADY_STARTED;
    if (channel != -1)
        return CAN_RC_ILLEGAL_BAUDRATE;
    can_state = 0;
    return 0;
}

extern "C" int can_transmit(_can_msg_t* msg)
{
    if (!init)
        return CAN_RC_NOT_INIT;
    if (!started())
        return CAN_RC_NOT_STARTED;
    if (msg == nullptr)
        return CAN_RC_NULL_POINTER;
    if (msg->len > CAN_MAX_DLEN)
        return CAN_RC_ILLEGAL_PARAMETER;

    struct can_frame frame;
    toFrame(*msg, frame);

    const int fd = descriptor;
    if (write(fd, &frame, sizeof frame) != static_cast<ssize_t>(sizeof frame))
    {
        noteFailure(errno);
        setBits(CAN_STATUS_TX_FAILED);
        return CAN_RC_TX_BUSY;
    }
    stampFromLastReceive(msg);
    clearBits(CAN_STATUS_TX_FAILED);
    return 0;
}

extern "C" int can_receive(_can_msg_t* msg)
{
    if (!init)
        return CAN_RC_NOT_INIT;
    if (!started())
        return CAN_RC_NOT_STARTED;
    if (msg == nullptr)
        return CAN_RC_NULL_POINTER;

    // A frame that is already queued is read at once; only an empty socket
    // is waited on, for at most one second. Under load this is one system
    // call per frame instead of a wait, a read and an ioctl.
    const int fd = descriptor;
    struct can_frame frame;
    ssize_t count = readFrame(fd, &frame, MSG_DONTWAIT);
    bool received = count >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
    if (!received)
    {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        struct timeval limit = {1, 0};
        if (select(fd + 1, &readable, nullptr, nullptr, &limit) > 0 && FD_ISSET(fd, &readable))
        {
            count = readFrame(fd, &frame, MSG_DONTWAIT);
            received = true;
        }
    }
    if (received)
    {
        if (count != static_cast<ssize_t>(sizeof frame))
        {
            if (count < 0)
                noteFailure(errno);
            setBits(CAN_STATUS_RX_READ_FAILED);
            return CAN_RC_MESSAGE_LOST;
        }
        if ((frame.can_id & CAN_ERR_FLAG) == 0)
        {
            fromFrame(frame, *msg);
            clearBits(CAN_STATUS_RX_READ_FAILED | CAN_STATUS_RX_EMPTY);
            return 0;
        }
        // An error frame is never handed on: the caller sees an empty receiver.
    }
    setBits(CAN_STATUS_RX_EMPTY);
    return CAN_RC_RX_EMPTY;
}

extern "C" int can_receive_batch(_can_msg_t* msgs, int max, int* count)
{
    if (!init)
        return CAN_RC_NOT_INIT;
    if (!started())
        return CAN_RC_NOT_STARTED;
    if (msgs == nullptr || count == nullptr)
        return CAN_RC_NULL_POINTER;
    *count = 0;
    if (max < 1)
        return CAN_RC_ILLEGAL_PARAMETER;

    const unsigned int slots = static_cast<unsigned int>(max < kBatch ? max : kBatch);
    BatchSlot slot[kBatch];
    struct mmsghdr headers[kBatch];
    prepareBatch(slot, headers, slots);

    // What is queued is read at once; only an empty socket is waited on, for
    // at most one second, and then whatever has come by the wake-up is read.
    const int fd = descriptor;
    int read = recvmmsg(fd, headers, slots, MSG_DONTWAIT, nullptr);
    if (read < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
    {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        struct timeval limit = {1, 0};
        if (select(fd + 1, &readable, nullptr, nullptr, &limit) <= 0 || !FD_ISSET(fd, &readable))
        {
            setBits(CAN_STATUS_RX_EMPTY);
            return CAN_RC_RX_EMPTY;
        }
        read = recvmmsg(fd, headers, slots, MSG_DONTWAIT, nullptr);
    }
    if (read <= 0)
    {
        if (read < 0)
            noteFailure(errno);
        setBits(CAN_STATUS_RX_READ_FAILED);
        return CAN_RC_MESSAGE_LOST;
    }
    int frames = 0;
    for (int i = 0; i < read; ++i)
    {
        if (headers[i].msg_len != sizeof(struct can_frame))
            continue;
        noteControl(headers[i].msg_hdr);
        const struct can_frame& frame = slot[i].frame;
        if (frame.can_id & CAN_ERR_FLAG)
            continue; // an error frame is never handed on
        fromFrame(frame, msgs[frames++]);
    }
    *count = frames;
    if (frames == 0)
    {
        setBits(CAN_STATUS_RX_EMPTY);
        return CAN_RC_RX_EMPTY;
    }
    clearBits(CAN_STATUS_RX_READ_FAILED | CAN_STATUS_RX_EMPTY);
    return 0;
}

extern "C" int can_transmit_batch(const _can_msg_t* msgs, int count, int* sent)
{
    if (!init)
        return CAN_RC_NOT_INIT;
    if (!started())
        return CAN_RC_NOT_STARTED;
    if ((msgs == nullptr && count > 0) || sent == nullptr)
        return CAN_RC_NULL_POINTER;
    *sent = 0;
    struct can_frame frames[kBatch];
    struct iovec vectors[kBatch];
    struct mmsghdr headers[kBatch];
    while (*sent < count)
    {
        // Up to the next frame that cannot be written, at most kBatch at a time.
        int ready = 0;
        for (; ready < kBatch && *sent + ready < count; ++ready)
        {
            const _can_msg_t& msg = msgs[*sent + ready];
            if (msg.len > CAN_MAX_DLEN)
                break;
            toFrame(msg, frames[ready]);
            vectors[ready] = {&frames[ready], sizeof frames[ready]};
            memset(&headers[ready], 0, sizeof headers[ready]);
            headers[ready].msg_hdr.msg_iov = &vectors[ready];
            headers[ready].msg_hdr.msg_iovlen = 1;
        }
        if (ready == 0)
            return CAN_RC_ILLEGAL_PARAMETER;
        const int written = sendmmsg(descriptor, headers, static_cast<unsigned int>(ready), 0);
        if (written <= 0)
        {
            noteFailure(errno);
            setBits(CAN_STATUS_TX_FAILED);
            return CAN_RC_TX_BUSY;
        }
        *sent += written;
        clearBits(CAN_STATUS_TX_FAILED);
    }
    return 0;
}

extern "C" unsigned long long can_kernel_dropped(void)
{
    return droppedBefore.load() + droppedNow.load();
}

extern "C" int can_exit(void)
{
    if (init)
    {
        close(descriptor);
        descriptor = -1;
    }
    setBits(CAN_STATUS_NOT_STARTED);
    ifname[0] = '\0';
    family = kInitialFamily;
    type = kInitialType;
    protocol = kInitialProtocol;
    boundIndex = 0;
    interfaceLost = false;
    droppedBefore = 0;
    droppedNow = 0;
    init = 0;
    return 0;
}

extern "C" bool can_interface_lost(void)
{
    return interfaceLost.load();
}

extern "C" bool can_check_interface(void)
{
    if (init && !interfaceLost)
    {
        const unsigned int index = if_nametoindex(ifname);
        if (index == 0 || static_cast<int>(index) != boundIndex.load())
            interfaceLost = true;
    }
    return interfaceLost.load();
}

extern "C" int can_reopen(void)
{
    if (!init)
        return CAN_RC_NOT_INIT;
    const int fd = openBound();
    if (fd < 0)
        return CAN_RC_SYSTEM;
    // dup2 replaces the old socket in one step: the callback thread writes
    // either to the old socket or to the new one, never to a closed number
    // that something else has taken meanwhile.
    const int old = descriptor;
    if (dup2(fd, old) < 0)
    {
        closeKeepingErrno(fd);
        return CAN_RC_SYSTEM;
    }
    close(fd);
    droppedBefore += droppedNow.exchange(0);
    interfaceLost = false;
    return 0;
}

extern "C" bool can_interface_is_virtual(void)
{
    // A real controller has a device behind its interface; vcan and vxcan do not.
    char path[64];
    snprintf(path, sizeof path, "/sys/class/net/%s/device", ifname);
    return init && access(path, F_OK) != 0 && errno == ENOENT;
}

extern "C" int can_discard_pending(void)
{
    if (!init)
        return CAN_RC_NOT_INIT;
    BatchSlot slot[kBatch];
    struct mmsghdr headers[kBatch];
    int discarded = 0;
    for (;;)
    {
        prepareBatch(slot, headers, static_cast<unsigned int>(kBatch)); // recvmmsg shortens the control lengths
        const int count = recvmmsg(descriptor, headers, static_cast<unsigned int>(kBatch), MSG_DONTWAIT, nullptr);
        if (count <= 0)
        {
            if (count < 0)
                noteFailure(errno);
            return discarded;
        }
        for (int i = 0; i < count; ++i)
        {
            if (headers[i].msg_len != sizeof slot[i].frame)
                continue;
            noteControl(headers[i].msg_hdr); // keeps the kernel's drop count current
            if ((slot[i].frame.can_id & CAN_ERR_FLAG) == 0)
                ++discarded;
        }
        if (count < kBatch)
            return discarded;
    }
}

extern "C" int can_transmit_error(uint32_t error_class)
{
    if (!init)
        return CAN_RC_NOT_INIT;
    if (!started())
        return CAN_RC_NOT_STARTED;
    struct can_frame frame;
    memset(&frame, 0, sizeof frame);
    frame.can_id = CAN_ERR_FLAG | (error_class & CAN_ERR_MASK);
    frame.can_dlc = CAN_ERR_DLC;
    if (write(descriptor, &frame, sizeof frame) != static_cast<ssize_t>(sizeof frame))
    {
        noteFailure(errno);
        return CAN_RC_TX_BUSY;
    }
    return 0;
}

bool socket_can::Initialised()
{
    return init != 0;
}
unsigned char socket_can::Status()
{
    return can_state.load();
}
int socket_can::Descriptor()
{
    return descriptor.load();
}
const char* socket_can::InterfaceName()
{
    return ifname;
}
int socket_can::Family()
{
    return family;
}
int socket_can::Type()
{
    return type;
}
int socket_can::Protocol()
{
    return protocol;
}

extern "C" void can_error(int code)
{
    for (const ErrorText& entry : kErrorTexts)
    {
        if (entry.code == code)
        {
            printf("%s\n", entry.text);
            return;
        }
    }
}
