// A host's whole session with many units: scan, map every index to its id,
// open all, read each unit's status once, close all. The time per unit must
// not grow with the number of units.
#include <benchmark/benchmark.h>

#include <vector>

#include "NKR_focuser.h"
#include "bench_env.h"

namespace {

// Room for the longest input report a unit may announce.
constexpr int kReplyRoom = 128;

bool session(int expected)
{
    const int found = NKRGetNum();
    if (found != expected) return false;
    std::vector<int> ids(static_cast<size_t>(found));
    for (int i = 0; i < found; ++i)
        if (NKRGetID(i, &ids[static_cast<size_t>(i)]) != NKR_SUCCESS) return false;
    bool ok = true;
    for (int id : ids) ok = NKROpen(id) == NKR_SUCCESS && ok;
    // NKRSendCMD reads the status over USB whatever the id: the exports with a
    // Bluetooth branch send ids from 50 up (every unit past the 50th) that way.
    unsigned char request[] = {0x03, 0x7E, 0x5A, 0x02, 0x03};
    unsigned char reply[kReplyRoom] = {};
    for (int id : ids) ok = NKRSendCMD(id, request, sizeof request, true, reply) == NKR_SUCCESS && ok;
    for (int id : ids) ok = NKRClose(id) == NKR_SUCCESS && ok;
    return ok;
}

void scanOpenReadClose(benchmark::State& state)
{
    const auto units = static_cast<int>(state.range(0));
    nkrbench::resetWorld();
    std::vector<nkrsim::UnitId> added;
    for (int i = 0; i < units; ++i) added.push_back(nkrsim::addUnit(nkrbench::usbSpec()));
    for (auto _ : state) {
        if (!session(units)) return state.SkipWithError("session failed");
        state.PauseTiming();  // the simulator's records of what it was sent
        for (nkrsim::UnitId u : added) nkrsim::clearSentReports(u);
        state.ResumeTiming();
    }
    state.counters["units"] = units;
    nkrbench::resetWorld();
}

}  // namespace

BENCHMARK(scanOpenReadClose)
    ->Name("scale/scan_open_read_close")
    ->Arg(1)
    ->Arg(16)
    ->Arg(128)
    ->Unit(benchmark::kMicrosecond);
