// The pure computations on every Bluetooth exchange and temperature read.
#include <benchmark/benchmark.h>

#include <vector>

#include "ble/BluetoothLEProtocol.h"
#include "device/NKR.h"

namespace {

void encodeRequest20(benchmark::State& state)
{
    BLEProtocol::ProtoRequest request;
    request.command = BLEProtocol::CMD_DEVICE;
    request.data.assign(20, 0x5A);
    request.length = 20;
    for (auto _ : state) {
        // A fresh frame per request, as the exchange builds it.
        std::vector<uint8_t> frame;
        BLEProtocol::encodeRequest(request, frame);
        benchmark::DoNotOptimize(frame.data());
        benchmark::ClobberMemory();
    }
}

void decodeResponse30(benchmark::State& state)
{
    // 01 len seq status h h h, 22 payload bytes, checksum: 30 bytes.
    std::vector<uint8_t> frame = {0x01, 22, 7, 0x00, 0, 0, 0};
    for (uint8_t i = 0; i < 22; ++i) frame.push_back(static_cast<uint8_t>(i * 11));
    const uint8_t sum = BLEProtocol::calculateChecksum(frame.data(), static_cast<uint32_t>(frame.size()));
    frame.push_back(sum);
    for (auto _ : state) {
        const int32_t rc = BLEProtocol::decodeResponse(frame);
        benchmark::DoNotOptimize(rc);
        frame.push_back(sum);  // the decoder strips it; the capacity stays
    }
    if (frame.size() != 30) state.SkipWithError("frame is not 30 bytes");
}

void temperature(benchmark::State& state)
{
    CNKR dev;
    unsigned adc = 0;
    for (auto _ : state) {
        // Raw readings across the table's range, so lookups land on different rows.
        const float t = dev.CalculTempuature(200 + static_cast<int>(adc++ & 511));
        benchmark::DoNotOptimize(t);
    }
}

}  // namespace

BENCHMARK(encodeRequest20)->Name("codec/encode_request_20");
BENCHMARK(decodeResponse30)->Name("codec/decode_response_30");
BENCHMARK(temperature)->Name("temp/calcul_temperature");
