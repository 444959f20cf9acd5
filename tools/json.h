// A minimal JSON value and writer: enough for the tool's machine-readable
// output (objects keep their insertion order so the output reads naturally).
#pragma once

#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace nkrtool {

class Json {
public:
    using Array = std::vector<Json>;
    using Object = std::vector<std::pair<std::string, Json>>;

    Json() : value_(nullptr) {}
    Json(std::nullptr_t) : value_(nullptr) {}
    Json(bool b) : value_(b) {}
    Json(int i) : value_(static_cast<long long>(i)) {}
    Json(long long i) : value_(i) {}
    Json(double d) : value_(d) {}
    Json(const char* s) : value_(std::string(s)) {}
    Json(std::string s) : value_(std::move(s)) {}

    static Json object() { return Json(Object{}); }
    static Json array() { return Json(Array{}); }

    // Adds (or replaces) a member of an object; returns *this for chaining.
    Json& set(const std::string& key, Json value);
    // Appends to an array; returns *this.
    Json& push(Json value);
    // Member of an object, or null when absent (for reading back in the tool).
    const Json* find(const std::string& key) const;

    bool isNull() const { return std::holds_alternative<std::nullptr_t>(value_); }

    // Compact one-line text.
    std::string dump() const;

private:
    explicit Json(Array a) : value_(std::move(a)) {}
    explicit Json(Object o) : value_(std::move(o)) {}
    void write(std::string& out) const;

    std::variant<std::nullptr_t, bool, long long, double, std::string, Array, Object> value_;
};

// Quotes and escapes a string for JSON.
std::string jsonQuote(const std::string& s);

}  // namespace nkrtool
