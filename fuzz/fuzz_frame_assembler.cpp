// The Bluetooth helper's frame assembler against any run of notifications:
// no crash, no read past a buffer, and every byte fed comes out again (as a
// frame, a raw item or a frame cut short), in order, unless the queue was
// full. Input: repeated [size byte][size bytes], the size's top bit marking
// a gap long enough for everything pending to be handed on.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "../ble-helper/FrameAssembler.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    blueshim::FrameAssembler::Options options;
    options.capacity = 1 << 20;
    options.payloadSize = 20;
    blueshim::FrameAssembler a(options);
    auto now = blueshim::FrameAssembler::Clock::time_point{};
    std::vector<uint8_t> fed, out;
    size_t at = 0;
    while (at < size) {
        const uint8_t head = data[at++];
        const size_t n = std::min<size_t>(head & 0x7F, size - at);
        if (head & 0x80) now += std::chrono::seconds(1);
        a.feed(data + at, n, now);
        fed.insert(fed.end(), data + at, data + at + n);
        at += n;
        if (auto due = a.deadline(); due && head & 0x80) a.expire(*due);
    }
    now += std::chrono::seconds(10);
    a.expire(now);
    std::vector<uint8_t> buf(8192);
    while (!a.empty()) {
        const size_t n = a.pop(buf.data(), buf.size());
        out.insert(out.end(), buf.begin(), buf.begin() + static_cast<long>(n));
    }
    if (out != fed) __builtin_trap();
    return 0;
}
