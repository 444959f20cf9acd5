#include "error_text.h"

#include "NKR_focuser.h"

namespace nkrindi {

const char* errorText(int code)
{
    switch (code) {
    case NKR_SUCCESS: return "success";
    case NKR_ERROR_INVALID_INDEX: return "no unit at that index";
    case NKR_ERROR_INVALID_ID: return "unit not connected";
    case NKR_ERROR_INVALID_VALUE: return "value out of range";
    case NKR_ERROR_REMOVED: return "unit removed or cannot be opened";
    case NKR_ERROR_MOVING: return "refused while the motor moves";
    case NKR_ERROR_BAD_STATE: return "unit refused the state change";
    case NKR_ERROR_GENERAL: return "transfer failed or bad answer";
    case NKR_ERROR_NOT_SUPPORTED: return "not supported by this firmware";
    case NKR_ERROR_CLOSED: return "unit not open";
    case NKR_ERROR_BATTERY_RANGE: return "battery temperature out of range";
    case NKR_ERROR_BAD_LENGTH: return "bad data length";
    case NKR_ERROR_BLE_CHECKSUM: return "Bluetooth answer failed its checksum";
    case NKR_ERROR_BLE_SEND: return "Bluetooth send refused";
    case NKR_ERROR_BLE_CONNECT: return "Bluetooth connection failed";
    case NKR_ERROR_BLE_NOT_OPEN: return "no Bluetooth unit in that slot";
    case NKR_ERROR_BLE_PAIR: return "Bluetooth pairing failed";
    case NKR_ERROR_BLE_PAIR_REFUSED: return "unit refused the pairing";
    case NKR_ERROR_BLE_NO_ANSWER: return "unit did not answer";
    case NKR_ERROR_BLE_UNSUPPORTED: return "no Bluetooth LE on this computer";
    case NKR_ERROR_NULL_CALLBACK: return "null callback";
    case NKR_ERROR_BLE_NEW_CONNECTION: return "new unpaired Bluetooth connection";
    case NKR_ERROR_BLE_LENGTH_MISMATCH: return "unit took another block length";
    default: return "unknown error";
    }
}

}  // namespace nkrindi
