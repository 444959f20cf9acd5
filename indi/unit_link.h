// The driver's hold on one focuser unit: finds and opens it over USB (first
// free unit, or the one whose serial number or alias was asked for) or over
// Bluetooth LE (scan, connect, pair), holds the unit's lock so that no other
// driver instance opens it too, and closes it again.
#pragma once

#include <string>
#include <vector>

#include "file_lock.h"

namespace nkrindi {

// One unit seen by a scan.
struct FoundUnit {
    bool ble = false;
    std::string serial;   // "" when the firmware cannot report it
    std::string alias;
    std::string model;
    std::string bleName;  // Bluetooth units: advertised name and address
    std::string bleAddress;
    std::string holder;   // the driver instance that has it open, if another
    bool own = false;     // the unit this instance has open
};

class UnitLink {
public:
    UnitLink() = default;
    UnitLink(const UnitLink&) = delete;
    UnitLink& operator=(const UnitLink&) = delete;
    ~UnitLink() { close(); }

    // Each returns "" on success, else a sentence for the log. owner names
    // this instance to the others (its device name). quick: a look for a unit
    // that went away, which must not hold up the driver (no waiting for other
    // instances, a short Bluetooth scan).
    std::string openUsb(const std::string& serialOrAlias, const std::string& owner,
                        bool quick = false);
    std::string openBle(const std::string& nameOrAddress, const std::string& owner,
                        bool quick = false);

    // Closes a USB unit (the SDK then saves its position) or disconnects a
    // Bluetooth unit, and gives up the unit's lock. Harmless when nothing is open.
    void close();
    // After the unit vanished: forgets the slot without talking to it (the
    // SDK closes a removed unit's slot at its next scan) but keeps the lock,
    // so the unit stays this instance's for the reconnect.
    void lose();

    bool isOpen() const { return m_id >= 0; }
    int id() const { return m_id; }
    bool overBle() const { return m_ble; }
    // Serial number read at open ("" when the unit has none).
    const std::string& serial() const { return m_serial; }
    // "USB slot 0" or "Bluetooth NKR Pro_A1B2 (slot 50)".
    const std::string& description() const { return m_description; }

private:
    std::string takeUnitLock(const std::string& key, const std::string& owner);

    int m_id = -1;
    bool m_ble = false;
    std::string m_serial;
    std::string m_description;
    FileLock m_unitLock;
};

// Every USB unit but the slot skipId (this instance's own): each is opened,
// identified and closed again. Refused ("" result set, problem filled) while
// another instance's move runs, since closing a unit stops its motor.
std::vector<FoundUnit> scanUsbUnits(int skipId, std::string& problem);
// Bluetooth units in range (no connection is made).
std::vector<FoundUnit> scanBleUnits(std::string& problem);

// Serial number of an open unit as hexadecimal text; "" when the firmware
// cannot report it.
std::string readSerial(int id);
// Alias of an open unit; "" when it has none or cannot report it.
std::string readAlias(int id);
// Model text of an open unit ("NKR" for units that report none).
std::string readModel(int id);

}  // namespace nkrindi
