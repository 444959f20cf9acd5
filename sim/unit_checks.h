// What a unit's firmware checks in a message before it acts on it. Each
// check names the first fault it finds; nullopt means the message is good.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "world.h"

namespace nkrsim::detail {

// A feature report written to the unit: its id and length.
std::optional<Refusal> checkReportFrame(const Unit& unit, const uint8_t* report, size_t len);
// A feature report read from the unit: input report 1, whole.
std::optional<Refusal> checkReportRead(const uint8_t* report, size_t len);
// A device command (byte 0 the report id, then 7E 5A, command, payload; len
// counts what the link carried): its mark, command and fixed bytes.
std::optional<Refusal> checkCommand(const uint8_t* report, size_t len);
// A Bluetooth request frame: kind, length bytes, reserved bytes, checksum, command type.
std::optional<Refusal> checkRequestFrame(const std::vector<uint8_t>& frame);
// An extended command's payload outside a firmware update: all-information or update start.
std::optional<Refusal> checkExtended(const std::vector<uint8_t>& payload);

// Counts a refused message in the unit's record.
void refuse(Unit& unit, Refusal why, const uint8_t* message, size_t len);

}  // namespace nkrsim::detail
