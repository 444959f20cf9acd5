#include "unit_identity.h"

#include <strings.h>

#include <cctype>
#include <cstdio>
#include <cstring>

namespace nkrindi {

namespace {

bool equalIgnoringCase(const std::string& a, const std::string& b)
{
    return a.size() == b.size() && strcasecmp(a.c_str(), b.c_str()) == 0;
}

// People copy serial numbers with separators ("12:34:56..."); the unit has none.
std::string withoutSeparators(const std::string& text)
{
    std::string out;
    for (char c : text)
        if (c != ':' && c != '-' && c != ' ') out += c;
    return out;
}

}  // namespace

std::string serialText(const unsigned char* serial8)
{
    char text[17] = {};
    for (int i = 0; i < 8; ++i) std::snprintf(text + 2 * i, 3, "%02X", serial8[i]);
    return text;
}

std::string aliasFromUnitName(const char* unitName)
{
    if (unitName == nullptr) return {};
    const char* open = std::strchr(unitName, '(');
    const char* close = std::strrchr(unitName, ')');
    if (open == nullptr || close == nullptr || close < open) return {};
    return std::string(open + 1, close);
}

std::string trimmed(const std::string& text)
{
    size_t first = 0;
    size_t last = text.size();
    while (first < last && std::isspace(static_cast<unsigned char>(text[first]))) ++first;
    while (last > first && std::isspace(static_cast<unsigned char>(text[last - 1]))) --last;
    return text.substr(first, last - first);
}

bool isSerialText(const std::string& text)
{
    const std::string digits = withoutSeparators(trimmed(text));
    if (digits.size() != 16) return false;
    for (char c : digits)
        if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    return true;
}

std::string normalizedSerial(const std::string& text)
{
    std::string digits = withoutSeparators(trimmed(text));
    for (char& c : digits) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return digits;
}

bool usbSelectorMatches(const std::string& selector, const std::string& serial,
                        const std::string& alias)
{
    const std::string wanted = trimmed(selector);
    if (wanted.empty()) return false;
    if (!serial.empty() && equalIgnoringCase(withoutSeparators(wanted), serial)) return true;
    return !alias.empty() && equalIgnoringCase(wanted, alias);
}

bool bleSelectorMatches(const std::string& selector, const std::string& name,
                        const std::string& address)
{
    const std::string wanted = trimmed(selector);
    if (wanted.empty()) return false;
    return wanted == name || (!address.empty() && equalIgnoringCase(wanted, address));
}

}  // namespace nkrindi
