// Error codes of the library turned into names and plain explanations, and
// the one error type the tool's commands throw to end with a message.
#pragma once

#include <stdexcept>
#include <string>

namespace nkrtool {

// Exit statuses of the tool.
enum ExitStatus : int {
    kExitOk = 0,
    kExitDeviceError = 1,   // the unit or the library refused or failed
    kExitUsage = 2,         // bad argument, unknown id or unit
    kExitInterrupted = 130  // stopped by a signal; main turns it into 128 + the signal
};

struct ErrorDescription {
    const char* name;         // the header's enumerator, e.g. "NKR_ERROR_INVALID_ID"
    const char* explanation;  // what it means for the person at the keyboard
};

// Describes any value a library call can return; unknown values get a
// generic description rather than nothing.
ErrorDescription describeError(int code);

// "NKR_ERROR_MOVING (5): the motor is moving ..."
std::string formatErrorCode(int code);

// A failure that ends the current command. `code` is the library's result
// (or -1 when the failure is the tool's own, such as a bad argument).
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
// Codes that mean a bad argument end with status 2, the rest with 1.
void check(int code, const std::string& action);

// Text for a value a unit could not give: "not supported" for code 8,
// otherwise "unavailable (NAME)".
std::string unavailableText(int code);

}  // namespace nkrtool
