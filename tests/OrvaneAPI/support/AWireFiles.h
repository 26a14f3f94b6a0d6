// Image files for the aWire file writer, and waiting for the writer's end.
#ifndef TESTS_AWIRE_FILES_H
#define TESTS_AWIRE_FILES_H

#include "OrvaneClientAWire.h"

#include <string>
#include <vector>

namespace ApiTest
{

struct SImageBlock
{
    unsigned int nAddress;
    std::vector<unsigned char> acData; // its size is kept, its bytes are drawn at random
};

// Writes the blocks, filled with random bytes, as an Intel hex file in the
// test's temporary folder; returns its path.
std::string WriteHexFile(const std::string& sName, std::vector<SImageBlock>& aoBlocks);

// Polls the file status until the writer is gone; the last step seen and
// every percentage on the way.
FileStep::EFileStep PollToEnd(COrvaneClientAWire& oClient, std::vector<unsigned char>& anPercent);

} // namespace ApiTest

#endif
