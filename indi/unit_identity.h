// How the driver names a unit (serial number text, alias) and decides whether
// the unit matches what the user typed into the unit-selection property.
// Pure functions: no SDK calls, so they are tested on their own.
#pragma once

#include <string>

namespace nkrindi {

// The 8 serial bytes as 16 upper-case hexadecimal digits.
std::string serialText(const unsigned char* serial8);

// The alias inside a property name such as "NKR(scope1)"; "" when the name
// carries none ("NKR").
std::string aliasFromUnitName(const char* unitName);

// Leading and trailing blanks removed.
std::string trimmed(const std::string& text);

// True when the text is a serial number: 16 hexadecimal digits, separators
// ':', '-', ' ' allowed.
bool isSerialText(const std::string& text);
// The serial number as the unit reports it: separators removed, upper case.
std::string normalizedSerial(const std::string& text);

// True when the selector names this USB unit: its serial number (case and
// separators ':', '-', ' ' ignored) or its alias (case ignored). An empty
// selector matches nothing: the caller then takes the first unit.
bool usbSelectorMatches(const std::string& selector, const std::string& serial,
                        const std::string& alias);

// True when a scanned Bluetooth unit is the one asked for: its advertised
// name (exact) or its address (case ignored).
bool bleSelectorMatches(const std::string& selector, const std::string& name,
                        const std::string& address);

}  // namespace nkrindi
