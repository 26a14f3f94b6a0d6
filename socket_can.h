/*
 * SocketCAN adapter: one raw CAN socket behind a controller-like interface.
 *
 * The state lives in module-level variables, so one adapter serves one
 * interface per process. Lifecycle: uninitialised -> can_init -> initialised,
 * not started -> can_start -> started; can_exit returns to uninitialised from
 * any state. Every function returns 0 on success or one of the negative
 * codes below; -10000 means an operating-system call failed and errno holds
 * the reason (report it with perror).
 */
#ifndef SOCKET_CAN_H
#define SOCKET_CAN_H

#include <linux/can.h>
#include <stdbool.h>
#include <stdint.h>
#include <sys/time.h>

#ifdef __cplusplus
extern "C"
{
#endif

    /* Return codes of the adapter and of its code family (can_error prints them). */
    enum
    {
        CAN_RC_OTHER = -99,
        CAN_RC_NOT_SUPPORTED = -98,
        CAN_RC_ALREADY_INIT = -96,
        CAN_RC_NOT_INIT = -95,
        CAN_RC_NULL_POINTER = -94,
        CAN_RC_ILLEGAL_PARAMETER = -93,
        CAN_RC_ILLEGAL_BAUDRATE = -91,
        CAN_RC_TIMEOUT = -50,
        CAN_RC_RX_EMPTY = -30,
        CAN_RC_TX_BUSY = -20,
        CAN_RC_LEC_CHECKSUM = -16,
        CAN_RC_LEC_DOMINANT_BIT = -15,
        CAN_RC_LEC_RECESSIVE_BIT = -14,
        CAN_RC_LEC_ACKNOWLEDGE = -13,
        CAN_RC_LEC_FORM = -12,
        CAN_RC_LEC_STUFF = -11,
        CAN_RC_MESSAGE_LOST = -10,
        CAN_RC_NOT_STARTED = -9,
        CAN_RC_ALREADY_STARTED = -8,
        CAN_RC_BUS_ERROR = -3,
        CAN_RC_ERROR_WARNING = -2,
        CAN_RC_BUS_OFF = -1,
        CAN_RC_SYSTEM = -10000 /* an operating-system call failed, see errno */
    };

    /* Status bits of can_state. */
    enum
    {
        CAN_STATUS_RX_READ_FAILED = 0x02, /* the last read returned a short count */
        CAN_STATUS_RX_EMPTY = 0x04,       /* the last receive got no frame */
        CAN_STATUS_TX_FAILED = 0x08,      /* the last write failed */
        CAN_STATUS_NOT_STARTED = 0x80     /* set by can_init and can_exit, cleared by can_start */
    };

    /* One classic CAN frame as the bridge sees it. */
    typedef struct
    {
        uint32_t id; /* 11 or 29 bit identifier, without flag bits */
        int32_t rtr; /* remote frame: 0 or 1 */
        int32_t ext; /* extended (29 bit) identifier: 0 or 1 */
        uint8_t len; /* data length, 0 to 8 */
        uint8_t data[8];
        struct timeval timestamp; /* socket time stamp of the last received frame */
    } _can_msg_t;

    /* How can_init opens its socket: PF_CAN (29), SOCK_RAW (3), CAN_RAW (1). */
    typedef struct
    {
        const char* ifname; /* interface name, e.g. "can0" */
        int family;
        int type;
        int protocol;
    } can_socket_params_t;

    /*
 * Opens and binds the socket. channel must be -1. The filter list, the
 * filter count and the two flags are accepted but have no effect: the socket
 * receives every frame, and every error class as an error frame.
 */
    int can_init(int channel, const can_socket_params_t* params, const struct can_filter* filters, int filter_count,
                 bool flag1, bool flag2);
    /* Moves an initialised adapter to started. channel must be -1. */
    int can_start(int channel);
    /* Writes one frame. On success msg->timestamp holds the socket's last receive time. */
    int can_transmit(_can_msg_t* msg);
    /* Waits at most one second for a frame; error frames are dropped (-30). */
    int can_receive(_can_msg_t* msg);
    /*
 * Batches: every frame already queued is read in one call, and many frames
 * are written in one, in order (recvmmsg, sendmmsg). can_receive_batch
 * waits at most one second, and only while nothing is queued; it reads up
 * to max frames into msgs, each with its own receive time, and sets *count
 * to the data frames among them (error frames are dropped). 0 with
 * *count > 0; -30 when nothing came or only error frames; otherwise the
 * codes of can_receive. can_transmit_batch writes the count frames from
 * msgs; *sent takes how many were written. 0 when all were; -93 (a length
 * above 8) or -20 (the socket refused one) for the frame msgs[*sent], which
 * is not written, nor anything after it.
 */
    int can_receive_batch(_can_msg_t* msgs, int max, int* count);
    int can_transmit_batch(const _can_msg_t* msgs, int count, int* sent);
    /* Frames the kernel dropped since can_init because the socket's receive
     * queue was full (SO_RXQ_OVFL), as the frames read so far report it. */
    unsigned long long can_kernel_dropped(void);
    /* Closes the socket and restores the initial state. Always 0. */
    int can_exit(void);
    /* Prints the text of a code, with a newline, to standard output (unknown codes print nothing). */
    void can_error(int code);

    /*
 * Interface loss. A raw socket bound to an interface that is deleted (a USB
 * adapter unplugged, a vcan removed) stays open but receives nothing again,
 * even when an interface of the same name comes back with a new index.
 * can_interface_lost tells whether a read or write failed because the
 * interface is gone, or can_check_interface found its name no longer
 * naming the bound index. can_reopen opens a new socket bound by name and
 * puts it in the old descriptor's place, so that a thread writing at the
 * same moment never writes into an unrelated descriptor; 0 when the
 * interface is back, -10000 (errno set) while it is not. An interface that
 * is merely down is not lost.
 */
    bool can_interface_lost(void);
    /* Marks the interface lost when its name names another index or none. Returns can_interface_lost(). */
    bool can_check_interface(void);
    int can_reopen(void);
    /* True for an interface without a device behind it (vcan, vxcan): a
     * frame written to it reaches only the programs on this host. */
    bool can_interface_is_virtual(void);
    /* Reads every frame already queued on the socket without waiting and
     * throws it away. Returns how many data frames (not error frames) were
     * thrown away, or a negative code. */
    int can_discard_pending(void);
    /* Writes an error frame of the given CAN_ERR_* classes (linux/can/error.h)
     * with data bytes zero, the way a controller reports its state. Programs
     * that did not ask for error frames never see it. */
    int can_transmit_error(uint32_t error_class);

#ifdef __cplusplus
} /* extern "C" */

/* The adapter's module state, for diagnostics and tests: read only. */
namespace socket_can
{
constexpr int kIfNameLength = 16;
bool Initialised();          /* once the socket is bound */
unsigned char Status();      /* CAN_STATUS_* bits */
int Descriptor();            /* the socket, -1 while closed */
const char* InterfaceName(); /* empty while uninitialised */
int Family();
int Type();
int Protocol();
} // namespace socket_can
#endif

#endif /* SOCKET_CAN_H */
