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

// The text without one section of info: its heading and indented lines.
std::string withoutSection(const std::string& text, const std::string& heading)
{
    const size_t at = text.find("\n" + heading + "\n");
    if (at == std::string::npos) return text;
    size_t end = at + 1;
    do end = text.find('\n', end) + 1;
    while (end > 0 && end < text.size() && text[end] == ' ');
    return text.substr(0, at + 1) + (end > 0 ? text.substr(end) : "");
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
    // The saved record is this computer's, found under each run's own home.
    const std::string record = "The library's saved record (restored at power-up)";
    EXPECT_NE(real.find(record), std::string::npos) << real;
    EXPECT_EQ(withoutSection(real, record), withoutSection(simulated, record));
#endif
}

}  // namespace
}  // namespace bluez
