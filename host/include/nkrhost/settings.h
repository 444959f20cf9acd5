// The host programs' view of each unit, kept per unit (by serial number) in
// one JSON file: $XDG_CONFIG_HOME/nkr/units.json (~/.config/nkr/units.json).
// Every change is a read-modify-write under an exclusive lock on
// units.json.lock, written to a temporary file and renamed over the old one,
// so two programs never lose each other's change and a crash never leaves a
// half-written file. Keys this version does not know are kept as they are.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "nkrhost/errors.h"

namespace nkrhost {

struct TempCompSettings {
    bool enabled = false;
    double coefficient = 0.0;  // steps per degree Celsius, signed
    double deadband = 0.5;     // degrees Celsius
};

struct ApproachSettings {
    bool enabled = false;
    int direction = +1;  // the side every move ends from: +1 outward (rising position), -1 inward
    int overshoot = 0;   // steps past the target before coming back
};

// A firmware update that stopped part-way: the unit stays in update mode
// (and will not move) until an update completes.
struct PendingUpdate {
    long long written = 0;
    long long total = 0;
};

struct UnitSettings {
    std::string name;                       // display name; "" = none
    std::optional<int> maxPosition;         // the user's maximum, as the host programs enforce it
    std::optional<double> stepSizeMicrons;  // microns per step; none until the user sets it
    TempCompSettings tempComp;
    std::map<std::string, int> positions;   // named positions
    ApproachSettings approach;
    std::optional<PendingUpdate> pendingUpdate;
};

// $XDG_CONFIG_HOME, or ~/.config: where the host programs keep their files.
std::string configHome();

class HostSettings {
public:
    // $XDG_CONFIG_HOME/nkr/units.json, or ~/.config/nkr/units.json.
    static std::string defaultPath();

    explicit HostSettings(std::string path = defaultPath());
    const std::string& path() const { return m_path; }

    // The settings of one unit; a missing file or unit gives the defaults.
    // A damaged file is an error (it is never overwritten silently).
    Status read(const std::string& unitKey, UnitSettings& out) const;
    // Applies change to the unit's current settings under the file's lock
    // and writes the file when change succeeds; nothing is written when it fails.
    Status update(const std::string& unitKey, const std::function<Status(UnitSettings&)>& change);

    // Whether the host programs keep the library's one shared saved record
    // instead of one record per unit (default: per unit).
    bool sharedRecord() const;
    Status setSharedRecord(bool shared);

    // The whole file as JSON text ("{}" when there is none), and the settings
    // of one unit as JSON text: what the C interface hands to Python.
    Status readJson(const std::string& unitKey, std::string& json) const;
    // Merges a JSON object of settings into the unit's (same keys as readJson;
    // null removes a value). Values of the wrong type are refused.
    Status mergeJson(const std::string& unitKey, const std::string& json);

private:
    std::string m_path;
};

// The name the host programs show for a unit: the display name of its host
// settings, else its alias, else its model text ("NKR" when it has none).
std::string displayName(const std::string& settingsName, const std::string& alias, const std::string& model);

// Chooses the library's saved record for this process before any unit is
// opened: one record per unit (NKR_STATE_PER_UNIT=1) unless the settings or
// an explicit NKR_STATE_PER_UNIT in the environment say otherwise.
void chooseSavedRecord(const HostSettings& settings);

}  // namespace nkrhost
