#include "simulate.h"

#include <dlfcn.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "errors.h"

#ifndef NKR_SIM_DIR
#define NKR_SIM_DIR ""
#endif
#ifndef NKR_INSTALL_LIBDIR
#define NKR_INSTALL_LIBDIR "lib"
#endif

namespace nkrtool {
namespace {

namespace fs = std::filesystem;

// Marks the re-executed process so it does not re-exec again.
constexpr const char* kActiveMarker = "NKR_SIM_ACTIVE";
constexpr const char* kSimLibraryName = "libhidapi-hidraw.so.0";

fs::path selfExecutable()
{
    std::error_code ec;
    fs::path self = fs::read_symlink("/proc/self/exe", ec);
    return ec ? fs::path() : self;
}

// The build tree's simulator first, then the one installed beside the tool.
fs::path findSimulatorDirectory(std::string& looked)
{
    std::error_code ec;
    fs::path built = NKR_SIM_DIR;
    if (!built.empty()) {
        looked += built.string();
        if (fs::exists(built / kSimLibraryName, ec)) return built;
    }
    fs::path self = selfExecutable();
    if (self.empty()) return {};
    for (const char* libDir : {"lib", NKR_INSTALL_LIBDIR}) {
        fs::path installed = (self.parent_path() / ".." / libDir / "nkr-sim").lexically_normal();
        if (looked.find(installed.string()) != std::string::npos) continue;
        looked += (looked.empty() ? "" : ", ") + installed.string();
        if (fs::exists(installed / kSimLibraryName, ec)) return installed;
    }
    return {};
}

}  // namespace

// $XDG_STATE_HOME/nkr-sim, or ~/.local/state/nkr-sim: the simulated units'
// saved positions live there, apart from the user's real settings.
fs::path privateStateDirectory()
{
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

namespace {

void setEnv(const char* name, const std::string& value)
{
    if (setenv(name, value.c_str(), 1) != 0)
        throw ToolError(std::string("cannot set ") + name + ": " + std::strerror(errno), -1,
                        kExitDeviceError);
}

// The file the simulated world is kept in between commands: in the login
// session's runtime folder (gone at log-out, like units unplugged), else
// beside the units' saved settings.
std::string worldStateFile()
{
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    std::error_code ec;
    if (runtime != nullptr && runtime[0] == '/' && fs::is_directory(runtime, ec))
        return (fs::path(runtime) / "nkr-sim" / "world").string();
    return (privateStateDirectory() / "world").string();
}

// Asks the simulator (this process's HID library after the restart) whether
// NKR_SIM_UNITS and NKR_SIM_UNPLUG make sense, before it builds its world.
void validateSimulatorEnvironment()
{
    using Validate = int (*)(char*, size_t);
    auto validate = reinterpret_cast<Validate>(dlsym(RTLD_DEFAULT, "nkr_sim_validate_environment"));
    if (validate == nullptr) return;  // an older simulator: it checks nothing
    char message[512] = {0};
    if (validate(message, sizeof message) == 0) throw ToolError(message, -1, kExitUsage);
}

}  // namespace

bool simulateRequestedByEnvironment()
{
    const char* value = std::getenv("NKR_SIMULATE");
    if (value == nullptr) return false;
    for (const char* yes : {"1", "true", "yes"})
        if (strcasecmp(value, yes) == 0) return true;
    return false;
}

bool runningInSimulator()
{
    const char* value = std::getenv(kActiveMarker);
    return value != nullptr && std::strcmp(value, "1") == 0;
}

void enterSimulatorIfRequested(const SimulateOptions& options, char** argv)
{
    if (!options.requested) return;
    if (runningInSimulator()) {
        validateSimulatorEnvironment();
        return;
    }

    std::string looked;
    fs::path simDir = findSimulatorDirectory(looked);
    if (simDir.empty())
        throw ToolError("the simulator library " + std::string(kSimLibraryName) +
                            " was not found (looked in " + looked +
                            "); build the nkr_sim target or reinstall the tool",
                        -1, kExitDeviceError);

    const char* oldPath = std::getenv("LD_LIBRARY_PATH");
    std::string libraryPath = simDir.string();
    if (oldPath != nullptr && oldPath[0] != '\0') libraryPath += std::string(":") + oldPath;
    setEnv("LD_LIBRARY_PATH", libraryPath);
    setEnv("NKR_BLE_HELPER", (simDir / kSimLibraryName).string());
    setEnv(kActiveMarker, "1");
    // One simulated world for every command, kept as real units keep theirs.
    const char* stateFile = std::getenv("NKR_SIM_STATE");
    if (stateFile == nullptr || stateFile[0] == '\0') setEnv("NKR_SIM_STATE", worldStateFile());

    if (!options.realHome) {
        fs::path stateDir = privateStateDirectory();
        std::error_code ec;
        fs::create_directories(stateDir, ec);
        if (ec)
            throw ToolError("cannot create the simulator's state directory " + stateDir.string() +
                                ": " + ec.message(),
                            -1, kExitDeviceError);
        setEnv("HOME", stateDir.string());
    }

    execv("/proc/self/exe", argv);
    throw ToolError(std::string("cannot restart the tool in the simulator: ") + std::strerror(errno),
                    -1, kExitDeviceError);
}

}  // namespace nkrtool
