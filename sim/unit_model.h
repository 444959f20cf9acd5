// Firmware side of a simulated unit, shared by the USB and Bluetooth fronts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "world.h"

namespace nkrsim::detail {

// major*100 + minor*10 + build, as the host computes it.
int firmwareVersion(const UnitState& st);

// Sets the state a unit has right after power-up from its spec.
void powerOn(Unit& unit);

// Runs one command report (byte 0 = report id 3, then 7E 5A, command,
// payload). A report without the 7E 5A mark is ignored: false, no state
// change, no reply. Otherwise reply holds the input report (byte 0 = 1, 7E 5A,
// echo, data from byte 4), kInputReportLen bytes or more.
bool runCommand(Unit& unit, const uint8_t* report, size_t len, std::vector<uint8_t>& reply);

// Reports the firmware version the update configuration names from now on.
void finishUpdate(Unit& unit);

// Data of the Bluetooth all-information answer from answer index 4 on.
std::vector<uint8_t> allInfoData(Unit& unit);

}  // namespace nkrsim::detail
