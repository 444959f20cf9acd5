#include "LastError.h"

#include <cstdio>
#include <cstdlib>

namespace blueshim {

bool debugEnabled()
{
    const char* v = std::getenv("NKR_BLE_DEBUG");
    return v != nullptr && *v != '\0' && std::string(v) != "0";
}

void LastError::set(std::string text)
{
    if (debugEnabled()) {
        std::fprintf(stderr, "BlueShim: %s\n", text.c_str());
    }
    std::lock_guard lock(m_mutex);
    m_text = std::move(text);
}

void LastError::clear()
{
    std::lock_guard lock(m_mutex);
    m_text.clear();
}

const char* LastError::snapshot()
{
    std::lock_guard lock(m_mutex);
    m_snapshot = m_text;
    return m_snapshot.c_str();
}

}  // namespace blueshim
