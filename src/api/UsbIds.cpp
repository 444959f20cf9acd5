#include "UsbIds.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <mutex>

#include "NKR_focuser.h"
#include "../log/Log.h"

namespace nkrapi {
namespace {

bool parseHex16(const std::string& text, uint16_t& out)
{
    if (text.empty() || text.size() > 4) return false;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out, 16);
    return error == std::errc() && end == text.data() + text.size();
}

}  // namespace

std::vector<UsbId> parseUsbIds(const std::string& text, std::string& rejected)
{
    std::vector<UsbId> ids;
    size_t start = 0;
    while (start <= text.size()) {
        size_t comma = text.find(',', start);
        std::string entry = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        entry.erase(std::remove(entry.begin(), entry.end(), ' '), entry.end());
        size_t colon = entry.find(':');
        UsbId id;
        if (!entry.empty()) {
            if (colon != std::string::npos && parseHex16(entry.substr(0, colon), id.vendor) &&
                parseHex16(entry.substr(colon + 1), id.product) && id.vendor != 0 && id.product != 0)
                ids.push_back(id);
            else
                rejected += (rejected.empty() ? "" : ",") + entry;
        }
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return ids;
}

std::vector<UsbId> focuserUsbIds()
{
    std::vector<UsbId> ids = {{FOCUSER_USB_VID, FOCUSER_USB_PID}};
    const char* extra = std::getenv("NKR_USB_ID");
    if (extra == nullptr || extra[0] == '\0') return ids;
    std::string rejected;
    for (const UsbId& id : parseUsbIds(extra, rejected))
        if (std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(id);
    if (!rejected.empty()) {
        // Said once per value, not at every scan of a host that polls.
        static std::mutex warnedMutex;
        static std::string warnedFor;
        std::lock_guard<std::mutex> lock(warnedMutex);
        if (warnedFor != extra) {
            warnedFor = extra;
            NKR_LOG("NKR_USB_ID: ignored entries that are not VVVV:PPPP: %s", rejected.c_str());
        }
    }
    return ids;
}

}  // namespace nkrapi
