#include "simulator_launch.h"

#include <dlfcn.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

#ifndef NKR_SIM_DIR
#define NKR_SIM_DIR ""
#endif
#ifndef NKR_BUILD_DIR
#define NKR_BUILD_DIR ""
#endif
#ifndef NKR_INSTALL_LIBDIR
#define NKR_INSTALL_LIBDIR "lib"
#endif

namespace nkrsim::launch {
namespace fs = std::filesystem;
namespace {

// Marks the restarted process so that it does not restart again.
constexpr const char* kActiveMarker = "NKR_SIM_ACTIVE";
constexpr const char* kSimLibraryName = "libhidapi-hidraw.so.0";

// True when `path` lies inside `folder` (both absolute and normal).
bool inside(const fs::path& path, const fs::path& folder)
{
    auto [end, rest] = std::mismatch(folder.begin(), folder.end(), path.begin(), path.end());
    return end == folder.end() && rest != path.end();
}

// The build tree's simulator for a program run from that tree, else the one
// installed beside the program; every folder tried is added to looked. An
// installed program never takes a build tree's simulator, even while that
// tree is still there.
fs::path findSimulatorDirectory(std::string& looked)
{
    std::error_code ec;
    fs::path self = fs::read_symlink("/proc/self/exe", ec);
    if (ec) return {};
    fs::path built = NKR_SIM_DIR;
    fs::path buildTree = NKR_BUILD_DIR;
    if (!built.empty() && !buildTree.empty() && inside(self.lexically_normal(), buildTree.lexically_normal())) {
        looked += built.string();
        if (fs::exists(built / kSimLibraryName, ec)) return built;
    }
    for (const char* libDir : {"lib", NKR_INSTALL_LIBDIR}) {
        fs::path installed = (self.parent_path() / ".." / libDir / "nkr-sim").lexically_normal();
        if (looked.find(installed.string()) != std::string::npos) continue;
        looked += (looked.empty() ? "" : ", ") + installed.string();
        if (fs::exists(installed / kSimLibraryName, ec)) return installed;
    }
    return {};
}

// The file the shared world is kept in: in the login session's runtime
// folder (gone at log-out, like units unplugged), else beside the units'
// saved settings.
std::string worldStateFile()
{
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    std::error_code ec;
    if (runtime != nullptr && runtime[0] == '/' && fs::is_directory(runtime, ec))
        return (fs::path(runtime) / "nkr-sim" / "world").string();
    return (privateStateDirectory() / "world").string();
}

bool setEnv(const char* name, const std::string& value, std::string& error)
{
    if (setenv(name, value.c_str(), 1) == 0) return true;
    error = std::string("cannot set ") + name + ": " + std::strerror(errno);
    return false;
}

}  // namespace

bool requestedByEnvironment()
{
    const char* value = std::getenv("NKR_SIMULATE");
    if (value == nullptr) return false;
    for (const char* yes : {"1", "true", "yes"})
        if (strcasecmp(value, yes) == 0) return true;
    return false;
}

bool active()
{
    const char* value = std::getenv(kActiveMarker);
    return value != nullptr && std::strcmp(value, "1") == 0;
}

fs::path privateStateDirectory()
{
    // Set by prepareEnvironment: HOME may already point into the folder.
    const char* chosen = std::getenv("NKR_SIM_HOME");
    if (chosen != nullptr && chosen[0] == '/') return chosen;
    const char* xdg = std::getenv("XDG_STATE_HOME");
    fs::path base;
    if (xdg != nullptr && xdg[0] == '/') {
        base = xdg;
    } else {
        const char* home = std::getenv("HOME");
        base = fs::path(home != nullptr && home[0] != '\0' ? home : "/tmp") / ".local" / "state";
    }
    return base / "nkr-sim";
}

std::string prepareEnvironment(const Options& options, const std::string& simulatorLibrary)
{
    std::string error;
    if (!setEnv("NKR_BLE_HELPER", simulatorLibrary, error)) return error;
    const char* stateFile = std::getenv("NKR_SIM_STATE");
    if (options.shareWorld && (stateFile == nullptr || stateFile[0] == '\0') &&
        !setEnv("NKR_SIM_STATE", worldStateFile(), error))
        return error;
    if (!options.realHome) {
        fs::path home = privateStateDirectory();
        std::error_code ec;
        fs::create_directories(home, ec);
        if (ec) return "cannot create the simulator's state directory " + home.string() + ": " + ec.message();
        if (!setEnv("NKR_SIM_HOME", home.string(), error)) return error;
        if (!setEnv("HOME", home.string(), error)) return error;
        if (!setEnv("XDG_CONFIG_HOME", (home / ".config").string(), error)) return error;
    }
    return {};
}

std::vector<fs::path> privateSettingsPaths()
{
    const fs::path home = privateStateDirectory();
    return {home / ".HTX", home / ".config" / "nkr", home / ".config" / "nkr-alpaca", home / ".indi"};
}

std::string restart(const Options& options, char** argv)
{
    std::string looked;
    fs::path simDir = findSimulatorDirectory(looked);
    if (simDir.empty())
        return "the simulator library " + std::string(kSimLibraryName) + " was not found (looked in " + looked +
               "); build the nkr_sim target or reinstall";

    std::string error;
    std::string libraryPath = simDir.string();
    const char* oldPath = std::getenv("LD_LIBRARY_PATH");
    if (oldPath != nullptr && oldPath[0] != '\0') libraryPath += std::string(":") + oldPath;
    if (!setEnv("LD_LIBRARY_PATH", libraryPath, error)) return error;
    if (!setEnv(kActiveMarker, "1", error)) return error;
    error = prepareEnvironment(options, (simDir / kSimLibraryName).string());
    if (!error.empty()) return error;

    execv("/proc/self/exe", argv);
    return std::string("cannot restart in the simulator: ") + std::strerror(errno);
}

std::string checkEnvironment()
{
    // The simulator is this process's HID library after the restart; an older
    // one without the check accepts everything.
    using Validate = int (*)(char*, size_t);
    auto validate = reinterpret_cast<Validate>(dlsym(RTLD_DEFAULT, "nkr_sim_validate_environment"));
    if (validate == nullptr) return {};
    char message[512] = {0};
    return validate(message, sizeof message) == 0 ? std::string(message) : std::string();
}

}  // namespace nkrsim::launch
