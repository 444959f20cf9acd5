// The driver's hold on one focuser unit, through the host layer: finds and
// opens it over USB (the first unit no other instance has, or the one named
// by serial number or alias) or over Bluetooth LE, holds the unit's "driver"
// claim so that no other driver instance drives it too, gets it back when it
// went away, and closes it again.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "nkrhost/claim.h"
#include "nkrhost/unit.h"

namespace nkrindi {

// One unit seen by a scan.
struct FoundUnit {
    nkrhost::SeenUnit seen;
    std::string holder;  // the driver instance that has it, if another
    bool own = false;    // the unit this instance has open
};

class UnitLink {
public:
    UnitLink() = default;
    UnitLink(const UnitLink&) = delete;
    UnitLink& operator=(const UnitLink&) = delete;
    ~UnitLink() { close(); }

    // Each returns "" on success, else the sentence for the log. owner names
    // this instance to the others (its device name).
    std::string openUsb(const std::string& selector, const std::string& owner);
    std::string openBle(const std::string& selector, const std::string& owner);

    // Closes a USB unit (the SDK then saves its position) or disconnects a
    // Bluetooth unit, and gives up the claim. Harmless when nothing is open.
    void close();
    // One try to get a unit that went away back (the same serial number or
    // Bluetooth address); "" when it is back. Tries no more often than the
    // host's back-off allows (anotherTry tells when).
    std::string reconnect();
    bool reconnectDue() const;

    bool isOpen() const { return m_unit != nullptr; }
    nkrhost::Unit& unit() { return *m_unit; }
    int id() const { return m_unit ? m_unit->slot() : -1; }
    bool overBle() const { return m_unit && m_unit->link() == nkrhost::Link::Ble; }
    // Serial number read at open ("" when the unit has none).
    std::string serial() const { return m_unit ? m_unit->identity().serial : std::string(); }
    // "USB slot 0" or "Bluetooth NKR Pro_A1B2 (slot 50)".
    std::string description() const;

private:
    std::string take(std::unique_ptr<nkrhost::Unit> unit, const std::string& owner);

    std::unique_ptr<nkrhost::Unit> m_unit;
    nkrhost::UnitClaim m_claim;
};

// The key a unit's "driver" claim goes by: its Bluetooth address for a
// Bluetooth unit (known before any connection), else the host's key.
std::string claimKey(const nkrhost::SeenUnit& unit);

// Every unit in reach (Bluetooth too when asked: a scan takes seconds), each
// with the instance that holds it. problem receives what went wrong.
std::vector<FoundUnit> scanUnits(bool withBluetooth, std::string& problem);

}  // namespace nkrindi
