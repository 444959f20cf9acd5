// Tells when a file may have changed, without looking at it: an inotify
// watch on the file itself, or, while it does not exist, on the folder it
// will be made in (or that folder's parent). The supervisor sleeps on fd()
// instead of waking every second to see whether another program changed the
// host settings; readers of the file, which lock a file beside it, wake
// nothing.
#pragma once

#include <string>

namespace alpaca {

class SettingsWatch {
public:
    explicit SettingsWatch(const std::string& file);
    ~SettingsWatch();
    SettingsWatch(const SettingsWatch&) = delete;
    SettingsWatch& operator=(const SettingsWatch&) = delete;

    // False when the kernel refused every watch: the caller must look by itself.
    bool watching() const { return watch_ >= 0; }
    // Readable when the file may have changed.
    int fd() const { return fd_; }
    // Takes the pending events; true when one was about the file (then it
    // watches what the path names now).
    bool drain();

private:
    enum class Level { File, Folder, Parent };  // what watch_ is on
    void place();

    std::string file_;
    int fd_ = -1;
    int watch_ = -1;
    Level level_ = Level::File;
};

}  // namespace alpaca
