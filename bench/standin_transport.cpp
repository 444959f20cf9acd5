#include "standin_transport.h"

#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <cstring>

namespace nkrbench::standin {
namespace {

constexpr size_t kMaxHandles = 4;
constexpr size_t kMaxReport = 64;

// Written before the threads start, only read while they run.
struct alignas(64) Served {
    std::atomic<hid_device*> dev{nullptr};
    unsigned char reply[kMaxReport] = {};
    size_t length = 0;
};
Served g_served[kMaxHandles];

const Served* find(hid_device* dev)
{
    if (dev == nullptr) return nullptr;
    for (const Served& s : g_served)
        if (s.dev.load(std::memory_order_acquire) == dev) return &s;
    return nullptr;
}

using TransferFn = int (*)(hid_device*, unsigned char*, size_t);
using SendFn = int (*)(hid_device*, const unsigned char*, size_t);

template <typename Fn>
Fn next(const char* name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

}  // namespace

bool serve(hid_device* dev, const std::vector<uint8_t>& reply)
{
    for (Served& s : g_served) {
        if (s.dev.load() != nullptr) continue;
        s.length = std::min(reply.size(), kMaxReport);
        std::memcpy(s.reply, reply.data(), s.length);
        s.dev.store(dev, std::memory_order_release);
        return true;
    }
    return false;
}

void stopAll()
{
    for (Served& s : g_served) s.dev.store(nullptr);
}

}  // namespace nkrbench::standin

namespace standin = nkrbench::standin;

// Interposed over the simulator's hidapi for this program only.
extern "C" int hid_send_feature_report(hid_device* dev, const unsigned char* data, size_t length)
{
    if (standin::find(dev) != nullptr) return static_cast<int>(length);
    static const auto simulator = standin::next<standin::SendFn>("hid_send_feature_report");
    return simulator(dev, data, length);
}

extern "C" int hid_get_feature_report(hid_device* dev, unsigned char* data, size_t length)
{
    if (const auto* served = standin::find(dev)) {
        std::memcpy(data, served->reply, std::min(length, served->length));
        return static_cast<int>(length);
    }
    static const auto simulator = standin::next<standin::TransferFn>("hid_get_feature_report");
    return simulator(dev, data, length);
}
