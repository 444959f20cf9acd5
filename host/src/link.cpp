#include "nkrhost/link.h"

#include "nkrhost/claim.h"

#include <NKR_focuser.h>

#include <algorithm>

namespace nkrhost {
namespace {

constexpr int kMaxScanned = 16;
constexpr int kFailuresBeforeGone = 3;

}  // namespace

std::vector<int> scanUsbSlots()
{
    std::vector<int> slots;
    const int count = NKRGetNum();
    for (int index = 0; index < count; ++index) {
        int slot = -1;
        if (NKRGetID(index, &slot) == NKR_SUCCESS && slot >= 0) slots.push_back(slot);
    }
    return slots;
}

std::vector<Identity> identifyUsbUnits()
{
    std::vector<Identity> units;
    for (int slot : scanUsbSlots()) {
        if (NKROpen(slot) != NKR_SUCCESS) continue;
        units.push_back(readIdentity(slot, Link::Usb));
    }
    return units;
}

Status scanBluetooth(std::vector<SeenUnit>& found, int millis)
{
    found.clear();
    _BLE_DEVICE_INFO records[kMaxScanned] = {};
    int count = 0;
    const int rc = NKRBLEScan(std::max(millis, 1), records, kMaxScanned, &count);
    if (rc != NKR_SUCCESS) return Status::fromSdk(rc, "Bluetooth scan");
    for (int i = 0; i < count && i < kMaxScanned; ++i) {
        SeenUnit u;
        u.link = Link::Ble;
        u.bleName = deviceText(records[i].Name, sizeof records[i].Name);
        u.bleAddress = deviceText(records[i].Address, sizeof records[i].Address);
        found.push_back(u);
    }
    return {};
}

Status connectBluetooth(const std::string& name, const std::string& address, int& slot)
{
    slot = -1;
    int id = -1;
    int rc = NKRBLEConnect(name.c_str(), address.c_str(), &id);
    if (rc != NKR_SUCCESS) return Status::fromSdk(rc, "connecting to Bluetooth unit " + name);
    rc = NKRBLEPair(id);
    if (rc != NKR_SUCCESS) {
        // A failed pairing drops the link but leaves the slot taken.
        NKRBLEDisconnect(id);
        return Status::fromSdk(rc, "pairing with Bluetooth unit " + name +
                                       " (accept the pairing on the unit, then try again)");
    }
    slot = id;
    return {};
}

Status attachBluetooth(const std::string& wanted, int& slot, SeenUnit& which, int scanMillis)
{
    slot = -1;
    std::vector<SeenUnit> found;
    Status scanned = scanBluetooth(found, scanMillis);
    if (!scanned.ok()) return scanned;
    Resolution r = resolveUnit(wanted, found);
    if (!r.status.ok()) return r.status;
    which = found[static_cast<std::size_t>(r.index)];
    // A unit another program holds is refused before any connection is made.
    const std::string holder = bluetoothHolder(which.bleAddress);
    if (!holder.empty()) return heldElsewhere(which.bleName, holder);
    return connectBluetooth(which.bleName, which.bleAddress, slot);
}

bool meansGone(Link link, int code)
{
    switch (code) {
    case NKR_ERROR_REMOVED:
    case NKR_ERROR_INVALID_ID:
    case NKR_ERROR_CLOSED:
    case NKR_ERROR_BLE_NOT_OPEN:
        return true;
    case NKR_ERROR_BLE_SEND:
        return link == Link::Ble;
    default:
        return false;
    }
}

bool LinkWatch::note(int code)
{
    if (code == NKR_SUCCESS) {
        m_failures = 0;
        return m_gone;
    }
    if (meansGone(m_link, code)) {
        m_gone = true;
    } else if (describeError(code).kind != ErrorKind::Internal) {
        m_failures = 0;  // the unit answered, if only to refuse
    } else if (++m_failures >= kFailuresBeforeGone) {
        m_gone = true;
    }
    return m_gone;
}

void LinkWatch::reset()
{
    m_failures = 0;
    m_gone = false;
}

std::chrono::milliseconds Backoff::delay() const
{
    using std::chrono::milliseconds;
    if (m_attempts <= 0) return milliseconds(0);
    const int shift = std::min(m_attempts - 1, 5);
    return std::min(milliseconds(1000 << shift), milliseconds(30000));
}

void Backoff::failed(Clock::time_point now)
{
    ++m_attempts;
    m_next = now + delay();
}

}  // namespace nkrhost
