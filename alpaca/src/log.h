// Foreground log on stderr: one timestamped line per event.
#pragma once

#include <string>

namespace alpaca {
void logInfo(const std::string& line);
void logWarn(const std::string& line);
// Tests turn the log off.
void setLogQuiet(bool quiet);
}  // namespace alpaca
