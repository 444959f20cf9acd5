// ASCOM error numbers, and the one mapping of a host Status onto them: the
// kind of a failure decides the number, the Status sentence is the message.
#pragma once

#include <string>

#include "nkrhost/errors.h"

namespace alpaca {

enum AscomError : int {
    kOk = 0,
    kNotImplemented = 0x400,
    kInvalidValue = 0x401,
    kNotConnected = 0x407,
    kInvalidOperation = 0x40B,
    kActionNotImplemented = 0x40C,
    kDriverBase = 0x500,  // a failure of the unit or the link is 0x500 + its code
};

// A device-level failure: answered with HTTP 200 and these two fields.
struct DeviceError {
    int number = kOk;
    std::string message;
    bool ok() const { return number == kOk; }
};

// bad argument -> InvalidValue, not supported -> NotImplemented, busy ->
// InvalidOperation, link lost -> NotConnected, refused by the unit and
// internal -> 0x500 + code.
DeviceError fromStatus(const nkrhost::Status& status);
// The same for a bare code, with the catalogue's text.
DeviceError fromSdk(int code);

}  // namespace alpaca
