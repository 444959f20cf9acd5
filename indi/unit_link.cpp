#include "unit_link.h"

#include "NKR_focuser.h"

namespace nkrindi {

namespace {

std::string inUse(const std::string& what, const std::string& holder)
{
    return "The unit " + what + " is held by " + holder + "; choose another unit";
}

}  // namespace

std::string holderOf(const nkrhost::SeenUnit& unit)
{
    if (unit.link == nkrhost::Link::Ble) return nkrhost::bluetoothHolder(unit.bleAddress);
    if (!unit.serial.empty()) return nkrhost::unitHolder(unit.serial);
    return nkrhost::unitHolder("usb-slot-" + std::to_string(unit.slot));
}

std::string UnitLink::description() const
{
    if (!m_session) return {};
    const nkrhost::Identity& id = m_session->unit().identity();
    if (id.link == nkrhost::Link::Ble) return "Bluetooth " + id.bleName + " (slot " + std::to_string(id.slot) + ")";
    return "USB slot " + std::to_string(id.slot);
}

std::string UnitLink::take(std::unique_ptr<nkrhost::Unit> unit, const std::string& owner)
{
    nkrhost::Session::Options options;
    options.holder = "INDI " + owner;
    options.compensate = false;  // the driver runs its own compensation loop
    const bool ble = unit->link() == nkrhost::Link::Ble;
    const int slot = unit->slot();
    nkrhost::Status held = nkrhost::Session::hold(unit, options, m_session);
    if (!held.ok()) {
        // Another program holds it: nothing is sent and nothing closed (closing
        // would stop its motor); a Bluetooth link we made is ours to drop.
        if (ble) NKRBLEDisconnect(slot);
        return held.message;
    }
    return {};
}

std::string UnitLink::openUsb(const std::string& selector, const std::string& owner)
{
    close();
    const std::string wanted = nkrhost::trimmed(selector);
    if (!wanted.empty()) {
        // A serial number that another instance holds is refused before any unit is touched.
        const std::string serial = nkrhost::normalizedSerial(wanted);
        if (!serial.empty()) {
            const std::string holder = nkrhost::unitHolder(serial);
            if (!holder.empty()) return inUse("with serial number " + serial, holder);
        }
        nkrhost::OpenRequest request;
        request.name = wanted;
        std::unique_ptr<nkrhost::Unit> unit;
        nkrhost::Status opened = nkrhost::Unit::open(request, unit);
        if (!opened.ok()) return opened.message;
        return take(std::move(unit), owner);
    }
    // No choice made: the first unit that no other instance has.
    const auto units = nkrhost::identifyUsbUnits();
    if (units.empty()) return "No focuser found on USB";
    std::string seen;
    for (const nkrhost::Identity& id : units) {
        const nkrhost::SeenUnit s = nkrhost::seenFrom(id);
        const std::string holder = holderOf(s);
        if (holder.empty()) return take(nkrhost::Unit::adopt(id.slot, nkrhost::Link::Usb), owner);
        seen += (seen.empty() ? "" : "; ") + s.describe() + " held by " + holder;
    }
    return "No free USB focuser (" + seen + ")";
}

std::string UnitLink::openBle(const std::string& selector, const std::string& owner)
{
    close();
    int slot = -1;
    nkrhost::SeenUnit match;
    nkrhost::Status attached = nkrhost::attachBluetooth(selector, slot, match);
    if (!attached.ok()) return attached.message;
    return take(nkrhost::Unit::adoptBluetooth(slot, match.bleName, match.bleAddress), owner);
}

bool UnitLink::reconnectDue() const
{
    return m_session && m_session->unit().backoff().due(nkrhost::Backoff::Clock::now());
}

std::string UnitLink::reconnect()
{
    if (!m_session) return "no unit";
    nkrhost::Status back = m_session->unit().reconnect();
    return back.ok() ? std::string() : back.message;
}

void UnitLink::close()
{
    m_session.reset();  // closes (saving the position) or disconnects, and gives up the hold
}

std::vector<FoundUnit> scanUnits(bool withBluetooth, std::string& problem)
{
    std::vector<FoundUnit> units;
    nkrhost::Inventory inv = nkrhost::takeInventory(withBluetooth);
    if (!inv.bluetooth.ok() && inv.bluetooth.code != NKR_ERROR_BLE_UNSUPPORTED) problem = inv.bluetooth.message;
    for (const nkrhost::SeenUnit& s : inv.units)
        units.push_back({s, holderOf(s), false});
    return units;
}

}  // namespace nkrindi
