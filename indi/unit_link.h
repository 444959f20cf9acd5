// The driver's hold on one focuser unit: finds and opens it over USB (first
// unit, or the one whose serial number or alias was asked for) or over
// Bluetooth LE (scan, connect, pair), and closes it again.
#pragma once

#include <string>

namespace nkrindi {

class UnitLink {
public:
    UnitLink() = default;
    UnitLink(const UnitLink&) = delete;
    UnitLink& operator=(const UnitLink&) = delete;
    ~UnitLink() { close(); }

    // Each returns "" on success, else a sentence for the log.
    std::string openUsb(const std::string& serialOrAlias);
    std::string openBle(const std::string& nameOrAddress);

    // Closes a USB unit (the SDK then saves its position) or disconnects a
    // Bluetooth unit. Harmless when nothing is open.
    void close();

    bool isOpen() const { return m_id >= 0; }
    int id() const { return m_id; }
    bool overBle() const { return m_ble; }
    // "USB slot 0" or "Bluetooth NKR Pro_A1B2 (slot 50)".
    const std::string& description() const { return m_description; }

private:
    int m_id = -1;
    bool m_ble = false;
    std::string m_description;
};

// Serial number of an open unit as hexadecimal text; "" when the firmware
// cannot report it.
std::string readSerial(int id);
// Alias of an open unit; "" when it has none or cannot report it.
std::string readAlias(int id);

}  // namespace nkrindi
