#include "CanPortModel.h"


namespace GatewaySim
{

namespace
{

constexpr unsigned short SDO_HEADER = 6;                 // u8 node, u16 index, u8 subindex, u16 time-out
constexpr unsigned int SDO_ABORT_NO_OBJECT = 0x06020000; // object does not exist
constexpr unsigned char SDO_RESULT_SUCCESS = 0;
constexpr unsigned char SDO_RESULT_ABORTED = 1;

// Identifier bases of the CANopen services the port sends as a master.
constexpr unsigned int COB_NMT = 0x000;
constexpr unsigned int COB_SYNC = 0x080;
constexpr unsigned int COB_TIME = 0x100;
// Receive PDO n (1..4) of node k has identifier 0x100 * (n + 1) + k.
constexpr unsigned char PDO_TYPE_FIRST = 1;
constexpr unsigned char PDO_TYPE_LAST = 4;

bool Flag(const CKelPayloadReader& oIn, std::size_t nOffset)
{
    return oIn.U8(nOffset) == 1;
}

} // namespace

// Every command of a CAN port with the payload sizes it accepts. Longer
// payloads are read as far as the layout goes (a SET_ZCARD_PI carries its end
// identifier twice), except for frames, whose data is bounded.
const CCanPortModel::SCommandEntry CCanPortModel::s_aoCommands[] = {
    {eCmdInfo, 0, 0xFFFF, &CCanPortModel::Info},
    {eCmdStatus, 0, 0xFFFF, &CCanPortModel::Status},
    {eCmdClose, 0, 0xFFFF, &CCanPortModel::Restart},
    {eCmdReadDigital, 0, 0xFFFF, &CCanPortModel::ReadDigital},
    {eCmdWriteDigital, 4, 0xFFFF, &CCanPortModel::WriteDigital},
    {eCmdReadAnalog, 0, 0xFFFF, &CCanPortModel::ReadAnalog},
    {eCmdWriteAnalog, 0, 0xFFFF, &CCanPortModel::WriteAnalog},
    {eCmdWrite, FRAME_HEADER, FRAME_HEADER + MAX_FRAME_DATA, &CCanPortModel::Write},
    {eCmdSetConfig, 2, 0xFFFF, &CCanPortModel::SetConfig},
    {eCmdGetConfig, 0, 0xFFFF, &CCanPortModel::GetConfig},
    {eCmdSetGlobals, 8, 0xFFFF, &CCanPortModel::SetGlobals},
    {eCmdGetGlobals, 0, 0xFFFF, &CCanPortModel::GetGlobals},
    {eCmdSetTime, 8, 0xFFFF, &CCanPortModel::SetTime},
    {eCmdGetTime, 0, 0xFFFF, &CCanPortModel::GetTime},
    {eCmdSetFilter, 64, 0xFFFF, &CCanPortModel::SetFilter},
    {eCmdGetFilter, 0, 0xFFFF, &CCanPortModel::GetFilter},
    {eCmdGetPowerStatus, 0, 0xFFFF, &CCanPortModel::GetPowerStatus},
    {eCmdSetPowerRelais, 1, 0xFFFF, &CCanPortModel::SetPowerRelais},
    {eCmdSetActivePowerSupplies, 4, 0xFFFF, &CCanPortModel::SetActivePowerSupplies},
    {eCmdSetZCardParameter, 5, 0xFFFF, &CCanPortModel::SetZCardParameter},
    {eCmdGetZCardParameter, 0, 0xFFFF, &CCanPortModel::GetZCardParameter},
    {eCmdCANopenSetConfig, 1, 0xFFFF, &CCanPortModel::CANopenSetConfig},
    {eCmdCANopenGetConfig, 0, 0xFFFF, &CCanPortModel::CANopenGetConfig},
    {eCmdCANopenSyncMode, 2, 0xFFFF, &CCanPortModel::CANopenSyncMode},
    {eCmdCANopenNMT, 2, 0xFFFF, &CCanPortModel::CANopenNMT},
    {eCmdCANopenSYNC, 0, 0xFFFF, &CCanPortModel::CANopenSYNC},
    {eCmdCANopenTIME, 6, 0xFFFF, &CCanPortModel::CANopenTIME},
    {eCmdCANopenPDO, 2, 2 + 8, &CCanPortModel::CANopenPDO},
    {eCmdCANopenSDORead, SDO_HEADER, 0xFFFF, &CCanPortModel::CANopenSDORead},
    {eCmdCANopenSDOWrite, 11, 0xFFFF, &CCanPortModel::CANopenSDOWrite},
    {eCmdCANopenSDOReadBlock, SDO_HEADER, 0xFFFF, &CCanPortModel::CANopenSDOReadBlock},
    {eCmdCANopenSDOWriteBlock, SDO_HEADER, 0xFFFF, &CCanPortModel::CANopenSDOWriteBlock},
};

CCanPortModel::CCanPortModel(int nCanPort, const SFaultSettings& oFaults) : m_nCanPort(nCanPort), m_oFaults(oFaults) {}

const CCanPortModel::SCommandEntry* CCanPortModel::FindCommand(unsigned short nCode)
{
    for (const SCommandEntry& oEntry : s_aoCommands)
        if (oEntry.nCode == nCode)
            return &oEntry;
    return nullptr;
}

SCommandOutcome CCanPortModel::Handle(const COrvaneMsg& oRequest, SClientSettings& oClient)
{
    SCommandOutcome oOutcome;
    oOutcome.oTime = m_oClock.Now();
    const unsigned short nCode = oRequest.GetCmdCode();
    const unsigned short nCnfCode = static_cast<unsigned short>(nCode | COrvaneMsg::CONFIRMATION_FLAG);

    auto Confirm = [&](unsigned char nResult, const std::string& sTail) {
        std::string sPayload(1, static_cast<char>(nResult));
        if (nResult == ORVANE_RESULT_OK)
            sPayload += sTail;
        oOutcome.oConfirmation.SetMessage(nCnfCode, oRequest.GetMsgID(), sPayload.data(),
                                          static_cast<unsigned short>(sPayload.size()));
        oOutcome.bConfirm = true;
    };

    if (oRequest.IsConfirmation())
    {
        // Nobody asked the gateway anything: nothing to confirm.
        oOutcome.eFault = EInputFault::eUnknownCommand;
        return oOutcome;
    }
    const SCommandEntry* pEntry = FindCommand(nCode);
    if (pEntry == nullptr)
    {
        oOutcome.eFault = EInputFault::eUnknownCommand;
        Confirm(ORVANE_RESULT_COMMAND_FAILED, std::string());
        return oOutcome;
    }

    // A write is only confirmed when its sender asked for data confirmations;
    // that holds for a failed write too, since nobody waits for the answer.
    const bool bAnswered = nCode != eCmdWrite || oClient.bConfirmData;

    auto itFault = m_oFaults.aoFailCommands.find(nCode);
    if (itFault != m_oFaults.aoFailCommands.end())
    {
        oOutcome.bInjected = true;
        if (bAnswered)
            Confirm(itFault->second, std::string());
        return oOutcome;
    }

    const std::string& sPayload = oRequest.GetData();
    if (sPayload.size() < pEntry->nMinPayload || sPayload.size() > pEntry->nMaxPayload)
    {
        oOutcome.eFault = EInputFault::eBadLength;
        if (bAnswered)
            Confirm(ORVANE_RESULT_COMMAND_FAILED, std::string());
        return oOutcome;
    }

    CKelPayloadReader oIn(sPayload);
    CKelPayloadWriter oOut;
    unsigned char nResult;
    {
        CKelLockGuard oLock(m_oMutex);
        nResult = (this->*(pEntry->pfHandler))(oIn, oOut, oClient, oOutcome);
    }
    if (nResult != ORVANE_RESULT_OK)
        oOutcome.aoBusFrames.clear();
    if (bAnswered)
        Confirm(nResult, oOut.Data());
    return oOutcome;
}

unsigned char CCanPortModel::CANopenMode() const
{
    CKelLockGuard oLock(m_oMutex);
    return m_oSettings.nCANopenMode;
}

SCanPortSettings CCanPortModel::Settings() const
{
    CKelLockGuard oLock(m_oMutex);
    return m_oSettings;
}

// ---- common commands ----

// INFO: 20 bytes: u16 firmware version, u16 hardware version, u32 serial
// number, u8 device type, u8 CAN port, 10 bytes of name, zero padded.
unsigned char CCanPortModel::Info(const CKelPayloadReader&, CKelPayloadWriter& oOut, SClientSettings&, SCommandOutcome&)
{
    std::string sName("GW-SIM");
    sName.resize(10, '\0');
    oOut.U16(0x0100).U16(0x0100).U32(0x53494D00u | static_cast<unsigned int>(m_nCanPort & 0xFF));
    oOut.U8(OrvaneCan::DEVICE_TYPE).U8(static_cast<unsigned char>(m_nCanPort)).Bytes(sName);
    return ORVANE_RESULT_OK;
}

// Status: a short text.
unsigned char CCanPortModel::Status(const CKelPayloadReader&, CKelPayloadWriter& oOut, SClientSettings&,
                                    SCommandOutcome&)
{
    oOut.Bytes("CAN port " + std::to_string(m_nCanPort) + " ready");
    return ORVANE_RESULT_OK;
}

// CLOSE (restart): confirmed; the stored settings survive.
unsigned char CCanPortModel::Restart(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&)
{
    return ORVANE_RESULT_OK;
}

// READ DIGITAL: u32 inputs, u32 outputs. The inputs are wired to the outputs.
unsigned char CCanPortModel::ReadDigital(const CKelPayloadReader&, CKelPayloadWriter& oOut, SClientSettings&,
                                         SCommandOutcome&)
{
    oOut.U32(m_oSettings.nDigitalOutputs).U32(m_oSettings.nDigitalOutputs);
    return ORVANE_RESULT_OK;
}

unsigned char CCanPortModel::WriteDigital(const CKelPayloadReader& oIn, CKelPayloadWriter&, SClientSettings&,
                                          SCommandOutcome&)
{
    m_oSettings.nDigitalOutputs = oIn.U32(0);
    return ORVANE_RESULT_OK;
}

// READ ANALOG returns, after the result byte, the payload of the last WRITE
// ANALOG as it came, so any layout the client uses reads back unchanged.
unsigned char CCanPortModel::ReadAnalog(const CKelPayloadReader&, CKelPayloadWriter& oOut, SClientSettings&,
                                        SCommandOutcome&)
{
    oOut.Bytes(m_oSettings.sAnalogOutputs);
    return ORVANE_RESULT_OK;
}

unsigned char CCanPortModel::WriteAnalog(const CKelPayloadReader& oIn, CKelPayloadWriter&, SClientSettings&,
                                         SCommandOutcome&)
{
    m_oSettings.sAnalogOutputs = oIn.Tail(0);
    return ORVANE_RESULT_OK;
}

// ---- CAN ----

// WRITE: s32 identifier, u8 flags, data. The frame goes onto the bus; the
// confirmation (when the client wants one) carries the transmit time.
unsigned char CCanPortModel::Write(const CKelPayloadReader& oIn, CKelPayloadWriter& oOut, SClientSettings&,
                                   SCommandOutcome& oOutcome)
{
    SCanFrame oFrame;
    oFrame.nIdentifier = oIn.U32(0);
    oFrame.nFlags = oIn.U8(4) & (FRAME_FLAG_EXTENDED | FRAME_FLAG_REMOTE);
    oFrame.sData = oIn.Tail(FRAME_HEADER);
    oOutcome.aoBusFrames.push_back(oFrame);
    oOut.S32(oOutcome.oTime.nSeconds).S32(oOutcome.oTime.nMicroseconds);
    return ORVANE_RESULT_OK;
}

unsigned char CCanPortModel::SetConfig(const CKelPayloadReader& oIn, CKelPayloadWriter&, SClientSettings& oClient,
                                       SCommandOutcome&)
{
    m_oSettings.bConfirmData = Flag(oIn, 0);
    m_oSettings.bMonitor = Flag(oIn, 1);
    oClient.bConfirmData = m_oSettings.bConfirmData;
    oClient.bMonitor = m_oSettings.bMonitor;
    return ORVANE_RESULT_OK;
}

unsigned char CCanPortModel::GetConfig(const CKelPayloadReader&, CKelPayloadWriter& oOut, SClientSettings&,
                                       SCommandOutcome&)
{
    oOut.U8(m_oSettings.bConfirmData ? 1 : 0).U8(m_oSettings.bMonitor ? 1 : 0);
    return ORVANE_RESULT_OK;
}

// SET_GLOBALS: u8 operating mode, u32 baud rate, u8 termination, u8 high
// speed, u8 time stamp.
unsigned char CCanPortModel::SetGlobals(const CKelPayloadReader& oIn, CKelPayloadWriter&, SClientSettings& oClient,
                                        SCommandOutcome&)
{
    m_oSettings.nOperatingMode = oIn.U8(0);
    m_oSettings.nBaudrate = oIn.U32(1);
    m_oSettings.bTermination = Flag(oIn, 5);
    m_oSettings.bHighSpeed = Flag(oIn, 6);
    m_oSettings.bTimeStamp = Flag(oIn, 7);
    oClient.bTimeStamps = m_oSettings.bTimeStamp;
    return ORVANE_RESULT_OK;
}

unsigned char CCanPortModel::GetGlobals(const CKelPayloadReader&, CKelPayloadWriter& oOut, SClientSettings&,
                                        SCommandOutcome&)
{
    oOut.U8(m_oSettings.nOperatingMode).U32(m_oSettings.nBaudrate);
    oOut.U8(m_oSettings.bTermination ? 1 : 0).U8(m_oSettings.bHighSpeed ? 1 : 0).U8(m_oSettings.bTimeStamp ? 1 : 0);
    return ORVANE_RESULT_OK;
}

unsigned char CCanPortModel::SetTime(const CKelPayloadReader& oIn, CKelPayloadWriter&, SClientSettings&,
                                     SCommandOutcome&)
{
    STimeStamp oTime;
    oTime.nSeconds = oIn.S32(0);
    oTime.nMicroseconds = oIn.S32(4);
    m_oClock.Set(oTime);
    return ORVANE_RESULT_OK;
}

// GET_TIME: u8 valid (1 once SET_TIME was received), s32 seconds, s32 micros.
unsigned char CCanPortModel::GetTime(const CKelPayloadReader&, CKelPayloadWriter& oOut, SClientSettings&,
                                     SCommandOutcome&)
{
    const STimeStamp oNow = m_oClock.Now();
    oOut.U8(m_oClock.IsSet() ? 1 : 0).S32(oNow.nSeconds).S32(oNow.nMicroseconds);
    return ORVANE_RESULT_OK;
}

unsigned char CCanPortModel::SetFilter(const CKelPayloadReader& oIn, CKelPayloadWriter&, SClientSettings&,
                                       SCommandOutcome&)
{
    for (unsigned int i = 0; i < 16; ++i)
        m_oSettings.anFilter[i] = oIn.U32(4 * i);
    return ORVANE_RESULT_OK;
}

unsigned char CCanPortModel::GetFilter(const CKelPayloadReader&, CKelPayloadWriter& oOut, SClientSettings&,
                                       SCommandOutcome&)
{
    for (unsigned int nWord : m_oSettings.anFilter)
        oOut.U32(nWord);
    return ORVANE_RESULT_OK;
}

// GET_POWERSTATUS: counts (2 values, 4 A flags, 1 B flag), s16 board
// temperature, u16 supply voltage in mV, u16 supply current in mA, u8 relay;
// then the values (12 V and 5 V rails in mV), the A flags (one per active
// supply bit 0..3) and the B flag (relay).
unsigned char CCanPortModel::GetPowerStatus(const CKelPayloadReader&, CKelPayloadWriter& oOut, SClientSettings&,
                                            SCommandOutcome&)
{
    const unsigned char nRelay = m_oSettings.bPowerRelay ? 1 : 0;
    oOut.U8(2).U8(4).U8(1).S16(25).U16(12000).U16(150).U8(nRelay);
    oOut.U16(12000).U16(5000);
    for (unsigned int nBit = 0; nBit < 4; ++nBit)
        oOut.U8((m_oSettings.nActiveSupplies >> nBit) & 1u);
    oOut.U8(nRelay);
    return ORVANE_RESULT_OK;
}

unsigned char CCanPortModel::SetPowerRelais(const CKelPayloadReader& oIn, CKelPayloadWriter&, SClientSettings&,
                                            SCommandOutcome&)
{
    m_oSettings.bPowerRelay = oIn.U8(0) != 0;
    return ORVANE_RESULT_OK;
}

unsigned char CCanPortModel::SetActivePowerSupplies(const CKelPayloadReader& oIn, CKelPayloadWriter&, SClientSettings&,
                                                    SCommandOutcome&)
{
    m_oSettings.nActiveSupplies = oIn.U32(0);
    return ORVANE_RESULT_OK;
}

// SET_ZCARD_PI: u8 interval, u16 start, u16 end (a trailing copy of the end
// identifier is ignored).
unsigned char CCanPortModel::SetZCardParameter(const CKelPayloadReader& oIn, CKelPayloadWriter&, SClientSettings&,
                                               SCommandOutcome&)
{
    m_oSettings.nZCardInterval = oIn.U8(0);
    m_oSettings.nZCardIDStart = oIn.U16(1);
    m_oSettings.nZCardIDEnd = oIn.U16(3);
    return ORVANE_RESULT_OK;
}

unsigned char CCanPortModel::GetZCardParameter(const CKelPayloadReader&, CKelPayloadWriter& oOut, SClientSettings&,
                                               SCommandOutcome&)
{
    oOut.U8(m_oSettings.nZCardInterval).U16(m_oSettings.nZCardIDStart).U16(m_oSettings.nZCardIDEnd);
    return ORVANE_RESULT_OK;
}

// ---- CANopen ----

unsigned char CCanPortModel::CANopenSetConfig(const CKelPayloadReader& oIn, CKelPayloadWriter&, SClientSettings&,
                                              SCommandOutcome&)
{
    m_oSettings.nCANopenMode = oIn.U8(0);
    return ORVANE_RESULT_OK;
}

unsigned char CCanPortModel::CANopenGetConfig(const CKelPayloadReader&, CKelPayloadWriter& oOut, SClientSettings&,
                                              SCommandOutcome&)
{
    oOut.U8(m_oSettings.nCANopenMode);
    return ORVANE_RESULT_OK;
}

// The SYNC period is stored; the simulator sends no periodic SYNC itself.
unsigned char CCanPortModel::CANopenSyncMode(const CKelPayloadReader& oIn, CKelPayloadWriter&, SClientSettings&,
                                             SCommandOutcome&)
{
    if (m_oSettings.nCANopenMode == 0)
        return RESULT_CANOPEN_MODE_OFF;
    m_oSettings.nSyncPeriod = oIn.U16(0);
    return ORVANE_RESULT_OK;
}

// NMT: u8 node, u8 command -> frame 0x000 [command, node].
unsigned char CCanPortModel::CANopenNMT(const CKelPayloadReader& oIn, CKelPayloadWriter&, SClientSettings&,
                                        SCommandOutcome& oOutcome)
{
    if (m_oSettings.nCANopenMode == 0)
        return RESULT_CANOPEN_MODE_OFF;
    SCanFrame oFrame;
    oFrame.nIdentifier = COB_NMT;
    oFrame.sData.push_back(static_cast<char>(oIn.U8(1)));
    oFrame.sData.push_back(static_cast<char>(oIn.U8(0)));
    oOutcome.aoBusFrames.push_back(oFrame);
    return ORVANE_RESULT_OK;
}

// SYNC -> empty frame 0x080.
unsigned char CCanPortModel::CANopenSYNC(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&,
                                         SCommandOutcome& oOutcome)
{
    if (m_oSettings.nCANopenMode == 0)
        return RESULT_CANOPEN_MODE_OFF;
    SCanFrame oFrame;
    oFrame.nIdentifier = COB_SYNC;
    oOutcome.aoBusFrames.push_back(oFrame);
    return ORVANE_RESULT_OK;
}

// TIME: u16 days, u32 milliseconds -> frame 0x100 [u32 ms (28 bits), u16 days].
unsigned char CCanPortModel::CANopenTIME(const CKelPayloadReader& oIn, CKelPayloadWriter&, SClientSettings&,
                                         SCommandOutcome& oOutcome)
{
    if (m_oSettings.nCANopenMode == 0)
        return RESULT_CANOPEN_MODE_OFF;
    SCanFrame oFrame;
    oFrame.nIdentifier = COB_TIME;
    oFrame.sData = CKelPayloadWriter().U32(oIn.U32(2) & 0x0FFFFFFFu).U16(oIn.U16(0)).Data();
    oOutcome.aoBusFrames.push_back(oFrame);
    return ORVANE_RESULT_OK;
}

// PDO: u8 node, u8 PDO type 1..4, data (up to 8 bytes) -> receive PDO frame of
// that node.
unsigned char CCanPortModel::CANopenPDO(const CKelPayloadReader& oIn, CKelPayloadWriter&, SClientSettings&,
                                        SCommandOutcome& oOutcome)
{
    if (m_oSettings.nCANopenMode == 0)
        return RESULT_CANOPEN_MODE_OFF;
    const unsigned char nNode = oIn.U8(0);
    const unsigned char nType = oIn.U8(1);
    if (nType < PDO_TYPE_FIRST || nType > PDO_TYPE_LAST || nNode > 0x7F)
        return ORVANE_RESULT_COMMAND_FAILED;
    SCanFrame oFrame;
    oFrame.nIdentifier = 0x100u * (nType + 1u) + nNode;
    oFrame.sData = oIn.Tail(2);
    oOutcome.aoBusFrames.push_back(oFrame);
    return ORVANE_RESULT_OK;
}

unsigned int CCanPortModel::SdoKey(unsigned char nNode, unsigned short nIndex, unsigned char nSubindex)
{
    return (static_cast<unsigned int>(nNode) << 24) | (static_cast<unsigned int>(nIndex) << 8) | nSubindex;
}

// The SDO services are answered from the simulator's own object dictionary
// per node: what an SDO write stored, an SDO read returns; an entry never
// written is aborted with "object does not exist".

// SDO read: u8 node, u16 index, u8 subindex, u16 time-out -> u8 SDO result,
// u32 value (or abort code).
unsigned char CCanPortModel::CANopenSDORead(const CKelPayloadReader& oIn, CKelPayloadWriter& oOut, SClientSettings&,
                                            SCommandOutcome&)
{
    if (m_oSettings.nCANopenMode == 0)
        return RESULT_CANOPEN_MODE_OFF;
    auto itObject = m_aoObjects.find(SdoKey(oIn.U8(0), oIn.U16(1), oIn.U8(3)));
    if (itObject == m_aoObjects.end())
    {
        oOut.U8(SDO_RESULT_ABORTED).U32(SDO_ABORT_NO_OBJECT);
        return ORVANE_RESULT_OK;
    }
    std::string sValue = itObject->second;
    sValue.resize(4, '\0');
    oOut.U8(SDO_RESULT_SUCCESS).Bytes(sValue);
    return ORVANE_RESULT_OK;
}

// SDO write: u8 node, u8 write type, u16 index, u8 subindex, u16 time-out,
// u32 value -> u8 SDO result, u32 abort code.
unsigned char CCanPortModel::CANopenSDOWrite(const CKelPayloadReader& oIn, CKelPayloadWriter& oOut, SClientSettings&,
                                             SCommandOutcome&)
{
    if (m_oSettings.nCANopenMode == 0)
        return RESULT_CANOPEN_MODE_OFF;
    m_aoObjects[SdoKey(oIn.U8(0), oIn.U16(2), oIn.U8(4))] = CKelPayloadWriter().U32(oIn.U32(7)).Data();
    oOut.U8(SDO_RESULT_SUCCESS).U32(0);
    return ORVANE_RESULT_OK;
}

// SDO read block: u8 node, u16 index, u8 subindex, u16 time-out -> u8 SDO
// result, then the object's bytes.
unsigned char CCanPortModel::CANopenSDOReadBlock(const CKelPayloadReader& oIn, CKelPayloadWriter& oOut,
                                                 SClientSettings&, SCommandOutcome&)
{
    if (m_oSettings.nCANopenMode == 0)
        return RESULT_CANOPEN_MODE_OFF;
    auto itObject = m_aoObjects.find(SdoKey(oIn.U8(0), oIn.U16(1), oIn.U8(3)));
    if (itObject == m_aoObjects.end())
    {
        oOut.U8(SDO_RESULT_ABORTED);
        return ORVANE_RESULT_OK;
    }
    oOut.U8(SDO_RESULT_SUCCESS).Bytes(itObject->second);
    return ORVANE_RESULT_OK;
}

// SDO write block: u8 node, u16 index, u8 subindex, u16 time-out, data ->
// u8 SDO result, u32 abort code.
unsigned char CCanPortModel::CANopenSDOWriteBlock(const CKelPayloadReader& oIn, CKelPayloadWriter& oOut,
                                                  SClientSettings&, SCommandOutcome&)
{
    if (m_oSettings.nCANopenMode == 0)
        return RESULT_CANOPEN_MODE_OFF;
    m_aoObjects[SdoKey(oIn.U8(0), oIn.U16(1), oIn.U8(3))] = oIn.Tail(SDO_HEADER);
    oOut.U8(SDO_RESULT_SUCCESS).U32(0);
    return ORVANE_RESULT_OK;
}

} // namespace GatewaySim
