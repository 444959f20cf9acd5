#include "alpaca_request.h"

#include <httplib.h>

#include <algorithm>
#include <cctype>
#include <charconv>

namespace alpaca {
namespace {

std::string lower(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
}

template <typename T>
std::optional<T> parseWhole(const std::string& text)
{
    if (text.empty() || text.size() > 20) return std::nullopt;
    T value{};
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

}  // namespace

std::optional<uint32_t> parseUint32(const std::string& text)
{
    if (!text.empty() && text[0] == '-') return std::nullopt;
    return parseWhole<uint32_t>(text);
}

std::optional<int32_t> parseInt32(const std::string& text) { return parseWhole<int32_t>(text); }

AlpacaRequest::AlpacaRequest(const httplib::Request& req) : put_(req.method == "PUT")
{
    if (put_) {
        // Only the form body counts for PUT; its names are matched as sent.
        httplib::Params body;
        std::string type = lower(req.get_header_value("Content-Type"));
        if (type.rfind("application/x-www-form-urlencoded", 0) == 0)
            httplib::detail::parse_query_text(req.body, body);
        for (auto& [name, value] : body) params_.emplace(name, value);
    } else {
        for (auto& [name, value] : req.params) params_.emplace(lower(name), value);
    }
    if (auto id = find("ClientTransactionID")) clientTransactionId_ = parseUint32(*id).value_or(0);
}

std::optional<std::string> AlpacaRequest::find(const std::string& name) const
{
    auto it = params_.find(put_ ? name : lower(name));
    if (it == params_.end()) return std::nullopt;
    return it->second;
}

std::string AlpacaRequest::text(const std::string& name) const
{
    auto value = find(name);
    if (!value) throw BadRequest("missing parameter " + name);
    return *value;
}

int32_t AlpacaRequest::integer(const std::string& name) const
{
    auto value = parseInt32(text(name));
    if (!value) throw BadRequest("parameter " + name + " is not a 32-bit integer: '" + text(name) + "'");
    return *value;
}

bool AlpacaRequest::boolean(const std::string& name) const
{
    std::string value = lower(text(name));
    if (value == "true") return true;
    if (value == "false") return false;
    throw BadRequest("parameter " + name + " is not true or false: '" + text(name) + "'");
}

}  // namespace alpaca
