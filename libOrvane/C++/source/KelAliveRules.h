// The alive protocol's arithmetic, free of threads, sockets and clocks.
//
// The alive thread of a connection counts passes ("ticks") of a quarter of
// the alive period, at least 10 ms each. The connection notes the tick of
// the last whole message sent (active mode only) and of the last message
// received (any command, while the protocol is on). On every tick the thread
// asks Decide what to do; the period enters only through the tick's length.
#ifndef KEL_ALIVE_RULES_H
#define KEL_ALIVE_RULES_H

class CKelAliveRules
{
public:
    enum EAction
    {
        eNothing,
        eSendRequest, // the line was quiet: ask the peer for a sign of life
        eLinkLost     // nothing received for about one period: end the link
    };

    static constexpr unsigned int MIN_TICK_MS = 10;
    // Ticks without any received message after which the link is lost.
    static constexpr unsigned int SILENT_TICKS = 4;
    // Ticks without a send, or without a receive, after which the active side
    // sends an alive request.
    static constexpr unsigned int QUIET_TICKS = 2;

    // Length of one tick for an alive period.
    static unsigned int TickMs(unsigned int periodMs);

    // The decision of the pass that has just advanced the tick counter to
    // `tick`, for alive mode `mode` (CKelIPConnection::EAliveMode) and the
    // ticks of the last send and the last receive. Mode off decides nothing;
    // a lost link is not asked for more. The comparisons are unsigned, as the
    // marks are: the counter starts again from 0 whenever the protocol is
    // switched on.
    static EAction Decide(unsigned int mode, unsigned int tick, unsigned int lastSend, unsigned int lastReceive);
};

#endif
