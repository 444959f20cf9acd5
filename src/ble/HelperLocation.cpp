#include "HelperLocation.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "../log/Log.h"

namespace nkrble {
namespace {

constexpr const char* kDefaultHelperPath = "./lib/libBlueShim.so";

bool exists(const std::string& path)
{
    struct stat st{};
    return stat(path.c_str(), &st) == 0;
}

// Logs and tells whether `path` may be loaded.
bool acceptable(const std::string& path)
{
    std::string why = helperRefusal(path.c_str());
    if (why.empty()) return true;
    NKR_LOG("Bluetooth helper %s refused: %s", path.c_str(), why.c_str());
    return false;
}

}  // namespace

std::string helperRefusal(const char* path)
{
    struct stat st{};
    if (path == nullptr || stat(path, &st) != 0) return {};
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "writable by group or others";
    if (st.st_uid != 0 && st.st_uid != geteuid())
        return "owned by user " + std::to_string(st.st_uid) + ", not by root or this user";
    return {};
}

std::string installedHelperPath()
{
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&installedHelperPath), &info) == 0 || info.dli_fname == nullptr)
        return {};
    std::string library = info.dli_fname;
    auto slash = library.rfind('/');
    std::string folder = slash == std::string::npos ? "." : library.substr(0, slash);
    return folder + "/nkr/libBlueShim.so";
}

std::string chooseHelperPath()
{
    const char* fromEnv = std::getenv("NKR_BLE_HELPER");
    if (fromEnv != nullptr && *fromEnv != '\0') return acceptable(fromEnv) ? fromEnv : std::string();

    bool refused = false;
    if (exists(kDefaultHelperPath)) {
        if (acceptable(kDefaultHelperPath)) return kDefaultHelperPath;
        refused = true;
    }
    std::string installed = installedHelperPath();
    if (!installed.empty() && exists(installed)) {
        NKR_LOG("Using the Bluetooth helper installed with the library: %s", installed.c_str());
        return acceptable(installed) ? installed : std::string();
    }
    // Nothing else: the default path, so that the loader's usual message says what is missing.
    return refused ? std::string() : kDefaultHelperPath;
}

}  // namespace nkrble
