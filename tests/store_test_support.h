// Helpers for the settings-store tests: the per-process HOME's config
// directory and whole-file reads and writes.
#pragma once
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace storetest {

inline std::string configDir() { return std::string(std::getenv("HOME")) + "/.HTX/"; }

inline std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
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

}  // namespace storetest
