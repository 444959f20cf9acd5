// The library's diagnostic log as the tool shows it: where it is
// (--log-dir) and, with -v, its lines live on stderr while a command runs.
#pragma once

#include <string>

namespace nkrtool {

// The directory the library writes its log files to.
const char* logDirectory();
// The newest log file there ("" when none).
std::string newestLogFile();

// -v: follows the log file this process writes (found through its open
// descriptors) from where it ended when the tail began, so the lines of
// earlier processes that started in the same second are not shown, and
// copies each new line to stderr. stopLogTail() prints what is left and ends it.
void startLogTail();
void stopLogTail();

}  // namespace nkrtool
