#include "bench_env.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <thread>

#include "NKR_focuser.h"
#include "api/Registry.h"
#include "device/Sleep.h"
#include "timing.h"

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

bool runStatusReads(const std::vector<int>& ids, int perThread)
{
    return runOnThreads(static_cast<int>(ids.size()), [&](int t) {
        int step = 0;
        for (int i = 0; i < perThread; ++i)
            if (NKRGetPosition(ids[static_cast<size_t>(t)], &step) != NKR_SUCCESS) return false;
        return true;
    });
}

}  // namespace nkrbench
