// What the control page plots: position and temperature of each connected
// unit over the last hour, one sample every few seconds, kept in memory as a
// bounded ring per unit (nothing is written to disk).
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>

#include <nlohmann/json.hpp>

namespace alpaca {

struct Sample {
    int64_t millis = 0;  // wall clock, milliseconds since the epoch
    std::optional<int> position;
    std::optional<double> temperature;
};

class History {
public:
    History(std::chrono::seconds span, std::chrono::seconds period);

    // Adds a sample of one unit; samples older than the span before it, and
    // any beyond the ring's size, are dropped.
    void add(int unit, const Sample& sample);
    // {"span": s, "period": s, "units": {"0": [[millis, position|null, temperature|null], ...]}}
    nlohmann::json toJson() const;

    std::chrono::seconds period() const { return period_; }
    std::size_t capacity() const { return capacity_; }

private:
    std::chrono::seconds span_, period_;
    std::size_t capacity_;
    mutable std::mutex mutex_;
    std::map<int, std::deque<Sample>> units_;
};

// What the page remembers of each unit between polls: where it was last
// seen, and since when a unit a client had connected is gone.
class UnitPresence {
public:
    struct Seen {
        std::optional<int> position;          // last position read
        int64_t positionMillis = 0;           // when it was read
        std::optional<int64_t> goneSinceMillis;  // set while gone
    };
    void sawPosition(int unit, int position, int64_t millis);
    // Notes whether the unit is gone at `millis` and returns what is known of it.
    Seen note(int unit, bool gone, int64_t millis);

private:
    std::mutex mutex_;
    std::map<int, Seen> units_;
};

}  // namespace alpaca
