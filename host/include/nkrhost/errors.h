// The one error catalogue of the host programs: every result code of the
// SDK (and the few the host layer adds) with a stable name, a one-line text
// and a kind. Each front-end maps a kind to its own convention (exit status,
// INDI state, ASCOM error number, Python exception class) and adds nothing
// else, so a failure reads the same in every program.
#pragma once

#include <string>
#include <vector>

namespace nkrhost {

// What a failure means for the person or program that asked.
enum class ErrorKind {
    None,          // success
    BadArgument,   // the request itself is wrong: a value, a name, a limit
    NotSupported,  // the unit or this computer cannot do it
    Busy,          // not now: the motor moves, or another program holds the unit
    LinkLost,      // the unit is gone: unplugged, switched off, out of reach
    Refused,       // the unit answered and said no
    Internal,      // a transfer failed, an answer made no sense, time ran out
};

// "bad argument", "not supported", ...
const char* kindName(ErrorKind kind);

// Codes of the host layer itself, kept clear of the SDK's range.
enum HostCode : int {
    kUnitNotFound = 1001,   // no unit answers to the name given
    kUnitAmbiguous = 1002,  // several units answer to the name given
    kBeyondLimit = 1003,    // a target outside 0 .. the user's maximum
    kTimedOut = 1004,       // a move did not end within the time given
    kStalled = 1005,        // the motor reports moving but does not move
    kUnitInUse = 1006,      // another program holds the unit for this purpose
    kBadSetting = 1007,     // a value that cannot be a setting (wrong type or range)
    kSettingsFile = 1008,   // the host settings file cannot be read or written
    kUpdatePending = 1009,  // the unit waits in update mode for an update to complete
    kMoveNotArrived = 1010, // a move ended short of its target
};

struct ErrorEntry {
    int code;
    const char* name;  // the header's enumerator, e.g. "NKR_ERROR_MOVING"
    const char* text;  // one line, for people
    ErrorKind kind;
};

// Every known code, the SDK's first, in code order.
const std::vector<ErrorEntry>& errorCatalogue();

// The entry of a code; an unknown code gets a generic entry of kind
// Internal that carries the code (never a null or a throw).
ErrorEntry describeError(int code);

// "NKR_ERROR_MOVING (5): the motor is moving; stop it or wait until it stands still"
std::string formatError(int code);

// The outcome of a host operation: success, or a code and one sentence that
// says what went wrong in the user's terms.
struct Status {
    int code = 0;
    std::string message;

    bool ok() const { return code == 0; }
    ErrorKind kind() const { return describeError(code).kind; }

    static Status success() { return {}; }
    // "<action>: <formatError(code)>", or success for code 0.
    static Status fromSdk(int code, const std::string& action);
    static Status failure(int code, std::string message) { return {code, std::move(message)}; }
};

}  // namespace nkrhost
