#include "ascom_errors.h"

namespace alpaca {

DeviceError fromStatus(const nkrhost::Status& status)
{
    if (status.ok()) return {};
    const std::string& message = status.message.empty() ? nkrhost::formatError(status.code) : status.message;
    switch (status.kind()) {
    case nkrhost::ErrorKind::None: return {};
    case nkrhost::ErrorKind::BadArgument: return {kInvalidValue, message};
    case nkrhost::ErrorKind::NotSupported: return {kNotImplemented, message};
    case nkrhost::ErrorKind::Busy: return {kInvalidOperation, message};
    case nkrhost::ErrorKind::LinkLost: return {kNotConnected, message};
    case nkrhost::ErrorKind::Refused:
    case nkrhost::ErrorKind::Internal: break;
    }
    return {kDriverBase + status.code, message};
}

DeviceError fromSdk(int code) { return fromStatus(nkrhost::Status::failure(code, nkrhost::describeError(code).text)); }

}  // namespace alpaca
