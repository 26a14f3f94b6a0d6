// The command model of one simulated CAN port: takes a request telegram from
// one client, executes it against the port's stored settings, and yields the
// confirmation to send back and the frames to put on the port's bus. It does
// no I/O, so it can be driven directly with raw telegram bytes.
#ifndef GATEWAY_SIM_CAN_PORT_MODEL_H
#define GATEWAY_SIM_CAN_PORT_MODEL_H

#include "FaultSettings.h"
#include "GatewayClock.h"
#include "OrvaneMsg.h"
#include "SimTypes.h"
#include "libKelMutex.h"

#include <map>
#include <string>
#include <vector>

namespace GatewaySim
{

// Options each client chooses for itself: how its own writes are confirmed
// and how frames are indicated to it.
struct SClientSettings
{
    bool bConfirmData = false; // SET_CONFIG: confirm every write with its transmit time
    bool bMonitor = false;
    bool bTimeStamps = false; // SET_GLOBALS: append time stamps to indications
};

// What the port stores; the get commands return the last stored values.
struct SCanPortSettings
{
    bool bConfirmData = false;
    bool bMonitor = false;
    unsigned char nOperatingMode = 0;
    unsigned int nBaudrate = 500000;
    bool bTermination = false;
    bool bHighSpeed = false;
    bool bTimeStamp = false;
    unsigned int anFilter[16] = {};
    unsigned char nZCardInterval = 0;
    unsigned short nZCardIDStart = 0;
    unsigned short nZCardIDEnd = 0;
    unsigned char nCANopenMode = 0;
    unsigned short nSyncPeriod = 0;
    unsigned int nDigitalOutputs = 0;
    std::string sAnalogOutputs;
    bool bPowerRelay = false;
    unsigned int nActiveSupplies = 0;
};

// Why a telegram was not taken as a good request.
enum class EInputFault
{
    eNone,
    eBadLength,     // payload too short (or too long) for its command
    eUnknownCommand // no such command on a CAN port, or a confirmation
};

struct SCommandOutcome
{
    bool bConfirm = false; // oConfirmation is to be sent
    COrvaneMsg oConfirmation;
    std::vector<SCanFrame> aoBusFrames; // frames the command puts on the bus
    STimeStamp oTime;                   // gateway time of the command (frame time stamps)
    EInputFault eFault = EInputFault::eNone;
    bool bInjected = false; // answered with an injected device error
};

class CCanPortModel
{
public:
    CCanPortModel(int nCanPort, const SFaultSettings& oFaults);

    CCanPortModel(const CCanPortModel&) = delete;
    CCanPortModel& operator=(const CCanPortModel&) = delete;

    // Executes one request of a client; thread-safe.
    SCommandOutcome Handle(const COrvaneMsg& oRequest, SClientSettings& oClient);

    int CanPort() const { return m_nCanPort; }
    STimeStamp Now() const { return m_oClock.Now(); }
    // Non-zero while CANopen mode is on: frames are then indicated as
    // CANopen services where their identifier says so.
    unsigned char CANopenMode() const;
    SCanPortSettings Settings() const;

private:
    // A handler writes the confirmation bytes after the result byte into
    // oOut and returns the result byte.
    using FHandler = unsigned char (CCanPortModel::*)(const CKelPayloadReader& oIn, CKelPayloadWriter& oOut,
                                                      SClientSettings& oClient, SCommandOutcome& oOutcome);
    struct SCommandEntry
    {
        unsigned short nCode;
        unsigned short nMinPayload;
        unsigned short nMaxPayload;
        FHandler pfHandler;
    };
    static const SCommandEntry* FindCommand(unsigned short nCode);
    static const SCommandEntry s_aoCommands[];

    unsigned char Info(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char Status(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char Restart(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char ReadDigital(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char WriteDigital(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char ReadAnalog(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char WriteAnalog(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char Write(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char SetConfig(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char GetConfig(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char SetGlobals(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char GetGlobals(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char SetTime(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char GetTime(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char SetFilter(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char GetFilter(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char GetPowerStatus(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char SetPowerRelais(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char SetActivePowerSupplies(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&,
                                         SCommandOutcome&);
    unsigned char SetZCardParameter(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char GetZCardParameter(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char CANopenSetConfig(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char CANopenGetConfig(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char CANopenSyncMode(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char CANopenNMT(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char CANopenSYNC(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char CANopenTIME(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char CANopenPDO(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char CANopenSDORead(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char CANopenSDOWrite(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char CANopenSDOReadBlock(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&, SCommandOutcome&);
    unsigned char CANopenSDOWriteBlock(const CKelPayloadReader&, CKelPayloadWriter&, SClientSettings&,
                                       SCommandOutcome&);

    static unsigned int SdoKey(unsigned char nNode, unsigned short nIndex, unsigned char nSubindex);

    const int m_nCanPort;
    const SFaultSettings m_oFaults;
    CGatewayClock m_oClock;
    mutable CKelMutex m_oMutex; // guards everything below
    SCanPortSettings m_oSettings;
    // Object dictionaries of the simulated CANopen nodes, filled by SDO writes.
    std::map<unsigned int, std::string> m_aoObjects;
};

} // namespace GatewaySim

#endif
