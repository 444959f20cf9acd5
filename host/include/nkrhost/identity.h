// How every host program names a unit and shows its numbers: one serial
// format (16 upper-case hexadecimal digits), one alias reader, one model
// text, and what an open unit says about itself.
#pragma once

#include <string>

namespace nkrhost {

enum class Link { Usb, Ble };
const char* linkName(Link link);  // "USB", "Bluetooth"

// The 8 serial bytes as 16 upper-case hexadecimal digits.
std::string serialText(const unsigned char serial[8]);
// A serial number as typed by a person ("12:34:56:78 9a-bc-de-f0"): the 16
// digits in upper case, or "" when the text is not one.
std::string normalizedSerial(const std::string& text);
// The alias inside a unit name such as "NKR(scope1)"; "" for "NKR". Reads
// at most capacity bytes of name (device records need not end in a NUL).
std::string aliasFromName(const char* name, std::size_t capacity);
// A device text made safe to show: stops at NUL or capacity, non-printable
// bytes become '?'.
std::string deviceText(const char* text, std::size_t capacity);
// Blanks at both ends removed.
std::string trimmed(const std::string& text);

struct Firmware {
    int code = -1;  // result of the read
    int major = 0, minor = 0, build = 0;
    int number() const { return major * 100 + minor * 10 + build; }
    std::string text() const;  // "3.8.2"
};

// What an open unit says about itself; each part with the code of its read.
struct Identity {
    Link link = Link::Usb;
    int slot = -1;
    int propertyCode = -1;
    std::string name;   // "NKR" or "NKR(alias)"
    std::string alias;  // "" when none
    int stepRange = 0;  // largest position the firmware takes
    int serialCode = -1;
    std::string serial;  // 16 hex digits; "" when the unit cannot report one
    int modelCode = -1;
    std::string model;  // model text ("NKRN", "NKR Pro"); "" when none
    Firmware firmware;
    std::string bleName, bleAddress;  // Bluetooth units: as the scan saw them

    // The key a unit is known by across programs and restarts: its serial
    // number, else its Bluetooth address ("ble-C0:FF:EE:00:00:02"), else its
    // USB slot ("usb-slot-0", good only while it stays plugged in).
    std::string key() const;
    // "USB unit 0", "USB unit 0 (Main)", "Bluetooth unit NKR Pro_A1B2".
    std::string label() const;
    // The model text, or "NKR" when the unit reports none.
    std::string modelOrDefault() const;
};

// Reads the identity of an open unit (each read may fail on its own; the
// codes say which).
Identity readIdentity(int slot, Link link);
Firmware readFirmware(int slot);

}  // namespace nkrhost
