// The control page: one HTML page with its stylesheet and script (compiled in
// from alpaca/web), the small JSON API it polls, and the POST endpoints for
// what it changes. The ASCOM setup URLs lead to it. The request guard of the
// server has already refused other sites' requests before these run.
#include <NKR_focuser.h>

#include <algorithm>
#include <cctype>
#include <chrono>
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
#include "form_decoding.h"
#include "web_assets.h"

namespace alpaca {
namespace {

using nlohmann::json;

HttpResponse sendJson(int status, const json& body)
{
    HttpResponse res;
    res.status = status;
    res.contentType = "application/json";
    res.headers.emplace_back("Cache-Control", "no-store");
    // A unit's text that is not UTF-8 is replaced, never thrown over.
    res.body = body.dump(-1, ' ', false, json::error_handler_t::replace);
    return res;
}

// The outcome of a change: 200 done, 400 a bad value (nothing was changed),
// 404 no such unit, 409 the unit refused or is not connected.
HttpResponse sendOutcome(int status, const std::string& message, json errors = json::object())
{
    return sendJson(status, {{"ok", status == 200}, {"message", message}, {"errors", std::move(errors)}});
}

HttpResponse sendRefusal(const DeviceError& error)
{
    return sendOutcome(error.number == kInvalidValue ? 400 : 409, error.message);
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

int64_t nowMillis()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// What the page shows of a unit every second. "state" tells a unit nobody
// connected ("off") from one a client connected that has gone away ("gone":
// the server is looking for it again), which shows where it was last seen.
json unitState(AlpacaServer& server, Unit& unit)
{
    DeviceRegistry& registry = server.registry();
    json state = {{"number", unit.number},     {"serial", unit.serial},   {"name", nullptr},
                  {"link", unit.bleName.empty() ? "USB" : "Bluetooth"},  {"bleName", unit.bleName},
                  {"connected", false},        {"state", "off"},          {"position", nullptr},
                  {"temperature", nullptr},    {"moving", nullptr},       {"maxStep", nullptr},
                  {"tempComp", ""},            {"lastPosition", nullptr}, {"lastSeen", nullptr},
                  {"goneSince", nullptr}};
    const int64_t now = nowMillis();
    if (!registry.connected(unit)) {
        bool wanted = false;
        {
            std::lock_guard lock(unit.io);
            wanted = unit.wanted;
        }
        const UnitPresence::Seen seen = server.presence().note(unit.number, wanted, now);
        if (!wanted) return state;
        state["state"] = "gone";
        if (seen.position) {
            state["lastPosition"] = *seen.position;
            state["lastSeen"] = seen.positionMillis;
        }
        state["goneSince"] = *seen.goneSinceMillis;
        return state;
    }
    server.presence().note(unit.number, false, now);
    state["connected"] = true;
    state["state"] = "connected";
    int position = 0;
    if (registry.call(unit, [&](int slot) { return NKRGetPosition(slot, &position); }).ok()) {
        state["position"] = position;
        server.presence().sawPosition(unit.number, position, now);
    }
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

Checked check(const Form& form, int stepRange)
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
HttpResponse applySettings(DeviceRegistry& registry, Unit& unit, const json& values)
{
    std::vector<std::string> saved;
    auto stop = [&](const std::string& label, const DeviceError& error) {
        std::string message = label + " was not saved: " + error.message;
        if (!saved.empty()) {
            message += " (saved before it:";
            for (const std::string& s : saved) message += " " + s + (&s == &saved.back() ? "" : ",");
            message += "; nothing after it was sent)";
        }
        return sendRefusal({error.number, message});
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
    return sendOutcome(200, message);
}

std::optional<std::string> fieldOf(const Form& form, const char* name)
{
    for (const auto& [key, value] : form)
        if (key == name) return value;
    return std::nullopt;
}

std::optional<int> maximumOf(DeviceRegistry& registry, Unit& unit)
{
    int maximum = 0;
    if (!registry.withHost(unit, [&](nkrhost::Unit& host) { return host.maximum(maximum); }).ok()) return std::nullopt;
    return maximum;
}

HttpResponse move(DeviceRegistry& registry, Unit& unit, const Form& form)
{
    const auto absolute = fieldOf(form, "position");
    const auto relative = fieldOf(form, "steps");
    if (absolute.has_value() == relative.has_value())
        return sendOutcome(400, "Give either position (where to go) or steps (how far, signed).");
    const char* name = absolute ? "position" : "steps";
    const std::string& text = absolute ? *absolute : *relative;
    const auto value = parseInt32(text);
    if (!value) {
        // Too large a number is out of range, not "not a number": say the range.
        const auto maximum = maximumOf(registry, unit);
        const std::string range = maximum ? "0 to " + std::to_string(*maximum) : "0 to the focuser's maximum";
        const std::string message =
            absolute ? "Position must be a whole number from " + range + " steps; got " + quoted(text)
                     : "Steps must be a whole number that keeps the focuser within " + range + " steps; got " + quoted(text);
        return sendOutcome(400, message, {{name, message}});
    }
    long long target = *value;
    if (relative) {
        int now = 0;
        DeviceError error = registry.call(unit, [&](int slot) { return NKRGetPosition(slot, &now); });
        if (!error.ok()) return sendRefusal(error);
        target += now;
    }
    DeviceError error = registry.move(unit, target);
    if (error.number == kInvalidValue) return sendOutcome(400, error.message, {{name, error.message}});
    if (!error.ok()) return sendRefusal(error);
    return sendOutcome(200, "Moving to " + stepsText(target) + ".");
}

HttpResponse asset(std::string_view content, const char* type)
{
    HttpResponse res;
    res.contentType = type;
    res.headers.emplace_back("Cache-Control", "no-cache");
    res.body = std::string(content);
    return res;
}

HttpResponse redirect(const std::string& location)
{
    HttpResponse res = HttpResponse::text(302, "see " + location);
    res.headers.emplace_back("Location", location);
    return res;
}

// "/control/v1/focuser/12/move" -> 12 and "move"; nothing for other paths.
std::optional<std::pair<std::string, std::string>> unitPath(const std::string& path, const std::string& prefix)
{
    if (path.compare(0, prefix.size(), prefix) != 0) return std::nullopt;
    const std::size_t slash = path.find('/', prefix.size());
    const std::string number = path.substr(prefix.size(), slash == std::string::npos ? std::string::npos : slash - prefix.size());
    if (number.empty() || number.size() > 7 ||
        !std::all_of(number.begin(), number.end(), [](unsigned char c) { return std::isdigit(c); }))
        return std::nullopt;
    return std::make_pair(number, slash == std::string::npos ? std::string() : path.substr(slash + 1));
}

HttpResponse answerUnit(AlpacaServer& server, const HttpRequest& req, const std::string& numberText,
                        const std::string& what)
{
    static const char* const kPosts[] = {"connect", "disconnect", "halt", "move", "settings"};
    const bool known = std::find(std::begin(kPosts), std::end(kPosts), what) != std::end(kPosts);
    if (!known) return HttpResponse::text(404, "nothing is served at " + req.path);
    const bool post = req.method == "POST";
    if (!post && !(what == "settings" && (req.method == "GET" || req.method == "HEAD")))
        return wrongMethod(req, what == "settings" ? "GET, HEAD, POST" : "POST");
    auto number = parseUint32(numberText);
    auto unit = number && *number < 1000000 ? server.registry().find(static_cast<int>(*number)) : nullptr;
    if (!unit) return sendOutcome(404, "There is no focuser " + numberText + ".");
    DeviceRegistry& registry = server.registry();
    const std::string label = "Focuser " + std::to_string(unit->number);
    if (!post) {
        if (!registry.connected(*unit)) return sendOutcome(409, label + " is not connected.");
        return sendJson(200, unitSettings(registry, *unit));
    }
    if (what == "connect") {
        DeviceError error = registry.connect(*unit);
        return error.ok() ? sendOutcome(200, label + " connected.") : sendRefusal(error);
    }
    if (what == "disconnect") {
        registry.disconnect(*unit);
        return sendOutcome(200, label + " disconnected.");
    }
    if (what == "halt") {
        DeviceError error = registry.halt(*unit);
        return error.ok() ? sendOutcome(200, label + " stopped.") : sendRefusal(error);
    }
    std::string why;
    const auto form = decodeForm(req.body, why);
    if (!form) return sendOutcome(400, "The form could not be read: " + why + ".");
    if (what == "move") return move(registry, *unit, *form);
    // Settings: the step range bounds the maximum, so it is read first.
    int stepRange = 0;
    DeviceError error = registry.withHost(*unit, [&](nkrhost::Unit& host) {
        stepRange = host.stepRange();
        return nkrhost::Status::success();
    });
    if (!error.ok()) return sendRefusal(error);
    Checked checked = check(*form, stepRange);
    if (!checked.errors.empty())
        return sendOutcome(400, "Nothing was changed: correct the values marked.", checked.errors);
    return applySettings(registry, *unit, checked.values);
}

HttpResponse answerState(AlpacaServer& server, const HttpRequest& req)
{
    // The page asks for a scan now and then, so a unit plugged in shows up.
    std::string why;
    const auto query = decodeForm(req.query, why);
    if (query && fieldOf(*query, "rescan")) server.registry().rescan();
    json units = json::array();
    for (auto& unit : server.registry().all()) units.push_back(unitState(server, *unit));
    const int discovery = server.discoveryPort();
    return sendJson(200, {{"server",
                           {{"name", "nkr-alpaca"},
                            {"version", driverVersion()},
                            {"sdk", sdkVersion()},
                            {"host", hostName()},
                            {"discoveryPort", discovery > 0 ? json(discovery) : json(nullptr)},
                            {"samplePeriod", server.history().period().count()}}},
                          {"units", units}});
}

HttpResponse answerPage(AlpacaServer& server, const HttpRequest& req)
{
    const std::string& path = req.path;
    const bool read = req.method == "GET" || req.method == "HEAD";
    if (path == "/" || path == "/setup") return read ? redirect("/control") : wrongMethod(req, "GET, HEAD");
    if (auto setup = unitPath(path, "/setup/v1/focuser/"); setup && setup->second == "setup")
        return read ? redirect("/control#focuser-" + setup->first) : wrongMethod(req, "GET, HEAD");
    struct File {
        const char* path;
        std::string_view content;
        const char* type;
    };
    const File files[] = {{"/control", web::control_html, "text/html; charset=utf-8"},
                          {"/control/control.css", web::control_css, "text/css; charset=utf-8"},
                          {"/control/control.js", web::control_js, "text/javascript; charset=utf-8"}};
    for (const File& file : files)
        if (path == file.path) return read ? asset(file.content, file.type) : wrongMethod(req, "GET, HEAD");
    if (path == "/control/v1/state") return read ? answerState(server, req) : wrongMethod(req, "GET, HEAD");
    if (path == "/control/v1/history")
        return read ? sendJson(200, server.history().toJson()) : wrongMethod(req, "GET, HEAD");
    if (auto unit = unitPath(path, "/control/v1/focuser/")) return answerUnit(server, req, unit->first, unit->second);
    if (path == "/control/v1/bluetooth") {
        if (req.method != "POST") return wrongMethod(req, "POST");
        std::string why;
        const auto form = decodeForm(req.body, why);
        if (!form) return sendOutcome(400, "The form could not be read: " + why + ".");
        const auto name = fieldOf(*form, "name");
        if (!name || nkrhost::trimmed(*name).empty())
            return sendOutcome(400, "Give the Bluetooth name or address of the unit.",
                               {{"name", "Give the Bluetooth name or address of the unit."}});
        AttachResult attached = server.registry().attachBle(*name);
        if (!attached.ok()) return sendOutcome(409, "Cannot attach " + *name + ": " + attached.message + ".");
        return sendOutcome(200, "Attached: " + attached.message + ".");
    }
    return HttpResponse::text(404, "nothing is served at " + path + " (the control page is at /control)");
}

}  // namespace

bool isControlPagePath(const std::string& path)
{
    return path == "/" || path == "/control" || path.rfind("/control/", 0) == 0 || path == "/setup" ||
           path.rfind("/setup/", 0) == 0;
}

bool controlPageMayWait(const std::string& path) { return path.rfind("/control/v1/", 0) == 0; }

std::optional<HttpResponse> answerControlPage(AlpacaServer& server, const HttpRequest& req)
{
    if (!isControlPagePath(req.path)) return std::nullopt;
    HttpResponse res = answerPage(server, req);
    // The page is never shown inside another site's frame (a transparent
    // frame over a decoy would turn the visitor's clicks into moves), and
    // loads nothing but its own files.
    res.headers.emplace_back("X-Frame-Options", "DENY");
    res.headers.emplace_back("Content-Security-Policy",
                             "default-src 'self'; frame-ancestors 'none'; base-uri 'none'; form-action 'self'");
    res.headers.emplace_back("X-Content-Type-Options", "nosniff");
    return res;
}

}  // namespace alpaca
