// Timing that holds on a busy shared machine: sides of a comparison timed
// in alternating blocks, host-thread scaling in alternating batches, and
// optional real-time priority for the host threads.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <functional>
#include <vector>

namespace nkrbench {

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

}  // namespace nkrbench
