// COrvaneClientAWire: the client of an aWire programmer port. It reads,
// erases and writes flash blocks and the user page, reads and sets the
// programmer's configuration, and writes a whole hex file in the background
// with CWriteFileThread.
//
// Block writes are confirmed at once and completed later: the programmer
// reports each block's progress in write-status indications, which the
// client files in a progress map under the write request's message ID.
#ifndef ORVANE_CLIENT_AWIRE_H
#define ORVANE_CLIENT_AWIRE_H

#include "OrvaneClient.h"
#include "OrvaneHexfile.h"
#include "libKelThread.h"

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <string>

namespace Progress
{
enum EProgress : unsigned char
{
    eFinished = 0,
    eInProgress = 1
    // any other value: the block failed with that status
};
}

namespace FileStep
{
enum EFileStep : int
{
    eFailed = -1,
    ePrepared = 0,
    eWriting = 1,
    eVerifying = 2,
    eDone = 3
};
}

struct SWriteBlockProgress
{
    Progress::EProgress m_nProgress;
    unsigned short m_nBlockLength;
    unsigned short m_nWritten;
};

class COrvaneClientAWire;

// Writes the image of one hex file through its client: at most two blocks
// outstanding, followed through the client's progress map, then read back
// and compared.
class CWriteFileThread : public CKelThread
{
public:
    // Loads the file; a load failure leaves the step at -1.
    CWriteFileThread(COrvaneClientAWire& oClient, const std::string& sFileName);
    // Asks the thread to end and waits for it.
    ~CWriteFileThread() override;

    FileStep::EFileStep GetStep() const { return m_nStep.load(); }
    unsigned int GetTotal() const { return m_nTotal; }
    unsigned int GetFinished() const { return m_nFinished.load(); }
    unsigned int GetInProgress() const { return m_nInProgress.load(); }
    unsigned int GetVerified() const { return m_nVerified.load(); }

    // Chunk size for a page size: the largest multiple of it not above
    // 32768, or 32768 when the page is larger.
    static unsigned int ChunkSize(unsigned int nPageSize);
    // Length of the chunk that starts at nAddress with nLeft bytes of its
    // block left: the first chunk of a block ends on a chunk boundary.
    static unsigned int ChunkLength(unsigned int nChunkSize, unsigned int nAddress, unsigned int nLeft, bool bFirst);

protected:
    void Run() override;

private:
    void WriteData();
    void UpdateStatus();
    void VerifyData();
    // True once termination was requested.
    bool Stopping();
    // Sleeps 1 ms and then updates the status.
    void Poll();

    COrvaneClientAWire& m_roClient;
    std::atomic<FileStep::EFileStep> m_nStep;
    COrvaneHexfile m_oHexfile;
    unsigned int m_nTotal;
    std::atomic<unsigned int> m_nFinished;
    std::atomic<unsigned int> m_nInProgress;
    std::atomic<unsigned int> m_nVerified;
    std::deque<short> m_anSent; // writing thread only
    bool m_bStopping = false;   // writing thread only
};

class COrvaneClientAWire : public COrvaneClient
{
public:
    explicit COrvaneClientAWire(int nTimeout);
    ~COrvaneClientAWire() override;

    // Stops a file being written, then disconnects.
    int Close() override;

    // Refused with 0xE21 while a file is being written. nId: the message ID
    // under which the block's progress is filed.
    int WriteBlock(unsigned int nAddress, unsigned short nLength, const char* pcData, short& nId);
    int WriteUserPage(unsigned int nAddress, unsigned short nLength, const char* pcData, short& nId);
    int Erase(unsigned short nBlock);
    // At most nLength bytes into pcBuffer; nReceived: their number.
    int Read(unsigned int nAddress, unsigned short nLength, char* pcBuffer, unsigned short& nReceived);
    int EraseUserPage();
    // The text is sent with at most 255 characters.
    int SetConfig(unsigned int nValue1, unsigned int nValue2, unsigned int nPageSize, unsigned int nValue4,
                  const std::string& sText);
    // Also keeps the page size for WriteFile.
    int GetConfig(unsigned int& nValue1, unsigned int& nValue2, unsigned int& nPageSize, unsigned int& nValue4,
                  std::string& sText);
    // Reads the range back and compares: 0 all equal, 255 at the first
    // difference, or the failing read's result.
    int Verify(unsigned int nAddress, unsigned short nLength, const char* pcData);
    // 255 when no entry exists for nId; a finished entry is removed when
    // reported.
    int GetWriteBlockStatus(short nId, Progress::EProgress& nProgress, unsigned short& nBlockLength,
                            unsigned short& nWritten);
    // Starts writing the file in the background (nothing when a file is
    // already being written); reads the page size first when unknown.
    int WriteFile(const std::string& sFileName);
    // 255 when no file is being written. Once the step reported is 3 or -1
    // the writer is gone.
    int GetWriteFileStatus(FileStep::EFileStep& nStep, unsigned char& nPercent);

    unsigned int GetPageSize() const { return m_nPageSize.load(); }

    // Status polls of the file writers of this client, and the time they
    // spent sleeping in them, over every file written: tells whether the
    // 1 ms poll limits the write rate.
    unsigned long long GetFilePolls() const { return m_nFilePolls.load(); }
    unsigned long long GetFilePollSleepMicros() const { return m_nFilePollMicros.load(); }

    bool DataIndRespond(COrvaneMsg* poMsg) override;

protected:
    // Ends the file writer, if any, and waits for its thread. A derived
    // client whose SendMsg the writer uses calls it in its destructor.
    void StopFileWriter();

private:
    friend class CWriteFileThread;

    bool IsWritingFile();
    // The block writes without the refusal, also used by the writer.
    int WriteBlockInternal(unsigned short nCmdCode, const char* pcName, unsigned int nAddress, unsigned short nLength,
                           const char* pcData, short& nId);

    CKelMutex m_oProgressMutex; // guards m_aoProgress
    std::map<short, SWriteBlockProgress> m_aoProgress;
    CKelMutex m_oThreadMutex; // guards m_poWriteThread
    std::unique_ptr<CWriteFileThread> m_poWriteThread;
    std::atomic<unsigned int> m_nPageSize;
    std::atomic<unsigned long long> m_nFilePolls{0};
    std::atomic<unsigned long long> m_nFilePollMicros{0};
};

#endif
