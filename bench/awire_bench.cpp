// Writing a 1 MiB image (one Intel hex file, one block) with
// COrvaneClientAWire::WriteFile through the simulator's aWire programmer on
// loopback, read-back verification included:
//   - bytes per second of the whole file;
//   - poll_share: the share of that time the file-writing thread spent
//     sleeping in its 1 ms status polls, and polls: how many per file.
// The argument is the programmer's completion delay in ms: 0 finishes each
// block as soon as the completer sees it (the client's polling is then the
// only wait), 2 is the simulator's default flash time per block.
//
// Run: build/bench/awire_bench --benchmark_min_time=2
#include "GatewaySim.h"
#include "OrvaneClientAWire.h"
#include "OrvaneHexfile.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{

constexpr unsigned int IMAGE_SIZE = 1u << 20;

std::string WriteImage()
{
    std::vector<unsigned char> acData(IMAGE_SIZE);
    for (std::size_t i = 0; i < acData.size(); ++i)
        acData[i] = static_cast<unsigned char>(i * 131 + (i >> 9));
    COrvaneHexfile oHex;
    oHex.AddMemoryBlock(0, acData.data(), IMAGE_SIZE);
    const std::string sPath = "/tmp/orvane_awire_bench.hex";
    return oHex.SaveFile(sPath.c_str(), COrvaneHexfile::eIntel) == 0 ? sPath : std::string();
}

void BM_WriteFile1MiB(benchmark::State& oState)
{
    GatewaySim::SSimOptions oOptions;
    oOptions.nTcpBase = 0;
    oOptions.anAWirePorts = {0};
    oOptions.nAWireDelayMs = static_cast<unsigned int>(oState.range(0));
    oOptions.bQuiet = true;
    GatewaySim::CGatewaySim oSim(oOptions, nullptr);
    std::string sError;
    const std::string sFile = WriteImage();
    COrvaneClientAWire oClient(5000);
    if (!oSim.Start(sError) || sFile.empty() ||
        oClient.Connect("127.0.0.1", oSim.AWireTcpPort(0), CKelIPBase::eTCP, true) != 0)
    {
        oState.SkipWithError("cannot start the simulator, write the image or connect");
        return;
    }
    double dSeconds = 0;
    for (auto _ : oState)
    {
        const auto oStart = std::chrono::steady_clock::now();
        if (oClient.WriteFile(sFile) != 0)
        {
            oState.SkipWithError("WriteFile failed");
            break;
        }
        FileStep::EFileStep nStep = FileStep::ePrepared;
        unsigned char nPercent = 0;
        FileStep::EFileStep nLast = nStep;
        while (oClient.GetWriteFileStatus(nStep, nPercent) == 0)
        {
            nLast = nStep;
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        dSeconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - oStart).count();
        if (nLast != FileStep::eDone)
        {
            oState.SkipWithError("the file was not written");
            break;
        }
    }
    oState.SetBytesProcessed(static_cast<int64_t>(oState.iterations()) * IMAGE_SIZE);
    const double dFiles = static_cast<double>(oState.iterations());
    oState.counters["polls"] = static_cast<double>(oClient.GetFilePolls()) / dFiles;
    oState.counters["poll_share"] =
        dSeconds > 0 ? static_cast<double>(oClient.GetFilePollSleepMicros()) / 1e6 / dSeconds : 0;
    std::remove(sFile.c_str());
}

} // namespace

BENCHMARK(BM_WriteFile1MiB)->Arg(0)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
