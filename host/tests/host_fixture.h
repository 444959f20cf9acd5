// An empty simulated world on a manual clock, with the library's pauses
// advancing it, and HOME/XDG folders of the test's own.
#pragma once
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "NKR_focuser.h"
#include "device/Sleep.h"
#include "nkr_sim.h"
#include "nkrhost/settings.h"

namespace hosttest {

inline void advance(unsigned us) { nkrsim::advanceMicros(us); }

class HostTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/nkr-host-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        setenv("HOME", dir_.c_str(), 1);
        setenv("XDG_CONFIG_HOME", (dir_ / "config").c_str(), 1);
        setenv("XDG_RUNTIME_DIR", dir_.c_str(), 1);
        nkrsim::reset();
        nkr::setSleepHook(&advance);
    }
    void TearDown() override
    {
        for (int id = NKR_MAX_SLOTS - 1; id >= NKR_BLE_FIRST_ID; --id) NKRBLEDisconnect(id);
        for (int id = 0; id < NKR_BLE_FIRST_ID; ++id) NKRClose(id);
        nkr::setSleepHook(nullptr);
        EXPECT_EQ(nkrsim::refusedTotal(), 0u) << "a unit refused a message the library sent";
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }

    static nkrsim::UnitId usbUnit(const std::string& alias = "", int position = 10000)
    {
        nkrsim::UnitSpec spec;
        spec.alias = alias;
        spec.position = position;
        return nkrsim::addUnit(spec);
    }
    static nkrsim::UnitId bleUnit(const std::string& suffix)
    {
        nkrsim::UnitSpec spec;
        spec.usb = false;
        spec.ble = true;
        spec.fwMajor = 3;
        spec.fwMinor = 8;
        spec.fwBuild = 2;
        spec.modelLetter = 'E';
        spec.typeText = "NKR Pro";
        spec.bleNameSuffix = suffix;
        spec.bleName = "NKR Pro_" + suffix;
        return nkrsim::addUnit(spec);
    }
    nkrhost::HostSettings settings() const { return nkrhost::HostSettings((dir_ / "units.json").string()); }

    std::filesystem::path dir_;
};

}  // namespace hosttest
