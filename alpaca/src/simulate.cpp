#include "simulate.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#ifndef NKR_SIM_DIR
#define NKR_SIM_DIR ""
#endif
#ifndef NKR_INSTALL_LIBDIR
#define NKR_INSTALL_LIBDIR "lib"
#endif

namespace alpaca {
namespace fs = std::filesystem;
namespace {

constexpr const char* kActiveMarker = "NKR_SIM_ACTIVE";
constexpr const char* kSimLibraryName = "libhidapi-hidraw.so.0";

// The build tree's simulator first, then the one installed beside the program.
fs::path simulatorDirectory()
{
    std::error_code ec;
    fs::path built = NKR_SIM_DIR;
    if (!built.empty() && fs::exists(built / kSimLibraryName, ec)) return built;
    fs::path self = fs::read_symlink("/proc/self/exe", ec);
    if (ec) return {};
    for (const char* libDir : {"lib", NKR_INSTALL_LIBDIR}) {
        fs::path installed = (self.parent_path() / ".." / libDir / "nkr-sim").lexically_normal();
        if (fs::exists(installed / kSimLibraryName, ec)) return installed;
    }
    return {};
}

// Simulated units keep their saved positions apart from the user's real ones.
fs::path privateStateDirectory()
{
    const char* xdg = std::getenv("XDG_STATE_HOME");
    if (xdg != nullptr && xdg[0] == '/') return fs::path(xdg) / "nkr-sim";
    const char* home = std::getenv("HOME");
    return fs::path(home != nullptr && home[0] != '\0' ? home : "/tmp") / ".local" / "state" / "nkr-sim";
}

}  // namespace

std::string enterSimulator(char** argv)
{
    const char* active = std::getenv(kActiveMarker);
    if (active != nullptr && std::strcmp(active, "1") == 0) return {};
    fs::path simDir = simulatorDirectory();
    if (simDir.empty()) return std::string("the simulator library ") + kSimLibraryName + " was not found";
    std::string libraryPath = simDir.string();
    const char* oldPath = std::getenv("LD_LIBRARY_PATH");
    if (oldPath != nullptr && oldPath[0] != '\0') libraryPath += std::string(":") + oldPath;
    // The device map stays in the user's real config dir; only HOME moves.
    if (std::getenv("XDG_CONFIG_HOME") == nullptr) {
        const char* home = std::getenv("HOME");
        if (home != nullptr) setenv("XDG_CONFIG_HOME", (fs::path(home) / ".config" / "nkr-alpaca-sim").c_str(), 1);
    }
    fs::path state = privateStateDirectory();
    std::error_code ec;
    fs::create_directories(state, ec);
    if (ec) return "cannot create " + state.string() + ": " + ec.message();
    setenv("LD_LIBRARY_PATH", libraryPath.c_str(), 1);
    setenv("NKR_BLE_HELPER", (simDir / kSimLibraryName).c_str(), 1);
    setenv(kActiveMarker, "1", 1);
    setenv("HOME", state.c_str(), 1);
    execv("/proc/self/exe", argv);
    return std::string("cannot restart in the simulator: ") + std::strerror(errno);
}

}  // namespace alpaca
