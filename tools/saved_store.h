// Where the library keeps the position and settings it restores at power-up
// ($HOME/.HTX/NKRconfig.xml), and who may change them: the library makes
// the folder drwxrwxrwx and the file -rw-rw-rw- on purpose (one store every
// local user of the focuser shares), so the tool shows it rather than hides it.
#pragma once

#include <string>

namespace nkrtool {

struct SavedStore {
    std::string folder, file;  // paths
    bool folderExists = false, fileExists = false;
    unsigned folderMode = 0, fileMode = 0;  // permission bits
    // Another local account can reach the folder (every folder above lets
    // it through) and write there or to the file: it may change the position a unit
    // will trust at power-up.
    bool othersMayChange = false;
};

SavedStore savedStore();

// "drwxrwxrwx" / "-rw-rw-rw-".
std::string modeText(unsigned mode, bool folder);
// "0666", for JSON.
std::string octalMode(unsigned mode);

}  // namespace nkrtool
