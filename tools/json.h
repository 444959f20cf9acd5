// The tool's machine-readable output: a thin builder over nlohmann's ordered
// JSON (members keep their insertion order so the output reads naturally).
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace nkrtool {

class Json {
public:
    Json() = default;
    Json(std::nullptr_t) {}
    Json(bool b) : value_(b) {}
    Json(int i) : value_(i) {}
    Json(long long i) : value_(i) {}
    Json(double d) : value_(d) {}
    Json(const char* s) : value_(std::string(s)) {}
    Json(std::string s) : value_(std::move(s)) {}

    static Json object();
    static Json array();

    // Adds (or replaces) a member of an object; returns *this for chaining.
    Json& set(const std::string& key, Json value);
    // Appends to an array; returns *this.
    Json& push(Json value);

    bool isNull() const { return value_.is_null(); }
    bool isEmptyString() const { return value_.is_string() && value_.get_ref<const std::string&>().empty(); }

    // Compact one-line text (non-finite numbers as null; bad UTF-8 replaced).
    std::string dump() const;

private:
    nlohmann::ordered_json value_;
};

// "max-step" -> "max_step": every JSON key is snake_case.
std::string jsonKey(std::string name);

// {"event": name, "id": id, "timestamp": "2026-01-02T03:04:05.678Z"}: the
// start of every event line (move, watch, wait, firmware).
Json eventJson(const std::string& name, int id);

}  // namespace nkrtool
