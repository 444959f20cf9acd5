#include "log.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>

namespace alpaca {
namespace {
std::atomic<bool> quiet{false};
std::mutex outMutex;
std::function<void(const std::string&, const std::string&)> sink;  // guarded by outMutex

void write(const char* level, const std::string& line)
{
    {
        std::lock_guard lock(outMutex);
        if (sink) return sink(level, line);
    }
    if (quiet) return;
    std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm tm{};
    gmtime_r(&now, &tm);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &tm);
    std::lock_guard lock(outMutex);
    std::fprintf(stderr, "%s %s %s\n", stamp, level, line.c_str());
}
}  // namespace

void logInfo(const std::string& line) { write("info", line); }
void logWarn(const std::string& line) { write("warn", line); }
void setLogQuiet(bool q) { quiet = q; }
void setLogSink(std::function<void(const std::string&, const std::string&)> s)
{
    std::lock_guard lock(outMutex);
    sink = std::move(s);
}
}  // namespace alpaca
