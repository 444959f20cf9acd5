// Fault injection and traffic logs of the control API.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ble_events.h"
#include "nkr_sim.h"
#include "world.h"

namespace nkrsim {
using namespace detail;

namespace {
// Runs change on the unit under the world lock; unknown ids are ignored.
template <typename Fn>
void withUnit(UnitId unit, Fn change)
{
    auto guard = lockWorld();
    if (Unit* u = findUnit(unit)) change(*u);
}

template <typename T, typename Fn>
T readUnit(UnitId unit, Fn read)
{
    auto guard = lockWorld();
    Unit* u = findUnit(unit);
    return u ? read(*u) : T{};
}
}  // namespace

void setBleLength(BleLength length, uint8_t fixedValue)
{
    auto guard = lockWorld();
    world().bleLength = length;
    world().bleLengthFixed = fixedValue;
    world().bleLengthRead = true;
}

void setTemperature(UnitId unit, double celsius, double driftPerHour, std::optional<double> until)
{
    withUnit(unit, [&](Unit& u) {
        u.drift.reset();
        if (driftPerHour != 0.0) u.drift = Unit::Drift{celsius, driftPerHour, until, nowLocked()};
        u.st.tempRaw = tempRawOf(celsius);
    });
}

void failTransfers(UnitId unit, int count, int errnoValue)
{
    withUnit(unit, [&](Unit& u) {
        u.failCount = count;
        u.failErrno = errnoValue;
    });
}

void refuseOpen(UnitId unit, bool refuse)
{
    withUnit(unit, [&](Unit& u) { u.refuseOpen = refuse; });
}

std::vector<std::vector<uint8_t>> sentReports(UnitId unit)
{
    return readUnit<std::vector<std::vector<uint8_t>>>(unit, [](Unit& u) { return u.sentReports.latest(); });
}

void clearSentReports(UnitId unit)
{
    withUnit(unit, [](Unit& u) { u.sentReports.clear(); });
}

void setBleSupported(bool supported)
{
    auto guard = lockWorld();
    world().bleSupported = supported;
}

void setAdapterAddress(const std::string& mac)
{
    auto guard = lockWorld();
    world().adapterAddress = mac;
}

void bleSilence(UnitId unit, int count)
{
    withUnit(unit, [&](Unit& u) { u.silence = count; });
}

void bleStaleFirst(UnitId unit)
{
    withUnit(unit, [](Unit& u) { u.staleFirst = true; });
}

void bleNewConnection(UnitId unit, int emptyWaits)
{
    withUnit(unit, [&](Unit& u) { u.newConnectionWaits = emptyWaits; });
}

void bleCorruptChecksum(UnitId unit, int count)
{
    withUnit(unit, [&](Unit& u) { u.corruptChecksum = count; });
}

void bleNotifyInstead(UnitId unit, uint8_t event)
{
    withUnit(unit, [&](Unit& u) { u.notifyEvent = event; });
}

void bleRawAnswer(UnitId unit, const std::vector<uint8_t>& frame)
{
    withUnit(unit, [&](Unit& u) { u.rawAnswer = frame; });
}

void bleStatus(UnitId unit, uint8_t status)
{
    withUnit(unit, [&](Unit& u) { u.statusOverride = status; });
}

void bleRefuseSend(UnitId unit, int count)
{
    withUnit(unit, [&](Unit& u) { u.refuseSend = count; });
}

void bleRefuseConnect(UnitId unit, bool refuse)
{
    withUnit(unit, [&](Unit& u) { u.refuseConnect = refuse; });
}

void bleDropConnection(UnitId unit)
{
    auto guard = lockWorld();
    dropBleConnections(unit);
}

void bleFlushCallbacks() { flushConnectionEvents(); }

std::vector<std::vector<uint8_t>> sentFrames(UnitId unit)
{
    return readUnit<std::vector<std::vector<uint8_t>>>(unit, [](Unit& u) { return u.sentFrames.latest(); });
}

void clearSentFrames(UnitId unit)
{
    withUnit(unit, [](Unit& u) { u.sentFrames.clear(); });
}

std::vector<RefusedMessage> refusedMessages(UnitId unit)
{
    return readUnit<std::vector<RefusedMessage>>(unit, [](Unit& u) { return u.refused.latest(); });
}

void clearRefusedMessages(UnitId unit)
{
    withUnit(unit, [](Unit& u) { u.refused.clear(); });
}

uint64_t refusedTotal()
{
    auto guard = lockWorld();
    uint64_t total = 0;
    for (auto& [id, u] : world().units) total += u->refused.standing();
    return total;
}

int bleConnections(UnitId unit)
{
    auto guard = lockWorld();
    int count = 0;
    for (auto& [handle, m] : world().managers)
        if (m->connected == unit) ++count;
    return count;
}

void configureUpdate(UnitId unit, const UpdateConfig& config)
{
    withUnit(unit, [&](Unit& u) { u.update = config; });
}

std::vector<uint8_t> receivedImage(UnitId unit)
{
    return readUnit<std::vector<uint8_t>>(unit, [](Unit& u) { return u.image; });
}

bool inUpdateMode(UnitId unit)
{
    return readUnit<bool>(unit, [](Unit& u) { return u.usbUpdating || u.bleUpdating; });
}

}  // namespace nkrsim

namespace {
// The id of the unit with this serial number (hex), Bluetooth name or id; -1 for none.
int unitNamed(const std::string& wanted)
{
    auto guard = nkrsim::detail::lockWorld();
    int found = -1;
    for (auto& [id, u] : nkrsim::detail::world().units) {
        std::string serial;
        char hex[3];
        for (uint8_t b : u->st.serial) {
            std::snprintf(hex, sizeof hex, "%02X", b);
            serial += hex;
        }
        if (wanted == serial || wanted == u->bleName || wanted == std::to_string(id)) found = id;
    }
    return found;
}
}  // namespace

extern "C" int nkr_sim_set_temperature(const char* unit, double celsius, double perHour, int hasUntil, double until,
                                       char* message, size_t size)
{
    std::string error;
    try {
        const std::string wanted = unit != nullptr ? unit : "";
        const int found = unitNamed(wanted);
        if (found < 0)
            error = "no simulated unit is '" + wanted + "'";
        else if (celsius < -100 || celsius > 150)
            error = "a simulated temperature is between -100 and 150 degrees";
        else
            nkrsim::setTemperature(found, celsius, perHour, hasUntil != 0 ? std::optional<double>(until) : std::nullopt);
    } catch (...) {
        error = "out of memory";
    }
    if (message != nullptr && size > 0) {
        const size_t n = std::min(error.size(), size - 1);
        std::memcpy(message, error.data(), n);
        message[n] = '\0';
    }
    return error.empty() ? 1 : 0;
}

extern "C" int nkr_sim_power_on_state(const char* unit, int* powerOnPosition, int* stepsSincePowerOn)
{
    try {
        const int found = unitNamed(unit != nullptr ? unit : "");
        if (found < 0) return 0;
        auto guard = nkrsim::detail::lockWorld();
        const nkrsim::detail::Unit* u = nkrsim::detail::findUnit(found);
        if (u == nullptr) return 0;
        if (powerOnPosition != nullptr) *powerOnPosition = u->spec.position;
        if (stepsSincePowerOn != nullptr) *stepsSincePowerOn = u->stepsMoved;
        return 1;
    } catch (...) {
        return 0;
    }
}

extern "C" int nkr_sim_set_ble_length(const char* spec)
{
    if (spec == nullptr) return 0;
    const std::string s = spec;
    if (s == "header") {
        nkrsim::setBleLength(nkrsim::BleLength::HeaderAndPayload);
    } else if (s == "payload") {
        nkrsim::setBleLength(nkrsim::BleLength::PayloadOnly);
    } else if (s.rfind("fixed:", 0) == 0) {
        char* end = nullptr;
        const long v = std::strtol(s.c_str() + 6, &end, 0);
        if (end == s.c_str() + 6 || *end != '\0' || v < 0 || v > 255) return 0;
        nkrsim::setBleLength(nkrsim::BleLength::Fixed, static_cast<uint8_t>(v));
    } else {
        return 0;
    }
    return 1;
}
