#include "errors.h"

#include <NKR_focuser.h>

namespace nkrtool {

int exitStatusFor(int code)
{
    if (code == nkrhost::kMoveNotArrived) return kExitNotArrived;
    return nkrhost::describeError(code).kind == nkrhost::ErrorKind::BadArgument ? kExitUsage : kExitDeviceError;
}

void usageError(const std::string& message) { throw ToolError(message, -1, kExitUsage); }

void check(int code, const std::string& action) { fail(nkrhost::Status::fromSdk(code, action)); }

void fail(const nkrhost::Status& status)
{
    if (status.ok()) return;
    throw ToolError(status.message, status.code, exitStatusFor(status.code));
}

std::string unavailableText(int code)
{
    if (code == NKR_ERROR_NOT_SUPPORTED) return "not supported";
    return std::string("unavailable (") + nkrhost::describeError(code).name + ")";
}

}  // namespace nkrtool
