#include "HexCommandLine.h"

#include <getopt.h>

namespace HexTool
{

bool ParseForm(const std::string& sText, COrvaneHexfile::EType& nType)
{
    if (sText == "intel")
        nType = COrvaneHexfile::eIntel;
    else if (sText == "srec")
        nType = COrvaneHexfile::eMotorola;
    else if (sText == "bin")
        nType = COrvaneHexfile::eBinary;
    else
        return false;
    return true;
}

const char* FormName(COrvaneHexfile::EType nType)
{
    switch (nType)
    {
    case COrvaneHexfile::eIntel:
        return "Intel hex";
    case COrvaneHexfile::eMotorola:
        return "Motorola S-record";
    case COrvaneHexfile::eBinary:
        return "binary";
    default:
        return "unknown form";
    }
}

EParseResult ParseHexCommandLine(int nArgc, char** apArgv, SHexOptions& oOptions, std::string& sError)
{
    static const option s_aoLong[] = {
        {"to", required_argument, nullptr, 't'},
        {"from", required_argument, nullptr, 'f'},
        {"ignore-errors", no_argument, nullptr, 'k'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    optind = 0; // full re-initialisation
    opterr = 0;
    bool bToGiven = false;
    int nOption;
    while ((nOption = getopt_long(nArgc, apArgv, "t:f:kh", s_aoLong, nullptr)) != -1)
    {
        const std::string sArg = optarg != nullptr ? optarg : "";
        switch (nOption)
        {
        case 't':
            if (!ParseForm(sArg, oOptions.nTo))
            {
                sError = "invalid output form \"" + sArg + "\" (intel, srec or bin)";
                return EParseResult::eError;
            }
            bToGiven = true;
            break;
        case 'f':
            if (!ParseForm(sArg, oOptions.nFrom))
            {
                sError = "invalid input form \"" + sArg + "\" (intel, srec or bin)";
                return EParseResult::eError;
            }
            break;
        case 'k':
            oOptions.bIgnoreErrors = true;
            break;
        case 'h':
            return EParseResult::eHelp;
        default:
            sError = "unknown or incomplete option \"" + std::string(apArgv[optind - 1]) + "\"";
            return EParseResult::eError;
        }
    }
    if (optind >= nArgc)
    {
        sError = "no command given";
        return EParseResult::eError;
    }
    const std::string sCommand = apArgv[optind];
    oOptions.asFiles.assign(apArgv + optind + 1, apArgv + nArgc);
    if (sCommand == "info")
    {
        oOptions.eCommand = ECommand::eInfo;
        if (oOptions.asFiles.size() != 1)
        {
            sError = "info takes one file";
            return EParseResult::eError;
        }
        if (bToGiven)
        {
            sError = "--to belongs to convert";
            return EParseResult::eError;
        }
    }
    else if (sCommand == "convert")
    {
        oOptions.eCommand = ECommand::eConvert;
        if (oOptions.asFiles.size() != 2)
        {
            sError = "convert takes an input and an output file";
            return EParseResult::eError;
        }
        if (!bToGiven)
        {
            sError = "convert needs --to intel|srec|bin";
            return EParseResult::eError;
        }
    }
    else
    {
        sError = "unknown command \"" + sCommand + "\"";
        return EParseResult::eError;
    }
    return EParseResult::eRun;
}

std::string HexHelpText(const std::string& sProgram)
{
    std::string sText = "Usage: " + sProgram + " info [<options>] <file>\n";
    sText += "       " + sProgram + " convert --to intel|srec|bin [<options>] <input> <output>\n";
    sText += "       " + sProgram + " --help\n";
    sText += "\n"
             "Reads a firmware image from an Intel hex, Motorola S-record or binary file.\n"
             "  info     lists its memory blocks (start, end, size) and the total size\n"
             "  convert  writes it to <output> in another form\n"
             "\n"
             "Options (anywhere on the line):\n"
             "  -t, --to intel|srec|bin    form of the output (convert only, required)\n"
             "  -f, --from intel|srec|bin  form of the input; by default detected from its first\n"
             "                             character: ':' Intel hex, 'S' S-record, else binary\n"
             "  -k, --ignore-errors        go on with an input that has bad lines: lines that cannot\n"
             "                             be read are left out, a line with a bad checksum is kept\n"
             "  -h, --help                 print this text\n"
             "\n"
             "Intel output uses extended linear address records where needed; S-record output\n"
             "uses S1, S2 or S3 records by address, without header or end record. Binary output\n"
             "needs an image of one block starting at address 0.\n"
             "\n"
             "Exit status: 0 success; 1 the input could not be read (or had bad lines) or the\n"
             "output could not be written; 2 bad command line (message and usage on stderr).\n";
    return sText;
}

} // namespace HexTool
