// A trace viewer for tests: a UDP socket on 127.0.0.1 that switches trace
// levels on through the trace server's activate request and reads the trace
// messages the server then sends. Requests are built here, CRC included,
// without the trace code under test.
#ifndef ORVANE_TEST_TRACE_VIEWER_H
#define ORVANE_TEST_TRACE_VIEWER_H

#include <string>
#include <vector>

namespace OrvaneTest
{

class CTraceViewer
{
public:
    CTraceViewer();
    ~CTraceViewer();

    CTraceViewer(const CTraceViewer&) = delete;
    CTraceViewer& operator=(const CTraceViewer&) = delete;

    unsigned short Port() const { return m_nPort; }

    // The activate request: levels, one filter mask per category (index =
    // category), CRC = XOR of every byte before it; bCorruptCrc flips its low bit.
    static std::string ActivateRequest(unsigned char nLevels, const std::vector<unsigned int>& anMasks,
                                       bool bCorruptCrc = false);

    // Sends the activate request and waits until the server has handled it
    // (the answer to a categories request sent behind it has come back);
    // whatever the server sent before that answer is dropped. False when no
    // answer came.
    bool Activate(unsigned char nLevels, const std::vector<unsigned int>& anMasks);

    // A datagram to the trace server's port.
    void Send(const std::string& sBytes);
    // The next datagram, "" when none comes within nTimeoutMs.
    std::string Receive(int nTimeoutMs = 5000);
    // Sends a categories request and returns the answer: the server handles
    // datagrams in order, so everything sent before has been handled too.
    std::string RoundTrip();

    // The text of the next trace message, "" when none comes within 5 s.
    std::string NextText();
    // The level and text of the next trace message ("4 text"), "" when none comes.
    std::string NextLevelAndText();
    // True when no datagram is waiting.
    bool Quiet();

private:
    int m_nSocket;
    unsigned short m_nPort = 0;
};

} // namespace OrvaneTest

#endif
