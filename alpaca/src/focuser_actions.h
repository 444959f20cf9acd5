// Settings reached through the Alpaca `action` member: backlash, reverse,
// beep, maximum force, LED, alias and speed. An empty Parameters reads the
// setting, a value writes it.
#pragma once

#include <string>
#include <vector>

#include "focuser_members.h"

namespace alpaca {

const std::vector<std::string>& actionNames();
// Runs the action (name matched case-insensitively); ActionNotImplemented for an unknown name.
Answer runAction(DeviceRegistry& registry, Unit& unit, const std::string& name, const std::string& parameters);

}  // namespace alpaca
