// What every benchmark shares: a process set up like a host program run
// against the simulator, and quick ways to put simulated units in front of
// the library.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <vector>

#include "nkr_sim.h"

namespace nkrbench {

// Private HOME (on tmpfs when there is one), the simulator as Bluetooth
// helper, and a no-op sleep hook in place of the library's pauses.
void prepareProcess();
// Closes every slot and removes the private HOME.
void finishProcess();

// Closes every slot and empties the simulated world (manual clock at 0).
void resetWorld();

nkrsim::UnitSpec usbSpec();
nkrsim::UnitSpec bleSpec();

// Adds count USB units, scans once and opens them all; slot ids in unit
// order, empty when any step failed.
std::vector<int> openUsbUnits(int count, std::vector<nkrsim::UnitId>* units = nullptr);
// Connects and pairs a Bluetooth unit through the exports; its slot id, or -1.
int connectBleUnit(nkrsim::UnitId unit);
// Closes every USB slot and disconnects every Bluetooth slot.
void closeAll();

// Starts one host thread per id, lets each read its unit's position
// perThread times through the export, and joins them; false when a read failed.
bool runStatusReads(const std::vector<int>& ids, int perThread);

// Starts count host threads, runs work(thread index) on each and joins them;
// false when any work returned false.
bool runOnThreads(int count, const std::function<bool(int)>& work);

// Host-thread scaling, measured side by side: every iteration runs a batch
// with one host thread and a batch with two (taking turns which goes first),
// each timed by the wall clock and the process's CPU clock. batch(threads)
// runs one batch and returns false on a failure; callsPerThread is what one
// thread does in it; between(), run after every batch outside the timing,
// may tidy up. Reports the counters one_rate and two_rate (calls per second)
// and one_cpu_ns and two_cpu_ns (process CPU time per call).
void threadScaling(benchmark::State& state, int callsPerThread, const std::function<bool(int)>& batch,
                   const std::function<void()>& between);

// With NKR_BENCH_REALTIME=1, the calling thread (and the threads it starts)
// runs under real-time round-robin scheduling while this lives, so that host
// threads get the machine's cores even while other work keeps it busy. Off
// otherwise, and when the system refuses it.
class RealtimeScope {
public:
    RealtimeScope();
    ~RealtimeScope();
    RealtimeScope(const RealtimeScope&) = delete;
    RealtimeScope& operator=(const RealtimeScope&) = delete;
    // True when NKR_BENCH_REALTIME=1 asks for it.
    static bool requested();

private:
    bool raised_ = false;
};

// Times blocks of calls of two or more sides, taking turns, on the calling
// thread's CPU clock. The sides share every disturbance of a busy machine, so
// their ratio holds even when absolute times do not.
class SideBySide {
public:
    explicit SideBySide(size_t sides) : ns_(sides, 0), calls_(sides, 0) {}

    // Makes count calls of one side; false as soon as a call returns false.
    template <typename Call>
    bool block(size_t side, int count, Call call)
    {
        const double start = threadCpuNs();
        for (int i = 0; i < count; ++i)
            if (!call()) return false;
        ns_[side] += threadCpuNs() - start;
        calls_[side] += count;
        return true;
    }
    double nsPerCall(size_t side) const { return calls_[side] > 0 ? ns_[side] / calls_[side] : -1; }

    static double threadCpuNs();

private:
    std::vector<double> ns_;
    std::vector<double> calls_;
};

// Resident set size of this process, in bytes.
long residentBytes();

}  // namespace nkrbench
