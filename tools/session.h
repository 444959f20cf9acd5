// The one unit a command works on, named as the user named it (slot id,
// serial, alias, Bluetooth name, address or unique beginning of a Bluetooth
// name, or --ble NAME), found and held through the host layer. The session
// closes or disconnects the unit when it ends.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "nkrhost/unit.h"

namespace nkrtool {

// What the user named on the command line.
struct UnitTarget {
    std::string name;           // the ID argument, or --ble's value
    bool bluetoothOnly = false; // named with --ble
    int bleScanMillis = nkrhost::kBleScanMillis;
};

// Builds the target from the positional arguments of a per-unit command:
// without --ble the first argument is the ID and is removed from args.
UnitTarget takeTarget(std::vector<std::string>& args, const std::string& ble, int bleScanSeconds);

// Refuses arguments left over after the unit was taken; with --ble an ID
// given as well is named as such.
void rejectExtraArgs(const std::vector<std::string>& args, const UnitTarget& target);

class UnitSession {
public:
    // How the session ends: a command that changes something closes the unit,
    // which stops a move and saves position and settings; a read-only command
    // leaves the unit as it found it (no close, so the saved record is not
    // rewritten and a move started elsewhere goes on).
    enum class Access { Change, ReadOnly };

    // Opens the unit; throws ToolError when it is unknown or cannot be opened.
    explicit UnitSession(const UnitTarget& target, Access access = Access::Change);
    ~UnitSession();
    UnitSession(const UnitSession&) = delete;
    UnitSession& operator=(const UnitSession&) = delete;

    nkrhost::Unit& unit() { return *unit_; }
    const nkrhost::Unit& unit() const { return *unit_; }
    int id() const { return unit_->slot(); }
    bool isBle() const { return unit_->link() == nkrhost::Link::Ble; }
    // "USB unit 0" or "Bluetooth unit NKR Pro_A1B2".
    std::string label() const { return unit_->label(); }
    const std::string& bleName() const { return unit_->identity().bleName; }
    const std::string& bleAddress() const { return unit_->identity().bleAddress; }

    // Leaves the unit as it is when the session ends: no close, so a move
    // that was started keeps running after the tool exits.
    void leaveOpen() { unit_->keepOpen(); }

    // Closes and opens the unit again (a USB unit may have restarted; a
    // Bluetooth unit is reconnected and paired), trying for retrySeconds.
    void reopen(int retrySeconds);

    // Closes now (the destructor then does nothing).
    void close() { unit_->close(); }

private:
    std::unique_ptr<nkrhost::Unit> unit_;
};

}  // namespace nkrtool
