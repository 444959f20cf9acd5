// The world itself: clock, motion, and the units coming and going.
#include "world.h"

#include <algorithm>
#include <cmath>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "ble_events.h"
#include "control_socket.h"
#include "persist.h"
#include "sysfs.h"
#include "unit_model.h"

namespace nkrsim::detail {
namespace {

// A huge jump of the clock must not overflow the step arithmetic.
constexpr uint64_t kMaxStepInterval = 1'000'000'000'000ULL;
// 100 kOhm thermistor under a 10 kOhm series resistor at 25 degrees, 10-bit ADC.
constexpr int kThermistorAdc25 = 931;

uint64_t steadyMicros()
{
    static const auto start = std::chrono::steady_clock::now();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                     std::chrono::steady_clock::now() - start)
                                     .count());
}

std::string defaultBleAddress(UnitId id)
{
    char text[24];
    std::snprintf(text, sizeof text, "C0:FF:EE:00:%02X:%02X", (id >> 8) & 0xFF, id & 0xFF);
    return text;
}

// Fills the state a unit's spec fixes (the rest keeps its defaults).
void applySpec(const UnitSpec& spec, UnitState& s)
{
    s.maxStep = spec.maxStep;
    s.tempRaw = spec.tempRaw;
    // A thermistor unit left at the scaled default reads about 25 degrees as ADC.
    if (spec.thermistor && spec.tempRaw == UnitSpec{}.tempRaw) s.tempRaw = kThermistorAdc25;
    s.serial = spec.serial;
    s.alias = spec.alias;
    s.bleNameSuffix = spec.bleNameSuffix;
    s.fwMajor = spec.fwMajor;
    s.fwMinor = spec.fwMinor;
    s.fwBuild = spec.fwBuild;
    s.modelLetter = spec.modelLetter;
    s.typeText = spec.typeText;
    s.thermistor = spec.thermistor;
    s.stepsPerSecond = spec.stepsPerSecond;
}

// An older USB unit, a newer USB unit and a Bluetooth Pro unit.
std::vector<UnitSpec> builtInUnits()
{
    UnitSpec older;
    older.fwMajor = 3, older.fwMinor = 3, older.fwBuild = 5;
    older.modelLetter = 'A';

    UnitSpec newer;
    newer.fwMajor = 3, newer.fwMinor = 8, newer.fwBuild = 2;
    newer.modelLetter = 'E';
    newer.typeText = "NKRN";

    UnitSpec pro = newer;
    pro.typeText = "NKR Pro";
    pro.usb = false;
    pro.ble = true;
    pro.bleName = "NKR Pro_A1B2";
    return {older, newer, pro};
}

// A unit's own serial number: the same eight bytes for every simulator,
// with the last two counting up from DE F0 by unit id.
std::vector<uint8_t> derivedSerial(UnitId id)
{
    unsigned tail = (0xDEF0u + static_cast<unsigned>(id)) & 0xFFFFu;
    return {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, static_cast<uint8_t>(tail >> 8),
            static_cast<uint8_t>(tail & 0xFF)};
}

bool allDigits(const std::string& text)
{
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Arguments are quoted in messages, cut short so a huge value stays readable.
std::string quoted(const std::string& text)
{
    constexpr size_t kMaxShown = 40;
    return "'" + (text.size() > kMaxShown ? text.substr(0, kMaxShown) + "..." : text) + "'";
}

// One NKR_SIM_UNITS entry: link:fw[:letter[:type]].
bool parseUnit(const std::string& entry, int bleIndex, UnitSpec& spec, std::string& error)
{
    std::vector<std::string> f;
    std::stringstream in(entry);
    for (std::string part; std::getline(in, part, ':');) f.push_back(part);
    if (!entry.empty() && entry.back() == ':') f.push_back("");
    if (f.size() < 2 || f.size() > 4) {
        error = "expected link:fw[:letter[:type]]";
        return false;
    }
    spec = UnitSpec{};
    spec.usb = f[0] == "usb" || f[0] == "both";
    spec.ble = f[0] == "ble" || f[0] == "both";
    if (!spec.usb && !spec.ble) {
        error = "the link " + quoted(f[0]) + " is not usb, ble or both";
        return false;
    }
    if (f[1].size() != 3 || !allDigits(f[1])) {
        error = "the firmware version " + quoted(f[1]) + " is not three digits (e.g. 382 for 3.8.2)";
        return false;
    }
    spec.fwMajor = f[1][0] - '0';
    spec.fwMinor = f[1][1] - '0';
    spec.fwBuild = f[1][2] - '0';
    if (f.size() > 2 && f[2].size() > 1) {
        error = "the model letter " + quoted(f[2]) + " is not one character";
        return false;
    }
    if (f.size() > 2 && !f[2].empty()) spec.modelLetter = f[2][0];
    if (f.size() > 3) {
        if (f[3].size() > 8) {
            error = "the model text " + quoted(f[3]) + " is longer than 8 characters";
            return false;
        }
        spec.typeText = f[3];
    }
    char suffix[8];
    std::snprintf(suffix, sizeof suffix, "%04X", (0xA1B2 + bleIndex) & 0xFFFF);
    spec.bleNameSuffix = suffix;
    spec.bleName = (spec.typeText.empty() ? std::string("NKR Pro") : spec.typeText) + "_" + suffix;
    return true;
}

bool parseUnitList(const std::string& value, std::vector<UnitSpec>& specs, std::string& error)
{
    specs.clear();
    if (value.empty()) return true;  // deliberately no units
    std::vector<std::string> entries;
    size_t start = 0;
    for (size_t comma; (comma = value.find(',', start)) != std::string::npos; start = comma + 1)
        entries.push_back(value.substr(start, comma - start));
    entries.push_back(value.substr(start));
    int bleIndex = 0;
    for (size_t i = 0; i < entries.size(); ++i) {
        UnitSpec spec;
        std::string why;
        if (entries[i].empty())
            why = "is empty";
        else if (!parseUnit(entries[i], bleIndex, spec, why))
            why = quoted(entries[i]) + ": " + why;
        if (!why.empty()) {
            error = "NKR_SIM_UNITS entry " + std::to_string(i + 1) + " " + why +
                    " (expected comma-separated link:fw[:letter[:type]], e.g. usb:335,ble:382:E:NKR Pro)";
            return false;
        }
        if (spec.ble) ++bleIndex;
        specs.push_back(spec);
    }
    return true;
}

bool parseUnplug(const std::string& value, size_t unitCount, int& unit, int& steps,
                 std::string& error)
{
    size_t colon = value.find(':');
    std::string id = value.substr(0, colon);
    std::string count = colon == std::string::npos ? "" : value.substr(colon + 1);
    if (!allDigits(id) || !allDigits(count) || id.size() > 6 || count.size() > 9) {
        error = "NKR_SIM_UNPLUG " + quoted(value) +
                " is not <unit id>:<steps> (e.g. 0:500, both whole numbers)";
        return false;
    }
    unit = std::stoi(id);
    steps = std::stoi(count);
    if (static_cast<size_t>(unit) >= unitCount) {
        error = "NKR_SIM_UNPLUG names unit " + id + ", but the simulated units are " +
                (unitCount == 0 ? std::string("none") : "0 to " + std::to_string(unitCount - 1));
        return false;
    }
    return true;
}

// The units the environment asks for; false with the reason when it is malformed.
bool environmentUnits(std::vector<UnitSpec>* specs, int* unplugUnit, int* unplugSteps,
                      std::string& error)
{
    std::vector<UnitSpec> parsed;
    const char* units = std::getenv("NKR_SIM_UNITS");
    if (units != nullptr) {
        if (!parseUnitList(units, parsed, error)) return false;
    } else {
        parsed = builtInUnits();
    }
    int unit = -1, steps = -1;
    const char* unplug = std::getenv("NKR_SIM_UNPLUG");
    if (unplug != nullptr && !parseUnplug(unplug, parsed.size(), unit, steps, error)) return false;
    if (specs) *specs = std::move(parsed);
    if (unplugUnit) *unplugUnit = unit;
    if (unplugSteps) *unplugSteps = steps;
    return true;
}

}  // namespace

World& world()
{
    static World* w = new World;  // never destroyed: callers at exit stay safe
    return *w;
}

WorldGuard::WorldGuard() : lock_(world().lock)
{
    World& w = world();
    if (++w.lockDepth > 1) return;
    if (w.defaultsPending) {
        w.defaultsPending = false;
        addDefaultUnits();
        startControlSocketFromEnv();
    }
    beginShared();
}

WorldGuard::~WorldGuard()
{
    World& w = world();
    if (w.lockDepth == 1) endShared();
    --w.lockDepth;
}

WorldGuard lockWorld() { return WorldGuard(); }

uint64_t nowLocked()
{
    World& w = world();
    return w.manualClock ? w.manualNow : steadyMicros() + w.realOffset;
}

void advance(Unit& u)
{
    uint64_t now = nowLocked();
    uint64_t dt = now > u.lastTick ? now - u.lastTick : 0;
    u.lastTick = std::max(now, u.lastTick);
    advanceBy(u, dt);
    if (u.drift) u.st.tempRaw = tempRawOf(driftedCelsius(*u.drift, now));
}

double driftedCelsius(const Unit::Drift& d, uint64_t now)
{
    const double hours = now > d.startUs ? static_cast<double>(now - d.startUs) / 3.6e9 : 0.0;
    double t = d.startC + d.perHour * hours;
    if (d.untilC) t = d.perHour < 0 ? std::max(t, *d.untilC) : std::min(t, *d.untilC);
    return t;
}

int tempRawOf(double celsius)
{
    // The status word carries (degrees + 300) x 100.
    return static_cast<int>(std::clamp(std::lround((celsius + 300.0) * 100.0), 0L, 65535L));
}

void advanceBy(Unit& u, uint64_t dt)
{
    dt = std::min(dt, kMaxStepInterval);
    UnitState& s = u.st;
    bool host = s.runState == 1;
    if (!host && !s.handMoving) {
        u.stepFraction = 0;
        return;
    }
    int target = host ? s.target : u.handTarget;
    u.stepFraction += dt * static_cast<uint64_t>(std::max(s.stepsPerSecond, 0));
    uint64_t steps = u.stepFraction / 1'000'000;
    u.stepFraction %= 1'000'000;
    uint64_t distance = static_cast<uint64_t>(std::abs(static_cast<int64_t>(target) - s.position));
    if (steps >= distance) {
        s.position = target;
        u.stepFraction = 0;
        if (host)
            s.runState = 0;
        else
            s.handMoving = false;
    } else {
        s.position += target > s.position ? static_cast<int>(steps) : -static_cast<int>(steps);
    }
    u.stepsMoved += static_cast<int>(std::min<uint64_t>(steps, distance));
    if (u.plugged && u.unplugAfterSteps >= 0 && u.stepsMoved >= u.unplugAfterSteps) {
        // A cable pulled in the middle of a move: the motor stops with it.
        u.plugged = false;
        s.runState = 0;
        s.handMoving = false;
        removeDescriptor(usbPath(u.id));
        dropBleConnections(u.id);
    }
}

void publishDescriptor(const Unit& u)
{
    if (!u.spec.usb) return;
    writeDescriptor(usbPath(u.id),
                    u.spec.descriptor.empty() ? defaultDescriptor(u.spec.outputReportLen)
                                              : u.spec.descriptor,
                    u.spec.descriptorReadable);
}

void rebuildUnit(Unit& u)
{
    u.st = UnitState{};
    applySpec(u.spec, u.st);
    u.bleName = u.spec.bleName;
    u.epoch = world().nextEpoch++;
    u.plugged = true;
    u.plugCount = 0;
    u.handTarget = 0;
    u.update = UpdateConfig{};
    u.image.clear();
    powerOn(u);
    publishDescriptor(u);
}

Unit* findUnit(UnitId id)
{
    World& w = world();
    auto it = w.units.find(id);
    if (it == w.units.end()) return nullptr;
    advance(*it->second);
    return it->second.get();
}

void dropBleConnections(UnitId id)
{
    for (auto& [handle, m] : world().managers) {
        if (m->connected != id) continue;
        m->connected = -1;
        m->frames.clear();
        postConnectionEvent(handle, m->callback, false);
    }
}

}  // namespace nkrsim::detail

namespace nkrsim {
using namespace detail;

void reset()
{
    stopConnectionEvents();  // before the lock: a callback may be calling in
    World& w = world();
    std::lock_guard<std::recursive_mutex> guard(w.lock);
    for (auto& [id, u] : w.units) removeDescriptor(usbPath(id));
    w.units.clear();
    w.nextId = 0;
    w.defaultsPending = false;
    w.manualClock = true;
    w.manualNow = 0;
    w.bleSupported = true;
    w.adapterAddress = "00:1A:7D:DA:71:13";
    // The SDK still owns its managers: keep them, unconnected.
    for (auto& [handle, m] : w.managers) {
        m->connected = -1;
        m->frames.clear();
    }
}

void addDefaultUnits()
{
    auto guard = lockWorld();
    std::vector<UnitSpec> specs;
    int unplugUnit = -1, unplugSteps = -1;
    std::string error;
    if (!environmentUnits(&specs, &unplugUnit, &unplugSteps, error)) {
        // Said once, plainly; a half-understood world would only mislead.
        std::fprintf(stderr, "nkr-sim: %s; simulating no units\n", error.c_str());
        return;
    }
    for (const UnitSpec& spec : specs) addUnit(spec);
    // NKR_SIM_UNPLUG=<unit id>:<steps> pulls that unit's cable once it has
    // moved that many steps, so a separate program can meet an unplug mid-move.
    if (unplugUnit >= 0) unplugAfterSteps(unplugUnit, unplugSteps);
}

bool validateEnvironment(std::string& message)
{
    message.clear();
    return environmentUnits(nullptr, nullptr, nullptr, message);
}

void unplugAfterSteps(UnitId unit, int steps)
{
    auto guard = lockWorld();
    if (Unit* u = findUnit(unit)) u->unplugAfterSteps = steps;
}

UnitId addUnit(const UnitSpec& spec)
{
    auto guard = lockWorld();
    World& w = world();
    auto u = std::make_unique<Unit>();
    u->id = w.nextId++;
    u->spec = spec;
    if (u->spec.serial.empty()) u->spec.serial = derivedSerial(u->id);
    applySpec(u->spec, u->st);
    u->epoch = w.nextEpoch++;
    u->bleName = spec.bleName;
    u->bleAddress = spec.bleAddress.empty() ? defaultBleAddress(u->id) : spec.bleAddress;
    powerOn(*u);
    publishDescriptor(*u);
    UnitId id = u->id;
    w.units[id] = std::move(u);
    return id;
}

void unplug(UnitId unit)
{
    auto guard = lockWorld();
    Unit* u = findUnit(unit);
    if (u == nullptr || !u->plugged) return;
    u->plugged = false;
    removeDescriptor(usbPath(unit));
    dropBleConnections(unit);
}

void replug(UnitId unit)
{
    auto guard = lockWorld();
    Unit* u = findUnit(unit);
    if (u == nullptr || u->plugged) return;
    u->plugged = true;
    ++u->plugCount;
    u->epoch = world().nextEpoch++;  // handles of the old plug stay dead
    powerOn(*u);
    publishDescriptor(*u);
}

std::string usbPath(UnitId unit) { return "/dev/nkrsim" + std::to_string(unit); }

std::string bleAddress(UnitId unit)
{
    auto guard = lockWorld();
    Unit* u = findUnit(unit);
    return u ? u->bleAddress : std::string();
}

UnitState state(UnitId unit)
{
    auto guard = lockWorld();
    Unit* u = findUnit(unit);
    return u ? u->st : UnitState{};
}

void update(UnitId unit, const std::function<void(UnitState&)>& change)
{
    auto guard = lockWorld();
    Unit* u = findUnit(unit);
    if (u == nullptr || !change) return;
    change(u->st);
    advance(*u);  // a move set up to where the motor stands ends at once
}

void handMove(UnitId unit, int target)
{
    auto guard = lockWorld();
    Unit* u = findUnit(unit);
    if (u == nullptr) return;
    u->handTarget = target;
    u->st.handMoving = true;
    advance(*u);
}

void setManualClock(bool manual)
{
    auto guard = lockWorld();
    World& w = world();
    if (w.manualClock == manual) return;
    for (auto& [id, u] : w.units) advance(*u);
    uint64_t now = nowLocked();
    w.manualClock = manual;
    // Keep time continuous across the switch.
    if (manual)
        w.manualNow = now;
    else
        w.realOffset = now - steadyMicros();  // wraps harmlessly when negative
}

void advanceMicros(uint64_t us)
{
    auto guard = lockWorld();
    World& w = world();
    if (w.manualClock)
        w.manualNow += us;
    else
        w.realOffset += us;
}

uint64_t nowMicros()
{
    auto guard = lockWorld();
    return nowLocked();
}

}  // namespace nkrsim
