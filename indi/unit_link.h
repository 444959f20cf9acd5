// The driver's hold on one focuser unit, through the host layer's unit
// session: finds and opens it over USB (the first unit no other program
// holds, or the one named by serial number or alias) or over Bluetooth LE,
// holds it so that no other program drives it too (another driver instance,
// the Alpaca server, the nkr tool), gets it back when it went away, and
// closes it again.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "nkrhost/session.h"

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

    bool isOpen() const { return m_session != nullptr; }
    nkrhost::Session& session() { return *m_session; }
    nkrhost::Unit& unit() { return m_session->unit(); }
    int id() const { return m_session ? m_session->unit().slot() : -1; }
    bool overBle() const { return m_session && m_session->unit().link() == nkrhost::Link::Ble; }
    // Serial number read at open ("" when the unit has none).
    std::string serial() const { return m_session ? m_session->unit().identity().serial : std::string(); }
    // "USB slot 0" or "Bluetooth NKR Pro_A1B2 (slot 50)".
    std::string description() const;

private:
    std::string take(std::unique_ptr<nkrhost::Unit> unit, const std::string& owner);

    std::unique_ptr<nkrhost::Session> m_session;
};

// Who holds a unit seen by a scan ("" when nobody does): by its key, or for
// a Bluetooth unit by its address (known before any connection).
std::string holderOf(const nkrhost::SeenUnit& unit);

// Every unit in reach (Bluetooth too when asked: a scan takes seconds), each
// with the instance that holds it. problem receives what went wrong.
std::vector<FoundUnit> scanUnits(bool withBluetooth, std::string& problem);

}  // namespace nkrindi
