#include "nkrhost/resolver.h"

#include <NKR_focuser.h>
#include <strings.h>

#include <algorithm>
#include <cctype>

namespace nkrhost {
namespace {

bool sameIgnoringCase(const std::string& a, const std::string& b)
{
    return !a.empty() && a.size() == b.size() && strcasecmp(a.c_str(), b.c_str()) == 0;
}

Resolution notFound(const std::string& name, const std::vector<SeenUnit>& seen, const std::string& why = {})
{
    return {-1, Status::failure(kUnitNotFound, "no focuser answers to '" + clippedName(name) + "'" + why +
                                                   " (seen: " + describeSeen(seen) + ")")};
}

Resolution pick(const std::string& name, const std::vector<SeenUnit>& seen, const std::vector<int>& matches,
                const char* hint)
{
    if (matches.size() == 1) return {matches.front(), {}};
    std::string list;
    for (int i : matches) list += (list.empty() ? "" : ", ") + seen[static_cast<std::size_t>(i)].describe();
    return {-1, Status::failure(kUnitAmbiguous, "several focusers answer to '" + clippedName(name) + "' (" + list +
                                                    "); " + hint)};
}

}  // namespace

std::string SeenUnit::describe() const
{
    if (link == Link::Ble) return "Bluetooth " + bleName + " [" + bleAddress + "]";
    std::string text = "USB " + std::to_string(slot);
    if (!serial.empty()) text += " " + serial;
    if (!alias.empty()) text += " (" + alias + ")";
    return text;
}

SeenUnit seenFrom(const Identity& id)
{
    SeenUnit u;
    u.link = id.link;
    u.slot = id.slot;
    u.serial = id.serial;
    u.alias = id.alias;
    u.model = id.model;
    u.bleName = id.bleName;
    u.bleAddress = id.bleAddress;
    return u;
}

std::string describeSeen(const std::vector<SeenUnit>& seen)
{
    std::string list;
    for (const SeenUnit& u : seen) list += (list.empty() ? "" : ", ") + u.describe();
    return list.empty() ? "none" : list;
}

std::string clippedName(const std::string& text)
{
    constexpr std::size_t kMax = 40;
    return text.size() <= kMax ? text : text.substr(0, kMax) + "...";
}

bool isSlotName(const std::string& name)
{
    return !name.empty() && name.size() <= 3 &&
           std::all_of(name.begin(), name.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

Resolution resolveUnit(const std::string& rawName, const std::vector<SeenUnit>& seen)
{
    const std::string name = trimmed(rawName);
    if (name.empty()) return notFound(name, seen);

    if (isSlotName(name)) {
        const int slot = std::stoi(name);
        if (slot >= NKR_BLE_FIRST_ID)
            return notFound(name, seen,
                            ": USB units have slot ids 0 to 49; Bluetooth slots exist only inside the "
                            "program that connected them, so name a Bluetooth unit by its name or address");
        for (std::size_t i = 0; i < seen.size(); ++i)
            if (seen[i].link == Link::Usb && seen[i].slot == slot) return {static_cast<int>(i), {}};
        return notFound(name, seen);
    }

    std::vector<int> matches;
    const std::string serial = normalizedSerial(name);
    if (!serial.empty()) {
        for (std::size_t i = 0; i < seen.size(); ++i)
            if (seen[i].serial == serial) matches.push_back(static_cast<int>(i));
        // Units sold with one factory serial can only be told apart otherwise.
        if (!matches.empty()) return pick(name, seen, matches, "name one by its slot id or alias");
    }
    for (std::size_t i = 0; i < seen.size(); ++i) {
        const SeenUnit& u = seen[i];
        if (sameIgnoringCase(u.alias, name) || u.bleName == name || sameIgnoringCase(u.bleAddress, name))
            matches.push_back(static_cast<int>(i));
    }
    if (!matches.empty()) return pick(name, seen, matches, "name one by its serial number or address");

    for (std::size_t i = 0; i < seen.size(); ++i)
        if (seen[i].bleName.size() > name.size() && seen[i].bleName.compare(0, name.size(), name) == 0)
            matches.push_back(static_cast<int>(i));
    if (!matches.empty()) return pick(name, seen, matches, "give the whole name");
    return notFound(name, seen);
}

}  // namespace nkrhost
