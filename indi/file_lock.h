// Locks shared by the driver instances of one account, so that two instances
// never drive one unit and no instance probes units while another's moves.
// Host-side only: flock(2) on small files in one directory, released by the
// kernel when a driver dies.
#pragma once

#include <chrono>
#include <string>

namespace nkrindi {

// $XDG_RUNTIME_DIR/nkr-focuser, or /tmp/nkr-focuser-<uid> without it; created
// (mode 0700) on first use. "" when it cannot be made or is not ours.
std::string lockDirectory();

// One flock on one file; released by unlock() or the destructor.
class FileLock {
public:
    FileLock() = default;
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    ~FileLock() { unlock(); }

    // Tries until wait has passed (0: once). Shared locks exclude only
    // exclusive ones. True when held.
    bool lock(const std::string& path, bool exclusive, std::chrono::milliseconds wait);
    void unlock();
    bool held() const { return m_fd >= 0; }
    // While held: replaces the file's text (who holds it).
    void write(const std::string& text);
    // Text of a lock file, "" when unreadable.
    static std::string readText(const std::string& path);

private:
    int m_fd = -1;
};

// Names of the files in lockDirectory().
std::string unitLockPath(const std::string& unitKey);
// Taken exclusively while an instance opens units it may not own (to read
// their serial numbers), shared while an instance's move runs: opening and
// closing a unit stops its motor.
std::string probeLockPath();

}  // namespace nkrindi
