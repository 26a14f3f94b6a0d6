// Runs a fuzz harness once over every file of the corpus folders (or files)
// given on the command line, in name order: the deterministic replay that the
// test command does with the g++ builds. The libFuzzer build
// (scripts/fuzz.sh) links libFuzzer's own main instead.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize);

int main(int argc, char** argv)
{
    std::vector<std::filesystem::path> aoFiles;
    for (int i = 1; i < argc; ++i)
    {
        const std::filesystem::path oPath(argv[i]);
        if (std::filesystem::is_directory(oPath))
        {
            for (const auto& oEntry : std::filesystem::directory_iterator(oPath))
                if (oEntry.is_regular_file())
                    aoFiles.push_back(oEntry.path());
        }
        else
            aoFiles.push_back(oPath);
    }
    std::sort(aoFiles.begin(), aoFiles.end());
    if (aoFiles.empty())
    {
        std::fprintf(stderr, "no corpus files given\n");
        return 1;
    }
    for (const auto& oFile : aoFiles)
    {
        std::ifstream oIn(oFile, std::ios::binary);
        const std::string sData((std::istreambuf_iterator<char>(oIn)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(sData.data()), sData.size());
    }
    std::printf("%zu inputs replayed\n", aoFiles.size());
    return 0;
}
