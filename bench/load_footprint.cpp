// Resident memory of the shipped library as a host program sees it: loaded
// with dlopen, one scan and the first unit opened, then every further unit.
// The simulator (standing in for hidapi) is linked in and its units are
// plugged before the first reading, so only the library's memory is counted.
//
// Usage: nkr_load_footprint path/to/libNKR_focuser.so
// Prints load_bytes=, per_unit_bytes= and units= lines.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "nkr_sim.h"

namespace {

constexpr int kUnits = 128;

long residentBytes()
{
    std::FILE* f = std::fopen("/proc/self/statm", "r");
    if (f == nullptr) return -1;
    long size = 0, resident = -1;
    if (std::fscanf(f, "%ld %ld", &size, &resident) != 2) resident = -1;
    std::fclose(f);
    return resident * sysconf(_SC_PAGESIZE);
}

template <typename Fn>
Fn symbol(void* lib, const char* name)
{
    return reinterpret_cast<Fn>(dlsym(lib, name));
}

int fail(const char* what)
{
    std::fprintf(stderr, "%s\n", what);
    return 1;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) return fail("usage: nkr_load_footprint libNKR_focuser.so");
    // The settings file goes to a private HOME, not the user's (on tmpfs, so
    // that closing 128 units does not wait for the disk).
    char home[] = "/dev/shm/nkr-footprint-XXXXXX";
    char fallback[] = "/tmp/nkr-footprint-XXXXXX";
    const char* made = mkdtemp(home);
    if (made == nullptr) made = mkdtemp(fallback);
    if (made == nullptr) return fail("no temporary HOME");
    const std::string homeDir = made;
    setenv("HOME", homeDir.c_str(), 1);

    nkrsim::reset();
    nkrsim::addUnit(nkrsim::UnitSpec{});

    const long before = residentBytes();
    void* lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) return fail(dlerror());
    auto getNum = symbol<int (*)()>(lib, "NKRGetNum");
    auto getId = symbol<int (*)(int, int*)>(lib, "NKRGetID");
    auto open = symbol<int (*)(int)>(lib, "NKROpen");
    auto close = symbol<int (*)(int)>(lib, "NKRClose");
    if (!getNum || !getId || !open || !close) return fail("exports missing");
    int id = -1;
    if (getNum() != 1 || getId(0, &id) != 0 || open(id) != 0) return fail("first unit did not open");
    const long loaded = residentBytes();

    for (int i = 1; i < kUnits; ++i) nkrsim::addUnit(nkrsim::UnitSpec{});
    const long plugged = residentBytes();
    const int found = getNum();
    if (found != kUnits) return fail("not every unit was found");
    std::vector<int> ids;
    for (int i = 0; i < found; ++i) {
        if (getId(i, &id) != 0) return fail("no id for a unit");
        ids.push_back(id);
        if (open(id) != 0) return fail("a unit did not open");
    }
    const long all = residentBytes();

    std::printf("load_bytes=%ld\nper_unit_bytes=%ld\nunits=%d\n", loaded - before,
                (all - plugged) / (kUnits - 1), kUnits);
    for (int slot : ids) close(slot);
    std::error_code ec;
    std::filesystem::remove_all(homeDir, ec);
    return 0;
}
