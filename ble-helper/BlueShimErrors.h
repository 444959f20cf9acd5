// What ble_manager_connect returns when it fails. Also listed in the README.
#pragma once

namespace blueshim {

enum ConnectResult : int {
    kConnectOk = 0,
    kNoAdapter = -1,       // no adapter, adapter powered off, or BlueZ not answering
    kNotFound = -2,        // no device with that name or address
    kConnectRefused = -3,  // BlueZ or the unit refused the connection or notifications
    kNoSerialService = -4, // connected, but no serial service with write and notify
    kTimedOut = -5,        // the connection or service resolution took too long
};

}  // namespace blueshim
