// Fault tests: the saved record as the file holds it (read without the store,
// which would rewrite it), and a child process with a private /tmp.
#pragma once
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <regex>

#include "store_test_support.h"
#include "test_support.h"

namespace faulttest {

inline std::string settingsPath() { return storetest::configDir() + "NKRconfig.xml"; }

// The five values of the saved record.
struct Saved {
    int position = -1, backlash = -1, beep = -1, maxStep = -1, reverse = -1;
    bool operator==(const Saved&) const = default;
};
inline const std::pair<const char*, int Saved::*> kFields[] = {{"Position", &Saved::position}, {"Backlash", &Saved::backlash},
    {"Beep", &Saved::beep}, {"MaxStep", &Saved::maxStep}, {"Reverse", &Saved::reverse}};

// The record as the file holds it (4-byte little-endian hex values); nullopt when a value is missing.
inline std::optional<Saved> savedRecord(const std::string& path = settingsPath())
{
    const std::string text = storetest::readFile(path);
    Saved s;
    for (const auto& [name, field] : kFields) {
        std::smatch m;
        if (!std::regex_search(text, m, std::regex(std::string("<") + name + " type=\"4\">([0-9a-f]{8})</" + name + ">")))
            return std::nullopt;
        const unsigned long v = std::strtoul(m[1].str().c_str(), nullptr, 16);
        s.*field = static_cast<int>(((v & 0xFF) << 24) | ((v & 0xFF00) << 8) | ((v >> 8) & 0xFF00) | ((v >> 24) & 0xFF));
    }
    return s;
}

// Writes a record as an earlier session's close would have.
inline void writeSavedRecord(const Saved& s)
{
    std::string values;
    for (const auto& [name, field] : kFields) {
        const unsigned u = static_cast<unsigned>(s.*field);
        char hex[9];
        std::snprintf(hex, sizeof hex, "%02x%02x%02x%02x", u & 0xFF, (u >> 8) & 0xFF, (u >> 16) & 0xFF, u >> 24);
        values += std::string("<") + name + " type=\"4\">" + hex + "</" + name + ">\n";
    }
    storetest::writeFile(settingsPath(), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<software>\n<HTX_Drevomat>\n" +
                                             values + "</HTX_Drevomat>\n</software>\n");
}

// Exit code of a child that could not get a private /tmp (no namespaces allowed here): the caller skips.
inline constexpr int kNoPrivateTmp = 77;

// Runs body in a child process whose /tmp (and alsoHide, when given) is a
// fresh private tmpfs. body returns 0, or a failure code after printing why.
// Returns the child's exit code.
inline int runWithPrivateTmp(const std::function<int()>& body, const std::string& alsoHide = "")
{
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        const std::string uid = std::to_string(geteuid()), gid = std::to_string(getegid());
        auto put = [](const char* file, const std::string& text) {
            FILE* f = std::fopen(file, "w");
            const bool ok = f && std::fputs(text.c_str(), f) >= 0;
            return f && std::fclose(f) == 0 && ok;
        };
        // An ordinary user gets a user namespace that maps only itself.
        if (geteuid() == 0 ? unshare(CLONE_NEWNS) != 0
                           : unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 || !put("/proc/self/setgroups", "deny") ||
                                 !put("/proc/self/uid_map", uid + " " + uid + " 1") ||
                                 !put("/proc/self/gid_map", gid + " " + gid + " 1"))
            _exit(kNoPrivateTmp);
        if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0 ||
            (!alsoHide.empty() && mount("tmpfs", alsoHide.c_str(), "tmpfs", 0, "mode=0755") != 0))
            _exit(kNoPrivateTmp);
        const int rc = body();
        std::fflush(stdout);
        std::fflush(stderr);
        _exit(rc);
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// In a child: prints a failure and gives its code.
#define FAULT_CHECK(cond, code)                                                    \
    do {                                                                           \
        if (!(cond)) {                                                             \
            std::fprintf(stderr, "child check failed (%d): %s\n", (code), #cond); \
            return (code);                                                         \
        }                                                                          \
    } while (0)

}  // namespace faulttest
