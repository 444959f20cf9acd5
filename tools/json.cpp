#include "json.h"

#include <cmath>
#include <cstdio>

namespace nkrtool {

Json& Json::set(const std::string& key, Json value)
{
    if (!std::holds_alternative<Object>(value_)) value_ = Object{};
    auto& members = std::get<Object>(value_);
    for (auto& member : members) {
        if (member.first == key) {
            member.second = std::move(value);
            return *this;
        }
    }
    members.emplace_back(key, std::move(value));
    return *this;
}

Json& Json::push(Json value)
{
    if (!std::holds_alternative<Array>(value_)) value_ = Array{};
    std::get<Array>(value_).push_back(std::move(value));
    return *this;
}

const Json* Json::find(const std::string& key) const
{
    if (const auto* members = std::get_if<Object>(&value_)) {
        for (const auto& member : *members)
            if (member.first == key) return &member.second;
    }
    return nullptr;
}

std::string Json::dump() const
{
    std::string out;
    write(out);
    return out;
}

std::string jsonQuote(const std::string& s)
{
    std::string out = "\"";
    for (unsigned char c : s) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    out += '"';
    return out;
}

void Json::write(std::string& out) const
{
    if (std::holds_alternative<std::nullptr_t>(value_)) {
        out += "null";
    } else if (const bool* b = std::get_if<bool>(&value_)) {
        out += *b ? "true" : "false";
    } else if (const long long* i = std::get_if<long long>(&value_)) {
        out += std::to_string(*i);
    } else if (const double* d = std::get_if<double>(&value_)) {
        // JSON has no NaN or infinity.
        if (!std::isfinite(*d)) {
            out += "null";
        } else {
            char buf[32];
            std::snprintf(buf, sizeof buf, "%.10g", *d);
            out += buf;
        }
    } else if (const std::string* s = std::get_if<std::string>(&value_)) {
        out += jsonQuote(*s);
    } else if (const Array* a = std::get_if<Array>(&value_)) {
        out += '[';
        for (size_t k = 0; k < a->size(); ++k) {
            if (k) out += ',';
            (*a)[k].write(out);
        }
        out += ']';
    } else if (const Object* o = std::get_if<Object>(&value_)) {
        out += '{';
        for (size_t k = 0; k < o->size(); ++k) {
            if (k) out += ',';
            out += jsonQuote((*o)[k].first);
            out += ':';
            (*o)[k].second.write(out);
        }
        out += '}';
    }
}

}  // namespace nkrtool
