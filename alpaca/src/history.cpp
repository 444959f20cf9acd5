#include "history.h"

#include <algorithm>

namespace alpaca {

History::History(std::chrono::seconds span, std::chrono::seconds period)
    : span_(span), period_(std::max(period, std::chrono::seconds(1))),
      // A little slack: the sampler's wake-ups drift.
      capacity_(static_cast<std::size_t>(span_ / period_) + 8)
{
}

void History::add(int unit, const Sample& sample)
{
    std::lock_guard lock(mutex_);
    std::deque<Sample>& ring = units_[unit];
    ring.push_back(sample);
    const int64_t oldest = sample.millis - std::chrono::duration_cast<std::chrono::milliseconds>(span_).count();
    while (!ring.empty() && (ring.size() > capacity_ || ring.front().millis < oldest)) ring.pop_front();
}

nlohmann::json History::toJson() const
{
    using nlohmann::json;
    json units = json::object();
    std::lock_guard lock(mutex_);
    for (const auto& [unit, ring] : units_) {
        json rows = json::array();
        for (const Sample& s : ring)
            rows.push_back({s.millis, s.position ? json(*s.position) : json(),
                            s.temperature ? json(*s.temperature) : json()});
        units[std::to_string(unit)] = std::move(rows);
    }
    return {{"span", span_.count()}, {"period", period_.count()}, {"units", std::move(units)}};
}

void UnitPresence::sawPosition(int unit, int position, int64_t millis)
{
    std::lock_guard lock(mutex_);
    Seen& seen = units_[unit];
    seen.position = position;
    seen.positionMillis = millis;
}

UnitPresence::Seen UnitPresence::note(int unit, bool gone, int64_t millis)
{
    std::lock_guard lock(mutex_);
    Seen& seen = units_[unit];
    if (!gone) seen.goneSinceMillis.reset();
    else if (!seen.goneSinceMillis) seen.goneSinceMillis = millis;
    return seen;
}

}  // namespace alpaca
