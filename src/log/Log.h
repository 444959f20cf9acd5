// Diagnostic log: rotating files under /tmp/htx/log/nkr_sdk/, set up once per
// process by the first device object.
#pragma once
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

namespace spdlog {
class logger;
}

// Sets up the log directory, prunes old files and creates the logger (once).
void InitLogger();
// Writes "[file:line func] msg" at info level; nothing before InitLogger.
void LogInfo(const std::string& msg, const char* file, int line, const char* func);
// Same at debug level.
void LogDebug(const std::string& msg, const char* file, int line, const char* func);

namespace nkrlog {
// Directory of the log files (with the trailing slash).
inline constexpr const char* kLogDir = "/tmp/htx/log/nkr_sdk/";
// Deletes the oldest ".txt" files of dir so that at most keep remain, but
// never a file a running process writes: a file whose name shares its part
// before the first '.' with a file that a process holds open (its rotated
// files) is left alone, so more than keep may remain.
void removeOldLogFiles(const std::string& dir, size_t keep);
// Opens the log file in dir named after the local time startTime, creating it
// unless a process started in the same second already did (then both write
// it), and marks it in use with a shared lock for as long as *fd stays open
// (closed on exec). Returns the path, or "" with the reason on stderr.
std::string claimLogFile(const std::string& dir, time_t startTime, int* fd);
// A logger on the file claimLogFile gives, as InitLogger makes it (pattern,
// levels, one whole write per line, rotation at maxSize shared with the other
// writers of the file), but with the size and count given and not
// registered; nullptr when the file cannot be opened.
std::shared_ptr<spdlog::logger> openLogger(const std::string& dir, time_t startTime, size_t maxSize,
                                           size_t maxFiles);
// Creates dir one component at a time (0755) and checks each component with
// lstat: a symbolic link, a non-directory or (below the top level) a directory
// owned by another user makes it unsafe. False, with the reason on stderr,
// when the logger must not write there.
bool prepareLogDir(const std::string& dir = kLogDir);
// File the logger writes to; empty until InitLogger has succeeded.
std::string currentLogFile();

// Source tag of a log line: the file name without folder and extension.
constexpr std::string_view sourceTag(std::string_view path)
{
    size_t slash = path.find_last_of('/');
    if (slash != std::string_view::npos) path.remove_prefix(slash + 1);
    size_t dot = path.find('.');
    if (dot != std::string_view::npos) path = path.substr(0, dot);
    return path;
}

// A NUL-terminated copy of the tag, built at compile time per source file.
template <size_t N>
struct TagBuffer {
    char text[N + 1]{};
    constexpr explicit TagBuffer(std::string_view s)
    {
        for (size_t i = 0; i < N && i < s.size(); ++i) text[i] = s[i];
    }
};
}  // namespace nkrlog

#define NKR_SOURCE_TAG                                                                  \
    ([]() -> const char* {                                                              \
        static constexpr auto tag_ = nkrlog::sourceTag(__FILE__);                       \
        static constexpr nkrlog::TagBuffer<tag_.size()> buf_{tag_};                     \
        return buf_.text;                                                               \
    }())

// Formats into a 256-character buffer (as every message of the library is)
// and logs it at info level with this file's tag, the line and the function.
#define NKR_LOG_AT(line, ...)                                                           \
    do {                                                                                \
        char nkrLogBuf_[256];                                                           \
        std::snprintf(nkrLogBuf_, sizeof nkrLogBuf_, __VA_ARGS__);                      \
        LogInfo(std::string(nkrLogBuf_), NKR_SOURCE_TAG, (line), __func__);             \
    } while (0)
#define NKR_LOG(...) NKR_LOG_AT(__LINE__, __VA_ARGS__)
