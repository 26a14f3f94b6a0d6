// The firmware image readers: the input is read as an Intel hex or S-record
// file (or detected, by its first byte), and whatever image results is
// written out in all three forms.
#include "OrvaneHexfile.h"

#include <cstdint>
#include <sstream>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    if (nSize < 1)
        return 0;
    static const COrvaneHexfile::EType s_aeTypes[] = {COrvaneHexfile::eDetect, COrvaneHexfile::eIntel,
                                                      COrvaneHexfile::eMotorola};
    std::istringstream oInput(std::string(reinterpret_cast<const char*>(pData) + 1, nSize - 1));
    COrvaneHexfile oFile;
    oFile.AnalizeFile(oInput, s_aeTypes[pData[0] % 3]);
    oFile.GetTotalBytes();
    std::ostringstream oIntel, oMotorola, oBinary;
    oFile.SaveAsFileIntel(oIntel);
    oFile.SaveAsFileMotorola(oMotorola);
    oFile.SaveAsFileBinary(oBinary);
    return 0;
}
