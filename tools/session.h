// Finding and opening the one unit a command works on: a USB unit by its
// slot id, or a Bluetooth unit by name or address (scan, connect, pair).
// The session closes or disconnects the unit when it ends.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace nkrtool {

// What the user named on the command line.
struct UnitTarget {
    std::optional<int> usbId;  // ID argument: a slot id
    std::string ble;           // --ble NAME-OR-ADDRESS
    int bleScanSeconds = 3;    // --ble-scan
    std::string usbName;       // ID argument: a serial number or an alias
};

// Parses an ID argument that is a number: a USB slot id, 0..49. Throws a
// usage error that gives the valid range for anything else.
int parseUsbId(const std::string& text);
// True when an ID argument names a unit by serial number or alias rather
// than by slot id (anything but a number of at most three digits).
bool isUnitName(const std::string& text);

// Builds the target from the positional arguments of a per-unit command:
// without --ble the first argument is the ID and is removed from args.
UnitTarget takeTarget(std::vector<std::string>& args, const std::string& ble, int bleScanSeconds);

// Refuses arguments left over after the unit was taken; with --ble an ID
// given as well is named as such.
void rejectExtraArgs(const std::vector<std::string>& args, const UnitTarget& target);

// One unit found by a Bluetooth scan.
struct BleUnit {
    std::string name;
    std::string address;
};
// Scans for Bluetooth units for about the given time. Throws on failure.
std::vector<BleUnit> scanBluetooth(int seconds);

// The slot ids of the USB units found by a fresh scan, in scan order.
std::vector<int> scanUsbSlots();

class UnitSession {
public:
    // How the session ends: a command that changes something closes the unit,
    // which stops a move and saves position and settings to the settings
    // file; a read-only command leaves the unit as it found it (no close, so
    // the file is not rewritten and a move started elsewhere goes on).
    enum class Access { Change, ReadOnly };

    // Opens the unit; throws ToolError when it is unknown or cannot be opened.
    explicit UnitSession(const UnitTarget& target, Access access = Access::Change);
    ~UnitSession();
    UnitSession(const UnitSession&) = delete;
    UnitSession& operator=(const UnitSession&) = delete;

    int id() const { return id_; }
    bool isBle() const { return ble_; }
    // "USB unit 0" or "Bluetooth unit NKR Pro_A1B2".
    const std::string& label() const { return label_; }
    // The scanned name and address of a Bluetooth unit (empty over USB).
    const std::string& bleName() const { return bleName_; }
    const std::string& bleAddress() const { return bleAddress_; }

    // Leaves the unit as it is when the session ends: no close, so a move
    // that was started keeps running after the tool exits.
    void leaveOpen() { leaveOpen_ = true; }

    // Closes and opens the unit again (a USB unit is rescanned first, since
    // it may have restarted; a Bluetooth unit is reconnected and paired).
    // retrySeconds: how long to keep trying while the unit comes back.
    void reopen(int retrySeconds);

    // Closes now (the destructor then does nothing); errors are ignored.
    void close();

private:
    void openUsb(int slot);
    void openUsbByName(const std::string& name);
    void openBle();

    UnitTarget target_;
    int id_ = -1;
    bool ble_ = false;
    bool open_ = false;
    bool leaveOpen_ = false;
    std::string label_;
    std::string bleName_, bleAddress_;
};

}  // namespace nkrtool
