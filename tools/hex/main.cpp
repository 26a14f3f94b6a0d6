// orvane-hex: lists the memory blocks of a firmware image and converts it
// between Intel hex, Motorola S-record and binary.
#include "HexCommandLine.h"
#include "OrvaneHexfile.h"

#include <cinttypes>
#include <cstdio>
#include <string>

using namespace HexTool;

namespace
{

const char* const PROGRAM = "orvane-hex";

std::string TrimRight(std::string sText)
{
    while (!sText.empty() && (sText.back() == '\n' || sText.back() == ' '))
        sText.pop_back();
    return sText;
}

std::string SizeText(uint64_t nBytes)
{
    std::string sText = std::to_string(nBytes) + " byte";
    if (nBytes != 0 && nBytes % 1024 == 0 && nBytes <= INT32_MAX)
        sText += " (" + COrvaneHexfile::GetSizeString(static_cast<int>(nBytes)) + ")";
    return sText;
}

// Loads the input; reports the model's message on stderr. Bad lines fail the
// load unless the options say to keep the rest of the data.
bool Load(COrvaneHexfile& oImage, const SHexOptions& oOptions)
{
    const std::string& sInput = oOptions.asFiles[0];
    const int nResult = oImage.LoadFile(sInput.c_str(), oOptions.nFrom);
    if (nResult == 0)
        return true;
    const std::string sMessage = TrimRight(oImage.GetErrorMessage());
    if (nResult == HEXFILE_INVALID_CHECKSUM)
    {
        // The model asks whether to keep the data; the option answers.
        std::fprintf(stderr, "%s: %s %s\n", PROGRAM, sMessage.c_str(),
                     oOptions.bIgnoreErrors ? "yes (--ignore-errors)" : "no (--ignore-errors keeps the data)");
    }
    else if (nResult == HEXFILE_INVALID_RECORD_TYPE || nResult == HEXFILE_INVALID_FORMAT)
    {
        std::fprintf(stderr, "%s: %s\n%s: %s: bad lines %s\n", PROGRAM, sMessage.c_str(), PROGRAM, sInput.c_str(),
                     oOptions.bIgnoreErrors ? "left out (--ignore-errors)"
                                            : "(--ignore-errors keeps the data of the other lines)");
    }
    else
    {
        std::fprintf(stderr, "%s: %s\n", PROGRAM, sMessage.c_str());
        return false;
    }
    return oOptions.bIgnoreErrors;
}

int Info(const COrvaneHexfile& oImage)
{
    const auto& aoBlocks = oImage.GetMemoryBlocks();
    std::printf("%s: %s, %zu block%s\n", oImage.GetFilename().c_str(), FormName(oImage.GetType()), aoBlocks.size(),
                aoBlocks.size() == 1 ? "" : "s");
    if (!aoBlocks.empty())
        std::printf("Start       End         Size\n");
    for (const SMemoryBlock* poBlock : aoBlocks)
    {
        std::printf("0x%08" PRIX32 "  0x%08" PRIX32 "  %s\n", poBlock->m_nStartAddress,
                    static_cast<uint32_t>(poBlock->m_nStartAddress + poBlock->m_nSize - 1),
                    SizeText(poBlock->m_nSize).c_str());
    }
    std::printf("Total: %s\n", SizeText(oImage.GetTotalBytes()).c_str());
    return 0;
}

int Convert(COrvaneHexfile& oImage, const SHexOptions& oOptions)
{
    const std::string& sOutput = oOptions.asFiles[1];
    if (oImage.SaveFile(sOutput.c_str(), oOptions.nTo) != 0)
    {
        std::fprintf(stderr, "%s: %s\n", PROGRAM, TrimRight(oImage.GetErrorMessage()).c_str());
        return 1;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    SHexOptions oOptions;
    std::string sError;
    switch (ParseHexCommandLine(argc, argv, oOptions, sError))
    {
    case EParseResult::eHelp:
        std::fputs(HexHelpText(PROGRAM).c_str(), stdout);
        return 0;
    case EParseResult::eError:
        std::fprintf(stderr, "%s: %s\n\n%s", PROGRAM, sError.c_str(), HexHelpText(PROGRAM).c_str());
        return 2;
    case EParseResult::eRun:
        break;
    }

    COrvaneHexfile oImage;
    if (!Load(oImage, oOptions))
        return 1;
    return oOptions.eCommand == ECommand::eInfo ? Info(oImage) : Convert(oImage, oOptions);
}
