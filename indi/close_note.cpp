#include "close_note.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace nkrindi {

namespace {

// Beside the INDI configuration files, which outlive a reboot like the SDK's record.
std::string notePath()
{
    const char* home = std::getenv("HOME");
    if (home == nullptr || *home == '\0') return {};
    const std::string dir = std::string(home) + "/.indi";
    ::mkdir(dir.c_str(), 0755);
    return dir + "/NKR_last_close.txt";
}

}  // namespace

void noteClose(const std::string& serial, int position)
{
    const std::string path = notePath();
    if (serial.empty() || path.empty()) return;
    const std::string temporary = path + ".tmp";
    {
        std::ofstream out(temporary, std::ios::trunc);
        if (!(out << serial << ' ' << position << '\n')) return;
    }
    std::rename(temporary.c_str(), path.c_str());
}

std::optional<CloseNote> lastClose()
{
    const std::string path = notePath();
    if (path.empty()) return std::nullopt;
    std::ifstream in(path);
    CloseNote note;
    if (!(in >> note.serial >> note.position)) return std::nullopt;
    return note;
}

std::optional<int> positionToRestore(const std::string& serial, int reported,
                                     const std::optional<CloseNote>& saved,
                                     const std::optional<CloseNote>& last)
{
    if (serial.empty() || !saved || !last || saved->serial != serial) return std::nullopt;
    if (reported == saved->position) return std::nullopt;
    // Another unit closed last and the unit now stands exactly where that one
    // was saved: the SDK restored the other unit's record to it.
    if (last->serial != serial && reported == last->position) return saved->position;
    return std::nullopt;
}

}  // namespace nkrindi
