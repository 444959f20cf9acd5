// The helper on a private bus where nobody owns org.bluez: every entry point
// fails cleanly and at once, and managers come and go without leaking.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "../../src/ble/BlueShimApi.h"

extern char** environ;

namespace {
namespace fs = std::filesystem;

// A dbus-daemon on a socket in a temporary folder, stopped in TearDown.
class BusWithoutBluez : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!fs::exists("/usr/bin/dbus-daemon")) GTEST_SKIP() << "dbus-daemon is not installed";
        char dir[] = "/tmp/nkr-blueshim-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        tmp_ = dir;
        std::ofstream(tmp_ + "/bus.conf")
            << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
               " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
               "<busconfig><type>custom</type><listen>unix:dir="
            << tmp_
            << "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow user=\"*\"/>"
               "<allow own=\"*\"/><allow send_type=\"method_call\"/><allow send_type=\"signal\"/>"
               "<allow send_type=\"method_return\"/><allow send_type=\"error\"/>"
               "<allow receive_type=\"method_call\"/><allow receive_type=\"signal\"/>"
               "<allow receive_type=\"method_return\"/><allow receive_type=\"error\"/></policy></busconfig>\n";
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, fds[0]);
        std::string config = "--config-file=" + tmp_ + "/bus.conf";
        char* argv[] = {const_cast<char*>("/usr/bin/dbus-daemon"), config.data(), const_cast<char*>("--nofork"),
                        const_cast<char*>("--print-address=1"), nullptr};
        int rc = posix_spawn(&daemon_, argv[0], &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        close(fds[1]);
        out_ = fds[0];
        ASSERT_EQ(rc, 0);
        std::string address;
        pollfd p{out_, POLLIN, 0};
        char c = 0;
        while (poll(&p, 1, 10000) > 0 && read(out_, &c, 1) == 1 && c != '\n') address += c;
        ASSERT_FALSE(address.empty()) << "dbus-daemon printed no address";
        setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);

        lib_ = dlopen(BLUESHIM_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(lib_, nullptr) << dlerror();
    }

    void TearDown() override
    {
        if (lib_ != nullptr) dlclose(lib_);
        if (daemon_ > 0) {
            kill(daemon_, SIGTERM);
            waitpid(daemon_, nullptr, 0);
        }
        if (out_ >= 0) close(out_);
        std::error_code ec;
        if (!tmp_.empty()) fs::remove_all(tmp_, ec);
        unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    }

    template <typename Fn>
    Fn get(const char* name)
    {
        return reinterpret_cast<Fn>(dlsym(lib_, name));
    }

    std::string tmp_;
    pid_t daemon_ = -1;
    int out_ = -1;
    void* lib_ = nullptr;
};

TEST_F(BusWithoutBluez, EveryCallFailsCleanlyWithAReason)
{
    auto create = get<pfn_ble_manager_create>("ble_manager_create");
    auto destroy = get<pfn_ble_manager_destroy>("ble_manager_destroy");
    auto lastError = get<pfn_ble_manager_last_error>("ble_manager_last_error");
    void* mgr = create();
    ASSERT_NE(mgr, nullptr) << "a bus is there, so a manager is made";

    EXPECT_FALSE(get<pfn_ble_manager_is_ble_supported>("ble_manager_is_ble_supported")(mgr));
    EXPECT_NE(std::string(lastError(mgr)), "");
    BleScanRecord records[2];
    EXPECT_EQ(get<pfn_ble_manager_scan>("ble_manager_scan")(mgr, 5000, records, 2), -1)
        << "no adapter: no scan at all";
    EXPECT_EQ(get<pfn_ble_manager_connect>("ble_manager_connect")(mgr, "NKR Pro", nullptr), -1);
    EXPECT_NE(std::string(lastError(mgr)).find("BlueZ"), std::string::npos) << lastError(mgr);
    EXPECT_EQ(get<pfn_ble_manager_connect>("ble_manager_connect")(mgr, nullptr, nullptr), -2);

    uint8_t frame[] = {0x01, 0x00, 0x01, 0x00, 0x02};
    EXPECT_FALSE(get<pfn_ble_manager_send>("ble_manager_send")(mgr, frame, sizeof frame, 0, 0));
    EXPECT_FALSE(get<pfn_ble_manager_wait_for_data>("ble_manager_wait_for_data")(mgr)) << "no link: no wait";
    uint8_t buf[8];
    EXPECT_EQ(get<pfn_ble_manager_get_received_data>("ble_manager_get_received_data")(mgr, buf, sizeof buf), 0u);
    char mac[32];
    EXPECT_EQ(get<pfn_ble_manager_get_mac>("ble_manager_get_mac")(mgr, mac, sizeof mac), -1);
    EXPECT_EQ(get<pfn_ble_manager_disconnect>("ble_manager_disconnect")(mgr), 0);
    EXPECT_EQ(get<pfn_ble_manager_receive>("ble_manager_receive")(mgr, 0, 0), 0);
    destroy(mgr);
}

// Each manager holds two bus connections and a thread: all must go.
TEST_F(BusWithoutBluez, ThousandManagersComeAndGoWithoutGrowth)
{
    auto create = get<pfn_ble_manager_create>("ble_manager_create");
    auto destroy = get<pfn_ble_manager_destroy>("ble_manager_destroy");
    auto openFiles = [] {
        std::size_t n = 0;
        for ([[maybe_unused]] auto& e : fs::directory_iterator("/proc/self/fd")) ++n;
        return n;
    };
    auto threads = [] {
        std::ifstream status("/proc/self/status");
        std::string line;
        while (std::getline(status, line))
            if (line.rfind("Threads:", 0) == 0) return std::stoi(line.substr(8));
        return -1;
    };
    destroy(create());  // first use settles lazily made state
    const std::size_t filesBefore = openFiles();
    const int threadsBefore = threads();
    for (int i = 0; i < 1000; ++i) {
        void* mgr = create();
        ASSERT_NE(mgr, nullptr) << "cycle " << i;
        destroy(mgr);
    }
    EXPECT_EQ(openFiles(), filesBefore);
    EXPECT_EQ(threads(), threadsBefore);
}

}  // namespace
