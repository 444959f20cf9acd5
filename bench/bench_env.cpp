#include "bench_env.h"

#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "NKR_focuser.h"
#include "api/Registry.h"
#include "device/Sleep.h"

namespace nkrbench {
namespace {

std::string& homeDir()
{
    static std::string dir;
    return dir;
}

// The library pauses 200 ms after every move; here that costs nothing.
void skipPause(unsigned /*microseconds*/) {}

int slotOfPath(const std::string& path)
{
    for (int id = 0; id < NKR_MAX_SLOTS; ++id)
        if (path == DevPathArray[id]) return id;
    return -1;
}

}  // namespace

void prepareProcess()
{
    // Settings saves end in fsync: on tmpfs they measure the library, not the disk.
    struct stat st {};
    const char* base = stat("/dev/shm", &st) == 0 && S_ISDIR(st.st_mode) ? "/dev/shm" : "/tmp";
    std::string pattern = std::string(base) + "/nkr-bench-XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr) {
        homeDir() = pattern;
        setenv("HOME", pattern.c_str(), 1);
    }
    setenv("NKR_BLE_HELPER", NKR_BENCH_HELPER, 0);
    nkr::setSleepHook(&skipPause);
    // Host programs have threads. glibc takes cheaper, non-atomic paths for
    // locks (and more) in a process that has never started one, and switches
    // for good at the first; start one now so that every figure is taken as
    // a host sees it, whatever the order the benchmarks run in.
    std::thread([] {}).join();
}

void finishProcess()
{
    closeAll();
    if (!homeDir().empty()) {
        std::error_code ec;
        std::filesystem::remove_all(homeDir(), ec);
    }
}

void closeAll()
{
    for (int id = 0; id < NKR_BLE_FIRST_ID; ++id) NKRClose(id);
    for (int id = NKR_MAX_SLOTS - 1; id >= NKR_BLE_FIRST_ID; --id)
        if (pNKR[id].load() != nullptr) NKRBLEDisconnect(id);
}

void resetWorld()
{
    closeAll();
    nkrsim::reset();
    NKRGetNum();  // forget the paths of the units just removed
}

nkrsim::UnitSpec usbSpec()
{
    nkrsim::UnitSpec spec;
    spec.fwMajor = 3;
    spec.fwMinor = 7;
    spec.fwBuild = 0;
    return spec;
}

nkrsim::UnitSpec bleSpec()
{
    nkrsim::UnitSpec spec;
    spec.fwMajor = 3;
    spec.fwMinor = 8;
    spec.fwBuild = 2;
    spec.modelLetter = 'E';
    spec.typeText = "NKR Pro";
    spec.usb = false;
    spec.ble = true;
    return spec;
}

std::vector<int> openUsbUnits(int count, std::vector<nkrsim::UnitId>* units)
{
    std::vector<nkrsim::UnitId> added;
    for (int i = 0; i < count; ++i) added.push_back(nkrsim::addUnit(usbSpec()));
    NKRGetNum();
    std::vector<int> ids;
    for (nkrsim::UnitId u : added) {
        const int id = slotOfPath(nkrsim::usbPath(u));
        if (id < 0 || NKROpen(id) != NKR_SUCCESS) return {};
        ids.push_back(id);
    }
    if (units != nullptr) *units = added;
    return ids;
}

int connectBleUnit(nkrsim::UnitId unit)
{
    const std::string address = nkrsim::bleAddress(unit);
    int id = -1;
    // The helper connects by the first text it is given; the address is unique.
    if (NKRBLEConnect(address.c_str(), address.c_str(), &id) != NKR_SUCCESS) return -1;
    if (NKRBLEPair(id) != NKR_SUCCESS) return -1;
    return id;
}

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

bool runStatusReads(const std::vector<int>& ids, int perThread)
{
    return runOnThreads(static_cast<int>(ids.size()), [&](int t) {
        int step = 0;
        for (int i = 0; i < perThread; ++i)
            if (NKRGetPosition(ids[static_cast<size_t>(t)], &step) != NKR_SUCCESS) return false;
        return true;
    });
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

long residentBytes()
{
    std::FILE* f = std::fopen("/proc/self/statm", "r");
    if (f == nullptr) return -1;
    long size = 0, resident = -1;
    if (std::fscanf(f, "%ld %ld", &size, &resident) != 2) resident = -1;
    std::fclose(f);
    return resident < 0 ? -1 : resident * sysconf(_SC_PAGESIZE);
}

}  // namespace nkrbench
