#include "FrameAssembler.h"

#include <algorithm>
#include <cstring>

namespace blueshim {
namespace {

constexpr uint8_t kAnswer = 0x01;
constexpr uint8_t kEvent = 0x02;
constexpr std::size_t kOverhead = 5;  // type, length, sequence, status, checksum

bool startsFrame(uint8_t b) { return b == kAnswer || b == kEvent; }

}  // namespace

FrameAssembler::FrameAssembler(std::size_t capacity, std::chrono::milliseconds gap)
    : m_capacity(capacity == 0 ? 1 : capacity), m_gap(gap)
{
}

void FrameAssembler::feed(const uint8_t* data, std::size_t count, Clock::time_point now)
{
    if (!m_partial.empty() && now - m_lastChunk > m_gap) {
        m_partial.clear();
        ++m_partialDrops;
    }
    m_lastChunk = now;
    std::size_t pos = 0;
    while (pos < count) {
        if (m_partial.empty() && !startsFrame(data[pos])) {
            push(Bytes(data + pos, data + count));
            return;
        }
        // The length byte may come in a chunk of its own.
        if (m_partial.empty() || m_partial.size() < 2) {
            m_partial.push_back(data[pos++]);
            continue;
        }
        std::size_t total = static_cast<std::size_t>(m_partial[1]) + kOverhead;
        std::size_t take = std::min(total - m_partial.size(), count - pos);
        m_partial.insert(m_partial.end(), data + pos, data + pos + take);
        pos += take;
        if (m_partial.size() == total) {
            push(std::move(m_partial));
            m_partial.clear();
        }
    }
}

std::size_t FrameAssembler::pop(uint8_t* out, std::size_t capacity)
{
    if (m_queue.empty()) {
        return 0;
    }
    Bytes item = std::move(m_queue.front());
    m_queue.pop_front();
    std::size_t n = std::min(item.size(), capacity);
    if (n > 0 && out != nullptr) {
        std::memcpy(out, item.data(), n);
    }
    return out != nullptr ? n : 0;
}

void FrameAssembler::reset()
{
    m_queue.clear();
    m_partial.clear();
}

void FrameAssembler::push(Bytes item)
{
    if (m_queue.size() >= m_capacity) {
        m_queue.pop_front();
        ++m_overflowDrops;
    }
    m_queue.push_back(std::move(item));
}

}  // namespace blueshim
