// ASCOM error numbers and the mapping of SDK error codes onto them.
#pragma once

#include <string>

namespace alpaca {

enum AscomError : int {
    kOk = 0,
    kNotImplemented = 0x400,
    kInvalidValue = 0x401,
    kNotConnected = 0x407,
    kInvalidOperation = 0x40B,
    kActionNotImplemented = 0x40C,
    kDriverBase = 0x500,  // SDK code n is reported as 0x500 + n
};

// A device-level failure: answered with HTTP 200 and these two fields.
struct DeviceError {
    int number = kOk;
    std::string message;
};

// Text of an SDK error code, as a user should read it.
std::string sdkErrorText(int code);

// ASCOM error for an SDK error code (0 stays 0). Removed / closed units are
// NotConnected; a refused move is InvalidOperation; everything else is
// 0x500 + code with the SDK's text.
DeviceError fromSdk(int code);

}  // namespace alpaca
