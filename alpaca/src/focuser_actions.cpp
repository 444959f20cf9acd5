#include "focuser_actions.h"

#include <NKR_focuser.h>

#include <algorithm>
#include <cctype>
#include <cstring>

namespace alpaca {
namespace {

std::string lower(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
}

Answer invalid(const std::string& text) { return {std::nullopt, {kInvalidValue, text}}; }

Answer finish(const DeviceError& error, const std::string& value)
{
    if (error.number != kOk) return {std::nullopt, error};
    return {nlohmann::json(value), {}};
}

std::optional<bool> parseFlag(const std::string& text)
{
    std::string v = lower(text);
    if (v == "true" || v == "1" || v == "on") return true;
    if (v == "false" || v == "0" || v == "off") return false;
    return std::nullopt;
}

using IntGet = int (*)(int, int*);
using IntSet = int (*)(int, int);
using BoolGet = int (*)(int, bool*);
using BoolSet = int (*)(int, bool);

Answer intSetting(DeviceRegistry& registry, Unit& unit, const std::string& parameters, IntGet get, IntSet set)
{
    int value = 0;
    if (!parameters.empty()) {
        auto parsed = parseInt32(parameters);
        if (!parsed) return invalid("not an integer: '" + parameters + "'");
        value = *parsed;
        DeviceError error = registry.call(unit, [&](int slot) { return set(slot, value); });
        if (error.number != kOk) return {std::nullopt, error};
    }
    DeviceError error = registry.call(unit, [&](int slot) { return get(slot, &value); });
    return finish(error, std::to_string(value));
}

Answer boolSetting(DeviceRegistry& registry, Unit& unit, const std::string& parameters, BoolGet get, BoolSet set)
{
    bool value = false;
    if (!parameters.empty()) {
        auto parsed = parseFlag(parameters);
        if (!parsed) return invalid("not true or false: '" + parameters + "'");
        DeviceError error = registry.call(unit, [&](int slot) { return set(slot, *parsed); });
        if (error.number != kOk) return {std::nullopt, error};
    }
    DeviceError error = registry.call(unit, [&](int slot) { return get(slot, &value); });
    return finish(error, value ? "true" : "false");
}

// The alias is the text inside "NKR(alias)" of the unit's name.
std::string aliasOf(const char* name)
{
    std::string text(name);
    auto open = text.find('(');
    auto close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) return {};
    return text.substr(open + 1, close - open - 1);
}

Answer alias(DeviceRegistry& registry, Unit& unit, const std::string& parameters)
{
    if (!parameters.empty()) {
        if (parameters.size() > 8) return invalid("the alias has at most 8 characters");
        _NKR_ID id{};
        std::memcpy(id.id, parameters.data(), parameters.size());
        DeviceError error = registry.call(unit, [&](int slot) { return NKRSetID(slot, id); });
        if (error.number != kOk) return {std::nullopt, error};
    }
    _NKR_INFO info{};
    DeviceError error = registry.call(unit, [&](int slot) { return NKRGetProperty(slot, &info); });
    info.Name[sizeof info.Name - 1] = '\0';
    return finish(error, aliasOf(info.Name));
}

}  // namespace

const std::vector<std::string>& actionNames()
{
    static const std::vector<std::string> names{"Backlash", "Reverse", "Beep", "MaxForce", "Led", "Alias", "Speed"};
    return names;
}

Answer runAction(DeviceRegistry& registry, Unit& unit, const std::string& name, const std::string& parameters)
{
    std::string action = lower(name);
    if (action == "backlash") return intSetting(registry, unit, parameters, NKRGetBacklash, NKRSetBacklash);
    if (action == "maxforce") return intSetting(registry, unit, parameters, NKRGetMaxForce, NKRSetMaxForce);
    if (action == "speed") return intSetting(registry, unit, parameters, NKRGetSpeed, NKRSetSpeed);
    if (action == "reverse") return boolSetting(registry, unit, parameters, NKRGetReverse, NKRSetReverse);
    if (action == "beep") return boolSetting(registry, unit, parameters, NKRGetBeep, NKRSetBeep);
    if (action == "led") return boolSetting(registry, unit, parameters, NKRGetLedState, NKRSetLedState);
    if (action == "alias") return alias(registry, unit, parameters);
    return {std::nullopt, {kActionNotImplemented, "action '" + name + "' is not implemented"}};
}

}  // namespace alpaca
