// Control API of the focuser simulator.
//
// The simulator is one shared library that provides the hidapi functions the
// SDK calls (so it can stand in for libhidapi-hidraw.so.0) and the entry
// points of the Bluetooth helper library (so it can stand in for
// libBlueShim.so), over one simulated world per process. Tests link it and use
// this API to plug units in and out, set their state, inject faults and read
// back every report and frame the SDK sent.
//
// Every function is thread-safe (one world lock).
//
// Control from another process: when NKR_SIM_CONTROL=<path> is set ("%p" in
// it stands for the process id), the world's first use starts a thread that
// listens on a unix socket at that path (removed again at exit). It takes one
// command per line and answers each with one line, "ok[ <value>]" or
// "error <reason>":
//   unplug <unit>                 replug <unit>
//   hand-move <unit> <target>     set-temp-raw <unit> <0..65535>
//   set-serial <unit> <16 hex digits>
//   transfers <unit>              "ok <n>": feature reports the SDK sent so far
//   refused <unit>                "ok <n>": messages the unit refused so far
//   state <unit>                  "ok <position> moving|stopped plugged|unplugged"
//   wait-stop <unit> <target> <timeout ms>
//                                 answered once the motor stands at target
//                                 (seen within 1 ms), or "error timed out"
// At most 8 clients at a time; lines up to 256 bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace nkrsim {

using UnitId = int;

// How a unit is built. Everything here can also be changed later.
struct UnitSpec {
    // Firmware version reported by the version selector (major, minor, build).
    int fwMajor = 3, fwMinor = 3, fwBuild = 6;
    char modelLetter = 'A';          // 'E' marks the newer model family
    std::string typeText;            // model text in version answer bytes 8-15 ("NKR Pro", "NKRN")
    int outputReportLen = 16;        // 16 or 64: the report descriptor is built to match
    std::vector<uint8_t> descriptor; // non-empty: served as the report descriptor instead
    bool descriptorReadable = true;  // false: the sysfs descriptor file is missing
    bool usb = true;                 // plugged in on USB
    uint16_t usbVendorId = 0x1209;   // USB ids the unit enumerates with
    uint16_t usbProductId = 0x4E4B;
    bool ble = false;                // advertised over Bluetooth LE
    std::string bleName = "NKR Pro";
    std::string bleAddress;          // default: a made-up address derived from the unit id
    int position = 30000;            // power-on position of the firmware
    int maxStep = 60000;
    int stepsPerSecond = 2000;       // motor speed on the simulated clock
    bool thermistor = false;         // temperature word is a raw ADC reading (firmware 3.0.0)
    int tempRaw = 32500;             // status bytes 11-12 (25.00 degrees scaled)
    // Empty: the unit's own, 12 34 56 78 9A BC DE F0 plus the unit id.
    std::vector<uint8_t> serial;
    std::string alias;
    std::string bleNameSuffix = "A1B2";  // the unit's part of the BLE name
};

// Live state of a unit as its firmware sees it.
struct UnitState {
    int position = 0;
    int target = 0;
    int runState = 0;         // status byte 4: 0 idle, 1 moving, 6 error
    int backlash = 0;
    int speed = 3000;
    int maxStep = 60000;
    int tempRaw = 32500;
    bool beep = false;
    bool reverse = false;
    bool handMoving = false;
    bool handControl = false;
    int force = 0;            // 0..15
    bool led = false;
    bool shippingMode = false;
    bool factoryMode = false;
    std::string motorErr = "E0", batteryErr = "E0";  // "E0" style, first characters shared
    int powerOffReason = 0;
    std::vector<uint8_t> battery = {0, 125, 0x10, 0x68, 0x00, 0x00, 87, 0x00, 0x20, 95, 0x10, 0x68};
    std::vector<uint8_t> serial;
    std::string alias;
    std::string bleNameSuffix;
    int fwMajor = 3, fwMinor = 3, fwBuild = 6;
    char modelLetter = 'A';
    std::string typeText;
    bool thermistor = false;
    int stepsPerSecond = 2000;
    int clearErrorCount = 0;  // clear commands (03 7E 5A 01 0F) received
    bool paired = false;      // BLE pairing with this host
};

// ---- world ----------------------------------------------------------------
// Removes every unit, fault and log, sets the clock to manual at 0 and
// disables the default units. Tests call it first.
void reset();
// Adds the default set (an older USB unit, a newer USB unit, a Bluetooth Pro
// unit). A program that never calls reset() gets these automatically.
//
// The environment variable NKR_SIM_UNITS replaces that set: comma-separated
// entries "link:fw[:letter[:type]]", link one of usb, ble or both, fw three
// digits (major, minor, build), letter the model letter, type the model text;
// e.g. "usb:335,usb:382:E:NKRN,ble:382:E:NKR Pro" (the default set). Bluetooth
// units are named "<type>_<suffix>" with suffixes A1B2, A1B3, ... in order.
// Up to 8 characters of type. An empty value gives no units. A malformed
// value (or NKR_SIM_UNPLUG) is said on stderr in one line and gives no units.
//
// NKR_SIM_STATE=<file> shares the world between processes while the clock is
// real: the units' state is kept in that file (JSON, under an flock on
// <file>.lock), loaded when the world is first used, re-read whenever another
// process changed it and saved after every change. A move goes on in wall-
// clock time between processes. A missing or damaged file (or one made for
// another NKR_SIM_UNITS) gives a fresh world.
void addDefaultUnits();
// Checks NKR_SIM_UNITS and NKR_SIM_UNPLUG without touching the world: false
// with a one-line reason when either is malformed.
bool validateEnvironment(std::string& message);
// Deletes the NKR_SIM_STATE file (under its lock) and puts this process's
// units back to their power-on state. False with the reason on failure.
bool forgetSharedState(std::string& message);

// ---- units ------------------------------------------------------------------
UnitId addUnit(const UnitSpec& spec);
// Unplug (USB and BLE); open handles then fail with ENODEV.
void unplug(UnitId unit);
// Pulls the unit's cable once it has moved that many steps since power-on
// (also NKR_SIM_UNPLUG=<unit id>:<steps> for the default units).
void unplugAfterSteps(UnitId unit, int steps);
// Plug an unplugged unit back in (same path); it powers up at its spec position.
void replug(UnitId unit);
std::string usbPath(UnitId unit);
std::string bleAddress(UnitId unit);
// Reads or changes the unit's state under the world lock.
UnitState state(UnitId unit);
void update(UnitId unit, const std::function<void(UnitState&)>& change);
// Starts a hand-controller move toward target.
void handMove(UnitId unit, int target);
// Sets the unit's temperature in degrees Celsius; with a drift it then moves
// driftPerHour degrees an hour (negative: cooling), held at until if given.
void setTemperature(UnitId unit, double celsius, double driftPerHour = 0.0, std::optional<double> until = {});

// ---- clock ------------------------------------------------------------------
// Manual clock (after reset()): time advances only here. Otherwise real time.
void setManualClock(bool manual);
void advanceMicros(uint64_t us);
uint64_t nowMicros();

// ---- USB faults and traffic -------------------------------------------------
// The next count feature transfers (sends or gets) on this unit fail with errnoValue.
void failTransfers(UnitId unit, int count, int errnoValue);
// The unit refuses to open (hid_open_path returns null) while set.
void refuseOpen(UnitId unit, bool refuse);
// The feature reports the SDK sent to the unit, as sent (byte 0 = report id):
// the latest few thousand, oldest first.
std::vector<std::vector<uint8_t>> sentReports(UnitId unit);
void clearSentReports(UnitId unit);

// ---- Bluetooth faults and traffic -------------------------------------------
// What the length byte of the units' answer frames counts: the three header
// bytes and the payload (the default), the payload alone, or nothing (a
// fixed value). NKR_SIM_BLE_LENGTH=header|payload|fixed:N sets it too.
enum class BleLength { HeaderAndPayload, PayloadOnly, Fixed };
void setBleLength(BleLength length, uint8_t fixedValue = 0);
void setBleSupported(bool supported);        // false: ble_manager_is_ble_supported says no
void setAdapterAddress(const std::string& mac);  // "" : no adapter address
// The next count waits for data on this unit return false (silence).
void bleSilence(UnitId unit, int count);
// The next answer is preceded by a response with an older sequence number.
void bleStaleFirst(UnitId unit);
// The next answer is preceded by a 0x9B new-connection response and emptyWaits empty waits.
void bleNewConnection(UnitId unit, int emptyWaits);
// The next count answers carry a wrong checksum.
void bleCorruptChecksum(UnitId unit, int count);
// The next answer is replaced by a notification with this event code.
void bleNotifyInstead(UnitId unit, uint8_t event);
// The next answer is replaced by these raw bytes (sent as they are).
void bleRawAnswer(UnitId unit, const std::vector<uint8_t>& frame);
// The next answer carries this status byte instead of 0.
void bleStatus(UnitId unit, uint8_t status);
// The next count sends are refused.
void bleRefuseSend(UnitId unit, int count);
// Connecting to the unit fails while set.
void bleRefuseConnect(UnitId unit, bool refuse);
// Drops the connection: the helper reports "disconnected" from its own thread.
void bleDropConnection(UnitId unit);
// Waits until every connection report queued so far has been delivered.
void bleFlushCallbacks();
// The request frames the SDK wrote for this unit, as written: the latest few
// thousand, oldest first.
std::vector<std::vector<uint8_t>> sentFrames(UnitId unit);
void clearSentFrames(UnitId unit);
// Number of helper managers currently connected to the unit.
int bleConnections(UnitId unit);

// ---- what the units refused ---------------------------------------------------
// Each unit checks a message as its firmware does before it acts on it.
// USB: a feature report whose id is not 3, or whose length is not the unit's
// output report length, fails as a stalled transfer does (EPIPE); so does a
// read of another report than input report 1, or of fewer bytes than it
// holds. A report without the 7E 5A mark, with an unknown command byte or
// read selector, too short for its command, or with another value in a byte
// the protocol fixes (the control frame's mode and bits 2-3 of its byte 13;
// the sub-command byte of the clear, Bluetooth-name, shipping, LED and
// factory commands; a firmware chunk's count) is taken and ignored: no state
// change, no answer. Bluetooth: a request whose first byte, length bytes,
// reserved bytes or checksum are wrong, whose command type is unknown, or
// whose device or extended command is refused as above, is not answered.
enum class Refusal { ReportId, ReportLength, Mark, Command, FixedByte, FrameKind, FrameLength, Reserved, Checksum };
struct RefusedMessage {
    Refusal why;
    std::vector<uint8_t> message;  // a USB report with its id; a Bluetooth frame, or the command a good frame carried
};
// The messages the unit refused, oldest first (the latest few thousand).
std::vector<RefusedMessage> refusedMessages(UnitId unit);
void clearRefusedMessages(UnitId unit);
// How many refusals of every unit stand since reset() (cleared ones not):
// zero after any test that meant to send only good messages.
uint64_t refusedTotal();
// "report id", "report length", "mark", "command", "fixed byte", "frame kind",
// "frame length", "reserved byte" or "checksum".
const char* refusalName(Refusal why);

// ---- firmware update ---------------------------------------------------------
struct UpdateConfig {
    bool refuseStart = false;         // USB start answered with a refusal
    int ackLengthDelta = 0;           // BLE block acknowledged as length + delta
    int newFwMajor = 3, newFwMinor = 9, newFwBuild = 0;  // reported after the update
};
void configureUpdate(UnitId unit, const UpdateConfig& config);
// Image bytes received since the last accepted start.
std::vector<uint8_t> receivedImage(UnitId unit);
// True while the unit is in update mode.
bool inUpdateMode(UnitId unit);

}  // namespace nkrsim

// The same two checks for programs that find the simulator at run time (dlsym
// on a process the simulator was loaded into): 1 when good, else 0 with a
// NUL-terminated reason in message (cut to size).
extern "C" int nkr_sim_validate_environment(char* message, size_t size);
extern "C" int nkr_sim_forget_state(char* message, size_t size);
// Sets a unit's temperature (and drift, 0 for none; until is used when
// hasUntil is 1) in the world of this process, shared through NKR_SIM_STATE.
// unit: the unit's serial number (16 hex digits), Bluetooth name or id.
// The same from a text (header, payload or fixed:N); 1 when understood.
extern "C" int nkr_sim_set_ble_length(const char* spec);
extern "C" int nkr_sim_set_temperature(const char* unit, double celsius, double perHour, int hasUntil, double until,
                                       char* message, size_t size);
// What a unit has done since it last powered up (plugged in, restarted, or a
// fresh world): the position its firmware powers up at, and the steps the
// motor has moved since. 1 when the unit (named as above) exists.
extern "C" int nkr_sim_power_on_state(const char* unit, int* powerOnPosition, int* stepsSincePowerOn);
