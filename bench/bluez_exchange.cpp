// One Bluetooth request and answer, timed end to end through the public
// interface, on whatever radio the environment gives the SDK: the real helper
// over D-Bus against nkr-sim-bluez (scripts/bench-bluez runs it so), or the
// simulator's built-in radio for comparison. Then the process's CPU time
// while the unit is connected and idle.
//
// Usage: nkr_bench_bluez [exchanges=2000] [idle-seconds=10]
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "NKR_focuser.h"

namespace {

double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

}  // namespace

int main(int argc, char** argv)
{
    int exchanges = argc > 1 ? std::atoi(argv[1]) : 2000;
    int idleSeconds = argc > 2 ? std::atoi(argv[2]) : 10;
    const char* unit = std::getenv("NKR_BENCH_UNIT") ? std::getenv("NKR_BENCH_UNIT") : "NKR Pro_A1B2";
    // NKR_BENCH_CALL=allinfo times the all-information query, the longest
    // answer (32 bytes), instead of a position read (18 bytes).
    const char* call = std::getenv("NKR_BENCH_CALL");
    const bool allInfo = call != nullptr && std::string(call) == "allinfo";

    int id = -1;
    if (NKRBLEConnect(unit, "", &id) != NKR_SUCCESS || NKRBLEPair(id) != NKR_SUCCESS) {
        std::fprintf(stderr, "cannot connect and pair %s\n", unit);
        return 1;
    }
    std::vector<double> micros;
    micros.reserve(static_cast<size_t>(exchanges));
    int position = 0, failures = 0;
    for (int i = 0; i < exchanges + 50; ++i) {
        auto start = std::chrono::steady_clock::now();
        _NKR_ALL_INFO info{};
        int rc = allInfo ? NKRBLEgetAllInfo(id, &info) : NKRGetPosition(id, &position);
        auto took = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start);
        if (rc != NKR_SUCCESS) ++failures;
        if (i >= 50) micros.push_back(took.count());  // the first ones warm caches
    }
    std::sort(micros.begin(), micros.end());
    auto at = [&](double q) { return micros[static_cast<size_t>(q * static_cast<double>(micros.size() - 1))]; };
    std::printf("exchanges %zu failures %d median_us %.1f p99_us %.1f max_us %.1f\n", micros.size(),
                failures, at(0.5), at(0.99), micros.back());

    if (idleSeconds > 0) {
        double before = cpuSeconds();
        std::this_thread::sleep_for(std::chrono::seconds(idleSeconds));
        double idle = cpuSeconds() - before;
        std::printf("idle_seconds %d cpu_ms %.2f cpu_percent %.4f\n", idleSeconds, idle * 1e3,
                    idle * 100.0 / idleSeconds);
    }
    NKRBLEDisconnect(id);
    return failures == 0 ? 0 : 1;
}
