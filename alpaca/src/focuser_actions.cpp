#include "focuser_actions.h"

#include <NKR_focuser.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>

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

Answer alias(DeviceRegistry& registry, Unit& unit, const std::string& parameters)
{
    if (!parameters.empty()) {
        if (parameters.size() > 8) return invalid("the alias has at most 8 characters");
        _NKR_ID id{};
        std::memcpy(id.id, parameters.data(), parameters.size());
        DeviceError error = registry.call(unit, [&](int slot) { return NKRSetID(slot, id); });
        if (error.number != kOk) return {std::nullopt, error};
    }
    std::string value;
    DeviceError error = registry.withHost(unit, [&](nkrhost::Unit& host) {
        host.refreshIdentity();
        value = host.identity().alias;
        return nkrhost::Status::fromSdk(host.identity().propertyCode, "reading the alias");
    });
    return finish(error, value);
}

// A number kept in the host settings (the same ones every host program
// uses), at a path such as {"temp_comp", "coefficient"}; the settings check it.
Answer hostNumber(DeviceRegistry& registry, Unit& unit, const std::string& parameters,
                  const std::vector<std::string>& path,
                  std::optional<double> (*current)(const nkrhost::UnitSettings&))
{
    nlohmann::json number;
    if (!parameters.empty()) {
        number = nlohmann::json::parse(parameters, nullptr, false);
        if (!number.is_number()) return invalid("not a number: '" + parameters + "'");
    }
    std::string value;
    DeviceError error = registry.withHost(unit, [&](nkrhost::Unit& host) {
        if (!parameters.empty()) {
            nlohmann::json patch = number;
            for (auto it = path.rbegin(); it != path.rend(); ++it) patch = nlohmann::json{{*it, patch}};
            nkrhost::Status merged = host.hostSettings().mergeJson(host.key(), patch.dump());
            if (!merged.ok()) return merged;
        }
        nkrhost::UnitSettings settings;
        nkrhost::Status read = host.settings(settings);
        if (auto v = current(settings)) value = nlohmann::json(*v).dump();
        return read;
    });
    return finish(error, value);
}

// Named positions: "" lists them as JSON, "NAME" or "NAME=POSITION" saves
// (the current position when none is given), "-NAME" removes.
Answer positions(DeviceRegistry& registry, Unit& unit, const std::string& parameters)
{
    std::string listed;
    DeviceError error = registry.withHost(unit, [&](nkrhost::Unit& host) {
        nkrhost::Status status;
        if (!parameters.empty() && parameters[0] == '-') {
            status = host.removePosition(parameters.substr(1));
        } else if (!parameters.empty()) {
            const auto eq = parameters.find('=');
            long long position = 0;
            if (eq == std::string::npos) {
                int now = 0;
                status = host.position(now);
                position = now;
            } else {
                auto parsed = parseInt32(parameters.substr(eq + 1));
                if (!parsed)
                    return nkrhost::Status::failure(NKR_ERROR_INVALID_VALUE,
                                                    "not a position: '" + parameters.substr(eq + 1) + "'");
                position = *parsed;
            }
            if (status.ok()) status = host.savePosition(parameters.substr(0, eq), position);
        }
        if (!status.ok()) return status;
        std::map<std::string, int> all;
        status = host.namedPositions(all);
        listed = nlohmann::json(all).dump();
        return status;
    });
    return finish(error, listed);
}

Answer gotoPosition(DeviceRegistry& registry, Unit& unit, const std::string& name)
{
    int target = 0;
    DeviceError error = registry.withHost(unit, [&](nkrhost::Unit& host) { return host.namedPosition(name, target); });
    if (error.number == kOk) error = registry.move(unit, target);
    return finish(error, std::to_string(target));
}

}  // namespace

const std::vector<std::string>& actionNames()
{
    static const std::vector<std::string> names{"Backlash",       "Reverse",         "Beep",      "MaxForce",
                                                "Led",            "Alias",           "Speed",     "Positions",
                                                "GotoPosition",   "TempCoefficient", "TempDeadband", "StepSize"};
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
    if (action == "positions") return positions(registry, unit, parameters);
    if (action == "gotoposition") return gotoPosition(registry, unit, parameters);
    if (action == "tempcoefficient") return hostNumber(registry, unit, parameters, {"temp_comp", "coefficient"},
                                                         [](const nkrhost::UnitSettings& s) -> std::optional<double> { return s.tempComp.coefficient; });
    if (action == "tempdeadband") return hostNumber(registry, unit, parameters, {"temp_comp", "deadband"},
                                                      [](const nkrhost::UnitSettings& s) -> std::optional<double> { return s.tempComp.deadband; });
    if (action == "stepsize") return hostNumber(registry, unit, parameters, {"step_size_um"},
                                                  [](const nkrhost::UnitSettings& s) { return s.stepSizeMicrons; });
    return {std::nullopt, {kActionNotImplemented, "action '" + name + "' is not implemented"}};
}

}  // namespace alpaca
