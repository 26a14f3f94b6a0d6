// The trace server's datagram handling: the input is sent as one datagram to
// the server on 127.0.0.1 from a viewer's socket; a categories request behind
// it shows that the server has handled it (and is still alive). A trace
// message sent afterwards takes whatever levels and filters the input set.
#include "TraceServer.h"
#include "support/TraceViewer.h"

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    if (nSize > 65000)
        return 0;
    static const bool s_bStarted = CTraceServer::Init(0) == 0;
    static OrvaneTest::CTraceViewer s_oViewer;
    if (!s_bStarted)
        std::abort();
    s_oViewer.Send(std::string(reinterpret_cast<const char*>(pData), nSize));
    if (s_oViewer.RoundTrip().empty())
        std::abort(); // the server stopped answering
    CTraceServer::SendTraceMessage(0x10, 3, 0x1, 1, "fuzz", "trace text", 0);
    while (!s_oViewer.Receive(0).empty())
        ; // whatever the server sent to this viewer
    return 0;
}
