// The command model of one simulated aWire programmer: a flash memory held
// in RAM, a user page and the programmer's configuration. Block writes are
// confirmed at once and completed later, when CompleteOldest is called:
// that yields the write-status indications of the block (in progress, then
// finished or failed) and puts its bytes into the flash. It does no I/O.
#ifndef GATEWAY_SIM_AWIRE_PORT_MODEL_H
#define GATEWAY_SIM_AWIRE_PORT_MODEL_H

#include "KelPayload.h"
#include "OrvaneMsg.h"
#include "libKelMutex.h"

#include <cstddef>
#include <deque>
#include <string>
#include <vector>

namespace GatewaySim
{

struct SAWireSettings
{
    unsigned int nFlashSize = 0x200000; // bytes of flash from address 0, erased to 0xFF
    unsigned int nPageSize = 512;       // reported by GET_CONFIG until SET_CONFIG changes it
    unsigned int nUserPageSize = 512;
    int nFailBlock = -1;           // index (from 0) of the block write that fails; -1: none
    unsigned char nFailStatus = 5; // progress value reported for the failing block
};

struct SAWireOutcome
{
    bool bConfirm = false; // false: the telegram was no good request, nothing is answered
    COrvaneMsg oConfirmation;
};

class CAWirePortModel
{
public:
    explicit CAWirePortModel(const SAWireSettings& oSettings);

    CAWirePortModel(const CAWirePortModel&) = delete;
    CAWirePortModel& operator=(const CAWirePortModel&) = delete;

    // Executes one request; thread-safe.
    SAWireOutcome Handle(const COrvaneMsg& oRequest);
    // Completes the oldest pending block write: its indications, in order.
    // Empty when nothing is pending.
    std::vector<COrvaneMsg> CompleteOldest();

    std::size_t PendingWrites() const;
    // Most block writes that were pending at once, the new one included.
    std::size_t MaxPendingWrites() const;
    // Lengths of the block writes received, in order.
    std::vector<unsigned int> WriteLengths() const;
    // A copy of the flash bytes [nAddress, nAddress + nCount).
    std::string Flash(unsigned int nAddress, std::size_t nCount) const;

private:
    struct SPendingWrite
    {
        short nId;
        bool bUserPage;
        unsigned int nAddress;
        std::string sData;
        bool bFail;
    };

    using FHandler = unsigned char (CAWirePortModel::*)(const COrvaneMsg& oRequest, const CKelPayloadReader& oIn,
                                                        CKelPayloadWriter& oOut);
    struct SCommandEntry
    {
        unsigned short nCode;
        unsigned short nMinPayload;
        unsigned short nMaxPayload;
        FHandler pfHandler;
    };
    static const SCommandEntry s_aoCommands[];

    unsigned char WriteBlock(const COrvaneMsg&, const CKelPayloadReader&, CKelPayloadWriter&);
    unsigned char WriteUserPage(const COrvaneMsg&, const CKelPayloadReader&, CKelPayloadWriter&);
    unsigned char Erase(const COrvaneMsg&, const CKelPayloadReader&, CKelPayloadWriter&);
    unsigned char Read(const COrvaneMsg&, const CKelPayloadReader&, CKelPayloadWriter&);
    unsigned char EraseUserPage(const COrvaneMsg&, const CKelPayloadReader&, CKelPayloadWriter&);
    unsigned char SetConfig(const COrvaneMsg&, const CKelPayloadReader&, CKelPayloadWriter&);
    unsigned char GetConfig(const COrvaneMsg&, const CKelPayloadReader&, CKelPayloadWriter&);
    unsigned char QueueWrite(const COrvaneMsg& oRequest, const CKelPayloadReader& oIn, bool bUserPage);

    const SAWireSettings m_oSettings;
    mutable CKelMutex m_oMutex; // guards everything below
    std::string m_sFlash;
    std::string m_sUserPage;
    unsigned int m_anConfig[4];
    std::string m_sConfigText;
    std::deque<SPendingWrite> m_aoPending;
    std::size_t m_nMaxPending = 0;
    int m_nWrites = 0;
    std::vector<unsigned int> m_anWriteLengths;
};

} // namespace GatewaySim

#endif
