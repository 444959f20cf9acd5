// Each test gets a private dbus-daemon with nkr-sim-bluez on it as org.bluez,
// and the SDK pointed at that bus through the real helper; the machine's
// system bus, bluetoothd and the user's HOME are never touched.
#pragma once
#include <gtest/gtest.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "NKR_focuser.h"

namespace bluez {

// A child process with its stdout on a pipe.
struct Child {
    pid_t pid = -1;
    int out = -1;
    // Reads one line of the child's stdout, waiting at most timeoutMs.
    bool readLine(std::string& line, int timeoutMs);
    // SIGTERM, then SIGKILL if it has not gone within a second.
    void stop();
};

Child spawn(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv);

class BlueZTest : public ::testing::Test {
protected:
    // Extra command-line switches of nkr-sim-bluez for this test.
    virtual std::vector<std::string> simArgs() const { return {}; }
    // False: the bus has nobody owning org.bluez.
    virtual bool serveBluez() const { return true; }

    void SetUp() override;
    void TearDown() override;
    // Calls a fault switch of nkr-sim-bluez (interface org.nkr.SimControl1).
    // signature "" (no argument), "u" or "b"; returns the answer of "Requests".
    unsigned control(const char* method, const char* signature = "", unsigned value = 0);
    unsigned requestsSeen() { return control("Requests"); }

    // Scans, connects by name or address and pairs: the usual start of a session.
    int connectAndPair(const std::string& nameOrAddress);
    // Polls the unit until it stops (bounded); false on an error or time-out.
    bool waitStopped(int id, int timeoutMs = 10000);

    std::string tmp_, busAddress_;
    Child bus_, sim_;
};

constexpr const char* kUnitName = "NKR Pro_A1B2";
constexpr const char* kUnitAddress = "C0:FF:EE:00:00:02";

}  // namespace bluez
