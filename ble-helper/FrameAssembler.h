// Puts notification chunks back together into whole frames. A frame starts
// with 0x01 (answer) or 0x02 (event) and is byte1 + 5 bytes long: type,
// length, sequence, status, `length` body bytes, checksum. Anything else
// passes through as it came, one item per chunk. Pure: the caller supplies
// the time, so there is no timer.
#pragma once
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace blueshim {

class FrameAssembler {
public:
    using Clock = std::chrono::steady_clock;
    using Bytes = std::vector<uint8_t>;

    explicit FrameAssembler(std::size_t capacity = 64,
                            std::chrono::milliseconds gap = std::chrono::milliseconds(500));

    // Adds one notification received at `now`. A partial frame older than
    // the gap is dropped first.
    void feed(const uint8_t* data, std::size_t count, Clock::time_point now);

    // Oldest whole item, cut at `capacity` bytes; returns the bytes copied,
    // 0 when nothing is queued.
    std::size_t pop(uint8_t* out, std::size_t capacity);

    bool empty() const { return m_queue.empty(); }
    std::size_t size() const { return m_queue.size(); }
    // Items dropped because the queue was full (oldest first).
    uint64_t overflowDrops() const { return m_overflowDrops; }
    // Partial frames dropped after a gap.
    uint64_t partialDrops() const { return m_partialDrops; }
    // Forgets everything queued and any partial frame (new link).
    void reset();

private:
    void push(Bytes item);

    std::size_t m_capacity;
    std::chrono::milliseconds m_gap;
    std::deque<Bytes> m_queue;
    Bytes m_partial;
    Clock::time_point m_lastChunk{};
    uint64_t m_overflowDrops = 0;
    uint64_t m_partialDrops = 0;
};

}  // namespace blueshim
