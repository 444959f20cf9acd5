// For a helper library: its entry points declared with the table's own
// types. A helper that includes this and defines an entry point with another
// signature does not compile (a C function cannot be overloaded), so the
// library's dlsym calls always meet the types they cast to.
#pragma once

#include <type_traits>

#include "BlueShimApi.h"

extern "C" {
std::remove_pointer_t<pfn_ble_manager_create> ble_manager_create;
std::remove_pointer_t<pfn_ble_manager_destroy> ble_manager_destroy;
std::remove_pointer_t<pfn_ble_manager_scan> ble_manager_scan;
std::remove_pointer_t<pfn_ble_manager_connect> ble_manager_connect;
std::remove_pointer_t<pfn_ble_manager_disconnect> ble_manager_disconnect;
std::remove_pointer_t<pfn_ble_manager_receive> ble_manager_receive;
std::remove_pointer_t<pfn_ble_manager_send> ble_manager_send;
std::remove_pointer_t<pfn_ble_manager_wait_for_data> ble_manager_wait_for_data;
std::remove_pointer_t<pfn_ble_manager_get_received_data> ble_manager_get_received_data;
std::remove_pointer_t<pfn_ble_manager_is_ble_supported> ble_manager_is_ble_supported;
std::remove_pointer_t<pfn_ble_manager_get_mac> ble_manager_get_mac;
std::remove_pointer_t<pfn_ble_set_is_read> ble_set_is_read;
std::remove_pointer_t<pfn_ble_set_connect_state_callback> ble_set_connect_state_callback;
std::remove_pointer_t<pfn_ble_manager_last_error> ble_manager_last_error;  // optional
}
