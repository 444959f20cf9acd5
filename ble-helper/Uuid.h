// Bluetooth UUID helpers for picking the unit's serial service.
#pragma once
#include <string>

namespace blueshim {

// Lower-case copy, so UUIDs from BlueZ and from the environment compare.
std::string lowerCase(std::string text);

// True for a UUID on the Bluetooth SIG base (0000xxxx-0000-1000-8000-00805f9b34fb):
// the standard services (GAP, GATT, battery, device information...).
bool isSigUuid(const std::string& uuid);

// True for "AA:BB:CC:DD:EE:FF" (hex digits, either case).
bool isBluetoothAddress(const std::string& text);

// The address as a 48-bit number, 0 when `text` is not an address.
long long addressValue(const std::string& text);

}  // namespace blueshim
