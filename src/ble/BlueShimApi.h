// Entry points of the Bluetooth helper library that the BLE manager loads at
// run time ("./lib/libBlueShim.so", or the path in NKR_BLE_HELPER). The
// simulator implements the same table.
#pragma once
#include <cstdint>

extern "C" {

// One scanned unit as the helper fills it: three NUL-terminated texts and
// two numbers the library does not read.
struct BleScanRecord {
    char name[256];        // offset 0
    char extra[32];        // offset 256
    char address[112];     // offset 288: what ble_manager_connect accepts
    int16_t rssi;          // offset 400 (not read)
    int64_t btAddress;     // offset 408 (not read)
};
static_assert(sizeof(BleScanRecord) == 416, "helper scan records are 416 bytes");

using BleConnectStateFn = void (*)(bool connected);

using pfn_ble_manager_create = void* (*)();
using pfn_ble_manager_destroy = void (*)(void* mgr);
using pfn_ble_manager_scan = int32_t (*)(void* mgr, unsigned timeout, BleScanRecord* records,
                                         int capacity);
// 0 on success, negative on failure.
using pfn_ble_manager_connect = int32_t (*)(void* mgr, const char* id, const char* second);
using pfn_ble_manager_disconnect = int32_t (*)(void* mgr);
using pfn_ble_manager_receive = int32_t (*)(void* mgr, unsigned a, unsigned b);
using pfn_ble_manager_send = bool (*)(void* mgr, const uint8_t* data, unsigned count, unsigned a,
                                      unsigned b);
using pfn_ble_manager_wait_for_data = bool (*)(void* mgr);
using pfn_ble_manager_get_received_data = unsigned (*)(void* mgr, uint8_t* buf, unsigned capacity);
using pfn_ble_manager_is_ble_supported = bool (*)(void* mgr);
using pfn_ble_manager_get_mac = int (*)(void* mgr, char* buf, int capacity);
using pfn_ble_set_is_read = void (*)(void* mgr, int isRead);
using pfn_ble_set_connect_state_callback = void (*)(void* mgr, BleConnectStateFn callback);

// Optional: a readable text of the manager's last failure, valid until the
// next call on that manager. Helpers may leave it out.
using pfn_ble_manager_last_error = const char* (*)(void* mgr);

}  // extern "C"
