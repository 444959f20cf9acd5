// Host threads, each driving a unit of its own: the library must not make
// them wait for each other. Every iteration starts the threads, lets each do
// a batch of status reads on its unit and joins them; the throughput of two
// threads is compared with that of one. The bare transport on the same
// simulated units shows how far the simulator itself lets two threads go (it
// serialises every transfer on one world lock); the library alone is measured
// over a stand-in transport by nkr_bench_standin.
#include <benchmark/benchmark.h>
#include <hidapi/hidapi.h>

#include <atomic>
#include <thread>
#include <vector>

#include "NKR_focuser.h"
#include "bench_env.h"
#include "log/Log.h"

namespace {

// Calls per thread and iteration: enough that starting and joining the
// threads (tens of microseconds on a busy machine) is noise beside them.
constexpr int kUsbBatch = 50000;
constexpr int kBleBatch = 2000;

void dropTraffic(const std::vector<nkrsim::UnitId>& units, bool ble)
{
    for (nkrsim::UnitId u : units) ble ? nkrsim::clearSentFrames(u) : nkrsim::clearSentReports(u);
}

void threadsOwnUnit(benchmark::State& state, bool ble)
{
    const auto threadCount = static_cast<int>(state.range(0));
    const int batch = ble ? kBleBatch : kUsbBatch;
    nkrbench::resetWorld();
    std::vector<int> ids;
    std::vector<nkrsim::UnitId> units;
    if (ble) {
        for (int i = 0; i < threadCount; ++i) {
            units.push_back(nkrsim::addUnit(nkrbench::bleSpec()));
            ids.push_back(nkrbench::connectBleUnit(units.back()));
            if (ids.back() < 0) return state.SkipWithError("no Bluetooth unit");
        }
    } else {
        ids = nkrbench::openUsbUnits(threadCount, &units);
        if (ids.empty()) return state.SkipWithError("no USB unit");
    }
    nkrbench::RealtimeScope realtime;
    for (auto _ : state) {
        if (!nkrbench::runStatusReads(ids, batch)) return state.SkipWithError("a status read failed");
        state.PauseTiming();
        dropTraffic(units, ble);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * threadCount * batch);
    state.counters["calls"] = threadCount * batch;  // per iteration
    nkrbench::closeAll();
}

void usbThreads(benchmark::State& state) { threadsOwnUnit(state, false); }
void bleThreads(benchmark::State& state) { threadsOwnUnit(state, true); }

// The same batches as bare status round trips, one hidapi handle per unit.
void usbBareThreads(benchmark::State& state)
{
    const auto threadCount = static_cast<int>(state.range(0));
    nkrbench::resetWorld();
    std::vector<nkrsim::UnitId> units;
    std::vector<hid_device*> handles;
    for (int i = 0; i < threadCount; ++i) {
        units.push_back(nkrsim::addUnit(nkrbench::usbSpec()));
        handles.push_back(hid_open_path(nkrsim::usbPath(units.back()).c_str()));
        if (handles.back() == nullptr) return state.SkipWithError("no USB unit");
    }
    const unsigned char request[16] = {0x03, 0x7E, 0x5A, 0x02, 0x03};
    nkrbench::RealtimeScope realtime;
    for (auto _ : state) {
        std::atomic<bool> ok{true};
        std::vector<std::thread> threads;
        for (hid_device* dev : handles)
            threads.emplace_back([dev, &request, &ok] {
                unsigned char in[17];
                for (int i = 0; i < kUsbBatch; ++i) {
                    in[0] = 0x01;
                    if (hid_send_feature_report(dev, request, sizeof request) < 0 ||
                        hid_get_feature_report(dev, in, sizeof in) < 0)
                        ok = false;
                }
            });
        for (std::thread& t : threads) t.join();
        if (!ok) return state.SkipWithError("a bare transfer failed");
        state.PauseTiming();
        dropTraffic(units, false);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * threadCount * kUsbBatch);
    state.counters["calls"] = threadCount * kUsbBatch;  // per iteration
    for (hid_device* dev : handles) hid_close(dev);
}

// Info lines written from host threads at once: every Bluetooth exchange
// writes two, and they all go through the one log file.
void logThreads(benchmark::State& state)
{
    const auto threadCount = static_cast<int>(state.range(0));
    nkrbench::resetWorld();
    if (nkrbench::openUsbUnits(1).empty()) return state.SkipWithError("no USB unit");  // sets the log up
    nkrbench::RealtimeScope realtime;
    for (auto _ : state) {
        std::vector<std::thread> threads;
        for (int t = 0; t < threadCount; ++t)
            threads.emplace_back([] {
                for (int i = 0; i < kBleBatch; ++i) NKR_LOG("input:%02x, %02x, iCommandId:%d", 0x02, 0x03, i & 0xFF);
            });
        for (std::thread& t : threads) t.join();
    }
    state.SetItemsProcessed(state.iterations() * threadCount * kBleBatch);
    state.counters["calls"] = threadCount * kBleBatch;  // per iteration
    nkrbench::closeAll();
}

}  // namespace

BENCHMARK(usbThreads)->Name("threads/usb_get_position")->Arg(1)->Arg(2)->UseRealTime()->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);
BENCHMARK(usbBareThreads)->Name("threads/usb_bare_round_trip")->Arg(1)->Arg(2)->UseRealTime()->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);
BENCHMARK(bleThreads)->Name("threads/ble_get_position")->Arg(1)->Arg(2)->UseRealTime()->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);
BENCHMARK(logThreads)->Name("threads/log_line")->Arg(1)->Arg(2)->UseRealTime()->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);
