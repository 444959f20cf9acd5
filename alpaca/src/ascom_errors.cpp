#include "ascom_errors.h"

#include <NKR_focuser.h>

namespace alpaca {

std::string sdkErrorText(int code)
{
    switch (code) {
    case NKR_SUCCESS: return "success";
    case NKR_ERROR_INVALID_INDEX: return "scan index out of range";
    case NKR_ERROR_INVALID_ID: return "bad slot id, or the unit's link is not up";
    case NKR_ERROR_INVALID_VALUE: return "argument out of range";
    case NKR_ERROR_REMOVED: return "the unit is gone (unplugged, or open failed)";
    case NKR_ERROR_MOVING: return "refused: the motor is moving";
    case NKR_ERROR_BAD_STATE: return "the unit refused to enter the needed state";
    case NKR_ERROR_GENERAL: return "transfer failed or the unit gave a bad answer";
    case NKR_ERROR_NOT_SUPPORTED: return "the unit's firmware lacks the operation";
    case NKR_ERROR_CLOSED: return "the unit is known but not open";
    case NKR_ERROR_BATTERY_RANGE: return "battery temperature out of range";
    case NKR_ERROR_BAD_LENGTH: return "a data length is out of bounds";
    case NKR_ERROR_BLE_CHECKSUM: return "a Bluetooth answer failed its checksum";
    case NKR_ERROR_BLE_SEND: return "the Bluetooth helper refused to send";
    case NKR_ERROR_BLE_CONNECT: return "the Bluetooth connection could not be made";
    case NKR_ERROR_BLE_NOT_OPEN: return "no Bluetooth unit in that slot";
    case NKR_ERROR_BLE_PAIR: return "pairing failed";
    case NKR_ERROR_BLE_PAIR_REFUSED: return "the unit refused the pairing";
    case NKR_ERROR_BLE_NO_ANSWER: return "the unit did not answer in time";
    case NKR_ERROR_BLE_UNSUPPORTED: return "this computer has no Bluetooth LE";
    default: return "SDK error " + std::to_string(code);
    }
}

DeviceError fromSdk(int code)
{
    if (code == NKR_SUCCESS) return {};
    switch (code) {
    case NKR_ERROR_REMOVED:
    case NKR_ERROR_CLOSED:
    case NKR_ERROR_BLE_NOT_OPEN:
        return {kNotConnected, "not connected: " + sdkErrorText(code)};
    case NKR_ERROR_MOVING:
        return {kInvalidOperation, sdkErrorText(code)};
    case NKR_ERROR_INVALID_VALUE:
        return {kInvalidValue, sdkErrorText(code)};
    case NKR_ERROR_NOT_SUPPORTED:
        return {kNotImplemented, sdkErrorText(code)};
    default:
        return {kDriverBase + code, sdkErrorText(code)};
    }
}

}  // namespace alpaca
