// The command model of one CAN port, driven with request telegrams.
#include "CanPortModel.h"
#include "IndicationEncoder.h"
#include "KelByteOrder.h"
#include "support/Bytes.h"

#include <gtest/gtest.h>

#include <ctime>

using namespace GatewaySim;
using OrvaneTest::FromHex;
using OrvaneTest::ToHex;

namespace
{

class CanPortModelTest : public ::testing::Test
{
protected:
    SCommandOutcome Run(unsigned short nCode, short nID, const std::string& sPayload)
    {
        return m_oModel.Handle(COrvaneMsg(nCode, nID, sPayload.data(), static_cast<unsigned short>(sPayload.size())),
                               m_oClient);
    }
    // Hex of the confirmation's payload.
    std::string Answer(unsigned short nCode, short nID, const std::string& sPayloadHex = "")
    {
        const SCommandOutcome oOutcome = Run(nCode, nID, FromHex(sPayloadHex));
        EXPECT_TRUE(oOutcome.bConfirm);
        return ToHex(oOutcome.oConfirmation.GetData());
    }
    // The frame the command puts on the bus, as "identifier: data".
    std::string BusFrame(const SCommandOutcome& oOutcome)
    {
        if (oOutcome.aoBusFrames.size() != 1)
            return "frames: " + std::to_string(oOutcome.aoBusFrames.size());
        char acId[16];
        std::snprintf(acId, sizeof(acId), "%03X: ", oOutcome.aoBusFrames[0].nIdentifier);
        return acId + ToHex(oOutcome.aoBusFrames[0].sData);
    }

    SFaultSettings m_oFaults;
    CCanPortModel m_oModel{0, m_oFaults};
    SClientSettings m_oClient;
};

TEST_F(CanPortModelTest, SetCommandsStoreWhatGetCommandsReturn)
{
    std::string sFilter;
    for (unsigned int i = 0; i < 16; ++i)
        sFilter += ToHex(KelToLE(0x01010101u * i + 0x80000000u)) + " ";
    const struct
    {
        unsigned short nSet;
        std::string sSetHex;
        unsigned short nGet;
        std::string sExpected;
    } aoCases[] = {
        {eCmdSetConfig, "01 01", eCmdGetConfig, "00 01 01"},
        // The end identifier travels twice; the trailing copy is ignored.
        {eCmdSetZCardParameter, "05 00 01 00 02 00 02", eCmdGetZCardParameter, "00 05 00 01 00 02"},
        {eCmdSetFilter, sFilter, eCmdGetFilter, "00 " + sFilter.substr(0, sFilter.size() - 1)},
        {eCmdWriteDigital, "78 56 34 12", eCmdReadDigital, "00 78 56 34 12 78 56 34 12"},
        {eCmdWriteAnalog, "02 00 E8 03 00 00 D0 07 00 00", eCmdReadAnalog, "00 02 00 E8 03 00 00 D0 07 00 00"},
        {eCmdCANopenSetConfig, "03", eCmdCANopenGetConfig, "00 03"},
        {eCmdSetPowerRelais, "01", eCmdGetPowerStatus, "00 02 04 01 19 00 E0 2E 96 00 01 E0 2E 88 13 00 00 00 00 01"},
        {eCmdSetActivePowerSupplies, "05 00 00 00", eCmdGetPowerStatus,
         "00 02 04 01 19 00 E0 2E 96 00 01 E0 2E 88 13 01 00 01 00 01"},
    };
    for (const auto& oCase : aoCases)
    {
        EXPECT_EQ(Answer(oCase.nSet, 1, oCase.sSetHex), "00") << std::hex << oCase.nSet;
        EXPECT_EQ(Answer(oCase.nGet, 2), oCase.sExpected) << std::hex << oCase.nGet;
    }
}

TEST_F(CanPortModelTest, WritesGoToTheBusAndAreConfirmedOnlyWhenAsked)
{
    // Flags 0x05: the time-stamp bit is no flag a request can set for the bus.
    SCommandOutcome oOut = Run(eCmdWrite, 7, FromHex("23 01 00 00 05 11 22 33"));
    EXPECT_FALSE(oOut.bConfirm);
    EXPECT_EQ(BusFrame(oOut), "123: 11 22 33");
    EXPECT_EQ(oOut.aoBusFrames[0].nFlags, FRAME_FLAG_EXTENDED);

    EXPECT_EQ(Answer(eCmdSetConfig, 1, "01 00"), "00");
    EXPECT_TRUE(m_oClient.bConfirmData);
    oOut = Run(eCmdWrite, 8, FromHex("7F 00 00 00 00"));
    EXPECT_EQ(BusFrame(oOut), "07F: ");
    // Result 0, then the transmit time.
    ASSERT_TRUE(oOut.bConfirm);
    EXPECT_EQ(ToHex(oOut.oConfirmation.GetMessageData()),
              ToHex(BuildTelegram(0x8203, 8, '\0' + KelToLE(oOut.oTime.nSeconds) + KelToLE(oOut.oTime.nMicroseconds))));
    EXPECT_NEAR(oOut.oTime.nSeconds, static_cast<double>(std::time(nullptr)), 30)
        << "the gateway clock runs from the host's";
}

TEST_F(CanPortModelTest, TimeAndCommonCommands)
{
    EXPECT_EQ(Answer(eCmdGetTime, 1).substr(0, 5), "00 00") << "time not valid before SET_TIME";
    Run(eCmdSetTime, 2, KelToLE(1000) + KelToLE(500000));
    const std::string sTime = FromHex(Answer(eCmdGetTime, 3));
    ASSERT_EQ(sTime.size(), 10u);
    EXPECT_EQ(sTime[1], 1);
    EXPECT_GE(CKelPayloadReader(sTime).S32(2), 1000);
    EXPECT_LE(CKelPayloadReader(sTime).S32(2), 1010);

    EXPECT_EQ(ToHex(Run(eCmdClose, 9, "").oConfirmation.GetMessageData()), "06 00 0C 82 09 00 00 87");
    const std::string sInfo = FromHex(Answer(eCmdInfo, 2));
    ASSERT_EQ(sInfo.size(), 21u);
    EXPECT_EQ(sInfo[9], OrvaneCan::DEVICE_TYPE);
    EXPECT_EQ(FromHex(Answer(eCmdStatus, 3)).substr(1), "CAN port 0 ready");
}

TEST_F(CanPortModelTest, BadInputIsRefusedAndClassified)
{
    // A code of another device type is unknown; a confirmation is not even
    // answered.
    EXPECT_EQ(Run(0x0107, 1, "").eFault, EInputFault::eUnknownCommand);
    SCommandOutcome oCnf = Run(0x8207, 2, FromHex("00"));
    EXPECT_EQ(oCnf.eFault, EInputFault::eUnknownCommand);
    EXPECT_FALSE(oCnf.bConfirm);
    // 65 data bytes never reach the bus and without data confirmations nobody
    // hears about it; 64 bytes is the longest frame.
    const std::string sHeader = FromHex("01 00 00 00 00");
    SCommandOutcome oLong = Run(eCmdWrite, 3, sHeader + std::string(65, 'x'));
    EXPECT_EQ(oLong.eFault, EInputFault::eBadLength);
    EXPECT_FALSE(oLong.bConfirm);
    EXPECT_TRUE(oLong.aoBusFrames.empty());
    EXPECT_EQ(Run(eCmdWrite, 4, sHeader + std::string(64, 'x')).aoBusFrames.size(), 1u);
    m_oClient.bConfirmData = true;
    EXPECT_EQ(Answer(eCmdWrite, 5, ToHex(sHeader + std::string(65, 'x'))), "FF");
}

TEST_F(CanPortModelTest, CANopenServicesNeedCANopenMode)
{
    EXPECT_EQ(Answer(eCmdCANopenNMT, 1, "05 01"), "FE");
    EXPECT_TRUE(Run(eCmdCANopenSYNC, 2, "").aoBusFrames.empty());

    EXPECT_EQ(Answer(eCmdCANopenSetConfig, 3, "01"), "00");
    EXPECT_EQ(BusFrame(Run(eCmdCANopenNMT, 4, FromHex("05 01"))), "000: 01 05");
    EXPECT_EQ(BusFrame(Run(eCmdCANopenSYNC, 5, "")), "080: ");
    // Day 0x1234, 0x01020304 ms.
    EXPECT_EQ(BusFrame(Run(eCmdCANopenTIME, 6, FromHex("34 12 04 03 02 01"))), "100: 04 03 02 01 34 12");
    EXPECT_EQ(BusFrame(Run(eCmdCANopenPDO, 7, FromHex("05 04 AA BB"))), "505: AA BB"); // the last PDO type
    EXPECT_EQ(Answer(eCmdCANopenPDO, 8, "05 05 AA"), "FF");
    EXPECT_EQ(Answer(eCmdCANopenSyncMode, 9, "E8 03"), "00");

    // SDO: each node has its own object dictionary; a read of an object never
    // written is aborted with "object does not exist".
    const char* const READ_5 = "05 00 10 01 E8 03";
    EXPECT_EQ(Answer(eCmdCANopenSDORead, 10, READ_5), "00 01 00 00 02 06");
    EXPECT_EQ(Answer(eCmdCANopenSDOWrite, 11, "05 04 00 10 01 E8 03 80 00 00 00"), "00 00 00 00 00 00");
    EXPECT_EQ(Answer(eCmdCANopenSDORead, 12, READ_5), "00 00 80 00 00 00");
    EXPECT_EQ(Answer(eCmdCANopenSDORead, 13, "06 00 10 01 E8 03"), "00 01 00 00 02 06");
    EXPECT_EQ(Answer(eCmdCANopenSDOWriteBlock, 14, "05 08 10 00 E8 03 41 42 43"), "00 00 00 00 00 00");
    EXPECT_EQ(Answer(eCmdCANopenSDOReadBlock, 15, "05 08 10 00 E8 03"), "00 00 41 42 43");
}

} // namespace

// The first and last node and PDO number of each service, and the
// identifiers just past them, in CANopen mode; every frame carries 8 bytes.
TEST(IndicationEncoder, ServiceRangesStartAndEndWhereTheirNodesDo)
{
    const std::string DATA = " AA BB CC DD EE FF 11 22";
    const struct
    {
        unsigned int nIdentifier;
        unsigned short nCode;
        std::string sPayload;
    } aoCases[] = {
        {0x000, eIndUndefined, "00 00 00 00 00" + DATA}, // NMT
        {0x080, eIndSYNC, "AA"},
        {0x081, eIndEMCY, "01" + DATA},
        {0x0FF, eIndEMCY, "7F" + DATA},
        {0x181, eIndPDO, "01 01 08" + DATA},
        {0x201, eIndUndefined, "01 02 00 00 00" + DATA}, // receive PDO 1
        {0x380, eIndUndefined, "80 03 00 00 00" + DATA},
        {0x4FF, eIndPDO, "7F 04 08" + DATA},
        {0x500, eIndUndefined, "00 05 00 00 00" + DATA},
        {0x700, eIndUndefined, "00 07 00 00 00" + DATA},
        {0x701, eIndGUARD, "01 AA"},
        {0x77F, eIndGUARD, "7F AA"},
    };
    for (const auto& oCase : aoCases)
    {
        SCanFrame oFrame;
        oFrame.nIdentifier = oCase.nIdentifier;
        oFrame.sData = FromHex(DATA);
        const COrvaneMsg oMsg = EncodeIndication(oFrame, STimeStamp(), false, true);
        EXPECT_EQ(oMsg.GetCmdCode(), oCase.nCode) << std::hex << oCase.nIdentifier;
        EXPECT_EQ(ToHex(oMsg.GetData()), oCase.sPayload) << std::hex << oCase.nIdentifier;
    }
}
