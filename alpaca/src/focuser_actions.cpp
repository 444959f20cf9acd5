#include "focuser_actions.h"

#include "nkrhost/setting_catalogue.h"

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

// A setting of the host layer's catalogue: "" reads it, a value writes it
// (checked there: refused outside its range, never clamped or wrapped).
Answer catalogueSetting(DeviceRegistry& registry, Unit& unit, const char* name, const std::string& parameters)
{
    const nkrhost::SettingInfo& info = *nkrhost::findSetting(name);
    nkrhost::SettingValue value;
    if (!parameters.empty()) {
        const nkrhost::Status parsed = nkrhost::parseSetting(info, parameters, value);
        if (!parsed.ok()) return invalid(parsed.message);
    }
    std::string text;
    DeviceError error = registry.withSession(unit, [&](nkrhost::Session& session) {
        if (!parameters.empty()) {
            nkrhost::Status written = session.writeSetting(info, value);
            if (!written.ok()) return written;
            if (info.type == nkrhost::SettingType::Text) session.unit().refreshIdentity();
        }
        nkrhost::SettingValue now;
        nkrhost::Status read = nkrhost::readSetting(session.unit(), info, now);
        switch (info.type) {
        case nkrhost::SettingType::Switch: text = now.number != 0 ? "true" : "false"; break;
        case nkrhost::SettingType::Decimal:
            // A step size nobody set reads as nothing.
            text = now.number >= info.low ? nlohmann::json(now.number).dump() : "";
            break;
        default: text = nkrhost::settingText(info, now);
        }
        return read;
    });
    return finish(error, text);
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
    const std::string action = lower(name);
    static const std::map<std::string, const char*> settings{
        {"backlash", "backlash"},   {"maxforce", "force"}, {"speed", "speed"},
        {"reverse", "reverse"},     {"beep", "beep"},      {"led", "led"},
        {"alias", "alias"},         {"tempcoefficient", "temp-coefficient"},
        {"tempdeadband", "temp-deadband"}, {"stepsize", "step-size"}};
    if (auto it = settings.find(action); it != settings.end())
        return catalogueSetting(registry, unit, it->second, parameters);
    if (action == "positions") return positions(registry, unit, parameters);
    if (action == "gotoposition") return gotoPosition(registry, unit, parameters);
    return {std::nullopt, {kActionNotImplemented, "action '" + name + "' is not implemented"}};
}

}  // namespace alpaca
