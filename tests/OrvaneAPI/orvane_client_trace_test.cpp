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

TEST(OrvaneClientTrace, RequestTextsAtTheirLevels)
{
    ASSERT_EQ(CTraceServer::Init(0), 0);
    CTraceViewer oViewer;
    CScriptedClient oClient;
    CScripted<COrvaneClientI2C> oI2C;
    CScripted<COrvaneClientSPI> oSPI;
    CScripted<COrvaneClientRenesas> oRenesas;
    CScripted<COrvaneClientTestSystemCOM> oCOM;
    oClient.ReplyWith("00");
    oI2C.ReplyWith("00");
    oSPI.ReplyWith("00");
    oRenesas.ReplyWith("00");
    oCOM.ReplyWith("00");
    const std::string H = " requested to " + oClient.GetConnection().GetHost();
    unsigned char n8;
    unsigned int n32;
    char acBuffer[4];
    unsigned short nCount = 0;
    const unsigned char anId[2] = {0x0A, 0x1B};
    // Requests trace at level 4, the device clients' transfers at level 8.
    struct SCase
    {
        unsigned char nLevel;
        std::function<int()> fnCall;
        std::string sText;
    };
    const SCase aoCases[] = {
        {4, [&] { return oClient.Write(0x1AB, "\x01", 1, 0, nullptr, nullptr); }, "WRITE" + H + ",nIdentifier=0x1AB"},
        {4, [&] { return oClient.SetGlobals(125000, 'x', true, false, true); },
         "SET_GLOBALS" + H + ", Operating mode=x, Baudrate=125000, Termination=1, HighSpeed=0, TimestampOn=1"},
        {4, [&] { return oClient.CANopenSendSDOWrite(5, 2, 0x1000, 1, 10, 7, n8, n32); },
         "CANOPEN_SDO_WRITE" + H + ", NodeID=5, SDOWriteTyp=2, Index=4096, Subindex=1, Timeout=10, Value=7"},
        {4, [&] { return oClient.Restart(); }, "CLOSE" + H},
        {4, [&] { return oI2C.SetBaudrate(100); }, "SET GLOBALS" + H + ",Baudrate=100000"},
        {4, [&] { return oSPI.SetGlobals(1000, 'a', 'b', 'c'); },
         "SET_GLOBALS" + H + ", SignalLevel=a, AuXVoltage=b, ClockMode=c, Baudrate=1000"},
        {4, [&] { return oRenesas.CheckID(anId, 2); }, "RENESAS CheckID" + H + ",ID=0x0A1B"},
        {4, [&] { return oCOM.SetConfig("cfg"); }, "SET CONFIG" + H + ",name=cfg"},
        {8, [&] { return oI2C.Read(0xA1, acBuffer, 4, nCount); }, "READ" + H + ",slave address=0xA1"},
        {8, [&] { return oI2C.ReadEEProm(2, 0x1234, 0x0008, acBuffer, 4, nCount); },
         "READ EEPROM" + H + ",chip address=2,slave address=0xA4"},
        {8, [&] { return oRenesas.WritePage(0x1F, "a", 1); }, "RENESASA WRITE" + H + ",page address=0x1F"},
    };
    // Every request at each level: only those of the level trace.
    const unsigned char anLevels[] = {0x04, 0x08};
    for (unsigned char nLevel : anLevels)
    {
        Activate(oViewer, nLevel);
        for (const SCase& oCase : aoCases)
        {
            EXPECT_EQ(oCase.fnCall(), 0) << oCase.sText;
            if (oCase.nLevel == nLevel)
            {
                EXPECT_EQ(oViewer.NextText(), oCase.sText);
            }
        }
        EXPECT_TRUE(oViewer.Quiet());
    }

    // Failures (level 2): the error text and the code.
    Activate(oViewer, 0x02);
    oClient.m_fnReply = nullptr;
    EXPECT_EQ(oClient.CANopenSendSDORead(5, 0x1000, 1, 0, n8, n32), ORVANE_ERR_TCP_TIMEOUT);
    EXPECT_EQ(oViewer.NextText(), "TCP/IP timeout occured: 0x40000");
    EXPECT_TRUE(oViewer.Quiet());
    CTraceServer::Disable();
}
