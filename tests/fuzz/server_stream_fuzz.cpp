// The transport's stream cutting and dispatching on the server side, through
// the real read path: the input is written, in chunks whose sizes its first
// bytes choose, into a TCP connection on 127.0.0.1 to the gateway
// simulator's server container (a CAN port, or an aWire programmer port when
// the first byte is odd), then the writing side is closed and the harness
// waits until the server has ended the connection too. The container faces
// any client: nothing a client sends may crash or hang it.
#include "GatewaySim.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

namespace
{

GatewaySim::CGatewaySim& Simulator()
{
    static std::unique_ptr<GatewaySim::CGatewaySim> s_poSim;
    if (!s_poSim)
    {
        GatewaySim::SSimOptions oOptions;
        oOptions.nTcpBase = 0; // free ports on 127.0.0.1
        oOptions.anAWirePorts = {0};
        oOptions.oAWire.nFlashSize = 0x10000;
        oOptions.nAWireDelayMs = 0;
        oOptions.bQuiet = true;
        s_poSim.reset(new GatewaySim::CGatewaySim(oOptions, nullptr));
        std::string sError;
        if (!s_poSim->Start(sError))
            std::abort();
    }
    return *s_poSim;
}

int Connect(unsigned short nPort)
{
    const int nSocket = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in oAddress{AF_INET, htons(nPort), {htonl(INADDR_LOOPBACK)}, {}};
    if (connect(nSocket, reinterpret_cast<sockaddr*>(&oAddress), sizeof(oAddress)) != 0)
        std::abort();
    const int nOn = 1;
    setsockopt(nSocket, IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof(nOn));
    return nSocket;
}

// Reads whatever the server answers until it closes; false after 10 s.
bool DrainUntilClosed(int nSocket)
{
    char acBuffer[4096];
    for (;;)
    {
        pollfd oReadable{nSocket, POLLIN, 0};
        if (poll(&oReadable, 1, 10000) != 1)
            return false;
        if (recv(nSocket, acBuffer, sizeof(acBuffer), 0) <= 0)
            return true;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    if (nSize < 2 || nSize > 70000)
        return 0;
    GatewaySim::CGatewaySim& oSim = Simulator();
    const bool bAWire = (pData[0] & 1) != 0;
    const size_t nChunk = 1 + pData[1] % 97;
    const int nSocket = Connect(bAWire ? oSim.AWireTcpPort(0) : oSim.TcpPort(0));
    for (size_t nAt = 2; nAt < nSize; nAt += nChunk)
    {
        const size_t nPart = nSize - nAt < nChunk ? nSize - nAt : nChunk;
        if (send(nSocket, pData + nAt, nPart, MSG_NOSIGNAL) < 0)
            break; // the server has already closed
    }
    shutdown(nSocket, SHUT_WR);
    if (!DrainUntilClosed(nSocket))
        std::abort(); // the server kept a connection whose client had gone
    close(nSocket);
    return 0;
}
