// A firmware image as a set of memory blocks, read from and written to Intel
// hex, Motorola S-record and plain binary files.
//
// Loading reads the file line by line into a sparse byte map (CByteMap) and
// turns the map's runs of bytes into memory blocks. The block list is kept in
// address order, its blocks neither overlap nor touch: every edit merges.
// Nothing here talks to a device; the aWire client programs such an image.
#ifndef ORVANE_HEXFILE_H
#define ORVANE_HEXFILE_H

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <utility>
#include <vector>

// Results of loading, saving and editing an image (0 = success). The line
// codes 144 to 146 are also the results of the line analysers.
constexpr int HEXFILE_INVALID_RECORD_TYPE = 144;
constexpr int HEXFILE_INVALID_FORMAT = 145;
constexpr int HEXFILE_INVALID_CHECKSUM = 146;
constexpr int HEXFILE_NO_DATA = 147;           // the input is empty
constexpr int HEXFILE_FILE_ERROR = 148;        // a file could not be opened, read or written
constexpr int HEXFILE_NOT_SUPPORTED = 149;     // unknown file type, or the form cannot hold the image
constexpr int HEXFILE_INVALID_PARAMETER = 150; // a block or buffer the image cannot take
constexpr int HEXFILE_BUFFER_TOO_SMALL = 151;  // the dump did not fit the caller's buffer

// Contiguous bytes of the image. m_nSize always equals m_acData.size().
struct SMemoryBlock
{
    // Copies nSize bytes from pcData (a null pointer gives an empty block).
    SMemoryBlock(uint32_t nStartAddress, const unsigned char* pcData, uint32_t nSize);

    // Equal when address, size and every byte are equal.
    bool operator==(const SMemoryBlock& oOther) const;
    bool operator!=(const SMemoryBlock& oOther) const { return !(*this == oOther); }

    uint32_t m_nStartAddress;
    uint32_t m_nSize;
    std::vector<unsigned char> m_acData;
};

// The sparse byte map used while a file is read: pages of PAGE_SIZE
// (byte, present) pairs keyed by the page's first address.
class CByteMap
{
public:
    static constexpr uint32_t PAGE_SIZE = 256;

    // Stores one byte (a later value for the same address wins).
    void SetByte(uint32_t nAddress, unsigned char nValue);
    void Clear();
    // Appends one block per run of present bytes, in address order.
    void ToMemoryBlocks(std::vector<SMemoryBlock*>& aoBlocks) const;

private:
    std::map<uint32_t, std::vector<std::pair<unsigned char, bool>>> m_aoPages;
};

class COrvaneHexfile
{
public:
    // A fixed underlying type: any int a caller passes is an EType, and the
    // functions decide what an unknown one means.
    enum EType : int
    {
        eDetect = 0, // from the first character: ':' Intel, 'S' Motorola, else binary
        eIntel = 1,
        eMotorola = 2,
        eBinary = 3
    };

    COrvaneHexfile();
    ~COrvaneHexfile();
    COrvaneHexfile(const COrvaneHexfile&) = delete;
    COrvaneHexfile& operator=(const COrvaneHexfile&) = delete;

    // Replaces the image with the file's content. 0 on success; otherwise the
    // error message says why: HEXFILE_FILE_ERROR (cannot be opened),
    // HEXFILE_NO_DATA, HEXFILE_NOT_SUPPORTED (unknown type), or the code of
    // the last bad line. After a bad line the image still holds every byte
    // the other lines carried; for a bad checksum also the bad line's bytes,
    // and the message asks whether to ignore the error (the caller decides,
    // ClearMemoryBlocks drops the data).
    int LoadFile(const char* pcName, EType nType = eDetect);
    // Reads lines from oInput into the image (detecting the type for eDetect)
    // and returns 0 or the code of the last bad line. For a binary input it
    // returns 0 at once with GetType() == eBinary: the caller loads the file
    // with LoadFileBinary. Lines are cut at 1024 characters; a trailing
    // carriage return is dropped.
    int AnalizeFile(std::istream& oInput, EType nType);
    // One Intel hex line; nBase is the current extended address. 0, 144, 145
    // or 146. The lowest start address follows the extended address records:
    // the first such record since the program started sets it, later ones
    // only lower it (the first-time flag is process-wide and never reset).
    int AnalizeLineIntel(const std::string& sLine, CByteMap& oMap, uint32_t& nBase);
    // One S-record line: S1/S2/S3 data (checksum not verified), S0/S5/S7/S8/S9
    // skipped. 0, 144 or 145.
    int AnalizeLineMotorola(const std::string& sLine, CByteMap& oMap);
    // Adds the whole file as one block at address 0.
    int LoadFileBinary(const char* pcName);

    // Writes the image: eIntel, eMotorola, any other type binary. A binary
    // image that cannot be written is refused before the file is touched.
    int SaveFile(const char* pcName, EType nType);
    int SaveAsFileIntel(std::ostream& oOutput) const;
    int SaveAsFileMotorola(std::ostream& oOutput) const;
    // Only one block starting at address 0 (and a lowest start address of 0).
    int SaveAsFileBinary(std::ostream& oOutput);

    // Takes ownership of the block, also when it is refused (null, size not
    // matching its data, running past address 0xFFFFFFFF). Its bytes win
    // over bytes already present at the same addresses. An empty block is
    // dropped.
    int AddMemoryBlock(SMemoryBlock* poBlock);
    int AddMemoryBlock(uint32_t nStartAddress, const unsigned char* pcData, uint32_t nSize);
    int SetDataByte(uint32_t nAddress, unsigned char nValue);
    // The byte at nAddress (0-255), -1 when the image holds none there.
    int GetDataByte(uint32_t nAddress) const;
    // Lowest start address and highest byte address from the blocks (0 and
    // 0 for an empty image). Called by every edit, not by loading.
    void RecalcMinMax();
    void ClearMemoryBlocks();

    // "<n / 1024> kbyte" for a whole multiple of 1024, else "<n> byte".
    static std::string GetSizeString(int nBytes);

    // Dump of the 16-byte lines (aligned to 16) that hold image bytes between
    // nAddress and nAddress + nLength, each line ended by '\n'. Lines without
    // any byte of the image are left out.
    std::string MemDump(uint32_t nAddress, uint32_t nLength) const;
    // "0x" + address (8 hex digits) + " ", eight columns "xx " ("-- " where
    // the image has no byte), one blank, eight more, then the bytes as
    // characters ("." when not printable, " " when absent). No line end.
    std::string MemDumpLine(uint32_t nAddress) const;
    // Characters of one MemDumpLine with its line end.
    static uint32_t GetNumberOfBytesNeedForLine();
    // MemDump into pcBuffer, zero-terminated. When the dump does not fit,
    // the buffer holds the whole lines that do and the result is
    // HEXFILE_BUFFER_TOO_SMALL.
    int GetPrintDump(char* pcBuffer, uint32_t nBufferSize, uint32_t nAddress, uint32_t nLength);

    EType GetType() const { return m_nType; }
    uint32_t GetHighestAddress() const { return m_nHighestAddress; }
    uint32_t GetLowestStartAddress() const { return m_nLowestStartAddress; }
    const std::vector<SMemoryBlock*>& GetMemoryBlocks() const { return m_aoMemoryBlocks; }
    const std::string& GetErrorMessage() const { return m_sErrorMessage; }
    const std::string& GetFilename() const { return m_sFilename; }
    uint64_t GetTotalBytes() const;

    // True once any extended address record has been read in this process.
    static bool ExtendedAddressSeen() { return m_bExtendedAddressSeen.load(); }

private:
    // Sets the message to sText followed by the line (NULs made visible).
    int LineError(int nCode, const char* pcText, const std::string& sLine);
    // Merges a non-empty block that does not wrap into the list.
    int MergeBlock(SMemoryBlock* poBlock);
    bool CanSaveBinary() const;
    void RaiseHighestAddress(uint32_t nAddress);

    EType m_nType;
    uint32_t m_nHighestAddress;
    uint32_t m_nLowestStartAddress;
    std::vector<SMemoryBlock*> m_aoMemoryBlocks; // owned, in address order
    std::string m_sErrorMessage;
    std::string m_sFilename;

    static std::atomic<bool> m_bExtendedAddressSeen;
};

#endif // ORVANE_HEXFILE_H
