// The helper as the library loads it, with no system bus at all.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "../../src/ble/BlueShimApi.h"

namespace {

struct Helper {
    void* lib = dlopen(BLUESHIM_PATH, RTLD_NOW | RTLD_LOCAL);
    ~Helper() { if (lib) dlclose(lib); }
    template <typename Fn>
    Fn get(const char* name) { return reinterpret_cast<Fn>(dlsym(lib, name)); }
};

}  // namespace

TEST(NoBus, CreateFailsCleanlyEveryEntryPointToleratesNoManagerAndNothingElseIsExported)
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/nkr-test/bus", 1);
    Helper h;
    ASSERT_NE(h.lib, nullptr) << dlerror();
    // Every entry point is there (checked below) and takes the null manager a failed create gives.
    void* mgr = h.get<pfn_ble_manager_create>("ble_manager_create")();
    EXPECT_EQ(mgr, nullptr);
    BleScanRecord records[2];
    uint8_t byte = 1;
    EXPECT_LT(h.get<pfn_ble_manager_scan>("ble_manager_scan")(mgr, 100, records, 2), 0);
    EXPECT_LT(h.get<pfn_ble_manager_connect>("ble_manager_connect")(mgr, "NKR Pro", nullptr), 0);
    EXPECT_FALSE(h.get<pfn_ble_manager_send>("ble_manager_send")(mgr, &byte, 1, 0, 0));
    EXPECT_FALSE(h.get<pfn_ble_manager_wait_for_data>("ble_manager_wait_for_data")(mgr));
    EXPECT_FALSE(h.get<pfn_ble_manager_is_ble_supported>("ble_manager_is_ble_supported")(mgr));
    EXPECT_STREQ(h.get<pfn_ble_manager_last_error>("ble_manager_last_error")(mgr), "");
    h.get<pfn_ble_manager_destroy>("ble_manager_destroy")(mgr);
    // Only the entry points are exported.
    for (const char* name : {"ble_manager_create", "ble_manager_destroy", "ble_manager_scan", "ble_manager_connect",
                             "ble_manager_disconnect", "ble_manager_receive", "ble_manager_send",
                             "ble_manager_wait_for_data", "ble_manager_get_received_data",
                             "ble_manager_is_ble_supported", "ble_manager_get_mac", "ble_set_is_read",
                             "ble_set_connect_state_callback", "ble_manager_last_error"})
        EXPECT_NE(h.get<void*>(name), nullptr) << name;
    EXPECT_EQ(h.get<void*>("_ZN8blueshim9isSigUuidERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"), nullptr);
}
