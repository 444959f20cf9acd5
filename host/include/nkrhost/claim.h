// Which program holds a unit for a purpose: an INDI driver instance driving
// it, the one program compensating its temperature. A claim is an flock on a
// small file in a private runtime folder, released by the kernel when the
// program ends, and carries a line that says who holds it.
#pragma once

#include <string>

#include "nkrhost/errors.h"

namespace nkrhost {

// $XDG_RUNTIME_DIR/nkr-focuser, or /tmp/nkr-focuser-<uid>; created mode
// 0700 on first use. "" when it cannot be made or is not ours.
std::string claimDirectory();
// The short text of a file there (a holder's line, a note); "" when none.
std::string readClaimText(const std::string& path);

class UnitClaim {
public:
    UnitClaim() = default;
    UnitClaim(const UnitClaim&) = delete;
    UnitClaim& operator=(const UnitClaim&) = delete;
    ~UnitClaim() { release(); }

    // Claims unitKey for purpose ("driver", "tempcomp"), as holder ("INDI
    // Main Focuser", "nkr tempcomp"). Fails with kUnitInUse, naming the
    // holder, when another program has it. Without a claim folder there is
    // nothing to coordinate with, and the claim succeeds.
    Status take(const std::string& purpose, const std::string& unitKey, const std::string& holder);
    void release();
    bool held() const { return m_fd >= 0; }

    // Who holds the claim ("" when nobody does).
    static std::string holder(const std::string& purpose, const std::string& unitKey);

private:
    int m_fd = -1;
};

// ---- who holds a unit ------------------------------------------------------
// At most one of our programs holds a unit at a time: the "unit" claim on
// its key (the unit session takes it), and for a Bluetooth unit also on its
// address, so that a program finds it held before connecting.

// The holder of a unit ("" when nobody holds it): "nkr-alpaca (focuser 0) (pid 12)".
std::string unitHolder(const std::string& unitKey);
// The holder of the Bluetooth unit at an address, known before connecting
// to it (a held Bluetooth unit is also claimed by its address).
std::string bluetoothHolder(const std::string& address);
// Takes the claim on a held Bluetooth unit's address (see bluetoothHolder).
void takeBluetoothHold(UnitClaim& claim, const std::string& address, const std::string& holder);
// The sentence that refuses a command to a program that does not hold the
// unit, naming the holder and where to go instead.
Status heldElsewhere(const std::string& unitKey, const std::string& holder);
// Takes the "unit" claim of unitKey for holder; kUnitInUse (heldElsewhere)
// when another program has it.
Status takeUnitHold(UnitClaim& claim, const std::string& unitKey, const std::string& holder);

}  // namespace nkrhost
