// The text of a manager's last failure, shown by host tools; also written to
// stderr when NKR_BLE_DEBUG is set.
#pragma once
#include <mutex>
#include <string>

namespace blueshim {

class LastError {
public:
    void set(std::string text);
    void clear();
    // Copy held until the next call on the manager, for the C export.
    const char* snapshot();

private:
    std::mutex m_mutex;
    std::string m_text;
    std::string m_snapshot;
};

// True when NKR_BLE_DEBUG is set to anything but "" or "0".
bool debugEnabled();

}  // namespace blueshim
