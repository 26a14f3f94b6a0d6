// Command line of orvane-hex: a command (info or convert), its options and files.
#ifndef ORVANE_HEX_COMMAND_LINE_H
#define ORVANE_HEX_COMMAND_LINE_H

#include "OrvaneHexfile.h"

#include <string>
#include <vector>

namespace HexTool
{

enum class ECommand
{
    eInfo,
    eConvert
};

struct SHexOptions
{
    ECommand eCommand = ECommand::eInfo;
    COrvaneHexfile::EType nFrom = COrvaneHexfile::eDetect; // input form
    COrvaneHexfile::EType nTo = COrvaneHexfile::eDetect;   // output form (convert)
    bool bIgnoreErrors = false;                            // keep the data of an input with bad lines
    std::vector<std::string> asFiles;                      // info: input; convert: input, output
};

enum class EParseResult
{
    eRun,
    eHelp,
    eError
};

// Parses argv[1..]; on eError, sError says what is wrong.
EParseResult ParseHexCommandLine(int nArgc, char** apArgv, SHexOptions& oOptions, std::string& sError);

// The --help text (usage, options, exit statuses) for the program name.
std::string HexHelpText(const std::string& sProgram);

// "intel", "srec" or "bin"; false for any other text.
bool ParseForm(const std::string& sText, COrvaneHexfile::EType& nType);

// "Intel hex", "Motorola S-record", "binary".
const char* FormName(COrvaneHexfile::EType nType);

} // namespace HexTool

#endif
