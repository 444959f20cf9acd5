#include "settings_watch.h"

#include <sys/inotify.h>
#include <unistd.h>

namespace alpaca {
namespace {

// Written in place, or replaced by a rename (the old file then loses its
// link: IN_ATTRIB, later IN_DELETE_SELF), or moved away.
constexpr uint32_t kFileChanges = IN_CLOSE_WRITE | IN_MODIFY | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
constexpr uint32_t kMade = IN_CREATE | IN_MOVED_TO;

std::string parentOf(const std::string& path)
{
    const std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

SettingsWatch::SettingsWatch(const std::string& file) : file_(file)
{
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    place();
}

SettingsWatch::~SettingsWatch()
{
    if (fd_ >= 0) ::close(fd_);
}

void SettingsWatch::place()
{
    if (fd_ < 0) return;
    if (watch_ >= 0) inotify_rm_watch(fd_, watch_);
    const std::string folder = parentOf(file_);
    watch_ = inotify_add_watch(fd_, file_.c_str(), kFileChanges);
    if (watch_ < 0) watch_ = inotify_add_watch(fd_, folder.c_str(), kMade);
    if (watch_ < 0) watch_ = inotify_add_watch(fd_, parentOf(folder).c_str(), kMade);
}

void SettingsWatch::drain()
{
    if (fd_ < 0) return;
    alignas(inotify_event) char buffer[4096];
    while (::read(fd_, buffer, sizeof buffer) > 0) {
    }
    // Whatever happened (the file replaced, or made, or its folder), the
    // watch follows what the path names now.
    place();
}

}  // namespace alpaca
