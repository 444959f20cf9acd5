// nkr_bench_standin: host threads on units of their own, with the library
// over a stand-in transport that shares nothing between units, so that any
// waiting between the threads can only come from the library. Run by
// nkr_bench, which reads the "sample" and "error" lines it prints.
#include <benchmark/benchmark.h>
#include <hidapi/hidapi.h>

#include <cstdio>
#include <vector>

#include "api/Registry.h"
#include "bench_env.h"
#include "collector.h"
#include "device/NKR.h"
#include "standin_transport.h"
#include "timing.h"

namespace {

// Calls per thread and batch: starting the threads is noise beside them.
constexpr int kBatch = 50000;

// The unit's status report as the simulator answers it.
std::vector<uint8_t> statusReply(nkrsim::UnitId unit)
{
    hid_device* dev = hid_open_path(nkrsim::usbPath(unit).c_str());
    if (dev == nullptr) return {};
    const unsigned char request[16] = {0x03, 0x7E, 0x5A, 0x02, 0x03};
    std::vector<uint8_t> reply(17);
    reply[0] = 0x01;
    const bool ok = hid_send_feature_report(dev, request, sizeof request) >= 0 &&
                    hid_get_feature_report(dev, reply.data(), reply.size()) >= 0;
    hid_close(dev);
    return ok ? reply : std::vector<uint8_t>{};
}

void standinThreads(benchmark::State& state)
{
    nkrbench::resetWorld();
    std::vector<nkrsim::UnitId> units;
    const std::vector<int> ids = nkrbench::openUsbUnits(2, &units);
    if (ids.empty()) return state.SkipWithError("no USB unit");
    for (size_t i = 0; i < ids.size(); ++i) {
        const std::vector<uint8_t> reply = statusReply(units[i]);
        CNKR* dev = pNKR[ids[i]].load();
        if (reply.empty() || dev == nullptr || !nkrbench::standin::serve(dev->m_hDev, reply))
            return state.SkipWithError("stand-in transport not set up");
    }
    nkrbench::threadScaling(
        state, kBatch,
        [&](int threads) {
            return nkrbench::runStatusReads(std::vector<int>(ids.begin(), ids.begin() + threads), kBatch);
        },
        [] {});
    nkrbench::standin::stopAll();
    nkrbench::closeAll();
}

// One line per repetition, for the parent to collect.
class SampleWriter : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context& /*context*/) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override
    {
        nkrbench::Sample s;
        for (const Run& run : runs) {
            if (!nkrbench::sampleOf(run, s)) continue;
            if (!s.error.empty()) {
                std::printf("error %s %s\n", s.key.c_str(), s.error.c_str());
                continue;
            }
            std::printf("sample %s %.3f", s.key.c_str(), s.ns);
            for (const auto& [name, value] : s.counters) std::printf(" %s=%.6g", name.c_str(), value);
            std::printf("\n");
        }
        std::fflush(stdout);
    }
};

}  // namespace

BENCHMARK(standinThreads)
    ->Name("threads/usb_get_position_standin")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    nkrbench::prepareProcess();
    SampleWriter writer;
    benchmark::RunSpecifiedBenchmarks(&writer);
    nkrbench::finishProcess();
    benchmark::Shutdown();
    return 0;
}
