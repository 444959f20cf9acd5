#include "nkrhost/setting_catalogue.h"

#include <NKR_focuser.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "nkrhost/link.h"
#include "nkrhost/resolver.h"
#include "nkrhost/unit.h"

namespace nkrhost {
namespace {

constexpr SettingType W = SettingType::Whole, D = SettingType::Decimal, S = SettingType::Switch,
                      T = SettingType::Text, C = SettingType::Choice;
constexpr SettingHome U = SettingHome::Unit, H = SettingHome::Host;

std::string folded(const std::string& name)
{
    std::string out;
    for (unsigned char c : name)
        if (c != '-' && c != '_' && c != ' ') out += static_cast<char>(std::tolower(c));
    return out;
}

std::string number(double v)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.10g", v);
    return text;
}

std::string clipped(const std::string& text)
{
    std::string out;
    for (unsigned char c : text.substr(0, 40)) out += c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '?';
    return text.size() > 40 ? out + "..." : out;
}

bool printableAscii(const std::string& s)
{
    return std::all_of(s.begin(), s.end(), [](unsigned char c) { return c >= 0x20 && c < 0x7F; });
}

using IntGet = int (*)(int, int*);
using IntSet = int (*)(int, int);
using BoolGet = int (*)(int, bool*);
using BoolSet = int (*)(int, bool);

struct UnitCalls {
    const char* name;
    IntGet getInt;
    IntSet setInt;
    BoolGet getBool;
    BoolSet setBool;
};

const UnitCalls kUnitCalls[] = {
    {"backlash", NKRGetBacklash, NKRSetBacklash, nullptr, nullptr},
    {"speed", NKRGetSpeed, NKRSetSpeed, nullptr, nullptr},
    {"force", NKRGetMaxForce, NKRSetMaxForce, nullptr, nullptr},
    {"beep", nullptr, nullptr, NKRGetBeep, NKRSetBeep},
    {"reverse", nullptr, nullptr, NKRGetReverse, NKRSetReverse},
    {"led", nullptr, nullptr, NKRGetLedState, NKRSetLedState},
};

const UnitCalls* unitCalls(const std::string& name)
{
    for (const UnitCalls& c : kUnitCalls)
        if (name == c.name) return &c;
    return nullptr;
}

Status readAlias(Unit& unit, std::string& alias)
{
    _NKR_INFO info{};
    const int rc = NKRGetProperty(unit.slot(), &info);
    unit.noteResult(rc);
    if (rc == NKR_SUCCESS) alias = aliasFromName(info.Name, sizeof info.Name);
    return Status::fromSdk(rc, "reading the alias");
}

// Another unit on USB that already answers to this alias.
bool aliasTaken(const Unit& unit, const std::string& alias)
{
    if (alias.empty()) return false;
    for (const Identity& id : identifyUsbUnits())
        if (id.slot != unit.slot() && id.alias == alias) return true;
    return false;
}

}  // namespace

const std::vector<SettingInfo>& settingCatalogue()
{
    static const std::vector<SettingInfo> catalogue = {
        {"max-step", "Maximum", W, 1, 1000000, "steps", H, "",
         "the largest position every program moves to (1 .. the unit's step range, not below where it stands)"},
        {"backlash", "Backlash", W, 0, 255, "steps", U, "", "steps added to take up slack on a change of direction"},
        {"speed", "Speed", W, 0, 65535, "steps/s", U, "", "motor speed (firmware before 3.3.6)"},
        {"force", "Motor force", W, 0, 15, "", U, "", "motor force"},
        {"beep", "Beeper", S, 0, 1, "", U, "", "the unit beeps on key presses"},
        {"reverse", "Reverse", S, 0, 1, "", U, "", "the motor turns the other way"},
        {"led", "LED", S, 0, 1, "", U, "", "the unit's LED (battery model)"},
        {"alias", "Alias", T, 0, 8, "", U, "", "a short name kept by the unit, shown in its name"},
        {"ble-name", "BLE name", T, 1, 11, "", U, "", "the name the unit advertises over Bluetooth"},
        {"name", "Display name", T, 0, 32, "", H, "", "the name the host programs show"},
        {"step-size", "Step size", D, 0.001, 10000, "µm", H, "", "microns the focus moves per step"},
        {"temp-comp", "Temp comp", S, 0, 1, "", H, "", "temperature compensation on or off"},
        {"temp-coefficient", "Temp coeff", D, -10000, 10000, "steps/°C", H, "",
         "steps the focus moves per degree Celsius"},
        {"temp-deadband", "Dead band", D, 0, 100, "°C", H, "", "temperature change that makes a correction"},
        {"approach", "Approach", C, 0, 0, "", H, "out|in|off", "the side every move ends from"},
        {"approach-overshoot", "Overshoot", W, 0, 100000, "steps", H, "", "steps past the target before coming back"},
    };
    return catalogue;
}

const SettingInfo* findSetting(const std::string& name)
{
    std::string key = folded(name);
    if (key == "maxforce") key = "force";
    if (key == "maxposition" || key == "maxstep" || key == "maximum") key = "maxstep";
    for (const SettingInfo& info : settingCatalogue())
        if (folded(info.name) == key) return &info;
    return nullptr;
}

std::string settingNames()
{
    std::string list;
    for (const SettingInfo& info : settingCatalogue()) list += (list.empty() ? "" : ", ") + std::string(info.name);
    return list;
}

std::string badValueSentence(const SettingInfo& info, const std::string& got)
{
    std::string what;
    const std::string units = info.units[0] != '\0' ? std::string(" ") + info.units : "";
    switch (info.type) {
    case SettingType::Whole:
        what = "a whole number from " + number(info.low) + " to " + number(info.high) + units;
        if (std::strcmp(info.name, "max-step") == 0)
            what = "a whole number of steps from 1 to the unit's step range, not below the position it stands at";
        break;
    case SettingType::Decimal:
        what = "a number from " + number(info.low) + " to " + number(info.high) + units;
        break;
    case SettingType::Switch:
        what = "on or off";
        break;
    case SettingType::Text:
        what = info.low > 0 ? number(info.low) + " to " + number(info.high) + " plain characters (printable ASCII)"
                            : "at most " + number(info.high) + " plain characters (printable ASCII)";
        break;
    case SettingType::Choice: {
        // "out|in|off" -> "out, in or off"
        std::vector<std::string> choices;
        std::string rest = info.choices;
        for (auto bar = rest.find('|'); bar != std::string::npos; bar = rest.find('|')) {
            choices.push_back(rest.substr(0, bar));
            rest.erase(0, bar + 1);
        }
        choices.push_back(rest);
        for (std::size_t i = 0; i < choices.size(); ++i)
            what += (i == 0 ? "" : i + 1 == choices.size() ? " or " : ", ") + choices[i];
        break;
    }
    }
    return std::string(info.name) + " must be " + what + " (got '" + clipped(got) + "')";
}

Status checkSettingNumber(const SettingInfo& info, double value)
{
    const bool whole = info.type != SettingType::Decimal;
    if (std::isfinite(value) && value >= info.low && value <= info.high && (!whole || std::floor(value) == value))
        return {};
    return Status::failure(kBadSetting, badValueSentence(info, number(value)));
}

Status checkUnitText(const SettingInfo& info, const std::string& text)
{
    if (text.size() < info.low || text.size() > info.high || !printableAscii(text))
        return Status::failure(kBadSetting, badValueSentence(info, text));
    if (std::strcmp(info.name, "alias") == 0 && !text.empty() && isSlotName(text))
        return Status::failure(kBadSetting, "alias must not be a number: '" + text +
                                                "' would be read as a slot id; add a letter");
    return {};
}

Status parseSetting(const SettingInfo& info, const std::string& typed, SettingValue& out)
{
    out = {};
    const Status bad = Status::failure(kBadSetting, badValueSentence(info, typed));
    switch (info.type) {
    case SettingType::Whole:
    case SettingType::Decimal: {
        const std::string text = trimmed(typed);
        if (text.empty() || text.size() > 40) return bad;
        char* end = nullptr;
        const double v = std::strtod(text.c_str(), &end);
        if (end != text.c_str() + text.size() || std::isnan(v)) return bad;
        if (!checkSettingNumber(info, v).ok()) return Status::failure(kBadSetting, badValueSentence(info, typed));
        out.number = v;
        return {};
    }
    case SettingType::Switch: {
        const std::string v = folded(typed);
        if (v == "on" || v == "true" || v == "1" || v == "yes") return out.number = 1, Status{};
        if (v == "off" || v == "false" || v == "0" || v == "no") return out.number = 0, Status{};
        return bad;
    }
    case SettingType::Text: {
        Status ok = checkUnitText(info, typed);
        if (!ok.ok()) return ok;
        out.text = typed;
        return {};
    }
    case SettingType::Choice: {
        const std::string v = folded(typed);
        const std::string choices = std::string("|") + info.choices + "|";
        if (v.empty() || choices.find("|" + v + "|") == std::string::npos) return bad;
        out.text = v;
        return {};
    }
    }
    return bad;
}

std::string settingText(const SettingInfo& info, const SettingValue& value)
{
    switch (info.type) {
    case SettingType::Whole:
        return std::to_string(static_cast<long long>(value.number));
    case SettingType::Decimal:
        return number(value.number);
    case SettingType::Switch:
        return value.number != 0 ? "on" : "off";
    default:
        return value.text;
    }
}

Status readSetting(Unit& unit, const SettingInfo& info, SettingValue& out)
{
    out = {};
    const std::string name = info.name;
    if (name == "max-step") {
        int max = 0;
        Status st = unit.maximum(max);
        out.number = max;
        return st;
    }
    if (info.home == SettingHome::Host) {
        UnitSettings s;
        if (Status st = unit.settings(s); !st.ok()) return st;
        if (name == "name") out.text = s.name;
        else if (name == "step-size") out.number = s.stepSizeMicrons.value_or(0);
        else if (name == "temp-comp") out.number = s.tempComp.enabled ? 1 : 0;
        else if (name == "temp-coefficient") out.number = s.tempComp.coefficient;
        else if (name == "temp-deadband") out.number = s.tempComp.deadband;
        else if (name == "approach") out.text = !s.approach.enabled ? "off" : s.approach.direction < 0 ? "in" : "out";
        else if (name == "approach-overshoot") out.number = s.approach.overshoot;
        return {};
    }
    if (name == "alias") return readAlias(unit, out.text);
    if (name == "ble-name") {
        out.text = unit.identity().bleName;
        return {};
    }
    const UnitCalls* calls = unitCalls(name);
    if (calls == nullptr) return Status::failure(kBadSetting, "'" + name + "' is not a setting");
    int rc = NKR_SUCCESS;
    if (calls->getInt != nullptr) {
        int v = 0;
        rc = calls->getInt(unit.slot(), &v);
        out.number = v;
    } else {
        bool v = false;
        rc = calls->getBool(unit.slot(), &v);
        out.number = v ? 1 : 0;
    }
    unit.noteResult(rc);
    return Status::fromSdk(rc, std::string("reading ") + info.name);
}

Status writeSetting(Unit& unit, const SettingInfo& info, const SettingValue& value)
{
    const std::string name = info.name;
    if (info.type == SettingType::Text) {
        if (Status bad = checkUnitText(info, value.text); !bad.ok()) return bad;
    } else if (info.type != SettingType::Choice) {
        if (Status bad = checkSettingNumber(info, value.number); !bad.ok()) return bad;
    }
    // The user's maximum is the host programs' (any program may change it);
    // the holder also puts it on the unit (Session::writeSetting, and at its
    // next look when another program changed it).
    if (name == "max-step") return unit.setMaximum(static_cast<long long>(value.number), false);
    if (info.home == SettingHome::Host) {
        return unit.hostSettings().update(unit.key(), [&](UnitSettings& s) {
            if (name == "name") s.name = value.text;
            else if (name == "step-size") s.stepSizeMicrons = value.number;
            else if (name == "temp-comp") s.tempComp.enabled = value.number != 0;
            else if (name == "temp-coefficient") s.tempComp.coefficient = value.number;
            else if (name == "temp-deadband") s.tempComp.deadband = value.number;
            else if (name == "approach-overshoot") s.approach.overshoot = static_cast<int>(value.number);
            else if (name == "approach") {
                if (value.text != "out" && value.text != "in" && value.text != "off")
                    return Status::failure(kBadSetting, badValueSentence(info, value.text));
                s.approach.enabled = value.text != "off";
                if (value.text != "off") s.approach.direction = value.text == "in" ? -1 : +1;
            }
            return Status{};
        });
    }
    int rc = NKR_SUCCESS;
    if (name == "alias") {
        if (aliasTaken(unit, value.text))
            return Status::failure(kBadSetting, "another focuser is already called '" + value.text +
                                                    "'; choose an alias of its own");
        _NKR_ID alias{};
        std::memcpy(alias.id, value.text.data(), std::min(value.text.size(), sizeof alias.id));
        rc = NKRSetID(unit.slot(), alias);
    } else if (name == "ble-name") {
        if (unit.link() != Link::Ble)
            return Status::failure(NKR_ERROR_NOT_SUPPORTED,
                                   "ble-name can only be changed over Bluetooth, and " + unit.label() + " is on USB");
        _NKR_BLE_NAME bleName{};
        std::memcpy(bleName.name, value.text.data(), std::min(value.text.size(), sizeof bleName.name));
        rc = NKRSetBLEName(unit.slot(), bleName);
    } else if (const UnitCalls* calls = unitCalls(name)) {
        rc = calls->setInt != nullptr ? calls->setInt(unit.slot(), static_cast<int>(value.number))
                                      : calls->setBool(unit.slot(), value.number != 0);
    } else {
        return Status::failure(kBadSetting, "'" + name + "' is not a setting");
    }
    unit.noteResult(rc);
    return Status::fromSdk(rc, "setting " + name + " to " + settingText(info, value));
}

}  // namespace nkrhost
