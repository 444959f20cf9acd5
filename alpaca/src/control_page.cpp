// The control page: one HTML page with its stylesheet and script (compiled in
// from alpaca/web), the small JSON API it polls, and the POST endpoints for
// what it changes. The ASCOM setup URLs lead to it. The request guard of the
// server has already refused other sites' requests before these run.
#include <NKR_focuser.h>
#include <httplib.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

#include "alpaca_request.h"
#include "alpaca_server.h"
#include "focuser_actions.h"
#include "nkrhost/setting_catalogue.h"
#include "nkrhost/settings.h"
#include "focuser_members.h"
#include "web_assets.h"

namespace alpaca {
namespace {

using nlohmann::json;

void sendJson(httplib::Response& res, int status, const json& body)
{
    res.status = status;
    res.set_header("Cache-Control", "no-store");
    res.set_content(body.dump(), "application/json");
}

// The outcome of a change: 200 done, 400 a bad value (nothing was changed),
// 404 no such unit, 409 the unit refused or is not connected.
void sendOutcome(httplib::Response& res, int status, const std::string& message, json errors = json::object())
{
    sendJson(res, status, {{"ok", status == 200}, {"message", message}, {"errors", std::move(errors)}});
}

void sendRefusal(httplib::Response& res, const DeviceError& error)
{
    sendOutcome(res, error.number == kInvalidValue ? 400 : 409, error.message);
}

// "1, 7, 7, 0" as people write versions: 1.7.7.0.
std::string sdkVersion()
{
    std::string text = NKRGetSDKVersion();
    for (std::size_t at; (at = text.find(", ")) != std::string::npos;) text.replace(at, 2, ".");
    return text;
}

double tenths(double value) { return std::round(value * 10.0) / 10.0; }

std::string stepsText(long long steps) { return std::to_string(steps) + " steps"; }

std::string firmwareOf(DeviceRegistry& registry, Unit& unit)
{
    unsigned char major = 0, minor = 0, build = 0;
    if (!registry.call(unit, [&](int slot) { return NKRGetFirmwareVersion(slot, &major, &minor, &build); }).ok())
        return {};
    return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(build);
}

// What the page shows of a unit every second.
json unitState(DeviceRegistry& registry, Unit& unit)
{
    json state = {{"number", unit.number},     {"serial", unit.serial},   {"name", nullptr},
                  {"link", unit.bleName.empty() ? "USB" : "Bluetooth"},  {"bleName", unit.bleName},
                  {"connected", false},        {"position", nullptr},     {"temperature", nullptr},
                  {"moving", nullptr},         {"maxStep", nullptr},      {"tempComp", ""}};
    if (!registry.connected(unit)) return state;
    state["connected"] = true;
    int position = 0;
    if (registry.call(unit, [&](int slot) { return NKRGetPosition(slot, &position); }).ok()) state["position"] = position;
    float celsius = 0;
    if (registry.call(unit, [&](int slot) { return NKRGetTemp(slot, &celsius); }).ok())
        state["temperature"] = tenths(static_cast<double>(celsius));
    bool moving = false;
    if (registry.isMoving(unit, moving).ok()) state["moving"] = moving;
    registry.withHost(unit, [&](nkrhost::Unit& host) {
        int maximum = 0;
        if (host.maximum(maximum).ok()) state["maxStep"] = maximum;
        nkrhost::UnitSettings settings;
        host.settings(settings);
        state["name"] = nkrhost::displayName(settings.name, host.identity().alias, host.identity().modelOrDefault());
        return nkrhost::Status::success();
    });
    state["tempComp"] = registry.tempCompSummary(unit);
    return state;
}

// The settings form's values; null where a value cannot be read.
json unitSettings(DeviceRegistry& registry, Unit& unit)
{
    json s = {{"alias", nullptr},    {"maxstep", nullptr},   {"stepRange", nullptr},     {"backlash", nullptr},
              {"speed", nullptr},    {"reverse", nullptr},   {"beep", nullptr},          {"stepsize", nullptr},
              {"tempcomp", nullptr}, {"tempcoefficient", nullptr}, {"tempdeadband", nullptr}, {"firmware", nullptr}};
    Answer alias = runAction(registry, unit, "Alias", "");
    if (alias.value) s["alias"] = *alias.value;
    registry.withHost(unit, [&](nkrhost::Unit& host) {
        int maximum = 0;
        if (host.maximum(maximum).ok()) s["maxstep"] = maximum;
        if (host.stepRange() > 0) s["stepRange"] = host.stepRange();
        nkrhost::UnitSettings settings;
        const nkrhost::Status read = host.settings(settings);
        if (read.ok()) {
            if (settings.stepSizeMicrons) s["stepsize"] = *settings.stepSizeMicrons;
            s["tempcomp"] = settings.tempComp.enabled;
            s["tempcoefficient"] = settings.tempComp.coefficient;
            s["tempdeadband"] = settings.tempComp.deadband;
        }
        return read;
    });
    int value = 0;
    if (registry.call(unit, [&](int slot) { return NKRGetBacklash(slot, &value); }).ok()) s["backlash"] = value;
    if (registry.call(unit, [&](int slot) { return NKRGetSpeed(slot, &value); }).ok()) s["speed"] = value;
    bool flag = false;
    if (registry.call(unit, [&](int slot) { return NKRGetReverse(slot, &flag); }).ok()) s["reverse"] = flag;
    if (registry.call(unit, [&](int slot) { return NKRGetBeep(slot, &flag); }).ok()) s["beep"] = flag;
    const std::string firmware = firmwareOf(registry, unit);
    if (!firmware.empty()) s["firmware"] = firmware;
    return s;
}

// ---- checking the settings form -------------------------------------------------

enum class Kind { Whole, Decimal, OptionalDecimal, Flag, Alias };

struct FieldRule {
    const char* name;   // form field
    const char* label;  // as the page shows it
    Kind kind;
    double low, high;
    const char* unit;   // of the value, for the message
};

const nkrhost::SettingInfo& setting(const char* name) { return *nkrhost::findSetting(name); }

// Ranges from the host layer's setting catalogue; the maximum's upper end is
// the unit's step range, filled in when checked.
const FieldRule kRules[] = {
    {"alias", "Alias", Kind::Alias, 0, setting("alias").high, ""},
    {"maxstep", "Maximum step", Kind::Whole, 1, INT_MAX, " steps"},
    {"backlash", "Backlash", Kind::Whole, setting("backlash").low, setting("backlash").high, " steps"},
    {"speed", "Speed", Kind::Whole, setting("speed").low, setting("speed").high, ""},
    {"reverse", "Reverse", Kind::Flag, 0, 0, ""},
    {"beep", "Beep", Kind::Flag, 0, 0, ""},
    {"stepsize", "Step size", Kind::OptionalDecimal, setting("step-size").low, setting("step-size").high, " µm"},
    {"tempcomp", "Temperature compensation", Kind::Flag, 0, 0, ""},
    {"tempcoefficient", "Coefficient", Kind::Decimal, setting("temp-coefficient").low, setting("temp-coefficient").high,
     " steps per °C"},
    {"tempdeadband", "Dead band", Kind::Decimal, setting("temp-deadband").low, setting("temp-deadband").high, " °C"},
};

std::optional<double> decimal(const std::string& text)
{
    if (text.empty() || text.size() > 32) return std::nullopt;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (end != text.c_str() + text.size() || !std::isfinite(value)) return std::nullopt;
    return value;
}

std::optional<bool> flag(const std::string& text)
{
    if (text == "true" || text == "on" || text == "1") return true;
    if (text == "false" || text == "off" || text == "0") return false;
    return std::nullopt;
}

std::string number(double value)
{
    std::string text = json(value).dump();
    return text.size() > 2 && text.compare(text.size() - 2, 2, ".0") == 0 ? text.substr(0, text.size() - 2) : text;
}

std::string quoted(const std::string& text) { return "'" + (text.size() > 40 ? text.substr(0, 40) + "…" : text) + "'"; }

// Every submitted value, parsed, or why it is wrong: nothing is sent to the
// unit unless all of them are right.
struct Checked {
    json values = json::object();
    json errors = json::object();
};

Checked check(const httplib::Params& form, int stepRange)
{
    Checked out;
    for (const auto& [name, text] : form) {
        const FieldRule* rule = nullptr;
        for (const FieldRule& r : kRules)
            if (name == r.name) rule = &r;
        if (rule == nullptr) {
            out.errors[name] = "there is no setting '" + name + "'";
            continue;
        }
        const std::string label = rule->label;
        double high = rule->high;
        std::string rangeNote;
        if (name == "maxstep" && stepRange > 0) {
            high = stepRange;
            rangeNote = ", the unit's step range";
        }
        switch (rule->kind) {
        case Kind::Alias: {
            const nkrhost::Status plain = nkrhost::checkUnitText(setting("alias"), text);
            if (plain.ok()) out.values[name] = text;
            else out.errors[name] = plain.message;
            break;
        }
        case Kind::Whole: {
            const auto value = parseInt32(text);
            if (value && *value >= rule->low && *value <= high) out.values[name] = *value;
            else out.errors[name] = label + " must be a whole number from " + number(rule->low) + " to " + number(high) +
                                    rule->unit + rangeNote + "; got " + (text.empty() ? "nothing" : quoted(text));
            break;
        }
        case Kind::OptionalDecimal:
        case Kind::Decimal: {
            if (text.empty() && rule->kind == Kind::OptionalDecimal) {
                out.values[name] = nullptr;  // cleared: not set for this focuser
                break;
            }
            const auto value = decimal(text);
            if (value && *value >= rule->low && *value <= high) out.values[name] = *value;
            else out.errors[name] = label + " must be a number from " + number(rule->low) + " to " + number(high) +
                                    rule->unit + "; got " + (text.empty() ? "nothing" : quoted(text));
            break;
        }
        case Kind::Flag: {
            const auto value = flag(text);
            if (value) out.values[name] = *value;
            else out.errors[name] = label + " must be on or off; got " + quoted(text);
            break;
        }
        }
    }
    return out;
}

// Sends the checked values, the unit's own settings first, then the ones the
// host programs keep. A refusal on the way stops there and says what was saved.
void applySettings(DeviceRegistry& registry, Unit& unit, const json& values, httplib::Response& res)
{
    std::vector<std::string> saved;
    auto stop = [&](const std::string& label, const DeviceError& error) {
        std::string message = label + " was not saved: " + error.message;
        if (!saved.empty()) {
            message += " (saved before it:";
            for (const std::string& s : saved) message += " " + s + (&s == &saved.back() ? "" : ",");
            message += "; nothing after it was sent)";
        }
        sendRefusal(res, {error.number, message});
    };
    auto has = [&](const char* name) { return values.contains(name); };

    if (has("maxstep")) {
        const int value = values["maxstep"];
        DeviceError error = registry.withHost(unit, [&](nkrhost::Unit& host) { return host.setMaximum(value); });
        if (!error.ok()) return stop("Maximum step", error);
        saved.push_back("maximum step " + stepsText(value));
    }
    const struct {
        const char* name;
        const char* label;
        int (*set)(int, int);
        const char* unit;
    } wholes[] = {{"backlash", "Backlash", NKRSetBacklash, " steps"}, {"speed", "Speed", NKRSetSpeed, ""}};
    for (const auto& w : wholes) {
        if (!has(w.name)) continue;
        const int value = values[w.name];
        DeviceError error = registry.call(unit, [&](int slot) { return w.set(slot, value); });
        if (!error.ok()) return stop(w.label, error);
        saved.push_back(std::string(w.name) + " " + std::to_string(value) + w.unit);
    }
    const struct {
        const char* name;
        const char* label;
        int (*set)(int, bool);
    } flags[] = {{"reverse", "Reverse", NKRSetReverse}, {"beep", "Beep", NKRSetBeep}};
    for (const auto& f : flags) {
        if (!has(f.name)) continue;
        const bool value = values[f.name];
        DeviceError error = registry.call(unit, [&](int slot) { return f.set(slot, value); });
        if (!error.ok()) return stop(f.label, error);
        saved.push_back(std::string(f.name) + (value ? " on" : " off"));
    }
    if (has("alias")) {
        const std::string value = values["alias"];
        _NKR_ID id{};  // all zero: no alias
        std::memcpy(id.id, value.data(), value.size());
        DeviceError error = registry.call(unit, [&](int slot) { return NKRSetID(slot, id); });
        if (!error.ok()) return stop("Alias", error);
        registry.withHost(unit, [](nkrhost::Unit& host) {
            host.refreshIdentity();
            return nkrhost::Status::success();
        });
        saved.push_back(value.empty() ? "alias cleared" : "alias " + value);
    }
    // The host-kept settings go in one change of the settings file.
    json patch = json::object();
    if (has("stepsize")) patch["step_size_um"] = values["stepsize"];
    if (has("tempcomp")) patch["temp_comp"]["enabled"] = values["tempcomp"];
    if (has("tempcoefficient")) patch["temp_comp"]["coefficient"] = values["tempcoefficient"];
    if (has("tempdeadband")) patch["temp_comp"]["deadband"] = values["tempdeadband"];
    if (!patch.empty()) {
        DeviceError error = registry.withHost(
            unit, [&](nkrhost::Unit& host) { return host.hostSettings().mergeJson(host.key(), patch.dump()); });
        if (!error.ok()) return stop("Step size and temperature compensation", error);
        if (has("stepsize"))
            saved.push_back(values["stepsize"].is_null() ? "step size cleared"
                                                         : "step size " + number(values["stepsize"]) + " µm");
        if (has("tempcomp")) saved.push_back(std::string("temperature compensation ") + (values["tempcomp"] ? "on" : "off"));
        if (has("tempcoefficient")) saved.push_back("coefficient " + number(values["tempcoefficient"]) + " steps per °C");
        if (has("tempdeadband")) saved.push_back("dead band " + number(values["tempdeadband"]) + " °C");
    }
    std::string message = saved.empty() ? "Nothing to save." : "Saved:";
    for (const std::string& s : saved) message += " " + s + (&s == &saved.back() ? "." : ",");
    sendOutcome(res, 200, message);
}

httplib::Params formOf(const httplib::Request& req)
{
    httplib::Params form;
    httplib::detail::parse_query_text(req.body, form);
    return form;
}

std::optional<std::string> fieldOf(const httplib::Params& form, const char* name)
{
    auto it = form.find(name);
    if (it == form.end()) return std::nullopt;
    return it->second;
}

void move(DeviceRegistry& registry, Unit& unit, const httplib::Params& form, httplib::Response& res)
{
    const auto absolute = fieldOf(form, "position");
    const auto relative = fieldOf(form, "steps");
    if (absolute.has_value() == relative.has_value())
        return sendOutcome(res, 400, "Give either position (where to go) or steps (how far, signed).");
    const char* name = absolute ? "position" : "steps";
    const auto value = parseInt32(absolute ? *absolute : *relative);
    if (!value)
        return sendOutcome(res, 400, "Not a whole number of steps.",
                           {{name, std::string(absolute ? "Position" : "Steps") + " must be a whole number of steps; got " +
                                       quoted(absolute ? *absolute : *relative)}});
    long long target = *value;
    if (relative) {
        int now = 0;
        DeviceError error = registry.call(unit, [&](int slot) { return NKRGetPosition(slot, &now); });
        if (!error.ok()) return sendRefusal(res, error);
        target += now;
    }
    DeviceError error = registry.move(unit, target);
    if (error.number == kInvalidValue) return sendOutcome(res, 400, error.message, {{name, error.message}});
    if (!error.ok()) return sendRefusal(res, error);
    sendOutcome(res, 200, "Moving to " + stepsText(target) + ".");
}

void serveAsset(httplib::Server& http, const std::string& path, std::string_view content, const char* type)
{
    http.Get(path, [content, type](const httplib::Request&, httplib::Response& res) {
        res.set_header("Cache-Control", "no-cache");
        res.set_content(std::string(content), type);
    });
}

}  // namespace

void routeControlPage(httplib::Server& http, AlpacaServer& server)
{
    http.Get("/", [](const httplib::Request&, httplib::Response& res) { res.set_redirect("/control"); });
    // What ASCOM clients open as the driver's setup dialog.
    http.Get("/setup", [](const httplib::Request&, httplib::Response& res) { res.set_redirect("/control"); });
    http.Get(R"(/setup/v1/focuser/(\d{1,7})/setup)", [](const httplib::Request& req, httplib::Response& res) {
        res.set_redirect("/control#focuser-" + std::string(req.matches[1]));
    });

    serveAsset(http, "/control", web::control_html, "text/html; charset=utf-8");
    serveAsset(http, "/control/control.css", web::control_css, "text/css; charset=utf-8");
    serveAsset(http, "/control/control.js", web::control_js, "text/javascript; charset=utf-8");

    http.Get("/control/v1/state", [&server](const httplib::Request& req, httplib::Response& res) {
        // The page asks for a scan now and then, so a unit plugged in shows up.
        if (req.has_param("rescan")) server.registry().rescan();
        json units = json::array();
        for (auto& unit : server.registry().all()) units.push_back(unitState(server.registry(), *unit));
        sendJson(res, 200,
                 {{"server",
                   {{"name", "nkr-alpaca"},
                    {"version", driverVersion()},
                    {"sdk", sdkVersion()},
                    {"host", hostName()},
                    {"samplePeriod", server.history().period().count()}}},
                  {"units", units}});
    });
    http.Get("/control/v1/history", [&server](const httplib::Request&, httplib::Response& res) {
        sendJson(res, 200, server.history().toJson());
    });

    auto unitOf = [&server](const httplib::Request& req) -> std::shared_ptr<Unit> {
        auto number = parseUint32(req.matches[1]);
        return number && *number < 1000000 ? server.registry().find(static_cast<int>(*number)) : nullptr;
    };
    http.Get(R"(/control/v1/focuser/(\d{1,7})/settings)", [&server, unitOf](const httplib::Request& req,
                                                                          httplib::Response& res) {
        auto unit = unitOf(req);
        if (!unit) return sendOutcome(res, 404, "There is no focuser " + std::string(req.matches[1]) + ".");
        if (!server.registry().connected(*unit))
            return sendOutcome(res, 409, "Focuser " + std::to_string(unit->number) + " is not connected.");
        sendJson(res, 200, unitSettings(server.registry(), *unit));
    });
    http.Post(R"(/control/v1/focuser/(\d{1,7})/(connect|disconnect|halt|move|settings))",
              [&server, unitOf](const httplib::Request& req, httplib::Response& res) {
                  auto unit = unitOf(req);
                  if (!unit) return sendOutcome(res, 404, "There is no focuser " + std::string(req.matches[1]) + ".");
                  DeviceRegistry& registry = server.registry();
                  const std::string what = req.matches[2];
                  const std::string label = "Focuser " + std::to_string(unit->number);
                  if (what == "connect") {
                      DeviceError error = registry.connect(*unit);
                      return error.ok() ? sendOutcome(res, 200, label + " connected.") : sendRefusal(res, error);
                  }
                  if (what == "disconnect") {
                      registry.disconnect(*unit);
                      return sendOutcome(res, 200, label + " disconnected.");
                  }
                  if (what == "halt") {
                      DeviceError error = registry.halt(*unit);
                      return error.ok() ? sendOutcome(res, 200, label + " stopped.") : sendRefusal(res, error);
                  }
                  const httplib::Params form = formOf(req);
                  if (what == "move") return move(registry, *unit, form, res);
                  // Settings: the step range bounds the maximum, so it is read first.
                  int stepRange = 0;
                  DeviceError error = registry.withHost(*unit, [&](nkrhost::Unit& host) {
                      stepRange = host.stepRange();
                      return nkrhost::Status::success();
                  });
                  if (!error.ok()) return sendRefusal(res, error);
                  Checked checked = check(form, stepRange);
                  if (!checked.errors.empty())
                      return sendOutcome(res, 400, "Nothing was changed: correct the values marked.", checked.errors);
                  applySettings(registry, *unit, checked.values, res);
              });
    http.Post("/control/v1/bluetooth", [&server](const httplib::Request& req, httplib::Response& res) {
        const auto name = fieldOf(formOf(req), "name");
        if (!name || nkrhost::trimmed(*name).empty())
            return sendOutcome(res, 400, "Give the Bluetooth name or address of the unit.",
                               {{"name", "Give the Bluetooth name or address of the unit."}});
        AttachResult attached = server.registry().attachBle(*name);
        if (!attached.ok()) return sendOutcome(res, 409, "Cannot attach " + *name + ": " + attached.message + ".");
        sendOutcome(res, 200, "Attached: " + attached.message + ".");
    });
}

}  // namespace alpaca
