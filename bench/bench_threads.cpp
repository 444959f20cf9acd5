// Host threads, each driving a unit of its own: the library must not make
// them wait for each other. Batches with one host thread and with two take
// turns; the throughput of two threads is compared with that of one. The bare
// transport on the same simulated units shows how far the simulator itself
// lets two threads go (it serialises every transfer on one world lock); the
// library alone is measured over a stand-in transport by nkr_bench_standin.
#include <benchmark/benchmark.h>
#include <hidapi/hidapi.h>

#include <vector>

#include "NKR_focuser.h"
#include "bench_env.h"
#include "log/Log.h"
#include "timing.h"

namespace {

// Calls per thread and batch: enough that starting and joining the threads
// (tens of microseconds on a busy machine) is noise beside them.
constexpr int kUsbBatch = 50000;
constexpr int kBleBatch = 2000;

void dropTraffic(const std::vector<nkrsim::UnitId>& units, bool ble)
{
    for (nkrsim::UnitId u : units) ble ? nkrsim::clearSentFrames(u) : nkrsim::clearSentReports(u);
}

// NKRGetPosition from host threads, one unit each, over the simulator.
void threadsOwnUnit(benchmark::State& state, bool ble)
{
    nkrbench::resetWorld();
    std::vector<int> ids;
    std::vector<nkrsim::UnitId> units;
    if (ble) {
        for (int i = 0; i < 2; ++i) {
            units.push_back(nkrsim::addUnit(nkrbench::bleSpec()));
            ids.push_back(nkrbench::connectBleUnit(units.back()));
            if (ids.back() < 0) return state.SkipWithError("no Bluetooth unit");
        }
    } else {
        ids = nkrbench::openUsbUnits(2, &units);
        if (ids.empty()) return state.SkipWithError("no USB unit");
    }
    const int batch = ble ? kBleBatch : kUsbBatch;
    nkrbench::threadScaling(
        state, batch,
        [&](int threads) {
            return nkrbench::runStatusReads(std::vector<int>(ids.begin(), ids.begin() + threads), batch);
        },
        [&] { dropTraffic(units, ble); });
    nkrbench::closeAll();
}

void usbThreads(benchmark::State& state) { threadsOwnUnit(state, false); }
void bleThreads(benchmark::State& state) { threadsOwnUnit(state, true); }

// The same batches as bare status round trips, one hidapi handle per unit.
void usbBareThreads(benchmark::State& state)
{
    nkrbench::resetWorld();
    std::vector<nkrsim::UnitId> units;
    std::vector<hid_device*> handles;
    for (int i = 0; i < 2; ++i) {
        units.push_back(nkrsim::addUnit(nkrbench::usbSpec()));
        handles.push_back(hid_open_path(nkrsim::usbPath(units.back()).c_str()));
        if (handles.back() == nullptr) return state.SkipWithError("no USB unit");
    }
    const unsigned char request[16] = {0x03, 0x7E, 0x5A, 0x02, 0x03};
    nkrbench::threadScaling(
        state, kUsbBatch,
        [&](int threads) {
            return nkrbench::runOnThreads(threads, [&](int t) {
                hid_device* dev = handles[static_cast<size_t>(t)];
                unsigned char in[17];
                for (int i = 0; i < kUsbBatch; ++i) {
                    in[0] = 0x01;
                    if (hid_send_feature_report(dev, request, sizeof request) < 0 ||
                        hid_get_feature_report(dev, in, sizeof in) < 0)
                        return false;
                }
                return true;
            });
        },
        [&] { dropTraffic(units, false); });
    for (hid_device* dev : handles) hid_close(dev);
}

// Info lines written from host threads at once: every Bluetooth exchange
// writes two, and they all go through the one log file.
void logThreads(benchmark::State& state)
{
    nkrbench::resetWorld();
    if (nkrbench::openUsbUnits(1).empty()) return state.SkipWithError("no USB unit");  // sets the log up
    nkrbench::threadScaling(
        state, kBleBatch,
        [](int threads) {
            return nkrbench::runOnThreads(threads, [](int) {
                for (int i = 0; i < kBleBatch; ++i) NKR_LOG("input:%02x, %02x, iCommandId:%d", 0x02, 0x03, i & 0xFF);
                return true;
            });
        },
        [] {});
    nkrbench::closeAll();
}

}  // namespace

BENCHMARK(usbThreads)->Name("threads/usb_get_position")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(usbBareThreads)->Name("threads/usb_bare_round_trip")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(bleThreads)->Name("threads/ble_get_position")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(logThreads)->Name("threads/log_line")->UseRealTime()->Unit(benchmark::kMillisecond);
