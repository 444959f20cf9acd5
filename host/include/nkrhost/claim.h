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

}  // namespace nkrhost
