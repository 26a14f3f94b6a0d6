#include "TraceViewer.h"

#include "RawPeer.h"
#include "TraceServer.h"
#include "TraceTelegram.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace OrvaneTest
{

namespace
{

void PutLE(std::string& sOut, unsigned long nValue, int nBytes)
{
    for (int i = 0; i < nBytes; ++i)
        sOut += static_cast<char>((nValue >> (8 * i)) & 0xFF);
}

// Datagrams shorter than 7 bytes are not parsed, so one byte follows the frame.
const std::string CATEGORIES_REQUEST("\x04\x00\x02\x00\x00\x00\x00", 7);
const unsigned short CATEGORIES_ANSWER_TYPE = 0x8002;

} // namespace

CTraceViewer::CTraceViewer() : m_nSocket(socket(AF_INET, SOCK_DGRAM, 0))
{
    sockaddr_in oAddress = Loopback(0);
    bind(m_nSocket, reinterpret_cast<sockaddr*>(&oAddress), sizeof(oAddress));
    socklen_t nLength = sizeof(oAddress);
    getsockname(m_nSocket, reinterpret_cast<sockaddr*>(&oAddress), &nLength);
    m_nPort = ntohs(oAddress.sin_port);
}

CTraceViewer::~CTraceViewer()
{
    close(m_nSocket);
}

std::string CTraceViewer::ActivateRequest(unsigned char nLevels, const std::vector<unsigned int>& anMasks,
                                          bool bCorruptCrc)
{
    std::string s;
    PutLE(s, 4 + 2 + 4 * anMasks.size() + 1, 2); // type, counter, levels, count, masks, CRC
    PutLE(s, 0x0001, 2);
    PutLE(s, 0, 2);
    PutLE(s, nLevels, 1);
    PutLE(s, anMasks.size(), 1);
    for (unsigned int nMask : anMasks)
        PutLE(s, nMask, 4);
    unsigned char nCrc = 0;
    for (char c : s)
        nCrc = static_cast<unsigned char>(nCrc ^ static_cast<unsigned char>(c));
    s += static_cast<char>(bCorruptCrc ? nCrc ^ 0x01 : nCrc);
    return s;
}

bool CTraceViewer::Activate(unsigned char nLevels, const std::vector<unsigned int>& anMasks)
{
    Send(ActivateRequest(nLevels, anMasks));
    Send(CATEGORIES_REQUEST);
    for (std::string s = Receive(); !s.empty(); s = Receive())
        if (s.size() >= 4 &&
            (static_cast<unsigned char>(s[2]) | static_cast<unsigned char>(s[3]) << 8) == CATEGORIES_ANSWER_TYPE)
            return true;
    return false;
}

void CTraceViewer::Send(const std::string& sBytes)
{
    const sockaddr_in oServer = Loopback(CTraceServer::m_nServerUdpPort);
    sendto(m_nSocket, sBytes.data(), sBytes.size(), 0, reinterpret_cast<const sockaddr*>(&oServer), sizeof(oServer));
}

std::string CTraceViewer::Receive(int nTimeoutMs)
{
    pollfd oReadable = {m_nSocket, POLLIN, 0};
    if (poll(&oReadable, 1, nTimeoutMs) != 1)
        return std::string();
    std::string sBuffer(65536, '\0');
    const ssize_t n = recv(m_nSocket, &sBuffer[0], sBuffer.size(), 0);
    sBuffer.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return sBuffer;
}

std::string CTraceViewer::RoundTrip()
{
    Send(CATEGORIES_REQUEST);
    return Receive();
}

std::string CTraceViewer::NextText()
{
    const std::string s = Receive();
    return s.empty() ? s : CTraceMessageTelegram(static_cast<unsigned short>(s.size()), s.data()).GetMessageText();
}

std::string CTraceViewer::NextLevelAndText()
{
    const std::string s = Receive();
    if (s.empty())
        return s;
    const CTraceMessageTelegram oMessage(static_cast<unsigned short>(s.size()), s.data());
    return std::to_string(oMessage.GetTraceLevel()) + " " + oMessage.GetMessageText();
}

bool CTraceViewer::Quiet()
{
    pollfd oReadable = {m_nSocket, POLLIN, 0};
    return poll(&oReadable, 1, 0) == 0;
}

} // namespace OrvaneTest
