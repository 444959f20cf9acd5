#include "file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <thread>

namespace nkrindi {

namespace {

constexpr auto kRetryInterval = std::chrono::milliseconds(20);

bool ownPrivateDirectory(const std::string& path)
{
    struct stat st{};
    if (::lstat(path.c_str(), &st) != 0) return false;
    return S_ISDIR(st.st_mode) && st.st_uid == ::getuid() && (st.st_mode & 077) == 0;
}

}  // namespace

std::string lockDirectory()
{
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    const std::string dir = runtime != nullptr && *runtime != '\0'
                                ? std::string(runtime) + "/nkr-focuser"
                                : "/tmp/nkr-focuser-" + std::to_string(::getuid());
    if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return {};
    // In /tmp someone else could have made it first.
    return ownPrivateDirectory(dir) ? dir : std::string();
}

std::string unitLockPath(const std::string& unitKey)
{
    const std::string dir = lockDirectory();
    return dir.empty() ? std::string() : dir + "/unit-" + unitKey + ".lock";
}

std::string probeLockPath()
{
    const std::string dir = lockDirectory();
    return dir.empty() ? std::string() : dir + "/probe.lock";
}

bool FileLock::lock(const std::string& path, bool exclusive, std::chrono::milliseconds wait)
{
    unlock();
    if (path.empty()) return false;
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) return false;
    const auto deadline = std::chrono::steady_clock::now() + wait;
    while (::flock(fd, (exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB) != 0) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || std::chrono::steady_clock::now() >= deadline) {
            ::close(fd);
            return false;
        }
        std::this_thread::sleep_for(kRetryInterval);
    }
    m_fd = fd;
    return true;
}

void FileLock::unlock()
{
    if (m_fd < 0) return;
    ::close(m_fd);  // drops the flock
    m_fd = -1;
}

void FileLock::write(const std::string& text)
{
    if (m_fd < 0) return;
    if (::ftruncate(m_fd, 0) != 0) return;
    (void)!::pwrite(m_fd, text.data(), text.size(), 0);
}

std::string FileLock::readText(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return {};
    char buffer[256];
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    ::close(fd);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
}

}  // namespace nkrindi
