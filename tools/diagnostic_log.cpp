#include "diagnostic_log.h"

#include <atomic>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

namespace nkrtool {
namespace {

namespace fs = std::filesystem;

std::atomic<bool> g_stop{false};
std::thread g_tail;
// The size of every log file when the tail began: processes started in the
// same second share a file, and what they wrote before this run is theirs.
std::map<std::string, std::uintmax_t> g_sizesAtStart;

// The log file this process has open, if the library has opened one yet.
std::string ownLogFile()
{
    std::error_code ec;
    const std::string dir = logDirectory();
    for (const auto& entry : fs::directory_iterator("/proc/self/fd", ec)) {
        std::error_code linkError;
        fs::path target = fs::read_symlink(entry.path(), linkError);
        if (!linkError && target.string().rfind(dir, 0) == 0) return target.string();
    }
    return "";
}

// Lines about memory addresses ("pszInBuf is 0x55f88ea9def0") help whoever
// reads the log file, not the person at the terminal.
bool forPeople(const std::string& line)
{
    for (size_t at = line.find("0x"); at != std::string::npos; at = line.find("0x", at + 2)) {
        size_t digits = 0;
        while (at + 2 + digits < line.size() && std::isxdigit(static_cast<unsigned char>(line[at + 2 + digits])))
            ++digits;
        if (digits >= 8) return false;
    }
    return line.find("(nil)") == std::string::npos;
}

void show(const std::string& line)
{
    if (forPeople(line)) std::fprintf(stderr, "nkr: log: %s\n", line.c_str());
}

void copyNewLines(std::ifstream& in, std::string& partial)
{
    std::string chunk;
    char buf[4096];
    for (;;) {
        in.read(buf, sizeof buf);
        std::streamsize n = in.gcount();
        if (n <= 0) break;
        chunk.append(buf, static_cast<size_t>(n));
    }
    in.clear();  // at the end for now; more may come
    partial += chunk;
    for (size_t newline; (newline = partial.find('\n')) != std::string::npos;) {
        show(partial.substr(0, newline));
        partial.erase(0, newline + 1);
    }
}

void follow()
{
    std::string path;
    std::ifstream in;
    std::string partial;
    for (bool last = false; !last;) {
        last = g_stop.load();
        if (path.empty()) {
            path = ownLogFile();
            if (!path.empty()) {
                in.open(path, std::ios::binary);
                auto before = g_sizesAtStart.find(path);
                if (before != g_sizesAtStart.end()) in.seekg(static_cast<std::streamoff>(before->second));
            }
        }
        if (in.is_open()) copyNewLines(in, partial);
        if (!last) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (!partial.empty()) show(partial);
    if (!path.empty()) std::fprintf(stderr, "nkr: the diagnostic log of this run is %s\n", path.c_str());
}

}  // namespace

const char* logDirectory() { return "/tmp/htx/log/nkr_sdk/"; }

std::string newestLogFile()
{
    std::error_code ec;
    fs::path newest;
    fs::file_time_type newestTime{};
    for (const auto& entry : fs::directory_iterator(logDirectory(), ec)) {
        std::error_code e;
        if (!entry.is_regular_file(e) || entry.path().string().find(".txt") == std::string::npos) continue;
        auto t = entry.last_write_time(e);
        if (!e && (newest.empty() || t > newestTime)) {
            newest = entry.path();
            newestTime = t;
        }
    }
    return newest.string();
}

void startLogTail()
{
    if (g_tail.joinable()) return;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(logDirectory(), ec)) {
        std::error_code e;
        const std::uintmax_t size = entry.file_size(e);
        if (!e) g_sizesAtStart[entry.path().string()] = size;
    }
    g_tail = std::thread(follow);
}

void stopLogTail()
{
    if (!g_tail.joinable()) return;
    g_stop = true;
    g_tail.join();
}

}  // namespace nkrtool
