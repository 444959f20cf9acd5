// Connecting to a unit, finding its serial service, writing to it.
#pragma once
#include <cstdint>
#include <string>

#include "Bus.h"
#include "Manager.h"

namespace blueshim {

// UUIDs that replace the search (NKR_BLE_SERVICE, NKR_BLE_WRITE_CHAR,
// NKR_BLE_NOTIFY_CHAR); empty means "search".
struct ServiceOverrides {
    std::string service;
    std::string write;
    std::string notify;

    static ServiceOverrides fromEnvironment();
};

struct SerialService {
    std::string servicePath;
    std::string writePath;
    std::string notifyPath;
    bool writeWithoutResponse = false;
    unsigned mtu = 23;
};

// The device's serial service: the first primary service that is not a SIG
// standard one (or the one the overrides name) with a characteristic that
// takes writes and one that notifies or indicates.
bool findSerialService(const ObjectTree& tree, const std::string& devicePath,
                       const ServiceOverrides& overrides, SerialService& out);

// ble_manager_connect: 0 or one of the BlueShimErrors.h codes.
int connectUnit(Manager& mgr, const std::string& id);
// ble_manager_disconnect: StopNotify, then Device1.Disconnect.
int disconnectUnit(Manager& mgr);
// ble_manager_send: writes in MTU-sized chunks; false on any refusal.
bool sendToUnit(Manager& mgr, const uint8_t* data, unsigned count);

}  // namespace blueshim
