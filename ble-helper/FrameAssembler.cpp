#include "FrameAssembler.h"

#include <algorithm>
#include <cstring>

namespace blueshim {
namespace {

constexpr uint8_t kAnswer = 0x01;
constexpr uint8_t kEvent = 0x02;
constexpr std::size_t kMinFrame = 4;
bool startsFrame(uint8_t b) { return b == kAnswer || b == kEvent; }

uint8_t sumOf(const uint8_t* data, std::size_t size)
{
    uint8_t sum = 0;
    for (std::size_t i = 0; i < size; ++i) sum = static_cast<uint8_t>(sum + data[i]);
    return sum;
}

// A frame of `size` bytes whose bytes add up to `sum` and end with `last`
// closes when its last byte is the sum of the ones before it.
bool closes(std::size_t size, uint8_t sum, uint8_t last)
{
    return size >= kMinFrame && static_cast<uint8_t>(sum - last) == last;
}

int offsetOf(std::size_t size, uint8_t lengthByte) { return static_cast<int>((size - lengthByte) & 0xFF); }

}  // namespace

std::optional<int> FrameAssembler::Convention::steady() const
{
    for (int k = 0; k < 256; ++k)
        if (total > 0 && seen[static_cast<std::size_t>(k)] == total) return k;
    return std::nullopt;
}

FrameAssembler::FrameAssembler(Options options) : m_options(options)
{
    m_options.capacity = std::max<std::size_t>(m_options.capacity, 1);
    m_options.payloadSize = std::max<std::size_t>(m_options.payloadSize, 1);
}

void FrameAssembler::setPayloadSize(std::size_t size) { m_options.payloadSize = std::max<std::size_t>(size, 1); }

std::size_t FrameAssembler::notificationSize() const
{
    return m_unitChunk > 0 ? std::min(m_unitChunk, m_options.payloadSize) : m_options.payloadSize;
}

bool FrameAssembler::lengthAgrees(uint8_t type, uint8_t lengthByte, std::size_t size) const
{
    // The byte holds eight bits: past 255 it wraps, and then it cannot tell
    // this size from one 256 bytes shorter, so only an exact match counts.
    const Convention& c = m_conventions[type == kAnswer ? 0 : 1];
    // Until a frame of this unit ended unambiguously the byte is not trusted
    // at all: a unit whose byte says nothing must not be cut on a guess.
    if (const auto k = c.steady()) return size == static_cast<std::size_t>(lengthByte) + static_cast<std::size_t>(*k);
    return false;
}

void FrameAssembler::emit(Bytes item, bool frame)
{
    if (frame && item.size() >= kMinFrame && startsFrame(item[0])) {
        Convention& c = m_conventions[item[0] == kAnswer ? 0 : 1];
        ++c.seen[static_cast<std::size_t>(offsetOf(item.size(), item[1]))];
        ++c.total;
        // Every notification but the last of a frame was a full one: the
        // unit's notification size, when it uses less than the link allows.
        if (m_pieces.size() > 1) {
            const std::size_t first = m_pieces.front();
            const bool steady = std::all_of(m_pieces.begin(), m_pieces.end() - 1, [&](std::size_t s) { return s == first; });
            if (steady) m_unitChunk = first;
        }
    }
    push(std::move(item));
}

void FrameAssembler::feed(const uint8_t* data, std::size_t count, Clock::time_point now)
{
    if (data == nullptr || count == 0) return;
    // A bigger notification than the link was said to carry: the MTU grew.
    if (count > m_options.payloadSize) m_options.payloadSize = count;
    if (!m_partial.empty() && now - m_lastChunk > m_options.gap) expire(now);
    m_lastChunk = now;
    const uint8_t pieceSum = sumOf(data, count);

    if (m_partial.empty()) {
        if (!startsFrame(data[0])) {
            push(Bytes(data, data + count));  // raw bytes: as they came
            return;
        }
        start(data, count, pieceSum, now);
        return;
    }

    // Something is pending: a frame that has not closed yet, or an
    // ambiguous one held for its continuation.
    const bool alone = startsFrame(data[0]) && closes(count, pieceSum, data[count - 1]) && count < notificationSize();
    const std::size_t joinedSize = m_partial.size() + count;
    const uint8_t joinedSum = static_cast<uint8_t>(m_sum + pieceSum);
    const bool joinedCloses = closes(joinedSize, joinedSum, data[count - 1]);
    bool newFrame = false;
    if (m_held)
        // Held and closed: the next piece is a new frame when it is one by
        // itself and the two together are not one.
        newFrame = alone && (!joinedCloses || !lengthAgrees(m_partial[0], m_partial[1], joinedSize));
    else
        // Never closed: a whole frame on its own means what came before was junk.
        newFrame = alone && !joinedCloses;
    if (newFrame) {
        emit(std::move(m_partial), m_held);
        start(data, count, pieceSum, now);
        return;
    }
    if (m_held) ++m_stats.continued;
    m_held = false;
    m_partial.insert(m_partial.end(), data, data + count);
    m_sum = joinedSum;
    m_pieces.push_back(count);
    settle(now, count);
}

void FrameAssembler::start(const uint8_t* data, std::size_t count, uint8_t sum, Clock::time_point now)
{
    m_partial.assign(data, data + count);
    m_sum = sum;
    m_pieces.assign(1, count);
    m_held = false;
    settle(now, count);
}

void FrameAssembler::settle(Clock::time_point now, std::size_t lastSize)
{
    if (!closes(m_partial.size(), m_sum, m_partial.back())) {
        if (m_partial.size() > m_options.maxFrame) {
            ++m_stats.cutShort;
            push(std::move(m_partial));
            m_partial.clear();
            m_pieces.clear();
        }
        return;  // wait for more, or the gap
    }
    // Full: as large as the link carries, or as large as the piece before it
    // (a unit that sends its answers in pieces smaller than the link allows).
    const bool full = lastSize >= notificationSize() ||
                      (m_pieces.size() >= 2 && lastSize == m_pieces[m_pieces.size() - 2]);
    if (!full || lengthAgrees(m_partial[0], m_partial[1], m_partial.size())) {
        emit(std::move(m_partial), true);
        m_partial.clear();
        m_pieces.clear();
        return;
    }
    m_held = true;
    m_heldSince = now;
    ++m_stats.held;
}

std::optional<FrameAssembler::Clock::time_point> FrameAssembler::deadline() const
{
    if (m_partial.empty()) return std::nullopt;
    return m_held ? m_heldSince + m_options.hold : m_lastChunk + m_options.gap;
}

void FrameAssembler::expire(Clock::time_point now)
{
    const auto due = deadline();
    if (!due || now < *due) return;
    if (!m_held) ++m_stats.cutShort;
    emit(std::move(m_partial), m_held);
    m_partial.clear();
    m_pieces.clear();
    m_held = false;
}

std::size_t FrameAssembler::pop(uint8_t* out, std::size_t capacity)
{
    if (m_queue.empty()) return 0;
    Bytes item = std::move(m_queue.front());
    m_queue.pop_front();
    std::size_t n = std::min(item.size(), capacity);
    if (n > 0 && out != nullptr) std::memcpy(out, item.data(), n);
    return out != nullptr ? n : 0;
}

void FrameAssembler::reset()
{
    m_queue.clear();
    m_partial.clear();
    m_pieces.clear();
    m_held = false;
    m_conventions = {};
    m_unitChunk = 0;
}

void FrameAssembler::push(Bytes item)
{
    if (m_queue.size() >= m_options.capacity) {
        m_queue.pop_front();
        ++m_stats.overflowDrops;
    }
    m_queue.push_back(std::move(item));
}

}  // namespace blueshim
