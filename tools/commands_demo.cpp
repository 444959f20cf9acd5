// nkr demo: a guided tour of the SDK on the simulated units. It needs no
// input, touches no real hardware and takes a few seconds.
#include <NKR_focuser.h>
#include "nkrhost/simulation.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <optional>

#include "commands.h"
#include "errors.h"
#include "interrupt.h"
#include "move_follow.h"
#include "output.h"
#include "session.h"
#include "unit_info.h"

namespace nkrtool {
namespace {

constexpr int kChapters = 6;
constexpr int kMoveSteps = 4000;       // two seconds of motor time
constexpr int kBleScanMillis = 2000;

struct FoundUnit {
    int id = 0;
    Identity ident;
};

// Chapter headings, notes and the JSON record of the tour.
class Tour {
public:
    void chapter(const std::string& title)
    {
        ++chapter_;
        // A short pause lets a person read each chapter before the next.
        if (interactive() && chapter_ > 1) sleepUnlessInterrupted(400);
        if (interrupted()) throw ToolError(std::string("demo stopped by ") + signalDescription(receivedSignal()), -1, kExitInterrupted);
        say("");
        say(paint(Colour::Bold, "[" + std::to_string(chapter_) + "/" + std::to_string(kChapters) + "] " + title));
    }
    void note(const std::string& text) { say("    " + text); }
    void record(const std::string& step, Json data) { steps_.push(data.set("step", step)); }
    Json steps() const { return steps_; }

private:
    int chapter_ = 0;
    Json steps_ = Json::array();
};

int readInt(int (*get)(int, int*), int id, const std::string& what)
{
    int v = 0;
    check(get(id, &v), what);
    return v;
}

bool readBool(int (*get)(int, bool*), int id, const std::string& what)
{
    bool v = false;
    check(get(id, &v), what);
    return v;
}

std::string firmwareOf(const Identity& ident)
{
    return ident.firmware.code == NKR_SUCCESS ? ident.firmware.text() : "?";
}

std::vector<FoundUnit> findUnits(Tour& tour, std::vector<nkrhost::SeenUnit>& bleUnits)
{
    tour.chapter("Finding focusers: a USB scan (NKRGetNum, NKRGetID) and a Bluetooth scan (NKRBLEScan)");
    std::vector<FoundUnit> usb;
    std::vector<std::vector<std::string>> rows;
    Json units = Json::array();
    for (const Identity& ident : nkrhost::identifyUsbUnits()) {
        const int id = ident.slot;
        FoundUnit u{id, ident};
        rows.push_back({std::to_string(id), "usb", u.ident.name, firmwareOf(u.ident),
                        u.ident.model.empty() ? "-" : u.ident.model, std::to_string(u.ident.stepRange)});
        units.push(Json::object().set("link", "usb").set("id", id).set("firmware", firmwareOf(u.ident)).set("type", u.ident.model.empty() ? Json() : Json(u.ident.model)));
        usb.push_back(u);
    }
    nkrhost::scanBluetooth(bleUnits, kBleScanMillis);
    for (const nkrhost::SeenUnit& b : bleUnits) {
        rows.push_back({"-", "ble", b.bleName, "-", "-", "-"});
        units.push(Json::object().set("link", "ble").set("name", b.bleName).set("address", b.bleAddress));
    }
    if (!jsonMode()) printTable({"    ID", "LINK", "NAME", "FIRMWARE", "TYPE", "STEP RANGE"},
                                [&] {
                                    auto indented = rows;
                                    for (auto& r : indented) r[0] = "    " + r[0];
                                    return indented;
                                }());
    tour.record("list", Json::object().set("units", units));
    if (usb.empty()) throw ToolError("the demo found no USB unit to work with", NKR_ERROR_INVALID_ID, kExitDeviceError);
    return usb;
}

// What a unit did since it last powered up, as the simulator knows it, so
// the tour tells what happened in this world rather than what usually does:
// the simulated world outlives each run, so a second run finds the units
// where the first left them, with no power-up at all.
struct PowerUp {
    bool known = false;     // the simulator could say
    bool seen = false;      // the unit has not moved since it powered up
    bool restored = false;  // ... and opening it put back the position saved at its last close
    int powerOnPosition = 0;
};

PowerUp powerUpOf(const Identity& ident, int position)
{
    auto query = nkrhost::simulatorFunction<int (*)(const char*, int*, int*)>("nkr_sim_power_on_state");
    PowerUp p;
    int moved = 0;
    if (query == nullptr || ident.serial.empty() || query(ident.serial.c_str(), &p.powerOnPosition, &moved) == 0)
        return p;
    p.known = true;
    p.seen = moved == 0;
    p.restored = p.seen && position != p.powerOnPosition;
    return p;
}

std::string powerUpStory(const PowerUp& p, int position)
{
    if (!p.known) return "";
    if (!p.seen)
        return "no power-up: the unit has been on since an earlier run moved it (the simulated world "
               "persists; nkr --simulate reset powers it up afresh), so nothing was restored";
    if (p.restored)
        return "the unit powered up at " + std::to_string(p.powerOnPosition) + " and has not moved since; NKROpen "
               "restored " + std::to_string(position) + ", the position saved at its last close";
    return "the unit powered up at " + std::to_string(p.powerOnPosition) +
           " and has not moved since; it stands at its power-on position, nothing was restored";
}

Json powerUpJson(const PowerUp& p)
{
    if (!p.known) return Json();
    return Json::object().set("seen", p.seen).set("restored", p.restored).set("power_on_position", p.powerOnPosition);
}

void showOlderUnit(Tour& tour, const FoundUnit& unit)
{
    tour.chapter("A closer look at the older unit (NKROpen, NKRGetFirmwareVersion, NKRGetNumOfControls)");
    UnitSession session(UnitTarget{std::to_string(unit.id)});
    Reading st = readStatus(unit.id);
    Controls controls = readControls(unit.id);
    std::string features;
    for (const Control& c : controls.list) features += (features.empty() ? "" : ", ") + c.name;
    tour.note("unit " + std::to_string(unit.id) + ": " + unit.ident.name + ", firmware " + firmwareOf(unit.ident) +
              ", step range 0.." + std::to_string(unit.ident.stepRange));
    tour.note("position " + std::to_string(st.position) + ", temperature " + formatFixed(st.temperature, 2) + degreesC());
    const PowerUp power = powerUpOf(unit.ident, st.position);
    if (power.known) tour.note(powerUpStory(power, st.position));
    tour.note("optional features: " + (features.empty() ? std::string("none") : features));
    tour.record("info", Json::object()
                            .set("id", unit.id)
                            .set("firmware", firmwareOf(unit.ident))
                            .set("position", st.position)
                            .set("temperature", st.temperature)
                            .set("power_up", powerUpJson(power))
                            .set("controls", controlsJson(controls)));
}

struct MoveOutcome {
    int start = 0, target = 0, position = 0;
    PowerUp power;
};

MoveOutcome moveUnit(Tour& tour, UnitSession& session, const Identity& ident)
{
    tour.chapter("Moving the newer unit (NKRMove, then NKRIsMoving / NKRGetPosition until it stops)");
    MoveOutcome m;
    m.start = readInt(NKRGetPosition, session.id(), "reading the position");
    m.power = powerUpOf(ident, m.start);
    tour.note("position on opening: " + std::to_string(m.start));
    if (m.power.known) tour.note(powerUpStory(m.power, m.start));
    int range = 0;
    fail(session.unit().maximum(range));
    // Alternate directions between runs so the unit stays near the middle.
    m.target = m.start + kMoveSteps <= std::min(range, 34000) ? m.start + kMoveSteps : m.start - kMoveSteps;
    m.target = std::clamp(m.target, 0, range);
    tour.note("from " + std::to_string(m.start) + " to " + std::to_string(m.target) + " at 2000 steps/s");
    MoveResult r = moveAndFollow(session.session(), m.start, m.target, false);
    if (r.interrupted) throw ToolError(std::string("demo stopped by ") + signalDescription(receivedSignal()) + " (the motor was stopped)", -1, kExitInterrupted);
    m.position = r.position;
    tour.note(m.position == m.target ? "reached " + std::to_string(m.position)
                                     : "stopped at " + std::to_string(m.position));
    tour.record("move", Json::object()
                            .set("id", session.id())
                            .set("start", m.start)
                            .set("power_up", powerUpJson(m.power))
                            .set("target", m.target)
                            .set("position", m.position));
    return m;
}

struct SavedSettings {
    int backlash = 0;
    bool beep = false;
};

SavedSettings changeSettings(Tour& tour, UnitSession& session)
{
    tour.chapter("Changing settings (NKRSetBacklash, NKRSetBeep) and reading them back");
    int id = session.id();
    SavedSettings before{readInt(NKRGetBacklash, id, "reading the backlash"), readBool(NKRGetBeep, id, "reading the beep")};
    int backlash = before.backlash == 20 ? 25 : 20;
    check(NKRSetBacklash(id, backlash), "setting the backlash");
    check(NKRSetBeep(id, !before.beep), "setting the beep");
    int backlashNow = readInt(NKRGetBacklash, id, "reading the backlash");
    bool beepNow = readBool(NKRGetBeep, id, "reading the beep");
    tour.note("backlash " + std::to_string(before.backlash) + " -> " + std::to_string(backlashNow) + " steps");
    tour.note("beep " + onOff(before.beep) + " -> " + onOff(beepNow));
    if (backlashNow != backlash || beepNow == before.beep)
        throw ToolError("the unit did not keep the new settings", NKR_ERROR_GENERAL, kExitDeviceError);
    tour.record("settings", Json::object().set("id", id).set("backlash", backlashNow).set("beep", beepNow));
    return before;
}

// Returns the battery charge in percent, or -1 when no Bluetooth unit answered.
// openId: the unit the tour holds open already (opening it again here and
// closing it would close it under the tour).
int readSensors(Tour& tour, const std::vector<FoundUnit>& usb, const std::vector<nkrhost::SeenUnit>& ble, int openId)
{
    tour.chapter("Temperature and battery (NKRGetTemp; NKRBLEConnect, NKRBLEPair, NKRGetBatteryInfo)");
    Json temps = Json::array();
    for (const FoundUnit& u : usb) {
        std::optional<UnitSession> session;
        if (u.id != openId) session.emplace(UnitTarget{std::to_string(u.id)});
        float t = 0;
        int rc = NKRGetTemp(u.id, &t);
        double rounded = static_cast<int>(t * 100.0f + (t < 0 ? -0.5f : 0.5f)) / 100.0;
        tour.note("unit " + std::to_string(u.id) + " temperature: " +
                  (rc == NKR_SUCCESS ? formatFixed(rounded, 2) + degreesC() : unavailableText(rc)));
        temps.push(Json::object().set("id", u.id).set("temperature", rc == NKR_SUCCESS ? Json(rounded) : Json()));
    }
    int percent = -1;
    Json battery;
    if (ble.empty()) {
        tour.note("no Bluetooth unit in range: battery skipped");
    } else {
        UnitSession session(UnitTarget{ble.front().bleName, true, kBleScanMillis});
        Firmware fw = readFirmware(session.id());
        _NKR_BATTERY_INFO b{};
        int rc = NKRGetBatteryInfo(session.id(), &b);
        bool led = false;
        int ledRc = NKRGetLedState(session.id(), &led);
        tour.note(ble.front().bleName + " (firmware " + (fw.code == NKR_SUCCESS ? fw.text() : "?") + ", Bluetooth id " +
                  std::to_string(session.id()) + ")");
        if (rc == NKR_SUCCESS) {
            percent = b.battery_percentage;
            tour.note("battery " + std::to_string(b.battery_percentage) + " %, " + std::to_string(b.battery_temp) +
                      " \u00B0C, voltage " + std::to_string(b.battery_vol));
            battery = Json::object().set("percentage", b.battery_percentage).set("temperature", b.battery_temp).set("voltage", b.battery_vol);
        } else {
            tour.note("battery " + unavailableText(rc));
        }
        tour.note("LED " + (ledRc == NKR_SUCCESS ? onOff(led) : unavailableText(ledRc)));
        tour.note("disconnecting (NKRBLEDisconnect)");
    }
    tour.record("sensors", Json::object().set("temperatures", temps).set("battery", battery));
    return percent;
}

bool reopenKeepsPosition(Tour& tour, UnitSession& session, const SavedSettings& original)
{
    tour.chapter("Closing and reopening (NKRClose saves the position, NKROpen brings it back)");
    int before = readInt(NKRGetPosition, session.id(), "reading the position");
    // Put the settings back first, so every run of the demo starts alike.
    check(NKRSetBacklash(session.id(), original.backlash), "restoring the backlash");
    check(NKRSetBeep(session.id(), original.beep), "restoring the beep");
    tour.note("settings restored; position before closing: " + std::to_string(before));
    session.reopen(5);
    int after = readInt(NKRGetPosition, session.id(), "reading the position");
    tour.note("position after reopening: " + std::to_string(after) + (after == before ? " (kept)" : " (changed!)"));
    tour.record("reopen", Json::object().set("id", session.id()).set("before", before).set("after", after));
    return after == before;
}

int runDemo()
{
    Tour tour;
    say(paint(Colour::Bold, "NKR focuser SDK tour") + " on simulated units (SDK version " +
        get_NKR_SDK_Ver() + ")");
    std::vector<nkrhost::SeenUnit> ble;
    std::vector<FoundUnit> usb = findUnits(tour, ble);
    auto byFirmware = [](const FoundUnit& a, const FoundUnit& b) {
        return a.ident.firmware.number() < b.ident.firmware.number();
    };
    const FoundUnit& older = *std::min_element(usb.begin(), usb.end(), byFirmware);
    const FoundUnit& newer = *std::max_element(usb.begin(), usb.end(), byFirmware);

    showOlderUnit(tour, older);
    MoveOutcome move;
    SavedSettings original;
    bool kept = false;
    {
        UnitSession session(UnitTarget{std::to_string(newer.id)});
        move = moveUnit(tour, session, newer.ident);
        original = changeSettings(tour, session);
        int battery = readSensors(tour, usb, ble, session.id());
        kept = reopenKeepsPosition(tour, session, original);

        std::string summary = "Summary: " + std::to_string(usb.size() + ble.size()) + " units found (" +
                              std::to_string(usb.size()) + " USB, " + std::to_string(ble.size()) +
                              " Bluetooth); unit " + std::to_string(newer.id) + " moved " +
                              std::to_string(move.start) + " -> " + std::to_string(move.position) +
                              (!move.power.known ? std::string()
                               : !move.power.seen ? std::string(" (no power-up: the world was kept from an earlier run)")
                               : move.power.restored ? " (after a power-up; its saved position " +
                                                           std::to_string(move.start) + " was restored)"
                                                     : std::string(" (after a power-up at ") +
                                                           std::to_string(move.power.powerOnPosition) + ")") +
                              "; settings changed, read back and restored; battery " +
                              (battery >= 0 ? std::to_string(battery) + " %" : std::string("not read")) +
                              "; position " + (kept ? "kept" : "NOT kept") + " after reopening.";
        say("");
        say(paint(kept ? Colour::Green : Colour::Red, summary));
        if (jsonMode())
            emitJson(Json::object()
                         .set("steps", tour.steps())
                         .set("ok", kept && move.position == move.target)
                         .set("summary", summary));
    }
    if (!kept) return kExitDeviceError;
    return move.position == move.target ? kExitOk : kExitDeviceError;
}

}  // namespace

Command addDemoCommand(CLI::App& app, const GlobalOptions&)
{
    CLI::App* sub = app.add_subcommand(
        "demo",
        "Run a guided tour of the SDK on the built-in simulator (implies --simulate): list "
        "the simulated units, look at one, move one with the progress bar, change and "
        "restore settings, read temperatures and the Bluetooth unit's battery, then close and "
        "reopen a unit to show that its position is kept. Needs no input and ends with a "
        "summary line.");
    sub->footer("Example:\n  nkr demo");
    return {sub, [] { return runDemo(); }, true};
}

}  // namespace nkrtool
