// Setup pages: plain HTML forms rendered on the server, usable without
// JavaScript. Changes go through the SDK, so its checks and messages apply.
#include <NKR_focuser.h>
#include <httplib.h>

#include <cstring>
#include <sstream>

#include "alpaca_request.h"
#include "alpaca_server.h"
#include "focuser_actions.h"

namespace alpaca {
namespace {

std::string escape(const std::string& text)
{
    std::string out;
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&#39;"; break;
        default: out += c;
        }
    }
    return out;
}

std::string page(const std::string& title, const std::string& body)
{
    return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>" + escape(title) +
           "</title><style>body{font-family:sans-serif;margin:2em}table{border-collapse:collapse}"
           "td,th{border:1px solid #999;padding:4px 8px}.ok{color:#060}.error{color:#a00}"
           "label{display:inline-block;width:12em}</style></head><body><h1>" +
           escape(title) + "</h1>\n" + body + "</body></html>\n";
}

struct Snapshot {
    bool connected = false;
    std::string name, firmware, position, temperature, maxStep, backlash, speed, alias;
    bool reverse = false, beep = false;
};

Snapshot snapshot(DeviceRegistry& registry, Unit& unit)
{
    Snapshot s;
    s.connected = registry.connected(unit);
    if (!s.connected) return s;
    auto readInt = [&](int (*fn)(int, int*), std::string& out) {
        int value = 0;
        if (registry.call(unit, [&](int slot) { return fn(slot, &value); }).number == kOk) out = std::to_string(value);
    };
    readInt(NKRGetPosition, s.position);
    int maximum = 0;
    if (registry.withHost(unit, [&](nkrhost::Unit& host) { return host.maximum(maximum); }).ok())
        s.maxStep = std::to_string(maximum);
    readInt(NKRGetBacklash, s.backlash);
    readInt(NKRGetSpeed, s.speed);
    float temp = 0;
    if (registry.call(unit, [&](int slot) { return NKRGetTemp(slot, &temp); }).number == kOk) {
        std::ostringstream text;
        text.precision(1);
        text << std::fixed << temp << " °C";
        s.temperature = text.str();
    }
    unsigned char major = 0, minor = 0, build = 0;
    if (registry.call(unit, [&](int slot) { return NKRGetFirmwareVersion(slot, &major, &minor, &build); }).number == kOk)
        s.firmware = std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(build);
    registry.call(unit, [&](int slot) { return NKRGetReverse(slot, &s.reverse); });
    registry.call(unit, [&](int slot) { return NKRGetBeep(slot, &s.beep); });
    Answer alias = runAction(registry, unit, "Alias", "");
    if (alias.value) s.alias = alias.value->get<std::string>();
    return s;
}

std::string unitsTable(DeviceRegistry& registry)
{
    std::string rows;
    for (auto& unit : registry.all()) {
        Snapshot s = snapshot(registry, *unit);
        std::string n = std::to_string(unit->number);
        rows += "<tr id=\"unit-" + n + "\"><td>" + n + "</td><td>" + escape(unit->serial) + "</td><td>" +
                (unit->bleName.empty() ? "USB" : "Bluetooth " + escape(unit->bleName)) + "</td><td>" +
                (s.connected ? "connected" : "not connected") + "</td><td class=\"position\">" + s.position +
                "</td><td>" + escape(s.temperature) + "</td><td>" + escape(s.firmware) +
                "</td><td><a href=\"/setup/v1/focuser/" + n + "/setup\">settings</a></td></tr>\n";
    }
    if (rows.empty()) rows = "<tr><td colspan=\"8\">No focuser found.</td></tr>\n";
    return "<table><tr><th>Device</th><th>Serial</th><th>Link</th><th>State</th><th>Position</th>"
           "<th>Temperature</th><th>Firmware</th><th></th></tr>\n" +
           rows + "</table>\n";
}

std::string messages(const std::vector<std::pair<bool, std::string>>& lines)
{
    std::string out;
    for (auto& [good, text] : lines)
        out += std::string("<p class=\"") + (good ? "ok" : "error") + "\">" + escape(text) + "</p>\n";
    return out;
}

std::string overview(DeviceRegistry& registry, const std::vector<std::pair<bool, std::string>>& notes)
{
    return page("NKR focusers", messages(notes) + unitsTable(registry) +
                                    "<h2>Attach a Bluetooth unit</h2>\n"
                                    "<form method=\"post\" action=\"/setup/ble\"><label for=\"ble\">Name or address</label> "
                                    "<input id=\"ble\" name=\"name\" maxlength=\"63\" required> "
                                    "<button type=\"submit\">Attach</button></form>\n");
}

std::string field(const std::string& id, const std::string& label, const std::string& value)
{
    return "<p><label for=\"" + id + "\">" + label + "</label><input id=\"" + id + "\" name=\"" + id +
           "\" value=\"" + escape(value) + "\"></p>\n";
}

std::string yesNo(const std::string& id, const std::string& label, bool on)
{
    return "<p><label for=\"" + id + "\">" + label + "</label><select id=\"" + id + "\" name=\"" + id +
           "\"><option value=\"true\"" + (on ? " selected" : "") + ">on</option><option value=\"false\"" +
           (on ? "" : " selected") + ">off</option></select></p>\n";
}

std::string unitPage(DeviceRegistry& registry, Unit& unit, const std::vector<std::pair<bool, std::string>>& notes)
{
    Snapshot s = snapshot(registry, unit);
    std::string n = std::to_string(unit.number);
    std::string action = "/setup/v1/focuser/" + n + "/setup";
    std::string body = messages(notes) + "<p>Unit " + escape(unit.serial) + ", " +
                       (s.connected ? "connected" : "not connected") + ". Position <span id=\"position\">" +
                       s.position + "</span>, temperature " + escape(s.temperature) + ", firmware " +
                       escape(s.firmware) + ".</p>\n";
    if (!s.connected) {
        body += "<form method=\"post\" action=\"" + action +
                "\"><input type=\"hidden\" name=\"connect\" value=\"true\"><button type=\"submit\">Connect</button></form>\n";
    } else {
        body += "<form method=\"post\" action=\"" + action + "\">\n" + field("alias", "Alias (8 characters)", s.alias) +
                field("maxstep", "Maximum step", s.maxStep) + field("backlash", "Backlash", s.backlash) +
                field("speed", "Speed", s.speed) + yesNo("reverse", "Reverse", s.reverse) +
                yesNo("beep", "Beep", s.beep) + "<p><button type=\"submit\">Save</button></p></form>\n";
    }
    body += "<p><a href=\"/setup\">All focusers</a></p>\n";
    return page("NKR focuser " + n, body);
}

// Applies each submitted setting through the SDK and reports each outcome.
std::vector<std::pair<bool, std::string>> apply(DeviceRegistry& registry, Unit& unit, const httplib::Params& form)
{
    std::vector<std::pair<bool, std::string>> notes;
    auto get = [&](const char* name) -> std::optional<std::string> {
        auto it = form.find(name);
        if (it == form.end()) return std::nullopt;
        return it->second;
    };
    if (get("connect")) {
        DeviceError error = registry.connect(unit);
        notes.emplace_back(error.number == kOk, error.number == kOk ? "Connected." : error.message);
        return notes;
    }
    if (auto max = get("maxstep")) {
        auto value = parseInt32(*max);
        DeviceError error = value ? registry.withHost(unit, [&](nkrhost::Unit& host) { return host.setMaximum(*value); })
                                  : DeviceError{kInvalidValue, "not a number"};
        notes.emplace_back(error.number == kOk,
                           error.number == kOk ? "Maximum step saved." : "Maximum step: " + error.message);
    }
    const std::pair<const char*, const char*> actions[] = {
        {"alias", "Alias"}, {"backlash", "Backlash"}, {"speed", "Speed"}, {"reverse", "Reverse"}, {"beep", "Beep"}};
    for (auto& [field, action] : actions) {
        auto value = get(field);
        if (!value) continue;
        Answer answer = runAction(registry, unit, action, *value);
        bool good = answer.error.number == kOk;
        notes.emplace_back(good, std::string(action) + (good ? " saved." : ": " + answer.error.message));
    }
    return notes;
}

}  // namespace

void routeSetupPages(httplib::Server& http, AlpacaServer& server)
{
    auto html = [](httplib::Response& res, const std::string& text) { res.set_content(text, "text/html; charset=utf-8"); };
    http.Get("/setup", [&server, html](const httplib::Request&, httplib::Response& res) {
        server.registry().rescan();
        html(res, overview(server.registry(), {}));
    });
    http.Post("/setup/ble", [&server, html](const httplib::Request& req, httplib::Response& res) {
        httplib::Params form;
        httplib::detail::parse_query_text(req.body, form);
        auto it = form.find("name");
        std::string name = it == form.end() ? "" : it->second;
        std::vector<std::pair<bool, std::string>> notes;
        if (name.empty()) {
            notes.emplace_back(false, "Give the Bluetooth name of the unit.");
        } else {
            AttachResult attached = server.registry().attachBle(name);
            notes.emplace_back(attached.ok(), attached.ok() ? "Attached: " + attached.message + "."
                                                            : "Cannot attach " + name + ": " + attached.message + ".");
        }
        html(res, overview(server.registry(), notes));
    });
    auto unitOf = [&server](const httplib::Request& req) -> std::shared_ptr<Unit> {
        auto number = parseUint32(req.matches[1]);
        return number && *number < 1000000 ? server.registry().find(static_cast<int>(*number)) : nullptr;
    };
    const char* pattern = R"(/setup/v1/focuser/(\d+)/setup)";
    http.Get(pattern, [&server, html, unitOf](const httplib::Request& req, httplib::Response& res) {
        auto unit = unitOf(req);
        if (!unit) {
            res.status = 404;
            return html(res, page("Unknown focuser", "<p><a href=\"/setup\">All focusers</a></p>"));
        }
        html(res, unitPage(server.registry(), *unit, {}));
    });
    http.Post(pattern, [&server, html, unitOf](const httplib::Request& req, httplib::Response& res) {
        auto unit = unitOf(req);
        if (!unit) {
            res.status = 404;
            return html(res, page("Unknown focuser", "<p><a href=\"/setup\">All focusers</a></p>"));
        }
        httplib::Params form;
        httplib::detail::parse_query_text(req.body, form);
        auto notes = apply(server.registry(), *unit, form);
        html(res, unitPage(server.registry(), *unit, notes));
    });
}

}  // namespace alpaca
