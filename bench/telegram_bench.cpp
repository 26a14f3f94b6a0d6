// Cost of the telegram layer on the frame path: a CAN write request of 13
// bytes on the wire (code 0x0203, payload = 4-byte identifier, 1 flag byte,
// 1 data byte) built, serialised, parsed back and checked.
#include "KelByteOrder.h"
#include "OrvaneMsg.h"

#include <benchmark/benchmark.h>

#include <string>

namespace
{

const unsigned short kCanWriteCode = 0x0203;

std::string CanWritePayload()
{
    std::string sPayload = KelToLE(0x123);
    sPayload += '\0';   // flags: standard frame
    sPayload += '\x5A'; // one data byte
    return sPayload;
}

void BM_SerialiseCanWrite(benchmark::State& state)
{
    const std::string sPayload = CanWritePayload();
    short nMsgID = 0;
    for (auto _ : state)
    {
        COrvaneMsg oMsg(kCanWriteCode, ++nMsgID, sPayload.data(), static_cast<unsigned short>(sPayload.size()));
        std::string sWire = oMsg.GetMessageData();
        benchmark::DoNotOptimize(sWire);
    }
}
BENCHMARK(BM_SerialiseCanWrite);

void BM_ParseCanWrite(benchmark::State& state)
{
    const std::string sPayload = CanWritePayload();
    const std::string sWire =
        COrvaneMsg(kCanWriteCode, 1, sPayload.data(), static_cast<unsigned short>(sPayload.size())).GetMessageData();
    COrvaneMsg oReceived;
    for (auto _ : state)
    {
        bool bGood =
            oReceived.SetMessage(sWire.data(), static_cast<unsigned short>(sWire.size())) && oReceived.IsCRCValid();
        benchmark::DoNotOptimize(bGood);
    }
}
BENCHMARK(BM_ParseCanWrite);

// The whole round: payload built with the byte-order helper, telegram
// serialised, received bytes parsed into a fresh telegram and checked.
void BM_SerialiseAndParseCanWrite(benchmark::State& state)
{
    short nMsgID = 0;
    std::size_t nWireSize = 0;
    for (auto _ : state)
    {
        std::string sPayload = KelToLE(0x123);
        sPayload += '\0';
        sPayload += '\x5A';
        COrvaneMsg oRequest(kCanWriteCode, ++nMsgID, sPayload.data(), static_cast<unsigned short>(sPayload.size()));
        std::string sWire = oRequest.GetMessageData();
        COrvaneMsg oReceived(sWire.data(), static_cast<unsigned short>(sWire.size()));
        bool bGood = oReceived.IsValid() && oReceived.IsCRCValid();
        benchmark::DoNotOptimize(bGood);
        nWireSize = sWire.size();
    }
    state.counters["wire_bytes"] = static_cast<double>(nWireSize);
}
BENCHMARK(BM_SerialiseAndParseCanWrite);

} // namespace

BENCHMARK_MAIN();
