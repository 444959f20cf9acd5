// How a failure ends a command: the one error type the tool's commands
// throw, with the exit status that the failure's kind calls for. Names and
// texts of codes come from the host layer's catalogue.
#pragma once

#include <stdexcept>
#include <string>

#include "nkrhost/errors.h"

namespace nkrtool {

// Exit statuses of the tool.
enum ExitStatus : int {
    kExitOk = 0,
    kExitDeviceError = 1,   // the unit or the library refused or failed
    kExitUsage = 2,         // bad argument, unknown id or unit
    kExitNotArrived = 3,    // a move ended short of its target (stopped by someone, a hand, a limit)
    kExitInterrupted = 130  // stopped by a signal; main turns it into 128 + the signal
};

// The exit status of a code: 2 for a bad argument, 1 for any other failure.
int exitStatusFor(int code);

// "NKR_ERROR_MOVING (5): the motor is moving ..."
inline std::string formatErrorCode(int code) { return nkrhost::formatError(code); }

// A failure that ends the current command. `code` is the library's or the
// host's result (or -1 when the failure is the tool's own, such as a bad
// argument).
class ToolError : public std::runtime_error {
public:
    ToolError(std::string message, int code, int exitStatus)
        : std::runtime_error(std::move(message)), code_(code), exitStatus_(exitStatus)
    {
    }
    int code() const { return code_; }
    int exitStatus() const { return exitStatus_; }

private:
    int code_;
    int exitStatus_;
};

// Throws a usage error (exit status 2) carrying no library code.
[[noreturn]] void usageError(const std::string& message);

// Throws when a library call failed: "<action>: NAME (n): explanation".
void check(int code, const std::string& action);
// Throws the host layer's failure as it stands (its sentence, its code).
void fail(const nkrhost::Status& status);

// Text for a value a unit could not give: "not supported" for code 8,
// otherwise "unavailable (NAME)".
std::string unavailableText(int code);

}  // namespace nkrtool
