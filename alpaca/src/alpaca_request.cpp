#include "alpaca_request.h"


#include <algorithm>
#include <cctype>
#include <charconv>

#include "form_decoding.h"
#include "http_server.h"

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

AlpacaRequest::AlpacaRequest(const HttpRequest& req) : put_(req.method == "PUT")
{
    // Only the form body counts for PUT, its names matched as sent; GET
    // takes the query, its names in any case.
    const bool form = req.contentType.rfind("application/x-www-form-urlencoded", 0) == 0;
    std::string why;
    auto decoded = decodeForm(put_ ? (form ? std::string_view(req.body) : std::string_view()) : std::string_view(req.query), why);
    if (!decoded) throw BadRequest(why);
    for (auto& [name, value] : *decoded) params_.emplace(put_ ? std::move(name) : lower(name), std::move(value));
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
