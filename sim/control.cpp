// Fault injection and traffic logs of the control API.
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
