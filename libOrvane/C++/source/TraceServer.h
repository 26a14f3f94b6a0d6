// CTraceServer: the process-wide UDP trace server.
//
// A remote trace viewer switches tracing on with an activate request (levels
// and one filter mask per category); from then on every SendTraceMessage that
// passes the level, category and mask tests is sent to that viewer as a trace
// message telegram. Until Init has been called, or while the viewer has not
// activated the level, SendTraceMessage returns after a few comparisons: no
// allocation, no formatting, no lock.
//
// Thread safety: the receive thread changes levels, masks and viewer while any
// thread traces. Levels, masks, socket and address length are relaxed atomics
// (a message may be filtered by the old or the new settings). The viewer
// address, its host text and port, the category names and the telegram counter
// are guarded by m_oTelegramCounterMutex, which a sender takes only after all
// filter tests have passed and holds while it sends; Disable closes the socket
// under it, so no send can reach a closed (or meanwhile reused) descriptor.
#ifndef ORVANE_TRACE_SERVER_H
#define ORVANE_TRACE_SERVER_H

#include <sys/socket.h>

#include <atomic>
#include <string>

class CKelMutex;
class CStatusSource;

class CTraceServer
{
public:
    // Number of categories, each with its own filter mask and display name.
    static constexpr unsigned int CATEGORY_COUNT = 32;

    // Opens and binds the UDP socket on the given port and starts the receive
    // thread. 0 on success, the getaddrinfo code when the port cannot be
    // resolved, -2 when no address could be bound. Does not test whether the
    // server already runs.
    static int Init(unsigned short nPort);

    // Like Init(port), with the port taken from a "-traceport <n>" option of
    // the command line when present (n in 1-65535, decimal, 0x-hex or 0-octal).
    static int Init(unsigned short nDefaultPort, int nArgc, const char* const* apcArgv);

    // Stops the receive thread, closes the socket and forgets viewer, levels,
    // masks and counter. -1 when not initialised, else the result of close().
    static int Disable();

    // Stores the display name (first `nLength` bytes) of a category 0-31;
    // -1 for a category above 31.
    static int SetCategoryName(unsigned char nCategory, unsigned char nLength, const char* pcName);

    // Sends one trace message to the viewer. 0 when sent; -1 not initialised,
    // -2 no viewer, -3 level not active, -4 category above 31, -5 filter mask
    // not active for the category, -6 datagram not sent completely.
    static int SendTraceMessage(unsigned char nLevel, unsigned char nCategory, unsigned int nFilterMask,
                                unsigned short nLine, const char* pcFile, const char* pcText, unsigned char nFlags);

    // True when a message of this level, category and mask would be sent now
    // (initialised, a viewer, level and mask active): lets a caller skip
    // building a text nobody receives. Plain loads only.
    static bool IsActive(unsigned char nLevel, unsigned char nCategory, unsigned int nFilterMask);

    // Status sources are not served by this server: both return -1.
    static int RegisterStatusSource(CStatusSource* poSource, unsigned char nCategory, unsigned int nFilterMask);
    static int UnRegisterStatusSource(CStatusSource* poSource);

    class CReceiveThread;

    // Server state, one set per process.
    static std::atomic<int> m_nSocket;      // -1 while not initialised
    static unsigned short m_nServerUdpPort; // bound port, 0 when disabled
    static CReceiveThread* m_poReceiveThread;
    static std::atomic<unsigned char> m_nActiveLevels; // bit set of active levels
    static std::atomic<unsigned int> m_anCategoryFilters[CATEGORY_COUNT];
    static std::string m_asCategoryNames[CATEGORY_COUNT]; // guarded by the mutex
    static sockaddr_storage m_oSockAddr;                  // viewer address, guarded by the mutex
    static std::atomic<socklen_t> m_nAddrLen;             // 0: no viewer
    static std::string m_sClientHost;                     // viewer's numeric host, guarded by the mutex
    static unsigned short m_nClientUdpPort;               // viewer's port, guarded by the mutex
    static unsigned short m_nTelegramCounter;             // guarded by the mutex, wraps at 16 bits
    static CKelMutex m_oTelegramCounterMutex;
};

#endif // ORVANE_TRACE_SERVER_H
