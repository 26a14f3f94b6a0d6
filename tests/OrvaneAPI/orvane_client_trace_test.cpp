// The texts the client's requests trace, read as a trace viewer on
// 127.0.0.1 would see them.
#include "OrvaneClientI2C.h"
#include "OrvaneClientRenesas.h"
#include "OrvaneClientSPI.h"
#include "OrvaneClientTestSystem.h"
#include "TraceServer.h"
#include "support/ClientSeams.h"
#include "support/TraceViewer.h"

#include <gtest/gtest.h>

#include <functional>

using namespace ClientTest;
using OrvaneTest::CTraceViewer;

namespace
{

// Category 3 (device clients) all bits, at the given levels.
void Activate(CTraceViewer& oViewer, unsigned char nLevels)
{
    ASSERT_TRUE(oViewer.Activate(nLevels, {0, 0, 0, 0xFFFFFFFF}));
}

} // namespace

TEST(OrvaneClientTrace, RequestTexts)
{
    ASSERT_EQ(CTraceServer::Init(0), 0);
    CTraceViewer oViewer;
    CScriptedClient oClient;
    oClient.ReplyWith("00");
    const std::string H = " requested to " + oClient.GetConnection().GetHost();
    unsigned char n8;
    unsigned int n32;
    struct SCase
    {
        std::function<int()> fnCall;
        std::string sText;
    };
    const SCase aoCases[] = {
        {[&] { return oClient.Write(0x1AB, "\x01", 1, 0, nullptr, nullptr); }, "WRITE" + H + ",nIdentifier=0x1AB"},
        {[&] { return oClient.SetGlobals(125000, 'x', true, false, true); },
         "SET_GLOBALS" + H + ", Operating mode=x, Baudrate=125000, Termination=1, HighSpeed=0, TimestampOn=1"},
        {[&] { return oClient.CANopenSendSDOWrite(5, 2, 0x1000, 1, 10, 7, n8, n32); },
         "CANOPEN_SDO_WRITE" + H + ", NodeID=5, SDOWriteTyp=2, Index=4096, Subindex=1, Timeout=10, Value=7"},
        {[&] { return oClient.Restart(); }, "CLOSE" + H},
    };

    // Request texts only (level 4).
    Activate(oViewer, 0x04);
    for (const SCase& oCase : aoCases)
    {
        EXPECT_EQ(oCase.fnCall(), 0) << oCase.sText;
        EXPECT_EQ(oViewer.NextText(), oCase.sText);
    }
    EXPECT_TRUE(oViewer.Quiet());

    // Failures (level 2): the error text and the code.
    Activate(oViewer, 0x02);
    oClient.m_fnReply = nullptr;
    EXPECT_EQ(oClient.CANopenSendSDORead(5, 0x1000, 1, 0, n8, n32), ORVANE_ERR_TCP_TIMEOUT);
    EXPECT_EQ(oViewer.NextText(), "TCP/IP timeout occured: 0x40000");
    EXPECT_TRUE(oViewer.Quiet());
    CTraceServer::Disable();
}

TEST(OrvaneClientTrace, OtherKindsTextsAndLevels)
{
    ASSERT_EQ(CTraceServer::Init(0), 0);
    CTraceViewer oViewer;
    CScripted<COrvaneClientI2C> oI2C;
    CScripted<COrvaneClientSPI> oSPI;
    CScripted<COrvaneClientRenesas> oRenesas;
    CScripted<COrvaneClientTestSystemCOM> oCOM;
    oI2C.ReplyWith("00");
    oSPI.ReplyWith("00");
    oRenesas.ReplyWith("00");
    oCOM.ReplyWith("00");
    const std::string H = " requested to " + oI2C.GetConnection().GetHost();
    char acBuffer[4];
    unsigned short nCount = 0;

    // Transfers trace at level 8, settings at level 4.
    Activate(oViewer, 0x08);
    EXPECT_EQ(oI2C.SetBaudrate(100), 0);
    EXPECT_EQ(oI2C.Read(0xA1, acBuffer, 4, nCount), 0);
    EXPECT_EQ(oViewer.NextText(), "READ" + H + ",slave address=0xA1");
    EXPECT_EQ(oI2C.ReadEEProm(2, 0x1234, 0x0008, acBuffer, 4, nCount), 0);
    EXPECT_EQ(oViewer.NextText(), "READ EEPROM" + H + ",chip address=2,slave address=0xA4");
    EXPECT_EQ(oRenesas.WritePage(0x1F, "a", 1), 0);
    EXPECT_EQ(oViewer.NextText(), "RENESASA WRITE" + H + ",page address=0x1F");
    EXPECT_TRUE(oViewer.Quiet());

    Activate(oViewer, 0x04);
    EXPECT_EQ(oI2C.Read(0xA1, acBuffer, 4, nCount), 0);
    EXPECT_EQ(oI2C.SetBaudrate(100), 0);
    EXPECT_EQ(oViewer.NextText(), "SET GLOBALS" + H + ",Baudrate=100000");
    EXPECT_EQ(oSPI.SetGlobals(1000, 'a', 'b', 'c'), 0);
    EXPECT_EQ(oViewer.NextText(), "SET_GLOBALS" + H + ", SignalLevel=a, AuXVoltage=b, ClockMode=c, Baudrate=1000");
    const unsigned char anId[2] = {0x0A, 0x1B};
    EXPECT_EQ(oRenesas.CheckID(anId, 2), 0);
    EXPECT_EQ(oViewer.NextText(), "RENESAS CheckID" + H + ",ID=0x0A1B");
    EXPECT_EQ(oCOM.SetConfig("cfg"), 0);
    EXPECT_EQ(oViewer.NextText(), "SET CONFIG" + H + ",name=cfg");
    EXPECT_TRUE(oViewer.Quiet());
    CTraceServer::Disable();
}
