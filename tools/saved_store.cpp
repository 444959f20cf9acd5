#include "saved_store.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace nkrtool {
namespace {

// The library's own rule: HOME, else the account's home directory.
std::string homeDirectory()
{
    const char* home = std::getenv("HOME");
    if (home != nullptr && *home != '\0') return home;
    std::vector<char> buffer(16384);
    struct passwd pw {};
    struct passwd* found = nullptr;
    if (getpwuid_r(getuid(), &pw, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) return "";
    return found->pw_dir;
}

bool modeOf(const std::string& path, unsigned& mode)
{
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return false;
    mode = static_cast<unsigned>(st.st_mode & 07777);
    return true;
}

}  // namespace

SavedStore savedStore()
{
    SavedStore s;
    const std::string home = homeDirectory();
    if (home.empty()) return s;
    s.folder = home + "/.HTX";
    s.file = s.folder + "/NKRconfig.xml";
    s.folderExists = modeOf(s.folder, s.folderMode);
    s.fileExists = modeOf(s.file, s.fileMode);
    // Others reach the folder only through folders they may pass (x for
    // others), the home and every one above it.
    bool reachable = s.folderExists && (s.folderMode & S_IXOTH) != 0;
    for (std::string dir = s.folder; reachable && dir.size() > 1;) {
        const size_t slash = dir.rfind('/');
        dir = slash == std::string::npos ? "." : dir.substr(0, std::max<size_t>(1, slash));
        unsigned mode = 0;
        reachable = modeOf(dir, mode) && (mode & S_IXOTH) != 0;
    }
    s.othersMayChange = reachable && ((s.folderMode & S_IWOTH) != 0 || (s.fileExists && (s.fileMode & S_IWOTH) != 0));
    return s;
}

std::string modeText(unsigned mode, bool folder)
{
    std::string text = folder ? "d" : "-";
    const char* letters = "rwxrwxrwx";
    for (int bit = 0; bit < 9; ++bit) text += (mode & (0400u >> bit)) != 0 ? letters[bit] : '-';
    return text;
}

std::string octalMode(unsigned mode)
{
    char text[8];
    std::snprintf(text, sizeof text, "%04o", mode & 07777u);
    return text;
}

}  // namespace nkrtool
