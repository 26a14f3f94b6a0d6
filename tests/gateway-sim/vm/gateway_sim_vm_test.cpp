// Runs inside the SocketCAN test VM: orvane-gateway-sim with its bus on vcan1,
// a raw TCP client on loopback, candump and cansend on vcan1.
#include "support/ChildProcess.h"
#include "support/RawPeer.h"

#include "SimTypes.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace OrvaneTest;

namespace
{

constexpr unsigned short SIM_PORT = 5001;

std::string Indication(const std::string& sPayloadHex)
{
    return ToHex(GatewaySim::BuildTelegram(0x203, 0, FromHex(sPayloadHex)));
}

class GatewaySimVm : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_poSim =
            new CChildProcess({"orvane-gateway-sim", "--socketcan", "vcan1", "--tcp-base", std::to_string(SIM_PORT)});
    }
    static void TearDownTestSuite()
    {
        std::printf("--- simulator log ---\n%s", s_poSim->Output().c_str());
        delete s_poSim;
    }
    // Connects once the simulator listens (it starts in the background).
    static bool OpenClient(CRawPeer& oClient)
    {
        return WaitUntil([&] { return oClient.Open(SIM_PORT); });
    }

    static CChildProcess* s_poSim;
};

CChildProcess* GatewaySimVm::s_poSim = nullptr;

TEST_F(GatewaySimVm, FrameWrittenByAClientAppearsOnVcan1InCandump)
{
    CRawPeer oClient;
    ASSERT_TRUE(OpenClient(oClient));
    // candump ends after two frames; frames written before it listens are not
    // seen, so the client writes until candump has exited.
    CChildProcess oCandump({"candump", "-n", "2", "vcan1"});
    const std::string sFrames = GatewaySim::BuildTelegram(0x203, 1, FromHex("23 01 00 00 00 11 22")) +
        GatewaySim::BuildTelegram(0x203, 2, FromHex("78 56 34 12 01 DE AD"));
    bool bExited = false;
    for (int i = 0; i < 100 && !bExited; ++i)
    {
        ASSERT_TRUE(oClient.Send(sFrames));
        bExited = oCandump.WaitExit(100) != -1;
    }
    ASSERT_TRUE(bExited) << "candump saw nothing on vcan1";
    // candump pads its columns with blanks: compare with single blanks.
    std::string sDump;
    for (char c : oCandump.Output())
        if (c != ' ' || (!sDump.empty() && sDump.back() != ' '))
            sDump += c;
    EXPECT_NE(sDump.find("vcan1 123 [2] 11 22"), std::string::npos) << sDump;
    EXPECT_NE(sDump.find("vcan1 12345678 [2] DE AD"), std::string::npos) << sDump;
}

TEST_F(GatewaySimVm, FrameSentWithCansendReachesTheClient)
{
    CRawPeer oClient;
    ASSERT_TRUE(OpenClient(oClient));
    ASSERT_EQ(std::system("cansend vcan1 456#AABBCC"), 0);
    EXPECT_EQ(oClient.ReceiveHex(), Indication("56 04 00 00 00 AA BB CC"));
    ASSERT_EQ(std::system("cansend vcan1 1ABCDEF0#01"), 0);
    EXPECT_EQ(oClient.ReceiveHex(), Indication("F0 DE BC 1A 01 01"));
    ASSERT_EQ(std::system("cansend vcan1 321#R"), 0); // a remote frame keeps its flag
    EXPECT_EQ(oClient.ReceiveHex(), Indication("21 03 00 00 02"));
}

} // namespace
