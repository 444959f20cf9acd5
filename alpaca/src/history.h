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

}  // namespace alpaca
