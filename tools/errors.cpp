// One table for every result code of the public header, so each failure the
// tool reports names the code and says in plain words what went wrong.
#include "errors.h"

#include <NKR_focuser.h>

#include <array>

namespace nkrtool {
namespace {

struct Entry {
    int code;
    ErrorDescription description;
};

constexpr std::array kErrors{
    Entry{NKR_SUCCESS, {"NKR_SUCCESS", "the operation succeeded"}},
    Entry{NKR_ERROR_INVALID_INDEX,
          {"NKR_ERROR_INVALID_INDEX", "no focuser at that position of the last USB scan"}},
    Entry{NKR_ERROR_INVALID_ID,
          {"NKR_ERROR_INVALID_ID",
           "no focuser has that id, or its connection is not up (unplugged or out of reach)"}},
    Entry{NKR_ERROR_INVALID_VALUE,
          {"NKR_ERROR_INVALID_VALUE", "a value is outside the range the unit accepts"}},
    Entry{NKR_ERROR_REMOVED,
          {"NKR_ERROR_REMOVED",
           "the focuser is gone: it was unplugged, or it could not be opened (check "
           "permissions on /dev/hidraw*)"}},
    Entry{NKR_ERROR_MOVING,
          {"NKR_ERROR_MOVING", "the motor is moving; stop it or wait until it stands still"}},
    Entry{NKR_ERROR_BAD_STATE,
          {"NKR_ERROR_BAD_STATE", "the unit refused to enter the state the operation needs"}},
    Entry{NKR_ERROR_GENERAL,
          {"NKR_ERROR_GENERAL", "the transfer failed or the unit gave an answer that makes no sense"}},
    Entry{NKR_ERROR_NOT_SUPPORTED,
          {"NKR_ERROR_NOT_SUPPORTED", "the unit's firmware does not offer this operation"}},
    Entry{NKR_ERROR_CLOSED, {"NKR_ERROR_CLOSED", "the focuser is known but not open"}},
    Entry{NKR_ERROR_BATTERY_RANGE,
          {"NKR_ERROR_BATTERY_RANGE",
           "the battery reports a temperature out of range, so its figures cannot be trusted"}},
    Entry{NKR_ERROR_BAD_LENGTH,
          {"NKR_ERROR_BAD_LENGTH", "a block of data has a length the unit does not accept"}},
    Entry{NKR_ERROR_BLE_CHECKSUM,
          {"NKR_ERROR_BLE_CHECKSUM", "a Bluetooth answer arrived damaged (bad checksum)"}},
    Entry{NKR_ERROR_BLE_SEND,
          {"NKR_ERROR_BLE_SEND", "the Bluetooth helper refused to send the request"}},
    Entry{NKR_ERROR_BLE_CONNECT,
          {"NKR_ERROR_BLE_CONNECT",
           "the Bluetooth connection could not be made (unit off, out of range or busy)"}},
    Entry{NKR_ERROR_BLE_NOT_OPEN,
          {"NKR_ERROR_BLE_NOT_OPEN", "no Bluetooth focuser is connected with that id"}},
    Entry{NKR_ERROR_BLE_PAIR,
          {"NKR_ERROR_BLE_PAIR",
           "pairing failed, or this computer's Bluetooth adapter has no address"}},
    Entry{NKR_ERROR_BLE_PAIR_REFUSED,
          {"NKR_ERROR_BLE_PAIR_REFUSED", "the unit refused to pair with this computer"}},
    Entry{NKR_ERROR_BLE_NO_ANSWER,
          {"NKR_ERROR_BLE_NO_ANSWER", "the unit did not answer over Bluetooth in time"}},
    Entry{NKR_ERROR_BLE_UNSUPPORTED,
          {"NKR_ERROR_BLE_UNSUPPORTED",
           "this computer offers no Bluetooth LE (no adapter, or the helper library is missing)"}},
    Entry{NKR_ERROR_NULL_CALLBACK,
          {"NKR_ERROR_NULL_CALLBACK", "a callback was registered without a function"}},
    Entry{NKR_ERROR_BLE_NEW_CONNECTION,
          {"NKR_ERROR_BLE_NEW_CONNECTION", "the unit reports a new connection that is not paired"}},
    Entry{NKR_ERROR_BLE_LENGTH_MISMATCH,
          {"NKR_ERROR_BLE_LENGTH_MISMATCH",
           "the unit took a different number of bytes than were sent"}},
};

}  // namespace

ErrorDescription describeError(int code)
{
    for (const Entry& e : kErrors)
        if (e.code == code) return e.description;
    return {"UNKNOWN_ERROR", "the library returned a code this tool does not know"};
}

std::string formatErrorCode(int code)
{
    ErrorDescription d = describeError(code);
    return std::string(d.name) + " (" + std::to_string(code) + "): " + d.explanation;
}

void usageError(const std::string& message) { throw ToolError(message, -1, kExitUsage); }

void check(int code, const std::string& action)
{
    if (code == NKR_SUCCESS) return;
    // A value the caller chose is out of range: that is the caller's argument.
    int status = code == NKR_ERROR_INVALID_VALUE ? kExitUsage : kExitDeviceError;
    throw ToolError(action + ": " + formatErrorCode(code), code, status);
}

std::string unavailableText(int code)
{
    if (code == NKR_ERROR_NOT_SUPPORTED) return "not supported";
    return std::string("unavailable (") + describeError(code).name + ")";
}

}  // namespace nkrtool
