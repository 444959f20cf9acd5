// Every setting a person can change, once: its name, type, range, units,
// where it lives (on the unit, or in the host settings file), its label and
// the sentence that refuses a bad value. The tool's `set`, the control page,
// the Alpaca actions, the INDI properties, Python's properties and the host
// settings file all check values here, so a value is refused (never clamped,
// never wrapped) with the same words everywhere.
#pragma once

#include <string>
#include <vector>

#include "nkrhost/errors.h"

namespace nkrhost {

class Unit;

enum class SettingType {
    Whole,    // a whole number within low..high
    Decimal,  // a number within low..high
    Switch,   // on / off
    Text,     // printable ASCII, low..high characters
    Choice,   // one of `choices`
};

enum class SettingHome {
    Unit,  // kept by the unit itself
    Host,  // kept in the host settings file, by the unit's key
};

struct SettingInfo {
    const char* name;     // "backlash", "temp-coefficient": what the user types
    const char* label;    // "Backlash": at most 12 characters, for panels
    SettingType type;
    double low, high;     // numbers: the range; text: the length
    const char* units;    // "steps", "steps/°C", "" for none
    SettingHome home;
    const char* choices;  // Choice: "out|in|off"; else ""
    const char* help;     // one line on what it does
};

// The catalogue, in the order the settings are listed to people.
const std::vector<SettingInfo>& settingCatalogue();
// The setting a name stands for: its name in any case, with '-', '_' or
// nothing between words ("temp-coefficient", "TempCoefficient"); also
// "max-force" for "force" and "max-position" for "max-step". Null when none.
const SettingInfo* findSetting(const std::string& name);
// "backlash, max-step, ...": every name, for a message that lists them.
std::string settingNames();

// A value of a setting, read from what a person typed or from a unit.
struct SettingValue {
    double number = 0;  // Whole, Decimal, Switch (0 or 1)
    std::string text;   // Text, Choice
};

// "backlash must be a whole number from 0 to 255 steps (got 300)": the one
// sentence that refuses a bad value, with the range.
std::string badValueSentence(const SettingInfo& info, const std::string& got);
// Reads a typed value ("20", "-3.5", "on", "Main", "out"); kBadSetting with
// badValueSentence for anything else.
Status parseSetting(const SettingInfo& info, const std::string& typed, SettingValue& out);
// Checks a number given as a number (INDI, JSON); kBadSetting when outside.
Status checkSettingNumber(const SettingInfo& info, double value);
// The value as people read it: "20", "on", "-3.50", "Main".
std::string settingText(const SettingInfo& info, const SettingValue& value);

// Reads the setting from the unit or its host settings.
Status readSetting(Unit& unit, const SettingInfo& info, SettingValue& out);
// Writes a checked value to the unit or its host settings. The alias is
// also refused when it looks like a slot id or another unit has it.
Status writeSetting(Unit& unit, const SettingInfo& info, const SettingValue& value);

// A text the unit keeps (alias, Bluetooth name): printable ASCII of at most
// `length` characters; an alias must not look like a slot id.
Status checkUnitText(const SettingInfo& info, const std::string& text);

}  // namespace nkrhost
