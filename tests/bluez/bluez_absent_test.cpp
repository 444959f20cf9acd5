// The helper on a private bus where nobody owns org.bluez.
#include <dlfcn.h>

#include <filesystem>
#include <fstream>

#include "../../src/ble/BlueShimApi.h"
#include "bluez_fixture.h"

namespace bluez {
namespace {
namespace fs = std::filesystem;

class BlueZAbsent : public BlueZTest {
protected:
    bool serveBluez() const override { return false; }
    void SetUp() override
    {
        BlueZTest::SetUp();
        lib_ = dlopen(NKR_BLE_HELPER_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(lib_, nullptr) << dlerror();
    }
    void TearDown() override
    {
        if (lib_ != nullptr) dlclose(lib_);
        BlueZTest::TearDown();
    }
    template <typename Fn>
    Fn get(const char* name) { return reinterpret_cast<Fn>(dlsym(lib_, name)); }
    void* lib_ = nullptr;
};

// Every call fails cleanly with a reason; each manager holds two bus
// connections and a thread, and a thousand come and go without growth.
TEST_F(BlueZAbsent, EveryCallFailsCleanlyAndManagersDoNotLeak)
{
    auto create = get<pfn_ble_manager_create>("ble_manager_create");
    auto destroy = get<pfn_ble_manager_destroy>("ble_manager_destroy");
    auto lastError = get<pfn_ble_manager_last_error>("ble_manager_last_error");
    void* mgr = create();
    ASSERT_NE(mgr, nullptr) << "a bus is there, so a manager is made";
    EXPECT_FALSE(get<pfn_ble_manager_is_ble_supported>("ble_manager_is_ble_supported")(mgr));
    EXPECT_NE(std::string(lastError(mgr)), "");
    BleScanRecord records[2];
    EXPECT_EQ(get<pfn_ble_manager_scan>("ble_manager_scan")(mgr, 5000, records, 2), -1) << "no adapter: no scan";
    EXPECT_EQ(get<pfn_ble_manager_connect>("ble_manager_connect")(mgr, "NKR Pro", nullptr), -1);
    EXPECT_NE(std::string(lastError(mgr)).find("BlueZ"), std::string::npos) << lastError(mgr);
    EXPECT_EQ(get<pfn_ble_manager_connect>("ble_manager_connect")(mgr, nullptr, nullptr), -2);
    uint8_t frame[] = {0x01, 0x00, 0x01, 0x00, 0x02}, buf[8];
    char mac[32];
    EXPECT_FALSE(get<pfn_ble_manager_send>("ble_manager_send")(mgr, frame, sizeof frame, 0, 0));
    EXPECT_FALSE(get<pfn_ble_manager_wait_for_data>("ble_manager_wait_for_data")(mgr)) << "no link: no wait";
    EXPECT_EQ(get<pfn_ble_manager_get_received_data>("ble_manager_get_received_data")(mgr, buf, sizeof buf), 0u);
    EXPECT_EQ(get<pfn_ble_manager_get_mac>("ble_manager_get_mac")(mgr, mac, sizeof mac), -1);
    EXPECT_EQ(get<pfn_ble_manager_disconnect>("ble_manager_disconnect")(mgr), 0);
    EXPECT_EQ(get<pfn_ble_manager_receive>("ble_manager_receive")(mgr, 0, 0), 0);
    destroy(mgr);
    auto filesAndThreads = [] {
        long n = 0;
        for ([[maybe_unused]] auto& e : fs::directory_iterator("/proc/self/fd")) ++n;
        std::ifstream status("/proc/self/status");
        for (std::string line; std::getline(status, line);)
            if (line.rfind("Threads:", 0) == 0) return std::make_pair(n, std::stol(line.substr(8)));
        return std::make_pair(n, -1L);
    };
    const auto before = filesAndThreads();
    for (int i = 0; i < 1000; ++i) destroy(create());
    // No descriptor and no thread more; a thread of the first manager may
    // still have been ending when the count began.
    const auto after = filesAndThreads();
    EXPECT_EQ(after.first, before.first);
    EXPECT_LE(after.second, before.second);
}

}  // namespace
}  // namespace bluez
