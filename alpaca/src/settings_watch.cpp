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

std::string nameOf(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

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
    level_ = Level::File;
    watch_ = inotify_add_watch(fd_, file_.c_str(), kFileChanges);
    if (watch_ < 0) {
        level_ = Level::Folder;
        watch_ = inotify_add_watch(fd_, folder.c_str(), kMade);
    }
    if (watch_ < 0) {
        level_ = Level::Parent;
        watch_ = inotify_add_watch(fd_, parentOf(folder).c_str(), kMade);
    }
}

bool SettingsWatch::drain()
{
    if (fd_ < 0) return false;
    // What is made in the folder (or its parent) beside the file, another
    // program's state written by rename every moment, say, is not ours.
    const std::string awaited = level_ == Level::Folder ? nameOf(file_) : nameOf(parentOf(file_));
    alignas(inotify_event) char buffer[4096];
    bool changed = false;
    for (ssize_t n; (n = ::read(fd_, buffer, sizeof buffer)) > 0;) {
        for (ssize_t at = 0; at < n;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            if (event->wd != watch_) continue;  // of a watch given up
            if (level_ == Level::File || (event->mask & IN_IGNORED) ||
                (event->len > 0 && awaited == event->name))
                changed = true;
        }
    }
    // The watch follows what the path names now: the file replaced, or made.
    if (changed) place();
    return changed;
}

}  // namespace alpaca
