// The command model of one CAN port, driven with raw request telegrams.
#include "CanPortModel.h"
#include "IndicationEncoder.h"
#include "support/TelegramBytes.h"

#include <gtest/gtest.h>

using namespace GatewaySim;
using SimTest::FromHex;
using SimTest::ToHex;

namespace
{

class CanPortModelTest : public ::testing::Test
{
protected:
    // Parses raw request bytes and executes them as client m_oClient.
    SCommandOutcome Run(const std::string& sHex)
    {
        const std::string sRaw = FromHex(sHex);
        COrvaneMsg oRequest(sRaw.data(), static_cast<unsigned short>(sRaw.size()));
        EXPECT_TRUE(oRequest.IsValid());
        EXPECT_TRUE(oRequest.IsCRCValid()) << "test telegram " << sHex << " has a wrong CRC";
        return m_oModel.Handle(oRequest, m_oClient);
    }
    // A request built from code, ID and payload (for long payloads).
    SCommandOutcome Run(unsigned short nCode, short nID, const std::string& sPayload)
    {
        COrvaneMsg oRequest(nCode, nID, sPayload.data(), static_cast<unsigned short>(sPayload.size()));
        return m_oModel.Handle(oRequest, m_oClient);
    }
    static std::string Cnf(const SCommandOutcome& oOutcome)
    {
        EXPECT_TRUE(oOutcome.bConfirm);
        return ToHex(oOutcome.oConfirmation.GetMessageData());
    }
    static std::string Payload(const SCommandOutcome& oOutcome) { return ToHex(oOutcome.oConfirmation.GetData()); }

    SFaultSettings m_oFaults;
    CCanPortModel m_oModel{0, m_oFaults};
    SClientSettings m_oClient;
};

TEST_F(CanPortModelTest, SetGlobalsThenGetGlobalsExactBytes)
{
    // Mode 0, 125000 bit/s, termination on, high speed off, time stamps on.
    SCommandOutcome oSet = Run("0D 00 07 02 03 00  00 48 E8 01 00 01 00 01  A7");
    EXPECT_EQ(Cnf(oSet), "06 00 07 82 03 00 00 86");
    EXPECT_TRUE(m_oClient.bTimeStamps);
    EXPECT_TRUE(oSet.aoBusFrames.empty());

    SCommandOutcome oGet = Run("05 00 08 02 04 00 0E");
    EXPECT_EQ(Cnf(oGet), "0E 00 08 82 04 00 00 00 48 E8 01 00 01 00 01 2F");
    EXPECT_EQ(oGet.eFault, EInputFault::eNone);
}

TEST_F(CanPortModelTest, GetGlobalsBeforeAnySetGivesDefaults)
{
    // 500000 bit/s = 0x0007A120, everything else off.
    EXPECT_EQ(Payload(Run(eCmdGetGlobals, 1, "")), "00 00 20 A1 07 00 00 00 00");
}

TEST_F(CanPortModelTest, WriteWithoutConfirmDataPutsFrameOnBusSilently)
{
    // Identifier 0x123, flags 0x05 (extended + time-stamp bit, which a
    // request cannot set for the bus), data 11 22 33.
    SCommandOutcome oOut = Run(eCmdWrite, 7, FromHex("23 01 00 00 05 11 22 33"));
    EXPECT_FALSE(oOut.bConfirm);
    ASSERT_EQ(oOut.aoBusFrames.size(), 1u);
    EXPECT_EQ(oOut.aoBusFrames[0].nIdentifier, 0x123u);
    EXPECT_EQ(oOut.aoBusFrames[0].nFlags, FRAME_FLAG_EXTENDED);
    EXPECT_EQ(ToHex(oOut.aoBusFrames[0].sData), "11 22 33");
}

TEST_F(CanPortModelTest, WriteWithConfirmDataIsConfirmedWithTransmitTime)
{
    EXPECT_EQ(Cnf(Run(eCmdSetConfig, 1, FromHex("01 00"))), "06 00 05 82 01 00 00 86");
    EXPECT_TRUE(m_oClient.bConfirmData);

    SCommandOutcome oOut = Run(eCmdWrite, 8, FromHex("7F 00 00 00 00"));
    ASSERT_TRUE(oOut.bConfirm);
    ASSERT_EQ(oOut.aoBusFrames.size(), 1u);
    EXPECT_TRUE(oOut.aoBusFrames[0].sData.empty());
    const COrvaneMsg& oCnf = oOut.oConfirmation;
    EXPECT_EQ(oCnf.GetCmdCode(), 0x8203);
    EXPECT_EQ(oCnf.GetMsgID(), 8);
    ASSERT_EQ(oCnf.GetData().size(), 9u);
    EXPECT_EQ(oCnf.GetData()[0], 0);
    int nSeconds = 0, nMicros = 0;
    COrvaneMsg::FromChar(nSeconds, oCnf.GetData().data() + 1);
    COrvaneMsg::FromChar(nMicros, oCnf.GetData().data() + 5);
    EXPECT_EQ(nSeconds, oOut.oTime.nSeconds);
    EXPECT_EQ(nMicros, oOut.oTime.nMicroseconds);
    EXPECT_GT(nSeconds, 1600000000);
}

TEST_F(CanPortModelTest, SetCommandsStoreWhatGetCommandsReturn)
{
    Run(eCmdSetConfig, 1, FromHex("01 01"));
    EXPECT_EQ(Payload(Run(eCmdGetConfig, 2, "")), "00 01 01");

    // The end identifier travels twice; the trailing copy is ignored.
    EXPECT_EQ(Cnf(Run("0C 00 51 02 03 00 05 00 01 00 02 00 02 54")), "06 00 51 82 03 00 00 D0");
    EXPECT_EQ(Payload(Run(eCmdGetZCardParameter, 4, "")), "00 05 00 01 00 02");

    std::string sFilter;
    for (unsigned int i = 0; i < 16; ++i)
        sFilter += COrvaneMsg::ToChar(0x01010101u * i + 0x80000000u);
    Run(eCmdSetFilter, 5, sFilter);
    SCommandOutcome oFilter = Run(eCmdGetFilter, 6, "");
    ASSERT_EQ(oFilter.oConfirmation.GetData().size(), 65u);
    EXPECT_EQ(oFilter.oConfirmation.GetData().substr(1), sFilter);

    Run(eCmdWriteDigital, 7, FromHex("78 56 34 12"));
    EXPECT_EQ(Payload(Run(eCmdReadDigital, 8, "")), "00 78 56 34 12 78 56 34 12");

    Run(eCmdWriteAnalog, 9, FromHex("02 00 E8 03 00 00 D0 07 00 00"));
    EXPECT_EQ(Payload(Run(eCmdReadAnalog, 10, "")), "00 02 00 E8 03 00 00 D0 07 00 00");

    Run(eCmdCANopenSetConfig, 11, FromHex("03"));
    EXPECT_EQ(Payload(Run(eCmdCANopenGetConfig, 12, "")), "00 03");

    const SCanPortSettings oSettings = m_oModel.Settings();
    EXPECT_EQ(oSettings.nZCardIDEnd, 0x200);
    EXPECT_EQ(oSettings.anFilter[15], 0x8F0F0F0Fu);
}

TEST_F(CanPortModelTest, SetTimeMovesTheGatewayClock)
{
    SCommandOutcome oBefore = Run(eCmdGetTime, 1, "");
    ASSERT_EQ(oBefore.oConfirmation.GetData().size(), 10u);
    EXPECT_EQ(oBefore.oConfirmation.GetData()[1], 0) << "time not valid before SET_TIME";

    Run(eCmdSetTime, 2, COrvaneMsg::ToChar(1000) + COrvaneMsg::ToChar(500000));
    SCommandOutcome oAfter = Run(eCmdGetTime, 3, "");
    const std::string& sData = oAfter.oConfirmation.GetData();
    ASSERT_EQ(sData.size(), 10u);
    EXPECT_EQ(sData[1], 1);
    int nSeconds = 0;
    COrvaneMsg::FromChar(nSeconds, sData.data() + 2);
    EXPECT_GE(nSeconds, 1000);
    EXPECT_LE(nSeconds, 1010);
    EXPECT_LE(m_oModel.Now().nSeconds, 1010);
}

TEST_F(CanPortModelTest, CommonCommandsAreConfirmed)
{
    EXPECT_EQ(Cnf(Run("05 00 0C 02 09 00 07")), "06 00 0C 82 09 00 00 87"); // CLOSE
    SCommandOutcome oInfo = Run(eCmdInfo, 2, "");
    ASSERT_EQ(oInfo.oConfirmation.GetData().size(), 21u);
    EXPECT_EQ(oInfo.oConfirmation.GetData()[0], 0);
    EXPECT_EQ(oInfo.oConfirmation.GetData()[9], CAN_DEVICE_TYPE);
    SCommandOutcome oStatus = Run(eCmdStatus, 3, "");
    EXPECT_EQ(oStatus.oConfirmation.GetData().substr(1), "CAN port 0 ready");
}

TEST_F(CanPortModelTest, PowerStatusFollowsRelayAndSupplies)
{
    Run(eCmdSetPowerRelais, 1, FromHex("01"));
    Run(eCmdSetActivePowerSupplies, 2, FromHex("05 00 00 00"));
    EXPECT_EQ(Payload(Run(eCmdGetPowerStatus, 3, "")),
              "00 02 04 01 19 00 E0 2E 96 00 01 E0 2E 88 13 01 00 01 00 01");
}

TEST_F(CanPortModelTest, BadInputIsRefusedAndClassified)
{
    // Unknown low byte, and a CAN command code of another device type.
    SCommandOutcome oUnknown = Run("05 00 99 02 01 00 9A");
    EXPECT_EQ(oUnknown.eFault, EInputFault::eUnknownCommand);
    EXPECT_EQ(Cnf(oUnknown), "06 00 99 82 01 00 FF E5");
    EXPECT_EQ(Run(0x0107, 2, "").eFault, EInputFault::eUnknownCommand);

    // A confirmation sent to the gateway is not answered.
    SCommandOutcome oCnf = Run(0x8207, 3, FromHex("00"));
    EXPECT_EQ(oCnf.eFault, EInputFault::eUnknownCommand);
    EXPECT_FALSE(oCnf.bConfirm);

    // SET_GLOBALS one byte short: refused, nothing stored.
    SCommandOutcome oShort = Run(eCmdSetGlobals, 4, FromHex("01 48 E8 01 00 01 00"));
    EXPECT_EQ(oShort.eFault, EInputFault::eBadLength);
    EXPECT_EQ(Payload(oShort), "FF");
    EXPECT_EQ(m_oModel.Settings().nBaudrate, 500000u);

    // A frame of 65 data bytes never reaches the bus; without data
    // confirmations nobody hears about it.
    const std::string sTooLong = FromHex("01 00 00 00 00") + std::string(65, 'x');
    SCommandOutcome oLong = Run(eCmdWrite, 5, sTooLong);
    EXPECT_EQ(oLong.eFault, EInputFault::eBadLength);
    EXPECT_FALSE(oLong.bConfirm);
    EXPECT_TRUE(oLong.aoBusFrames.empty());
    m_oClient.bConfirmData = true;
    EXPECT_EQ(Payload(Run(eCmdWrite, 6, sTooLong)), "FF");
    // 64 bytes is the longest frame.
    EXPECT_EQ(Run(eCmdWrite, 7, FromHex("01 00 00 00 00") + std::string(64, 'x')).aoBusFrames.size(), 1u);
}

TEST(CanPortModelFaults, InjectedDeviceErrorReplacesTheCommand)
{
    SFaultSettings oFaults;
    oFaults.aoFailCommands[eCmdSetGlobals] = 0x24; // "CAN no valid baudrate"
    oFaults.aoFailCommands[eCmdWrite] = 0x21;
    CCanPortModel oModel(1, oFaults);
    SClientSettings oClient;

    const std::string sGlobals = FromHex("00 48 E8 01 00 01 00 01");
    SCommandOutcome oOut = oModel.Handle(COrvaneMsg(eCmdSetGlobals, 9, sGlobals.data(), 8), oClient);
    EXPECT_TRUE(oOut.bInjected);
    EXPECT_EQ(ToHex(oOut.oConfirmation.GetMessageData()), "06 00 07 82 09 00 24 A8");
    EXPECT_EQ(oModel.Settings().nBaudrate, 500000u) << "a failed command stores nothing";
    EXPECT_FALSE(oClient.bTimeStamps);

    oClient.bConfirmData = true;
    const std::string sFrame = FromHex("01 00 00 00 00 AA");
    SCommandOutcome oWrite = oModel.Handle(COrvaneMsg(eCmdWrite, 10, sFrame.data(), 6), oClient);
    EXPECT_TRUE(oWrite.aoBusFrames.empty());
    EXPECT_EQ(ToHex(oWrite.oConfirmation.GetData()), "21");
    // Other commands are unaffected.
    EXPECT_EQ(ToHex(oModel.Handle(COrvaneMsg(eCmdGetGlobals, 11, nullptr, 0), oClient).oConfirmation.GetData()).substr(0, 2),
              "00");
}

TEST_F(CanPortModelTest, CANopenServicesNeedCANopenMode)
{
    EXPECT_EQ(Payload(Run(eCmdCANopenNMT, 1, FromHex("05 01"))), "FE");
    EXPECT_TRUE(Run(eCmdCANopenSYNC, 2, "").aoBusFrames.empty());

    Run(eCmdCANopenSetConfig, 3, FromHex("01"));
    SCommandOutcome oNmt = Run(eCmdCANopenNMT, 4, FromHex("05 01"));
    EXPECT_EQ(Payload(oNmt), "00");
    ASSERT_EQ(oNmt.aoBusFrames.size(), 1u);
    EXPECT_EQ(oNmt.aoBusFrames[0].nIdentifier, 0x000u);
    EXPECT_EQ(ToHex(oNmt.aoBusFrames[0].sData), "01 05");

    SCommandOutcome oSync = Run(eCmdCANopenSYNC, 5, "");
    ASSERT_EQ(oSync.aoBusFrames.size(), 1u);
    EXPECT_EQ(oSync.aoBusFrames[0].nIdentifier, 0x080u);

    // Day 0x1234, 0x01020304 ms.
    SCommandOutcome oTime = Run(eCmdCANopenTIME, 6, FromHex("34 12 04 03 02 01"));
    ASSERT_EQ(oTime.aoBusFrames.size(), 1u);
    EXPECT_EQ(oTime.aoBusFrames[0].nIdentifier, 0x100u);
    EXPECT_EQ(ToHex(oTime.aoBusFrames[0].sData), "04 03 02 01 34 12");

    SCommandOutcome oPdo = Run(eCmdCANopenPDO, 7, FromHex("05 02 AA BB"));
    ASSERT_EQ(oPdo.aoBusFrames.size(), 1u);
    EXPECT_EQ(oPdo.aoBusFrames[0].nIdentifier, 0x305u);
    EXPECT_EQ(ToHex(oPdo.aoBusFrames[0].sData), "AA BB");
    EXPECT_EQ(Payload(Run(eCmdCANopenPDO, 8, FromHex("05 05 AA"))), "FF");
    EXPECT_EQ(Payload(Run(eCmdCANopenSyncMode, 9, FromHex("E8 03"))), "00");
    EXPECT_EQ(m_oModel.Settings().nSyncPeriod, 1000);
}

TEST_F(CanPortModelTest, SdoServicesUseTheNodesObjectDictionary)
{
    Run(eCmdCANopenSetConfig, 1, FromHex("01"));
    // Read of an object never written: aborted, "object does not exist".
    EXPECT_EQ(Payload(Run(eCmdCANopenSDORead, 2, FromHex("05 00 10 01 E8 03"))), "00 01 00 00 02 06");
    // Write node 5, type 4, index 0x1000, subindex 1, time-out 1000, value 0x80.
    EXPECT_EQ(Payload(Run(eCmdCANopenSDOWrite, 3, FromHex("05 04 00 10 01 E8 03 80 00 00 00"))), "00 00 00 00 00 00");
    EXPECT_EQ(Payload(Run(eCmdCANopenSDORead, 4, FromHex("05 00 10 01 E8 03"))), "00 00 80 00 00 00");
    // Another node has its own dictionary.
    EXPECT_EQ(Payload(Run(eCmdCANopenSDORead, 5, FromHex("06 00 10 01 E8 03"))), "00 01 00 00 02 06");

    EXPECT_EQ(Payload(Run(eCmdCANopenSDOWriteBlock, 6, FromHex("05 08 10 00 E8 03 41 42 43"))), "00 00 00 00 00 00");
    EXPECT_EQ(Payload(Run(eCmdCANopenSDOReadBlock, 7, FromHex("05 08 10 00 E8 03"))), "00 00 41 42 43");
}

// ---- indications ----

TEST(IndicationEncoder, FrameWithoutAndWithTimeStamp)
{
    SCanFrame oFrame;
    oFrame.nIdentifier = 0x123;
    oFrame.nFlags = FRAME_FLAG_REMOTE;
    oFrame.sData = FromHex("AA BB");
    STimeStamp oTime;
    oTime.nSeconds = 0x01020304;
    oTime.nMicroseconds = 0x000A0B0C;

    EXPECT_EQ(ToHex(EncodeIndication(oFrame, oTime, false, false).GetMessageData()),
              "0C 00 03 02 00 00 23 01 00 00 02 AA BB 30");
    EXPECT_EQ(ToHex(EncodeIndication(oFrame, oTime, true, false).GetMessageData()),
              "14 00 03 02 00 00 23 01 00 00 06 AA BB 04 03 02 01 0C 0B 0A 00 3D");
}

TEST(IndicationEncoder, CANopenModeClassifiesServiceFrames)
{
    STimeStamp oTime;
    auto Encode = [&](unsigned int nId, const std::string& sHex) {
        SCanFrame oFrame;
        oFrame.nIdentifier = nId;
        oFrame.sData = FromHex(sHex);
        return EncodeIndication(oFrame, oTime, false, true);
    };
    COrvaneMsg oPdo = Encode(0x285, "01 02 03");
    EXPECT_EQ(oPdo.GetCmdCode(), eIndPDO);
    EXPECT_EQ(ToHex(oPdo.GetData()), "05 02 03 01 02 03");
    COrvaneMsg oSync = Encode(0x080, "07");
    EXPECT_EQ(oSync.GetCmdCode(), eIndSYNC);
    EXPECT_EQ(ToHex(oSync.GetData()), "07");
    COrvaneMsg oEmcy = Encode(0x08A, "10 81 11 01 02 03 04 05");
    EXPECT_EQ(oEmcy.GetCmdCode(), eIndEMCY);
    EXPECT_EQ(ToHex(oEmcy.GetData()), "0A 10 81 11 01 02 03 04 05");
    COrvaneMsg oGuard = Encode(0x705, "7F");
    EXPECT_EQ(oGuard.GetCmdCode(), eIndGUARD);
    EXPECT_EQ(ToHex(oGuard.GetData()), "05 7F");
    COrvaneMsg oOther = Encode(0x600 + 5, "40 00 10 00");
    EXPECT_EQ(oOther.GetCmdCode(), eIndUndefined);
    EXPECT_EQ(ToHex(oOther.GetData()), "05 06 00 00 00 40 00 10 00");
    // NMT from another master, receive PDOs and SYNC-like extended frames
    // are not services the master consumes.
    EXPECT_EQ(Encode(0x000, "01 05").GetCmdCode(), eIndUndefined);
    EXPECT_EQ(Encode(0x205, "01").GetCmdCode(), eIndUndefined);
}

} // namespace
