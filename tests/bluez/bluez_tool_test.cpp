// The nkr tool says the same over the real Bluetooth stack as over the simulator's own radio.
#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "bluez_fixture.h"

namespace bluez {
namespace {

using BlueZTool = BlueZTest;

std::string runShell(const std::string& command, int* status)
{
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return *status = -1, out;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, pipe)) > 0;) out.append(buf, n);
    const int raw = pclose(pipe);
    return *status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, out;
}

TEST_F(BlueZTool, InfoOverBlueZMatchesTheSimulatorsOwnRadio)
{
#ifndef NKR_TOOL_PATH
    GTEST_SKIP() << "the nkr tool is not part of this build";
#else
    std::string home = tmp_ + "/home";
    std::string common = "HOME='" + home + "' XDG_STATE_HOME='" + home + "/state' XDG_RUNTIME_DIR='" +
                         home + "' timeout -k 5 60 '" NKR_TOOL_PATH "' ";
    int viaBlueZ = -1, viaSimulator = -1;
    std::string real = runShell("cd '" + tmp_ + "' && " + common + "--ble '" + kUnitName + "' info 2>&1", &viaBlueZ);
    std::string simulated = runShell("cd '" + tmp_ + "' && env -u DBUS_SYSTEM_BUS_ADDRESS -u NKR_BLE_HELPER " + common +
                                         "--simulate --ble '" + kUnitName + "' info 2>&1",
                                     &viaSimulator);
    EXPECT_EQ(viaBlueZ, 0) << real;
    EXPECT_EQ(viaSimulator, 0) << simulated;
    EXPECT_EQ(real, simulated);
#endif
}

}  // namespace
}  // namespace bluez
