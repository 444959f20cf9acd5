#include "focuser_members.h"

#include <NKR_focuser.h>

#include <chrono>
#include <cmath>
#include <ctime>
#include <map>

#include "focuser_actions.h"

#ifndef NKR_ALPACA_VERSION
#define NKR_ALPACA_VERSION "0.0"
#endif

namespace alpaca {
namespace {

using nlohmann::json;

Answer ok(json value) { return {std::move(value), {}}; }
Answer done() { return {}; }
Answer failed(DeviceError error) { return {std::nullopt, std::move(error)}; }

Answer notImplemented(const std::string& what) { return failed({kNotImplemented, what + " is not implemented"}); }

// Reads one int through the SDK.
Answer readInt(DeviceRegistry& registry, Unit& unit, int (*fn)(int, int*))
{
    int value = 0;
    DeviceError error = registry.call(unit, [&](int slot) { return fn(slot, &value); });
    return error.number == kOk ? ok(value) : failed(error);
}

Answer readMoving(DeviceRegistry& registry, Unit& unit)
{
    bool moving = false;
    DeviceError error = registry.isMoving(unit, moving);
    return error.number == kOk ? ok(moving) : failed(error);
}

// The user's maximum as every host program enforces it.
Answer readMaximum(DeviceRegistry& registry, Unit& unit)
{
    int maximum = 0;
    DeviceError error = registry.withHost(unit, [&](nkrhost::Unit& host) { return host.maximum(maximum); });
    return error.number == kOk ? ok(maximum) : failed(error);
}

nkrhost::UnitSettings settingsOf(DeviceRegistry& registry, Unit& unit, DeviceError& error)
{
    nkrhost::UnitSettings settings;
    error = registry.withHost(unit, [&](nkrhost::Unit& host) { return host.settings(settings); });
    return settings;
}

Answer readTemperature(DeviceRegistry& registry, Unit& unit)
{
    float temp = 0;
    DeviceError error = registry.call(unit, [&](int slot) { return NKRGetTemp(slot, &temp); });
    if (error.number != kOk) return failed(error);
    return ok(std::round(static_cast<double>(temp) * 100.0) / 100.0);
}

std::string isoNow()
{
    auto now = std::chrono::system_clock::now();
    std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm tm{};
    gmtime_r(&seconds, &tm);
    char text[40];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &tm);
    return std::string(text) + "." + std::to_string(1000 + millis).substr(1) + "Z";
}

std::string unitName(DeviceRegistry& registry, Unit& unit)
{
    std::string name = "NKR";
    registry.withHost(unit, [&](nkrhost::Unit& host) {
        nkrhost::UnitSettings settings;
        host.settings(settings);
        name = nkrhost::displayName(settings.name, host.identity().alias, host.identity().modelOrDefault());
        return nkrhost::Status::success();
    });
    return name + " " + unit.serial;
}

// Members that need no unit answer at once; the others go through registry.call,
// which answers NotConnected for a unit that is not connected.
const std::map<std::string, Member>& table()
{
    static const std::map<std::string, Member> members{
        {"connected",
         {[](DeviceRegistry& r, Unit& u, const AlpacaRequest&) { return ok(r.connected(u)); },
          [](DeviceRegistry& r, Unit& u, const AlpacaRequest& q) {
              bool on = q.boolean("Connected");
              DeviceError error = on ? r.connect(u) : r.disconnect(u);
              return error.number == kOk ? done() : failed(error);
          }}},
        // Connecting is synchronous here, so Connecting reads false once Connect has answered.
        {"connect",
         {nullptr,
          [](DeviceRegistry& r, Unit& u, const AlpacaRequest&) {
              DeviceError error = r.connect(u);
              return error.number == kOk ? done() : failed(error);
          }}},
        {"disconnect",
         {nullptr,
          [](DeviceRegistry& r, Unit& u, const AlpacaRequest&) {
              DeviceError error = r.disconnect(u);
              return error.number == kOk ? done() : failed(error);
          }}},
        {"connecting", {[](DeviceRegistry&, Unit&, const AlpacaRequest&) { return ok(false); }, nullptr}},
        {"description",
         {[](DeviceRegistry&, Unit& u, const AlpacaRequest&) {
              return ok(std::string(u.bleName.empty() ? "NKR electronic focuser (USB)"
                                                      : "NKR electronic focuser (Bluetooth)"));
          },
          nullptr}},
        {"driverinfo",
         {[](DeviceRegistry&, Unit&, const AlpacaRequest&) {
              return ok("nkr-alpaca: ASCOM Alpaca server for NKR focusers, SDK " +
                        std::string(NKRGetSDKVersion()));
          },
          nullptr}},
        {"driverversion", {[](DeviceRegistry&, Unit&, const AlpacaRequest&) { return ok(driverVersion()); }, nullptr}},
        {"interfaceversion", {[](DeviceRegistry&, Unit&, const AlpacaRequest&) { return ok(4); }, nullptr}},
        {"name", {[](DeviceRegistry& r, Unit& u, const AlpacaRequest&) { return ok(unitName(r, u)); }, nullptr}},
        {"supportedactions",
         {[](DeviceRegistry&, Unit&, const AlpacaRequest&) { return ok(supportedActions()); }, nullptr}},
        {"action",
         {nullptr,
          [](DeviceRegistry& r, Unit& u, const AlpacaRequest& q) {
              std::string name = q.text("Action");
              std::string parameters = q.text("Parameters");
              return runAction(r, u, name, parameters);
          }}},
        {"commandblind",
         {nullptr,
          [](DeviceRegistry&, Unit&, const AlpacaRequest& q) {
              q.text("Command"), q.text("Raw");
              return notImplemented("CommandBlind");
          }}},
        {"commandbool",
         {nullptr,
          [](DeviceRegistry&, Unit&, const AlpacaRequest& q) {
              q.text("Command"), q.text("Raw");
              return notImplemented("CommandBool");
          }}},
        {"commandstring",
         {nullptr,
          [](DeviceRegistry&, Unit&, const AlpacaRequest& q) {
              q.text("Command"), q.text("Raw");
              return notImplemented("CommandString");
          }}},
        {"devicestate",
         {[](DeviceRegistry& r, Unit& u, const AlpacaRequest&) {
              if (!r.connected(u)) return failed({kNotConnected, "focuser " + std::to_string(u.number) + " is not connected"});
              // A failed reading is left out rather than failing the whole state.
              json state = json::array();
              Answer moving = readMoving(r, u);
              if (moving.value) state.push_back({{"Name", "IsMoving"}, {"Value", *moving.value}});
              Answer position = readInt(r, u, NKRGetPosition);
              if (position.value) state.push_back({{"Name", "Position"}, {"Value", *position.value}});
              Answer temp = readTemperature(r, u);
              if (temp.value) state.push_back({{"Name", "Temperature"}, {"Value", *temp.value}});
              state.push_back({{"Name", "TimeStamp"}, {"Value", isoNow()}});
              return ok(state);
          },
          nullptr}},
        {"absolute", {[](DeviceRegistry&, Unit&, const AlpacaRequest&) { return ok(true); }, nullptr}},
        {"ismoving", {[](DeviceRegistry& r, Unit& u, const AlpacaRequest&) { return readMoving(r, u); }, nullptr}},
        {"maxincrement", {[](DeviceRegistry& r, Unit& u, const AlpacaRequest&) { return readMaximum(r, u); }, nullptr}},
        {"maxstep", {[](DeviceRegistry& r, Unit& u, const AlpacaRequest&) { return readMaximum(r, u); }, nullptr}},
        {"position",
         {[](DeviceRegistry& r, Unit& u, const AlpacaRequest&) { return readInt(r, u, NKRGetPosition); }, nullptr}},
        {"stepsize",
         {[](DeviceRegistry& r, Unit& u, const AlpacaRequest&) {
              DeviceError error;
              const nkrhost::UnitSettings settings = settingsOf(r, u, error);
              if (error.number != kOk) return failed(error);
              if (!settings.stepSizeMicrons)
                  return notImplemented("StepSize (no step size is set for this focuser: set it on the control page, "
                                        "or with nkr set ID step-size=MICRONS)");
              return ok(*settings.stepSizeMicrons);
          },
          nullptr}},
        {"tempcomp",
         // Kept in the host settings by serial, so it reads without a connection.
         {[](DeviceRegistry&, Unit& u, const AlpacaRequest&) {
              nkrhost::UnitSettings settings;
              DeviceError error = fromStatus(nkrhost::HostSettings().read(u.serial, settings));
              return error.number == kOk ? ok(settings.tempComp.enabled) : failed(error);
          },
          [](DeviceRegistry& r, Unit& u, const AlpacaRequest& q) {
              const bool on = q.boolean("TempComp");
              DeviceError error = r.withHost(u, [&](nkrhost::Unit& host) {
                  return host.hostSettings().update(host.key(), [&](nkrhost::UnitSettings& s) {
                      s.tempComp.enabled = on;
                      return nkrhost::Status::success();
                  });
              });
              return error.number == kOk ? done() : failed(error);
          }}},
        {"tempcompavailable", {[](DeviceRegistry&, Unit&, const AlpacaRequest&) { return ok(true); }, nullptr}},
        {"temperature",
         {[](DeviceRegistry& r, Unit& u, const AlpacaRequest&) { return readTemperature(r, u); }, nullptr}},
        {"halt",
         {nullptr,
          [](DeviceRegistry& r, Unit& u, const AlpacaRequest&) {
              DeviceError error = r.halt(u);
              return error.number == kOk ? done() : failed(error);
          }}},
        {"move",
         {nullptr,
          // Out of 0..MaxStep is refused, never clamped: a client asking for a
          // place the focuser cannot reach has made a mistake it should see.
          // With temperature compensation on the move is made, and the
          // compensation takes its reference again where it ends.
          [](DeviceRegistry& r, Unit& u, const AlpacaRequest& q) {
              DeviceError error = r.move(u, q.integer("Position"));
              return error.number == kOk ? done() : failed(error);
          }}},
    };
    return members;
}

}  // namespace

const Member* findMember(const std::string& name)
{
    auto it = table().find(name);
    return it == table().end() ? nullptr : &it->second;
}

const std::vector<std::string>& supportedActions() { return actionNames(); }

std::string driverVersion() { return NKR_ALPACA_VERSION; }

}  // namespace alpaca
