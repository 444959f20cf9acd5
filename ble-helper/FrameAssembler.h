// Puts notifications back together into whole frames, whatever the unit
// puts in a frame's length byte. A frame starts with 0x01 (answer) or 0x02
// (event) and ends with the sum of the bytes before it; what the length
// byte counts is not known (the header and payload, the payload alone, or
// nothing at all), so a frame is found from what the link really tells:
//
//  - a frame ends only at a notification boundary, where its last byte is
//    the checksum of the bytes before it;
//  - a notification shorter than the link's notification size (ATT MTU - 3,
//    or the smaller size the unit is seen to use) ends a frame; a full one
//    may continue in the next;
//  - a full notification whose last byte closes a checksum is ambiguous: the
//    length byte breaks the tie (a length that agrees with the size under
//    the convention this unit was seen to use ends the frame at once),
//    otherwise the frame is held for a short continuation wait and ends when
//    nothing follows;
//  - a frame that never closes is handed on as it is after the gap time-out
//    (or past 4 KiB), so the exchange reports a damaged answer instead of
//    waiting forever.
//
// Bytes that do not start a frame pass through as they came, one item per
// notification. Pure: the caller supplies the time and asks for what is due.
#pragma once
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

namespace blueshim {

class FrameAssembler {
public:
    using Clock = std::chrono::steady_clock;
    using Bytes = std::vector<uint8_t>;

    struct Options {
        std::size_t capacity = 64;                  // items queued at most (oldest dropped)
        std::chrono::milliseconds gap{500};         // a frame cut short is handed on after this
        std::chrono::milliseconds hold{100};        // the continuation wait of an ambiguous frame
        std::size_t maxFrame = 4096;                // a "frame" longer than this is not one
        std::size_t payloadSize = 20;               // ATT MTU - 3
    };

    struct Stats {
        uint64_t overflowDrops = 0;  // items dropped because the queue was full
        uint64_t cutShort = 0;       // frames that never closed, handed on after the gap
        uint64_t held = 0;           // ambiguous frames held for a continuation
        uint64_t continued = 0;      // ...of which a continuation came
    };

    FrameAssembler() : FrameAssembler(Options{}) {}
    explicit FrameAssembler(Options options);

    // The link's notification size (ATT MTU - 3), as BlueZ reports it.
    void setPayloadSize(std::size_t size);

    // Adds one notification received at `now`.
    void feed(const uint8_t* data, std::size_t count, Clock::time_point now);
    // Hands on what is due at `now`: an ambiguous frame nothing continued,
    // a frame cut short.
    void expire(Clock::time_point now);
    // When expire() has something to do next; nothing when idle.
    std::optional<Clock::time_point> deadline() const;

    // Oldest whole item, cut at `capacity` bytes; returns the bytes copied,
    // 0 when nothing is queued.
    std::size_t pop(uint8_t* out, std::size_t capacity);

    bool empty() const { return m_queue.empty(); }
    std::size_t size() const { return m_queue.size(); }
    const Stats& stats() const { return m_stats; }
    // Forgets everything queued, any partial frame and what was learnt of
    // the unit (new link).
    void reset();

private:
    // What is known of how the unit fills a frame's length byte: the offset
    // (frame size - length byte) mod 256, per frame type.
    struct Convention {
        std::array<int, 256> seen{};
        int total = 0;
        // The offset of every frame so far, if they all agreed.
        std::optional<int> steady() const;
    };

    void start(const uint8_t* data, std::size_t count, uint8_t sum, Clock::time_point now);
    void settle(Clock::time_point now, std::size_t lastSize);
    void emit(Bytes item, bool frame);
    bool lengthAgrees(uint8_t type, uint8_t lengthByte, std::size_t size) const;
    std::size_t notificationSize() const;
    void push(Bytes item);

    Options m_options;
    std::deque<Bytes> m_queue;
    Bytes m_partial;
    uint8_t m_sum = 0;                  // of every byte of the partial frame
    std::vector<std::size_t> m_pieces;  // notification sizes of the partial frame
    bool m_held = false;
    Clock::time_point m_lastChunk{}, m_heldSince{};
    std::array<Convention, 2> m_conventions;  // answers, events
    std::size_t m_unitChunk = 0;               // 0: not seen yet
    Stats m_stats;
};

}  // namespace blueshim
