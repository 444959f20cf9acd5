// The USB ids that enumeration treats as focusers: the SDK's own pair, plus
// any that NKR_USB_ID adds for units that present other ids.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace nkrapi {

struct UsbId {
    uint16_t vendor = 0;
    uint16_t product = 0;
    bool operator==(const UsbId&) const = default;
};

// Parses "VVVV:PPPP[,VVVV:PPPP...]" (hexadecimal). Entries that do not parse
// are skipped and named in rejected.
std::vector<UsbId> parseUsbIds(const std::string& text, std::string& rejected);

// The default pair first, then those of NKR_USB_ID (read at each call, so a
// host may set it before any scan), without repeats.
std::vector<UsbId> focuserUsbIds();

}  // namespace nkrapi
