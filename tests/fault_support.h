// Shared set-up of the fault-injection tests: the saved settings record as it
// stands in the file (read without the store, which would rewrite the file),
// and a child process with a private /tmp for faults that must not touch the
// machine's real /tmp or home.
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
#include <string>

#include "store_test_support.h"
#include "test_support.h"

namespace faulttest {

inline std::string settingsPath() { return storetest::configDir() + "NKRconfig.xml"; }

// The five values of the saved record, as the file holds them now.
struct Saved {
    int position = -1, backlash = -1, beep = -1, maxStep = -1, reverse = -1;
    bool operator==(const Saved&) const = default;
};

// One 4-byte little-endian value of the file's text; nullopt when missing.
inline std::optional<int> valueIn(const std::string& text, const std::string& name)
{
    std::smatch m;
    const std::regex re("<" + name + " type=\"4\">([0-9a-f]{8})</" + name + ">");
    if (!std::regex_search(text, m, re)) return std::nullopt;
    const unsigned long v = std::strtoul(m[1].str().c_str(), nullptr, 16);
    const unsigned le = static_cast<unsigned>(((v & 0xFF) << 24) | ((v & 0xFF00) << 8) |
                                              ((v >> 8) & 0xFF00) | ((v >> 24) & 0xFF));
    return static_cast<int>(le);
}

inline std::optional<Saved> savedRecord(const std::string& path = settingsPath())
{
    const std::string text = storetest::readFile(path);
    auto p = valueIn(text, "Position"), b = valueIn(text, "Backlash"), be = valueIn(text, "Beep"),
         m = valueIn(text, "MaxStep"), r = valueIn(text, "Reverse");
    if (!p || !b || !be || !m || !r) return std::nullopt;
    return Saved{*p, *b, *be, *m, *r};
}

// Writes a record as an earlier session's close would have (4-byte little-endian hex).
inline std::string leHex(int v)
{
    char out[9];
    const unsigned u = static_cast<unsigned>(v);
    std::snprintf(out, sizeof out, "%02x%02x%02x%02x", u & 0xFF, (u >> 8) & 0xFF, (u >> 16) & 0xFF, u >> 24);
    return out;
}
inline void writeSavedRecord(const Saved& s)
{
    std::string values;
    const std::pair<const char*, int> fields[] = {
        {"Position", s.position}, {"Backlash", s.backlash}, {"Beep", s.beep}, {"MaxStep", s.maxStep}, {"Reverse", s.reverse}};
    for (const auto& [name, v] : fields)
        values += std::string("<") + name + " type=\"4\">" + leHex(v) + "</" + name + ">\n";
    storetest::writeFile(settingsPath(), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<software>\n<HTX_Drevomat>\n" +
                                             values + "</HTX_Drevomat>\n</software>\n");
}

// Exit code of a child that could not get a private /tmp (no permission for
// namespaces on this machine): the caller skips.
inline constexpr int kNoPrivateTmp = 77;

// Runs body in a child process whose /tmp (and, when asked, the password
// database's home directory) is a fresh private tmpfs; the machine's own
// directories are never touched. body returns 0 on success or a failure code
// after printing why. Returns the child's exit code.
inline int runWithPrivateTmp(const std::function<int()>& body, const std::string& alsoHide = "")
{
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        const uid_t uid = geteuid();
        const gid_t gid = getegid();
        if (uid == 0) {
            if (unshare(CLONE_NEWNS) != 0) _exit(kNoPrivateTmp);
        } else {
            // An ordinary user gets a user namespace that maps only itself.
            if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) _exit(kNoPrivateTmp);
            auto put = [](const char* file, const std::string& text) {
                FILE* f = std::fopen(file, "w");
                const bool ok = f && std::fputs(text.c_str(), f) >= 0;
                return (f && std::fclose(f) == 0) && ok;
            };
            if (!put("/proc/self/setgroups", "deny") ||
                !put("/proc/self/uid_map", std::to_string(uid) + " " + std::to_string(uid) + " 1") ||
                !put("/proc/self/gid_map", std::to_string(gid) + " " + std::to_string(gid) + " 1"))
                _exit(kNoPrivateTmp);
        }
        if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(kNoPrivateTmp);
        if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) _exit(kNoPrivateTmp);
        if (!alsoHide.empty() && mount("tmpfs", alsoHide.c_str(), "tmpfs", 0, "mode=0755") != 0)
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
