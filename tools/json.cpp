#include "json.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>

namespace nkrtool {

Json Json::object()
{
    Json j;
    j.value_ = nlohmann::ordered_json::object();
    return j;
}

Json Json::array()
{
    Json j;
    j.value_ = nlohmann::ordered_json::array();
    return j;
}

Json& Json::set(const std::string& key, Json value)
{
    if (!value_.is_object()) value_ = nlohmann::ordered_json::object();
    value_[key] = std::move(value.value_);
    return *this;
}

Json& Json::push(Json value)
{
    if (!value_.is_array()) value_ = nlohmann::ordered_json::array();
    value_.push_back(std::move(value.value_));
    return *this;
}

std::string Json::dump() const
{
    return value_.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::string jsonKey(std::string name)
{
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

Json eventJson(const std::string& name, int id)
{
    using namespace std::chrono;
    auto now = system_clock::now();
    std::time_t seconds = system_clock::to_time_t(now);
    int millis = static_cast<int>(duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[40];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    char stamp[48];
    std::snprintf(stamp, sizeof stamp, "%s.%03dZ", text, millis);
    return Json::object().set("event", name).set("id", id).set("timestamp", std::string(stamp));
}

}  // namespace nkrtool
