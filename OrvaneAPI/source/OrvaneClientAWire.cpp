#include "OrvaneClientAWire.h"

#include "KelPayload.h"
#include "OrvaneProtocol.h"

#include <algorithm>
#include <chrono>
#include <cstring>

using namespace OrvaneAWire;

namespace
{

constexpr unsigned int MAX_CHUNK = 32768;
constexpr int RESULT_NOT_FOUND = 255;

std::string BlockPayload(unsigned int nAddress, unsigned short nLength, const char* pcData)
{
    return CKelPayloadWriter(6 + nLength).U32(nAddress).U16(nLength).Bytes(pcData, nLength).Data();
}

} // namespace

// ---------------------------------------------------------------------------
// CWriteFileThread

CWriteFileThread::CWriteFileThread(COrvaneClientAWire& oClient, const std::string& sFileName)
    : m_roClient(oClient), m_nStep(FileStep::ePrepared), m_nTotal(0), m_nFinished(0), m_nInProgress(0), m_nVerified(0)
{
    if (m_oHexfile.LoadFile(sFileName.c_str(), COrvaneHexfile::eDetect) != 0)
    {
        m_nStep = FileStep::eFailed;
        return;
    }
    m_nTotal = static_cast<unsigned int>(m_oHexfile.GetTotalBytes());
}

CWriteFileThread::~CWriteFileThread()
{
    // Run uses this object's members: stop it before they go.
    Terminate();
}

unsigned int CWriteFileThread::ChunkSize(unsigned int nPageSize)
{
    const unsigned int nChunk = nPageSize == 0 ? 0 : MAX_CHUNK / nPageSize * nPageSize;
    return nChunk == 0 ? MAX_CHUNK : nChunk;
}

unsigned int CWriteFileThread::ChunkLength(unsigned int nChunkSize, unsigned int nAddress, unsigned int nLeft,
                                           bool bFirst)
{
    unsigned int nLength = nChunkSize;
    if (bFirst && nAddress % nChunkSize != 0)
        nLength = nChunkSize - nAddress % nChunkSize;
    return std::min(nLength, nLeft);
}

void CWriteFileThread::Run()
{
    if (m_nStep == FileStep::eFailed)
        return;
    m_nStep = FileStep::eWriting;
    WriteData();
    VerifyData();
}

bool CWriteFileThread::Stopping()
{
    // The termination event is consumed when seen: remember it.
    if (!m_bStopping && IsTerminationRequested())
        m_bStopping = true;
    return m_bStopping;
}

void CWriteFileThread::Poll()
{
    // Two clock reads per millisecond slept: too little to matter.
    const auto oStart = std::chrono::steady_clock::now();
    CKelThread::Sleep(0, 1);
    const auto nSlept = std::chrono::steady_clock::now() - oStart;
    m_roClient.m_nFilePollMicros +=
        static_cast<unsigned long long>(std::chrono::duration_cast<std::chrono::microseconds>(nSlept).count());
    ++m_roClient.m_nFilePolls;
    UpdateStatus();
}

void CWriteFileThread::WriteData()
{
    const unsigned int nChunk = ChunkSize(m_roClient.GetPageSize());
    for (const SMemoryBlock* poBlock : m_oHexfile.GetMemoryBlocks())
    {
        unsigned int nAddress = poBlock->m_nStartAddress;
        const char* pcData = reinterpret_cast<const char*>(poBlock->m_acData.data());
        unsigned int nLeft = poBlock->m_nSize;
        bool bFirst = true;
        while (nLeft > 0 && m_nStep == FileStep::eWriting && !Stopping())
        {
            // Never more than two blocks outstanding, across memory blocks
            // too: wait for room before each send.
            while (!Stopping() && m_anSent.size() >= 2 && m_nStep == FileStep::eWriting)
                Poll();
            if (m_nStep != FileStep::eWriting || Stopping())
                return;
            const unsigned int nLength = ChunkLength(nChunk, nAddress, nLeft, bFirst);
            short nId = 0;
            if (m_roClient.WriteBlockInternal(eCmdWriteBlock, "WRITE BLOCK", nAddress,
                                              static_cast<unsigned short>(nLength), pcData, nId) != ORVANE_OK)
            {
                m_nStep = FileStep::eFailed;
                return;
            }
            m_anSent.push_back(nId);
            nAddress += nLength;
            pcData += nLength;
            nLeft -= nLength;
            bFirst = false;
        }
    }
    while (m_nStep == FileStep::eWriting && !Stopping())
    {
        if (m_anSent.empty())
        {
            m_nStep = FileStep::eVerifying;
            return;
        }
        Poll();
    }
}

void CWriteFileThread::UpdateStatus()
{
    while (!m_anSent.empty())
    {
        Progress::EProgress nProgress = Progress::eInProgress;
        unsigned short nLength = 0;
        unsigned short nWritten = 0;
        if (m_roClient.GetWriteBlockStatus(m_anSent.front(), nProgress, nLength, nWritten) != ORVANE_OK)
        {
            m_anSent.pop_front();
            continue;
        }
        if (nProgress == Progress::eFinished)
        {
            m_nFinished += nLength;
            m_nInProgress = 0;
            m_anSent.pop_front();
            continue;
        }
        if (nProgress == Progress::eInProgress)
            m_nInProgress = nWritten;
        else
            m_nStep = FileStep::eFailed;
        return;
    }
}

void CWriteFileThread::VerifyData()
{
    if (m_nStep != FileStep::eVerifying)
        return;
    for (const SMemoryBlock* poBlock : m_oHexfile.GetMemoryBlocks())
    {
        const char* pcData = reinterpret_cast<const char*>(poBlock->m_acData.data());
        for (unsigned int nDone = 0; nDone < poBlock->m_nSize;)
        {
            if (Stopping())
                return;
            const unsigned int nPiece = std::min(MAX_CHUNK, poBlock->m_nSize - nDone);
            if (m_roClient.Verify(poBlock->m_nStartAddress + nDone, static_cast<unsigned short>(nPiece),
                                  pcData + nDone) != ORVANE_OK)
            {
                m_nStep = FileStep::eFailed;
                return;
            }
            nDone += nPiece;
            m_nVerified += nPiece;
        }
    }
    if (m_nStep == FileStep::eVerifying)
        m_nStep = FileStep::eDone;
}

// ---------------------------------------------------------------------------
// COrvaneClientAWire

COrvaneClientAWire::COrvaneClientAWire(int nTimeout)
    : COrvaneClient(eOrvaneAWire, static_cast<unsigned int>(nTimeout)), m_nPageSize(0)
{
}

COrvaneClientAWire::~COrvaneClientAWire()
{
    ShutdownConnection();
    StopFileWriter();
}

int COrvaneClientAWire::Close()
{
    StopFileWriter();
    return COrvaneClient::Close();
}

void COrvaneClientAWire::StopFileWriter()
{
    std::unique_ptr<CWriteFileThread> poThread;
    {
        CKelLockGuard oLock(m_oThreadMutex);
        poThread = std::move(m_poWriteThread);
    }
    // Destroyed outside the lock: its thread is joined, and a status poll
    // must not wait for that.
    poThread.reset();
}

bool COrvaneClientAWire::IsWritingFile()
{
    CKelLockGuard oLock(m_oThreadMutex);
    return m_poWriteThread != nullptr;
}

int COrvaneClientAWire::WriteBlockInternal(unsigned short nCmdCode, const char* pcName, unsigned int nAddress,
                                           unsigned short nLength, const char* pcData, short& nId)
{
    if (pcData == nullptr && nLength > 0)
        return ORVANE_ERR_INVALID_PARAMETER;
    nId = NextTelegramID();
    // Filed before sending, so that an early indication finds its entry.
    {
        CKelLockGuard oLock(m_oProgressMutex);
        m_aoProgress[nId] = SWriteBlockProgress{Progress::eInProgress, nLength, 0};
    }
    if (IsTraceActive(TRACE_LEVEL_REQUEST))
        Trace(TRACE_LEVEL_REQUEST, __LINE__, RequestTraceText(pcName));
    const std::string sPayload = BlockPayload(nAddress, nLength, pcData);
    const COrvaneMsg oRequest(nCmdCode, nId, sPayload.data(), static_cast<unsigned short>(sPayload.size()));
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = SendAndWait(oRequest, oCnf, nullptr);
    return nRet == ORVANE_OK ? GetCnfRetCode(*oCnf) : nRet;
}

int COrvaneClientAWire::WriteBlock(unsigned int nAddress, unsigned short nLength, const char* pcData, short& nId)
{
    if (IsWritingFile())
        return (eOrvaneAWire << 8) | RESULT_TRANSFER_IN_PROGRESS;
    return WriteBlockInternal(eCmdWriteBlock, "WRITE BLOCK", nAddress, nLength, pcData, nId);
}

int COrvaneClientAWire::WriteUserPage(unsigned int nAddress, unsigned short nLength, const char* pcData, short& nId)
{
    if (IsWritingFile())
        return (eOrvaneAWire << 8) | RESULT_TRANSFER_IN_PROGRESS;
    return WriteBlockInternal(eCmdWriteUserPage, "WRITE USER PAGE", nAddress, nLength, pcData, nId);
}

int COrvaneClientAWire::Erase(unsigned short nBlock)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(eCmdErase, CKelPayloadWriter().U16(nBlock).Data(), "ERASE BLOCK", oCnf);
}

int COrvaneClientAWire::Read(unsigned int nAddress, unsigned short nLength, char* pcBuffer, unsigned short& nReceived)
{
    if (pcBuffer == nullptr && nLength > 0)
        return ORVANE_ERR_INVALID_PARAMETER;
    std::unique_ptr<COrvaneMsg> oCnf;
    const int nRet = Request(eCmdRead, CKelPayloadWriter().U32(nAddress).U16(nLength).Data(), "READ BLOCK", oCnf);
    if (nRet != ORVANE_OK)
        return nRet;
    const std::string& sData = oCnf->GetData();
    const std::size_t nCount = std::min<std::size_t>(sData.size() - 1, nLength);
    if (nCount > 0)
        std::memcpy(pcBuffer, sData.data() + 1, nCount);
    nReceived = static_cast<unsigned short>(nCount);
    return ORVANE_OK;
}

int COrvaneClientAWire::EraseUserPage()
{
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(eCmdEraseUserPage, std::string(), "ERASE USER PAGE", oCnf);
}

int COrvaneClientAWire::SetConfig(unsigned int nValue1, unsigned int nValue2, unsigned int nPageSize,
                                  unsigned int nValue4, const std::string& sText)
{
    const std::size_t nText = std::min<std::size_t>(sText.size(), 255);
    const std::string sPayload = CKelPayloadWriter(CONFIG_HEADER + nText)
                                     .U32(nValue1)
                                     .U32(nValue2)
                                     .U32(nPageSize)
                                     .U32(nValue4)
                                     .U8(static_cast<unsigned char>(nText))
                                     .Bytes(sText.data(), nText)
                                     .Data();
    std::unique_ptr<COrvaneMsg> oCnf;
    return Request(eCmdSetConfig, sPayload, "SET CONFIG", oCnf);
}

int COrvaneClientAWire::GetConfig(unsigned int& nValue1, unsigned int& nValue2, unsigned int& nPageSize,
                                  unsigned int& nValue4, std::string& sText)
{
    std::unique_ptr<COrvaneMsg> oCnf;
    // The get request is traced with the set request's name.
    const int nRet = Request(eCmdGetConfig, std::string(), "SET CONFIG", oCnf);
    if (nRet != ORVANE_OK || oCnf->GetData().size() <= CONFIG_HEADER)
        return nRet;
    const CKelPayloadReader oData(oCnf->GetData());
    nValue1 = oData.U32(1);
    nValue2 = oData.U32(5);
    nPageSize = oData.U32(9);
    nValue4 = oData.U32(13);
    const std::size_t nText = oData.U8(17);
    if (18 + nText <= oData.Size())
        sText = oData.Bytes(18, nText);
    m_nPageSize = nPageSize;
    return nRet;
}

int COrvaneClientAWire::Verify(unsigned int nAddress, unsigned short nLength, const char* pcData)
{
    if (pcData == nullptr && nLength > 0)
        return ORVANE_ERR_INVALID_PARAMETER;
    std::string sBuffer(nLength, '\0');
    unsigned int nDone = 0;
    while (nDone < nLength)
    {
        unsigned short nReceived = 0;
        const int nRet =
            Read(nAddress + nDone, static_cast<unsigned short>(nLength - nDone), &sBuffer[nDone], nReceived);
        if (nRet != ORVANE_OK)
            return nRet;
        // A programmer may answer with fewer bytes: read on from there, but
        // an empty answer would never end.
        if (nReceived == 0)
            return RESULT_NOT_FOUND;
        if (std::memcmp(sBuffer.data() + nDone, pcData + nDone, nReceived) != 0)
            return RESULT_NOT_FOUND;
        nDone += nReceived;
    }
    return ORVANE_OK;
}

int COrvaneClientAWire::GetWriteBlockStatus(short nId, Progress::EProgress& nProgress, unsigned short& nBlockLength,
                                            unsigned short& nWritten)
{
    CKelLockGuard oLock(m_oProgressMutex);
    const auto oEntry = m_aoProgress.find(nId);
    if (oEntry == m_aoProgress.end())
        return RESULT_NOT_FOUND;
    nProgress = oEntry->second.m_nProgress;
    nBlockLength = oEntry->second.m_nBlockLength;
    nWritten = oEntry->second.m_nWritten;
    if (nProgress == Progress::eFinished)
        m_aoProgress.erase(oEntry);
    return ORVANE_OK;
}

int COrvaneClientAWire::WriteFile(const std::string& sFileName)
{
    if (IsWritingFile())
        return ORVANE_OK;
    if (GetPageSize() == 0)
    {
        unsigned int nValue1 = 0, nValue2 = 0, nPageSize = 0, nValue4 = 0;
        std::string sText;
        const int nRet = GetConfig(nValue1, nValue2, nPageSize, nValue4, sText);
        if (nRet != ORVANE_OK)
            return nRet;
    }
    // The file is loaded before the lock is taken: status polls and single
    // writes of other threads need not wait for that.
    std::unique_ptr<CWriteFileThread> poThread(new CWriteFileThread(*this, sFileName));
    CKelLockGuard oLock(m_oThreadMutex);
    if (m_poWriteThread)
        return ORVANE_OK;
    if (!poThread->Start())
        return RESULT_NOT_FOUND;
    m_poWriteThread = std::move(poThread);
    return ORVANE_OK;
}

int COrvaneClientAWire::GetWriteFileStatus(FileStep::EFileStep& nStep, unsigned char& nPercent)
{
    std::unique_ptr<CWriteFileThread> poEnded;
    CKelLockGuard oLock(m_oThreadMutex);
    if (!m_poWriteThread)
        return RESULT_NOT_FOUND;
    const CWriteFileThread& oThread = *m_poWriteThread;
    nStep = oThread.GetStep();
    const unsigned long long nTotal = oThread.GetTotal();
    switch (nStep)
    {
    case FileStep::eWriting:
        nPercent = static_cast<unsigned char>(
            nTotal == 0 ? 0 : (oThread.GetFinished() + oThread.GetInProgress()) * 100ULL / nTotal);
        break;
    case FileStep::eVerifying:
        nPercent = static_cast<unsigned char>(nTotal == 0 ? 0 : oThread.GetVerified() * 100ULL / nTotal);
        break;
    case FileStep::eDone:
    case FileStep::eFailed:
        nPercent = 100;
        // The caller has seen the end: the writer goes.
        poEnded = std::move(m_poWriteThread);
        break;
    default:
        nPercent = 0;
        break;
    }
    return ORVANE_OK;
}

bool COrvaneClientAWire::DataIndRespond(COrvaneMsg* poMsg)
{
    if (poMsg->GetCmdCode() != eIndWriteStatus)
        return false;
    std::unique_ptr<COrvaneMsg> oMsg(poMsg);
    if (IsTraceActive(TRACE_LEVEL_INDICATION))
        Trace(TRACE_LEVEL_INDICATION, __LINE__, "aWire Write Status Indication.");
    const CKelPayloadReader oData(oMsg->GetData());
    if (oData.Size() < WRITE_STATUS_SIZE)
    {
        Trace(0x01, __LINE__, "Received incomplete aWire Write Status Indication.");
        return true;
    }
    const short nId = oData.S16(0);
    bool bKnown = false;
    {
        CKelLockGuard oLock(m_oProgressMutex);
        const auto oEntry = m_aoProgress.find(nId);
        if (oEntry != m_aoProgress.end())
        {
            oEntry->second.m_nProgress = static_cast<Progress::EProgress>(oData.U8(2));
            oEntry->second.m_nWritten = oData.U16(3);
            bKnown = true;
        }
    }
    if (!bKnown)
        Trace(TRACE_LEVEL_ERROR, __LINE__, "Received aWire Write Status Indication for unknown block.");
    return true;
}
