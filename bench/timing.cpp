#include "timing.h"

#include <pthread.h>
#include <sched.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

namespace nkrbench {

bool runOnThreads(int count, const std::function<bool(int)>& work)
{
    std::atomic<bool> ok{true};
    std::vector<std::thread> threads;
    for (int t = 0; t < count; ++t)
        threads.emplace_back([t, &work, &ok] {
            if (!work(t)) ok = false;
        });
    for (std::thread& t : threads) t.join();
    return ok;
}

namespace {
double processCpuNs()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}
}  // namespace

void threadScaling(benchmark::State& state, int callsPerThread, const std::function<bool(int)>& batch,
                   const std::function<void()>& between)
{
    double wallNs[3] = {}, cpuNs[3] = {}, calls[3] = {};
    auto timed = [&](int threads) {
        const auto start = std::chrono::steady_clock::now();
        const double cpuStart = processCpuNs();
        const bool ok = batch(threads);
        cpuNs[threads] += processCpuNs() - cpuStart;
        wallNs[threads] += std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
        calls[threads] += static_cast<double>(threads) * callsPerThread;
        between();
        return ok;
    };
    RealtimeScope realtime;
    bool oneFirst = true;
    for (auto _ : state) {
        const bool ok = oneFirst ? timed(1) && timed(2) : timed(2) && timed(1);
        if (!ok) return state.SkipWithError("a call failed");
        oneFirst = !oneFirst;
    }
    state.counters["one_rate"] = calls[1] * 1e9 / wallNs[1];
    state.counters["two_rate"] = calls[2] * 1e9 / wallNs[2];
    state.counters["one_cpu_ns"] = cpuNs[1] / calls[1];
    state.counters["two_cpu_ns"] = cpuNs[2] / calls[2];
}

bool RealtimeScope::requested()
{
    const char* value = std::getenv("NKR_BENCH_REALTIME");
    return value != nullptr && std::string(value) == "1";
}

RealtimeScope::RealtimeScope()
{
    if (!requested()) return;
    sched_param param{};
    param.sched_priority = 1;
    raised_ = pthread_setschedparam(pthread_self(), SCHED_RR, &param) == 0;
}

RealtimeScope::~RealtimeScope()
{
    if (!raised_) return;
    sched_param param{};
    pthread_setschedparam(pthread_self(), SCHED_OTHER, &param);
}

double SideBySide::threadCpuNs()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

}  // namespace nkrbench
