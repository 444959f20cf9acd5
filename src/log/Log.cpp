// Diagnostic log: one rotating file per process start under a fixed, world-
// shared directory in /tmp. Nothing here may throw into the caller: every
// problem is reported on stderr and the library then runs without a logger.
#include "Log.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
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
#include <set>
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

std::string logFileName(const std::string& dir, time_t when)
{
    char stamp[100] = {0};
    struct tm local {};
    localtime_r(&when, &local);
    strftime(stamp, sizeof stamp, "%Y-%m-%d_%H-%M-%S", &local);
    return dir + "log_" + stamp + ".txt";
}

// How many later seconds a start-up tries when names are taken.
constexpr int kNameAttempts = 120;

// The part of a log file name that its rotated files share ("log_<time>").
std::string rotationGroup(const std::string& name) { return name.substr(0, name.find('.')); }

// True when a running process holds the file's lock. Files that cannot be
// opened count as in use: better kept than deleted from under someone.
bool inUse(const std::string& path)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return errno != ENOENT;
    bool locked = flock(fd, LOCK_SH | LOCK_NB) != 0;
    close(fd);
    return locked;
}

// Deletes path unless a process locks it meanwhile: the shared lock held
// over the unlink keeps a starting process from claiming the doomed file.
bool deleteIfUnused(const std::string& path)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return errno == ENOENT;
    bool done = false;
    if (flock(fd, LOCK_SH | LOCK_NB) == 0) done = unlink(path.c_str()) == 0 || errno == ENOENT;
    close(fd);
    return done;
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
    // A running process's file and its rotated files stay.
    std::set<std::string> busyGroups;
    for (const LogFileEntry& f : files)
        if (inUse(f.path)) busyGroups.insert(rotationGroup(f.path.substr(dir.size())));
    for (size_t i = 0; i < files.size() - keep; ++i) {
        if (busyGroups.count(rotationGroup(files[i].path.substr(dir.size())))) continue;
        if (!deleteIfUnused(files[i].path))
            std::cerr << "Failed to delete file: " << files[i].path << std::endl;
    }
}

std::string claimLogFile(const std::string& dir, time_t startTime, int* fd)
{
    int lostRaces = 0;
    for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
        std::string path = logFileName(dir, startTime + attempt);
        int file = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644);
        if (file < 0) {
            if (errno == EEXIST) continue;  // another process's name
            std::cerr << "Failed to create the log file: " << path << " - " << std::strerror(errno)
                      << std::endl;
            return {};
        }
        // Only a pruning process's short probe can hold a lock on a file
        // this process just made, so the wait is brief. If that process
        // deleted the new file meanwhile, the name is free again: retry it.
        int rc;
        while ((rc = flock(file, LOCK_EX)) != 0 && errno == EINTR) {
        }
        struct stat held {}, named {};
        bool ours = rc == 0 && fstat(file, &held) == 0 && lstat(path.c_str(), &named) == 0 &&
                    held.st_ino == named.st_ino && held.st_dev == named.st_dev;
        if (!ours) {
            close(file);
            if (++lostRaces < kNameAttempts) --attempt;
            continue;
        }
        if (fd) *fd = file;
        return path;
    }
    std::cerr << "Failed to create the log file: every name from " << logFileName(dir, startTime)
              << " on is taken" << std::endl;
    return {};
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
        // The lock lives as long as the process: its file is safe from the
        // pruning of processes started later.
        int lockFd = -1;
        std::string file = nkrlog::claimLogFile(dir, time(nullptr), &lockFd);
        if (file.empty()) return;
        createLogger(file);
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
