// Diagnostic log: one rotating file per process start under a fixed, world-
// shared directory in /tmp. Nothing here may throw into the caller: every
// problem is reported on stderr and the library then runs without a logger.
#include "Log.h"

#include <dirent.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <iostream>
#include <memory>
#include <mutex>
#include <vector>

namespace {

constexpr const char* kLoggerName = "rotating_file_logger";
constexpr size_t kMaxFileSize = 1048576;
constexpr size_t kMaxFiles = 20;
constexpr size_t kKeepAtStart = 20;

struct LogFileEntry {
    std::string path;
    time_t mtime;
};

std::mutex& initMutex()
{
    static std::mutex m;
    return m;
}

// The logger is read without a lock by every thread; it is published once and
// owned by a holder that is never destroyed, so logging from static
// destructors at process exit stays safe.
struct LoggerState {
    std::shared_ptr<spdlog::logger> logger;
    std::string file;
};
std::atomic<spdlog::logger*> g_logger{nullptr};
LoggerState* g_state = nullptr;  // under initMutex

bool isUnsafeComponent(const std::string& prefix, bool checkOwner)
{
    struct stat st {};
    if (lstat(prefix.c_str(), &st) != 0) return false;  // missing: mkdir already said why
    const char* why = nullptr;
    if (S_ISLNK(st.st_mode))
        why = "is a symbolic link";
    else if (!S_ISDIR(st.st_mode))
        why = "is not a directory";
    else if (checkOwner && st.st_uid != geteuid())
        why = "is owned by another user";
    if (why == nullptr) return false;
    std::cerr << "Unsafe log directory: " << prefix << " - " << why << std::endl;
    return true;
}

void writeLog(spdlog::level::level_enum level, const std::string& msg, const char* file,
              int line, const char* func) noexcept
{
    spdlog::logger* logger = g_logger.load(std::memory_order_acquire);
    if (logger == nullptr) return;
    try {
        logger->log(level, "[{}:{} {}] {}", file ? file : "", line, func ? func : "", msg);
    } catch (...) {
        // A log line is never worth failing the caller's operation.
    }
}

std::string logFileNameNow(const std::string& dir)
{
    char stamp[100] = {0};
    time_t now = time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    strftime(stamp, sizeof stamp, "%Y-%m-%d_%H-%M-%S", &local);
    return dir + "log_" + stamp + ".txt";
}

void createLogger(const std::string& file)
{
    auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(file, kMaxFileSize,
                                                                       kMaxFiles, false);
    auto logger = std::make_shared<spdlog::logger>(kLoggerName, sink);
    // A logger of that name left in the registry can only be a stale one of
    // ours (the library was unloaded and loaded again): replace it.
    spdlog::drop(kLoggerName);
    spdlog::register_logger(logger);
    spdlog::set_pattern("[%Y-%m-%d %H:%M:%S.%e] [%l] %v", spdlog::pattern_time_type::local);
    logger->set_level(spdlog::level::debug);
    logger->flush_on(spdlog::level::info);
    spdlog::set_default_logger(logger);

    g_state = new LoggerState{logger, file};
    g_logger.store(logger.get(), std::memory_order_release);
}

}  // namespace

namespace nkrlog {

bool prepareLogDir(const std::string& dir)
{
    bool complete = true;
    bool topLevel = true;
    for (size_t slash = dir.find('/', 1); slash != std::string::npos;
         slash = dir.find('/', slash + 1)) {
        std::string prefix = dir.substr(0, slash);
        if (mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
            std::cerr << "Error creating directory: " << prefix << " - " << std::strerror(errno)
                      << std::endl;
            complete = false;
        }
        // Checked before the next mkdir, so a planted link is never walked through.
        if (isUnsafeComponent(prefix, !topLevel)) return false;
        topLevel = false;
    }
    return complete;
}

void removeOldLogFiles(const std::string& dir, size_t keep)
{
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        std::cerr << "Failed to open directory: " << dir << std::endl;
        return;
    }
    std::vector<LogFileEntry> files;
    while (struct dirent* entry = readdir(d)) {
        if (std::strstr(entry->d_name, ".txt") == nullptr) continue;
        std::string path = dir + entry->d_name;
        struct stat st {};
        if (lstat(path.c_str(), &st) != 0) {
            std::cerr << "Failed to get file write time: " << path << std::endl;
            continue;
        }
        if (S_ISREG(st.st_mode)) files.push_back({path, st.st_mtime});
    }
    closedir(d);
    if (files.size() <= keep) return;

    std::sort(files.begin(), files.end(), [](const LogFileEntry& a, const LogFileEntry& b) {
        return a.mtime != b.mtime ? a.mtime < b.mtime : a.path < b.path;
    });
    for (size_t i = 0; i < files.size() - keep; ++i) {
        if (unlink(files[i].path.c_str()) != 0)
            std::cerr << "Failed to delete file: " << files[i].path << std::endl;
    }
}

std::string currentLogFile()
{
    std::lock_guard<std::mutex> lock(initMutex());
    return g_state ? g_state->file : std::string();
}

}  // namespace nkrlog

void InitLogger()
{
    try {
        std::lock_guard<std::mutex> lock(initMutex());
        if (g_logger.load(std::memory_order_acquire) != nullptr) return;
        const std::string dir = nkrlog::kLogDir;
        if (!nkrlog::prepareLogDir(dir)) return;
        nkrlog::removeOldLogFiles(dir, kKeepAtStart);
        createLogger(logFileNameNow(dir));
    } catch (const std::exception& e) {
        std::cerr << "Failed to create the log: " << e.what() << std::endl;
    } catch (...) {
        std::cerr << "Failed to create the log" << std::endl;
    }
}

void LogInfo(const std::string& msg, const char* file, int line, const char* func)
{
    writeLog(spdlog::level::info, msg, file, line, func);
}

void LogDebug(const std::string& msg, const char* file, int line, const char* func)
{
    writeLog(spdlog::level::debug, msg, file, line, func);
}
