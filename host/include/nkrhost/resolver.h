// Naming a unit: the one rule by which every host program turns what a
// person typed into a unit. A name is a USB slot id (0..49), a serial number
// (16 hex digits, separators and case ignored), an alias (case ignored), a
// Bluetooth name, a Bluetooth address (case ignored) or the beginning of a
// Bluetooth name that only one unit has. A name that fits several units is
// refused, never guessed; the message lists what was seen.
#pragma once

#include <string>
#include <vector>

#include "nkrhost/errors.h"
#include "nkrhost/identity.h"

namespace nkrhost {

// One unit a program could see: a USB unit (opened and identified) or a
// Bluetooth unit in range (name and address; serial and alias once known).
struct SeenUnit {
    Link link = Link::Usb;
    int slot = -1;  // USB slot id; Bluetooth: -1 until connected
    std::string serial, alias, model;
    std::string bleName, bleAddress;

    // "USB 0 123456789ABCDEF0 (Main)", "Bluetooth NKR Pro_A1B2 [C0:FF:EE:00:00:02]"
    std::string describe() const;
};

SeenUnit seenFrom(const Identity& identity);

struct Resolution {
    int index = -1;  // into the list given, when status is ok
    Status status;
};

// The unit `name` means among `seen`. The name must not be empty.
Resolution resolveUnit(const std::string& name, const std::vector<SeenUnit>& seen);

// True when a name can only mean a USB slot id (a number of at most three
// digits); such a name never matches an alias or a Bluetooth name.
bool isSlotName(const std::string& name);

// "a, b, c" of describe(), or "none".
std::string describeSeen(const std::vector<SeenUnit>& seen);

// A text echoed in a message, cut to 40 characters with "...".
std::string clippedName(const std::string& text);

}  // namespace nkrhost
