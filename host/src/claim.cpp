#include "nkrhost/claim.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>

namespace nkrhost {
namespace {

bool ownPrivateDirectory(const std::string& path)
{
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return false;
    return S_ISDIR(st.st_mode) && st.st_uid == ::getuid() && (st.st_mode & 077) == 0;
}

std::string claimPath(const std::string& purpose, const std::string& unitKey)
{
    const std::string dir = claimDirectory();
    if (dir.empty()) return {};
    std::string name = purpose + "-";
    for (char c : unitKey) name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return dir + "/" + name + ".lock";
}

}  // namespace

std::string readClaimText(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return {};
    char buffer[256];
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    ::close(fd);
    return n > 0 ? std::string(buffer, static_cast<std::size_t>(n)) : std::string();
}

std::string claimDirectory()
{
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    const std::string dir = runtime != nullptr && runtime[0] == '/' ? std::string(runtime) + "/nkr-focuser"
                                                                    : "/tmp/nkr-focuser-" + std::to_string(::getuid());
    if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return {};
    // In /tmp someone else could have made it first.
    return ownPrivateDirectory(dir) ? dir : std::string();
}

Status UnitClaim::take(const std::string& purpose, const std::string& unitKey, const std::string& holderText)
{
    release();
    const std::string path = claimPath(purpose, unitKey);
    if (path.empty()) return {};
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) return {};
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        std::string who = readClaimText(path);
        if (who.empty()) who = "another program";
        return Status::failure(kUnitInUse, "the unit " + unitKey + " is in use by " + who);
    }
    const std::string text = holderText + " (pid " + std::to_string(::getpid()) + ")";
    if (::ftruncate(fd, 0) == 0) (void)!::pwrite(fd, text.data(), text.size(), 0);
    m_fd = fd;
    return {};
}

void UnitClaim::release()
{
    if (m_fd < 0) return;
    (void)!::ftruncate(m_fd, 0);
    ::close(m_fd);  // drops the flock
    m_fd = -1;
}

std::string UnitClaim::holder(const std::string& purpose, const std::string& unitKey)
{
    const std::string path = claimPath(purpose, unitKey);
    if (path.empty()) return {};
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return {};
    const bool free = ::flock(fd, LOCK_SH | LOCK_NB) == 0;
    ::close(fd);
    if (free) return {};
    std::string who = readClaimText(path);
    return who.empty() ? std::string("another program") : who;
}

namespace {

constexpr const char* kHoldPurpose = "unit";

std::string withoutPid(const std::string& holder)
{
    const auto at = holder.rfind(" (pid ");
    return at == std::string::npos ? holder : holder.substr(0, at);
}

}  // namespace

std::string unitHolder(const std::string& unitKey) { return UnitClaim::holder(kHoldPurpose, unitKey); }

void takeBluetoothHold(UnitClaim& claim, const std::string& address, const std::string& holder)
{
    if (!address.empty()) claim.take(kHoldPurpose, "ble-" + address, holder);
}

std::string bluetoothHolder(const std::string& address)
{
    return address.empty() ? std::string() : UnitClaim::holder(kHoldPurpose, "ble-" + address);
}

Status heldElsewhere(const std::string& unitKey, const std::string& holder)
{
    const std::string who = holder.empty() ? "another program" : holder;
    return Status::failure(kUnitInUse, "the focuser " + unitKey + " is held by " + who +
                                           "; nothing was sent. Use " + withoutPid(who) +
                                           " to drive it, or stop it from anywhere (nkr stop)");
}

Status takeUnitHold(UnitClaim& claim, const std::string& unitKey, const std::string& holder)
{
    if (claim.held()) return {};
    Status taken = claim.take(kHoldPurpose, unitKey, holder);
    if (taken.ok()) return taken;
    return heldElsewhere(unitKey, unitHolder(unitKey));
}

}  // namespace nkrhost
