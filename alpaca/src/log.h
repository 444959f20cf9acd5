// Foreground log on stderr: one timestamped line per event.
#pragma once

#include <functional>
#include <string>

namespace alpaca {
void logInfo(const std::string& line);
void logWarn(const std::string& line);
// Tests turn the log off.
void setLogQuiet(bool quiet);
// Tests read the lines instead ("info"/"warn", the line); empty: none.
void setLogSink(std::function<void(const std::string& level, const std::string& line)> sink);
}  // namespace alpaca
