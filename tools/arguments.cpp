#include "arguments.h"

#include <algorithm>
#include <cctype>
#include <climits>

#include "errors.h"
#include "output.h"

namespace nkrtool {

std::vector<std::string> givenArgs(std::initializer_list<std::string> texts)
{
    std::vector<std::string> args;
    for (const std::string& text : texts)
        if (!text.empty()) args.push_back(text);
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

bool parseSwitch(const std::string& text, const std::string& what)
{
    std::string t = text;
    std::transform(t.begin(), t.end(), t.begin(), [](unsigned char c) { return std::tolower(c); });
    if (t == "on" || t == "1" || t == "true" || t == "yes") return true;
    if (t == "off" || t == "0" || t == "false" || t == "no") return false;
    usageError("'" + clipped(text) + "' is not a valid " + what + " (use on or off)");
}

}  // namespace nkrtool
