// The one unit a command works on, named as the user named it (slot id,
// serial, alias, Bluetooth name, address or unique beginning of a Bluetooth
// name, or --ble NAME), found and held through the host layer. The session
// closes or disconnects the unit when it ends.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "nkrhost/session.h"
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

// The program name a holding command gives itself ("nkr move"), shown to
// the programs it refuses. main sets it from the command line.
void setHolderName(const std::string& name);

class UnitSession {
public:
    // What the command does with the unit:
    // - Drive: moves it or writes to it, so it holds the unit (refused, with
    //   nothing sent, while another program holds it) and closes it at the
    //   end, which saves position and settings.
    // - Stop: stops it, which any program may do, held or not.
    // - ReadOnly: only looks.
    // Stop and ReadOnly leave the unit as they found it: no close, so the
    // saved record is not rewritten and a move started elsewhere goes on.
    enum class Access { Drive, Stop, ReadOnly };

    // Opens the unit (and holds it for Drive); throws ToolError when it is
    // unknown, cannot be opened, or is held by another program.
    explicit UnitSession(const UnitTarget& target, Access access = Access::Drive);
    ~UnitSession();
    UnitSession(const UnitSession&) = delete;
    UnitSession& operator=(const UnitSession&) = delete;

    nkrhost::Unit& unit() { return session_ ? session_->unit() : *unit_; }
    const nkrhost::Unit& unit() const { return session_ ? session_->unit() : *unit_; }
    // The held unit's session (Drive only).
    nkrhost::Session& session() { return *session_; }
    int id() const { return unit().slot(); }
    bool isBle() const { return unit().link() == nkrhost::Link::Ble; }
    // "USB unit 0" or "Bluetooth unit NKR Pro_A1B2".
    std::string label() const { return unit().label(); }
    const std::string& bleName() const { return unit().identity().bleName; }
    const std::string& bleAddress() const { return unit().identity().bleAddress; }

    // Leaves the unit as it is when the session ends: no close, so a move
    // that was started keeps running after the tool exits.
    void leaveOpen() { unit().keepOpen(); }

    // Closes and opens the unit again (a USB unit may have restarted; a
    // Bluetooth unit is reconnected and paired), trying for retrySeconds.
    void reopen(int retrySeconds);

    // Closes now (the destructor then does nothing).
    void close() { unit().close(); }

private:
    std::unique_ptr<nkrhost::Unit> unit_;
    std::unique_ptr<nkrhost::Session> session_;
};

}  // namespace nkrtool
