// Store tests: the per-process HOME's config folder, file reads and writes.
#pragma once
#include <dirent.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

namespace storetest {

inline std::string configDir() { return std::string(std::getenv("HOME")) + "/.HTX/"; }

inline std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();  // a folder reads as empty, no exception
    return out.str();
}

inline void writeFile(const std::string& path, const std::string& content)
{
    mkdir(configDir().c_str(), 0700);
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

inline bool exists(const std::string& path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}
inline unsigned modeOf(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

// The names in a directory, without the dot entries.
inline std::set<std::string> listDir(const std::string& dir)
{
    std::set<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent* e = readdir(d))
            if (e->d_name[0] != '.') names.insert(e->d_name);
        closedir(d);
    }
    return names;
}

}  // namespace storetest
