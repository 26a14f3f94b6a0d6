#include "AWirePortModel.h"

#include "OrvaneProtocol.h"

#include <algorithm>

using namespace OrvaneAWire;

namespace GatewaySim
{

namespace
{

constexpr unsigned char ERASED = 0xFF;
// Longest read answer that still fits a telegram after the result byte.
constexpr unsigned int MAX_READ = 0xFFFF - COrvaneMsg::MIN_TELEGRAM_SIZE - 1;
constexpr unsigned short BLOCK_HEADER = 6; // u32 address, u16 length

COrvaneMsg WriteStatus(short nId, unsigned char nProgress, unsigned short nWritten)
{
    const std::string sPayload = CKelPayloadWriter(WRITE_STATUS_SIZE).S16(nId).U8(nProgress).U16(nWritten).Data();
    return COrvaneMsg(eIndWriteStatus, 0, sPayload.data(), static_cast<unsigned short>(sPayload.size()));
}

} // namespace

const CAWirePortModel::SCommandEntry CAWirePortModel::s_aoCommands[] = {
    {eCmdWriteBlock, BLOCK_HEADER, 0xFFFF, &CAWirePortModel::WriteBlock},
    {eCmdErase, 2, 2, &CAWirePortModel::Erase},
    {eCmdRead, 6, 6, &CAWirePortModel::Read},
    {eCmdWriteUserPage, BLOCK_HEADER, 0xFFFF, &CAWirePortModel::WriteUserPage},
    {eCmdEraseUserPage, 0, 0, &CAWirePortModel::EraseUserPage},
    {eCmdSetConfig, CONFIG_HEADER, CONFIG_HEADER + 255, &CAWirePortModel::SetConfig},
    {eCmdGetConfig, 0, 0, &CAWirePortModel::GetConfig},
};

CAWirePortModel::CAWirePortModel(const SAWireSettings& oSettings)
    : m_oSettings(oSettings), m_sFlash(oSettings.nFlashSize, static_cast<char>(ERASED)),
      m_sUserPage(oSettings.nUserPageSize, static_cast<char>(ERASED)), m_anConfig{0, 0, oSettings.nPageSize, 0}
{
}

SAWireOutcome CAWirePortModel::Handle(const COrvaneMsg& oRequest)
{
    SAWireOutcome oOutcome;
    if (oRequest.IsConfirmation())
        return oOutcome;
    const SCommandEntry* poEntry = nullptr;
    for (const SCommandEntry& oEntry : s_aoCommands)
        if (oEntry.nCode == oRequest.GetCmdCode())
            poEntry = &oEntry;
    const std::string& sData = oRequest.GetData();
    if (poEntry == nullptr || sData.size() < poEntry->nMinPayload || sData.size() > poEntry->nMaxPayload)
        return oOutcome;

    const CKelPayloadReader oIn(sData);
    CKelPayloadWriter oOut;
    unsigned char nResult;
    {
        CKelLockGuard oLock(m_oMutex);
        nResult = (this->*poEntry->pfHandler)(oRequest, oIn, oOut);
    }
    const std::string sPayload = CKelPayloadWriter(1 + oOut.Size()).U8(nResult).Bytes(oOut.Data()).Data();
    oOutcome.bConfirm = true;
    oOutcome.oConfirmation.SetMessage(oRequest.GetCmdCode() | COrvaneMsg::CONFIRMATION_FLAG, oRequest.GetMsgID(),
                                      sPayload.data(), static_cast<unsigned short>(sPayload.size()));
    return oOutcome;
}

unsigned char CAWirePortModel::QueueWrite(const COrvaneMsg& oRequest, const CKelPayloadReader& oIn, bool bUserPage)
{
    const unsigned int nAddress = oIn.U32(0);
    const unsigned short nLength = oIn.U16(4);
    const std::string& rsMemory = bUserPage ? m_sUserPage : m_sFlash;
    if (oIn.Size() != static_cast<std::size_t>(BLOCK_HEADER) + nLength || nAddress > rsMemory.size() ||
        nLength > rsMemory.size() - nAddress)
        return ORVANE_RESULT_COMMAND_FAILED;
    m_aoPending.push_back(SPendingWrite{oRequest.GetMsgID(), bUserPage, nAddress, oIn.Bytes(BLOCK_HEADER, nLength),
                                        m_nWrites == m_oSettings.nFailBlock});
    ++m_nWrites;
    m_anWriteLengths.push_back(nLength);
    m_nMaxPending = std::max(m_nMaxPending, m_aoPending.size());
    return ORVANE_RESULT_OK;
}

unsigned char CAWirePortModel::WriteBlock(const COrvaneMsg& oRequest, const CKelPayloadReader& oIn, CKelPayloadWriter&)
{
    return QueueWrite(oRequest, oIn, false);
}

unsigned char CAWirePortModel::WriteUserPage(const COrvaneMsg& oRequest, const CKelPayloadReader& oIn,
                                             CKelPayloadWriter&)
{
    return QueueWrite(oRequest, oIn, true);
}

unsigned char CAWirePortModel::Erase(const COrvaneMsg&, const CKelPayloadReader& oIn, CKelPayloadWriter&)
{
    // A block is one page of the configured page size.
    const unsigned long long nStart = static_cast<unsigned long long>(oIn.U16(0)) * m_anConfig[2];
    if (m_anConfig[2] == 0 || nStart >= m_sFlash.size())
        return ORVANE_RESULT_COMMAND_FAILED;
    const std::size_t nCount = std::min<std::size_t>(m_anConfig[2], m_sFlash.size() - nStart);
    m_sFlash.replace(nStart, nCount, nCount, static_cast<char>(ERASED));
    return ORVANE_RESULT_OK;
}

unsigned char CAWirePortModel::Read(const COrvaneMsg&, const CKelPayloadReader& oIn, CKelPayloadWriter& oOut)
{
    const unsigned int nAddress = oIn.U32(0);
    if (nAddress >= m_sFlash.size())
        return RESULT_READ_FAILED;
    const std::size_t nCount = std::min<std::size_t>({oIn.U16(4), MAX_READ, m_sFlash.size() - nAddress});
    oOut.Bytes(m_sFlash.data() + nAddress, nCount);
    return ORVANE_RESULT_OK;
}

unsigned char CAWirePortModel::EraseUserPage(const COrvaneMsg&, const CKelPayloadReader&, CKelPayloadWriter&)
{
    m_sUserPage.assign(m_sUserPage.size(), static_cast<char>(ERASED));
    return ORVANE_RESULT_OK;
}

unsigned char CAWirePortModel::SetConfig(const COrvaneMsg&, const CKelPayloadReader& oIn, CKelPayloadWriter&)
{
    const std::size_t nText = oIn.U8(16);
    if (oIn.Size() != CONFIG_HEADER + nText)
        return ORVANE_RESULT_COMMAND_FAILED;
    for (int i = 0; i < 4; ++i)
        m_anConfig[i] = oIn.U32(4 * i);
    m_sConfigText = oIn.Bytes(CONFIG_HEADER, nText);
    return ORVANE_RESULT_OK;
}

unsigned char CAWirePortModel::GetConfig(const COrvaneMsg&, const CKelPayloadReader&, CKelPayloadWriter& oOut)
{
    for (unsigned int nValue : m_anConfig)
        oOut.U32(nValue);
    oOut.U8(static_cast<unsigned char>(m_sConfigText.size())).Bytes(m_sConfigText);
    return ORVANE_RESULT_OK;
}

std::vector<COrvaneMsg> CAWirePortModel::CompleteOldest()
{
    std::vector<COrvaneMsg> aoIndications;
    CKelLockGuard oLock(m_oMutex);
    if (m_aoPending.empty())
        return aoIndications;
    const SPendingWrite oWrite = std::move(m_aoPending.front());
    m_aoPending.pop_front();
    const unsigned short nLength = static_cast<unsigned short>(oWrite.sData.size());
    aoIndications.push_back(WriteStatus(oWrite.nId, PROGRESS_RUNNING, nLength / 2));
    if (oWrite.bFail)
    {
        aoIndications.push_back(WriteStatus(oWrite.nId, m_oSettings.nFailStatus, nLength / 2));
        return aoIndications;
    }
    std::string& rsMemory = oWrite.bUserPage ? m_sUserPage : m_sFlash;
    rsMemory.replace(oWrite.nAddress, nLength, oWrite.sData);
    aoIndications.push_back(WriteStatus(oWrite.nId, PROGRESS_FINISHED, nLength));
    return aoIndications;
}

std::size_t CAWirePortModel::PendingWrites() const
{
    CKelLockGuard oLock(m_oMutex);
    return m_aoPending.size();
}

std::size_t CAWirePortModel::MaxPendingWrites() const
{
    CKelLockGuard oLock(m_oMutex);
    return m_nMaxPending;
}

std::vector<unsigned int> CAWirePortModel::WriteLengths() const
{
    CKelLockGuard oLock(m_oMutex);
    return m_anWriteLengths;
}

std::string CAWirePortModel::Flash(unsigned int nAddress, std::size_t nCount) const
{
    CKelLockGuard oLock(m_oMutex);
    return nAddress >= m_sFlash.size() ? std::string() : m_sFlash.substr(nAddress, nCount);
}

} // namespace GatewaySim
