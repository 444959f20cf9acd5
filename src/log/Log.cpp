// Diagnostic log: one rotating file per start second (the processes started
// in one second share it) under a fixed, world-shared directory in /tmp.
// Nothing here may throw into the caller: every problem is reported on stderr
// and the library then runs without a logger.
#include "Log.h"

#include <dirent.h>
#include <fcntl.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>
#include <sys/file.h>
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

// How often opening the log file is tried when a pruning process keeps
// deleting it from under this one (each loss means the name is free again).
constexpr int kOpenAttempts = 100;

// The part of a log file name that its rotated files share ("log_<time>").
std::string rotationGroup(const std::string& name) { return name.substr(0, name.find('.')); }

// Every process holds a shared lock on the file it writes for as long as it
// runs, so a file is unused exactly when an exclusive lock can be had.
// Files that cannot be opened count as in use: better kept than deleted from
// under someone.
bool inUse(const std::string& path)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return errno != ENOENT;
    bool locked = flock(fd, LOCK_EX | LOCK_NB) != 0;
    close(fd);
    return locked;
}

// Deletes path unless a process uses it: the exclusive lock held over the
// unlink keeps a starting process from taking up the doomed file meanwhile.
bool deleteIfUnused(const std::string& path)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return errno == ENOENT;
    bool done = false;
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) done = unlink(path.c_str()) == 0 || errno == ENOENT;
    close(fd);
    return done;
}

// True when path still names the file fd holds.
bool sameFile(int fd, const std::string& path)
{
    struct stat held {}, named {};
    return fstat(fd, &held) == 0 && lstat(path.c_str(), &named) == 0 && held.st_ino == named.st_ino &&
           held.st_dev == named.st_dev;
}

// Opens path for appending (creating it if need be) under a shared lock
// kept until the descriptor is closed; -1 with errno on failure.
int openShared(const std::string& path)
{
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
        // Non-blocking only so that a fifo in its place fails instead of hanging.
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK,
                      0644);
        if (fd < 0) return -1;
        struct stat st {};
        if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
            close(fd);
            errno = EINVAL;
            return -1;
        }
        // Only a pruning process's short probe holds an exclusive lock, so the
        // wait is brief. If it deleted the file meanwhile, open the name again.
        int rc;
        while ((rc = flock(fd, LOCK_SH)) != 0 && errno == EINTR) {
        }
        if (rc == 0 && sameFile(fd, path)) return fd;
        close(fd);
    }
    errno = EAGAIN;
    return -1;
}

bool writeAll(int fd, const char* data, size_t size)
{
    while (size > 0) {
        ssize_t n = write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// A rotating file sink for a file that processes started in the same second
// share. Each line goes out in one append-mode write, so lines of two
// writers never mix; the size that triggers a rotation is the file's own,
// whoever wrote it; and the rotation itself is done once, by whichever
// writer comes first, under an exclusive lock on the directory, while the
// others follow it to the new file.
class SharedRotatingSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    SharedRotatingSink(std::string path, int fd, size_t maxSize, size_t maxFiles)
        : m_path(std::move(path)), m_fd(fd), m_maxSize(maxSize), m_maxFiles(maxFiles)
    {
    }
    ~SharedRotatingSink() override
    {
        if (m_fd >= 0) close(m_fd);
    }

protected:
    void sink_it_(const spdlog::details::log_msg& msg) override
    {
        spdlog::memory_buf_t line;
        formatter_->format(msg, line);
        if (m_fd < 0) return;
        struct stat st {};
        if (fstat(m_fd, &st) == 0 && st.st_size > 0 &&
            static_cast<size_t>(st.st_size) + line.size() > m_maxSize)
            rotate();
        writeAll(m_fd, line.data(), line.size());
    }
    void flush_() override {}  // nothing is buffered

private:
    // "log_X.txt" -> "log_X.3.txt", as spdlog's own rotating sink names them.
    std::string numbered(size_t index) const
    {
        if (index == 0) return m_path;
        size_t dot = m_path.rfind('.');
        size_t slash = m_path.rfind('/');
        if (dot == std::string::npos || (slash != std::string::npos && dot < slash))
            return m_path + "." + std::to_string(index);
        return m_path.substr(0, dot) + "." + std::to_string(index) + m_path.substr(dot);
    }

    void rotate()
    {
        const std::string dir = m_path.substr(0, m_path.rfind('/') + 1);
        int dirFd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dirFd >= 0) {
            while (flock(dirFd, LOCK_EX) != 0 && errno == EINTR) {
            }
        }
        // Another writer of the file may have rotated it already: then only
        // follow it to the new file.
        if (sameFile(m_fd, m_path)) {
            for (size_t i = m_maxFiles; i > 0; --i) {
                std::string from = numbered(i - 1);
                if (access(from.c_str(), F_OK) == 0) rename(from.c_str(), numbered(i).c_str());
            }
        }
        int next = openShared(m_path);
        if (next >= 0) {
            close(m_fd);
            m_fd = next;
        }
        if (dirFd >= 0) close(dirFd);  // releases the lock
    }

    std::string m_path;
    int m_fd;
    size_t m_maxSize;
    size_t m_maxFiles;
};

std::shared_ptr<spdlog::logger> makeLogger(const std::string& file, int fd, size_t maxSize, size_t maxFiles)
{
    std::shared_ptr<SharedRotatingSink> sink;
    try {
        sink = std::make_shared<SharedRotatingSink>(file, fd, maxSize, maxFiles);
    } catch (...) {
        close(fd);
        throw;
    }
    auto logger = std::make_shared<spdlog::logger>(kLoggerName, sink);
    logger->set_pattern("[%Y-%m-%d %H:%M:%S.%e] [%l] %v", spdlog::pattern_time_type::local);
    logger->set_level(spdlog::level::debug);
    logger->flush_on(spdlog::level::info);
    return logger;
}

void createLogger(const std::string& file, int fd)
{
    auto logger = makeLogger(file, fd, kMaxFileSize, kMaxFiles);
    // A logger of that name left in the registry can only be a stale one of
    // ours (the library was unloaded and loaded again): replace it.
    spdlog::drop(kLoggerName);
    spdlog::register_logger(logger);
    spdlog::set_pattern("[%Y-%m-%d %H:%M:%S.%e] [%l] %v", spdlog::pattern_time_type::local);
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
    const std::string path = logFileName(dir, startTime);
    int file = openShared(path);
    if (file < 0) {
        std::cerr << "Failed to open the log file: " << path << " - " << std::strerror(errno) << std::endl;
        return {};
    }
    if (fd)
        *fd = file;
    else
        close(file);
    return path;
}

std::shared_ptr<spdlog::logger> openLogger(const std::string& dir, time_t startTime, size_t maxSize,
                                           size_t maxFiles)
{
    int fd = -1;
    std::string path = claimLogFile(dir, startTime, &fd);
    if (path.empty()) return nullptr;
    return makeLogger(path, fd, maxSize, maxFiles);
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
        // The descriptor, and its lock, live as long as the process: its file
        // is safe from the pruning of processes started later.
        int fd = -1;
        std::string file = nkrlog::claimLogFile(dir, time(nullptr), &fd);
        if (file.empty()) return;
        createLogger(file, fd);
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
