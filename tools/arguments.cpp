#include "arguments.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>

#include "errors.h"
#include "output.h"

namespace nkrtool {

std::vector<std::string> givenArgs(std::initializer_list<std::string> texts)
{
    // Only the trailing ones that were left out are dropped: an empty text
    // typed before others ("" 100) stays, so it is named as what is missing.
    std::vector<std::string> args(texts);
    while (!args.empty() && args.back().empty()) args.pop_back();
    return args;
}

long long parseNumber(const std::string& text, const std::string& what)
{
    size_t start = (!text.empty() && (text[0] == '+' || text[0] == '-')) ? 1 : 0;
    bool digits = text.size() > start && text.size() - start <= 12 &&
                  std::all_of(text.begin() + static_cast<long>(start), text.end(),
                              [](unsigned char c) { return std::isdigit(c) != 0; });
    if (!digits) usageError("'" + clipped(text) + "' is not a valid " + what + " (a whole number)");
    return std::stoll(text);
}

long long parseStepTarget(const std::string& text, long long current, bool& relative)
{
    relative = !text.empty() && (text[0] == '+' || text[0] == '-');
    long long value = parseNumber(text, "step");
    return relative ? current + value : value;
}

CLI::Validator numberIn(double low, double high, bool whole, const std::string& unit)
{
    auto show = [](double v) {
        std::string s = formatFixed(v, 3);
        while (s.find('.') != std::string::npos && (s.back() == '0' || s.back() == '.')) s.pop_back();
        return s;
    };
    const std::string wanted = std::string("must be a ") + (whole ? "whole number" : "number") +
                               (unit.empty() ? "" : " of " + unit) + " from " + show(low) + " to " + show(high);
    return CLI::Validator(
        [=](std::string& text) -> std::string {
            char* end = nullptr;
            errno = 0;
            const double v = std::strtod(text.c_str(), &end);
            const bool number = !text.empty() && end == text.c_str() + text.size() && errno == 0 && std::isfinite(v);
            if (!number || (whole && v != std::floor(v)) || v < low || v > high)
                return wanted + " (got '" + clipped(text) + "')";
            return {};
        },
        "", "numberIn");
}

bool parseSwitch(const std::string& text, const std::string& what)
{
    std::string t = text;
    std::transform(t.begin(), t.end(), t.begin(), [](unsigned char c) { return std::tolower(c); });
    if (t == "on" || t == "1" || t == "true" || t == "yes") return true;
    if (t == "off" || t == "0" || t == "false" || t == "no") return false;
    usageError("'" + clipped(text) + "' is not a valid " + what + " (use on or off)");
}

}  // namespace nkrtool
