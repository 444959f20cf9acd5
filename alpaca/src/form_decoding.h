// Query strings and form bodies (application/x-www-form-urlencoded) as
// name/value pairs, checked: broken % escapes and text that is not UTF-8 are
// refused with a sentence instead of reaching a handler.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace alpaca {

using Form = std::vector<std::pair<std::string, std::string>>;

// Pairs split at '&', each at its FIRST '=' (so "Parameters=Focus=31000" is
// Parameters -> "Focus=31000"), '+' read as a space, %XX decoded. On a bad
// escape or a name or value that is not UTF-8: nullopt, and `why` says which.
std::optional<Form> decodeForm(std::string_view text, std::string& why);

bool validUtf8(std::string_view text);

}  // namespace alpaca
