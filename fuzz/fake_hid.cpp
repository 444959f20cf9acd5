// A hidapi stand-in for the fuzz targets: every input report the library
// reads is the next chunk of the fuzzer's input; when the input runs out,
// transfers fail with EIO.
#include <hidapi/hidapi.h>

#include <cerrno>
#include <cstring>

#include "FakeHid.h"

namespace {
std::vector<std::vector<uint8_t>> g_replies;
size_t g_next = 0;
int g_handle;  // its address is the one open device
}  // namespace

namespace nkrfuzz {
void setHidReplies(std::vector<std::vector<uint8_t>> replies)
{
    g_replies = std::move(replies);
    g_next = 0;
}
}  // namespace nkrfuzz

extern "C" {
int hid_init(void) { return 0; }
hid_device* hid_open_path(const char*) { return reinterpret_cast<hid_device*>(&g_handle); }
void hid_close(hid_device*) {}
hid_device_info* hid_enumerate(unsigned short, unsigned short) { return nullptr; }
void hid_free_enumeration(hid_device_info*) {}
const wchar_t* hid_error(hid_device*) { return L"fuzz transfer error"; }

int hid_send_feature_report(hid_device*, const unsigned char*, size_t length)
{
    if (g_next >= g_replies.size()) {
        errno = EIO;
        return -1;
    }
    return static_cast<int>(length);
}

int hid_get_feature_report(hid_device*, unsigned char* data, size_t length)
{
    if (g_next >= g_replies.size()) {
        errno = EIO;
        return -1;
    }
    const std::vector<uint8_t>& r = g_replies[g_next++];
    size_t n = r.size() < length ? r.size() : length;
    if (n > 0) std::memcpy(data, r.data(), n);
    return static_cast<int>(n);
}
}
