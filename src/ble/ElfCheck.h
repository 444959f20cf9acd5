// Checks that a file is a whole ELF shared object before it is handed to the
// dynamic loader: the loader maps a truncated library and the process then
// dies of SIGBUS when it touches the missing pages.
#pragma once
#include <string>

namespace nkrble {
// True when path is a 64- or 32-bit ELF file of this machine's byte order
// whose headers and loadable segments all lie inside the file. why receives
// the reason when it is not.
bool elfFileIsWhole(const char* path, std::string& why);
}  // namespace nkrble
