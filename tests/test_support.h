// Shared fixture: an empty simulated world on a manual clock, with every pause
// of the library advancing that clock instead of sleeping.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "NKR_focuser.h"
#include "api/Registry.h"
#include "device/Sleep.h"
#include "nkr_sim.h"

namespace nkrtest {

// Where a unit stands after power-on, as the firmware reports it.
inline constexpr int kPowerOnPosition = 30000;

inline void advanceSimClock(unsigned us) { nkrsim::advanceMicros(us); }

class SimTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        nkrsim::reset();
        nkr::setSleepHook(&advanceSimClock);
    }
    void TearDown() override
    {
        for (int id = NKR_MAX_SLOTS - 1; id >= NKR_BLE_FIRST_ID; --id) NKRBLEDisconnect(id);
        for (int id = 0; id < NKR_BLE_FIRST_ID; ++id) NKRClose(id);
        nkr::setSleepHook(nullptr);
        // The library sends only what a unit takes; a test that sends other
        // messages on purpose reads and clears their refusals itself.
        EXPECT_EQ(nkrsim::refusedTotal(), 0u) << refusalsSeen();
    }
    // The refused messages of the first units, one line each.
    static std::string refusalsSeen()
    {
        std::string text;
        for (nkrsim::UnitId unit = 0; unit < 16; ++unit)
            for (const nkrsim::RefusedMessage& r : nkrsim::refusedMessages(unit)) {
                text += "unit " + std::to_string(unit) + " refused (" + nkrsim::refusalName(r.why) + "):";
                for (uint8_t b : r.message) {
                    char hex[4];
                    std::snprintf(hex, sizeof hex, " %02X", b);
                    text += hex;
                }
                text += "\n";
            }
        return text;
    }
    // Scans and returns the unit's slot id (-1 when not found).
    static int scanForSlot(nkrsim::UnitId unit)
    {
        for (int i = 0, n = NKRGetNum(), id = -1; i < n; ++i)
            if (NKRGetID(i, &id) == NKR_SUCCESS && slotPath(id) == nkrsim::usbPath(unit)) return id;
        return -1;
    }
    // Adds a USB unit, scans and returns its slot id (-1 when not found).
    int plugAndScan(const nkrsim::UnitSpec& spec, nkrsim::UnitId* unit = nullptr)
    {
        nkrsim::UnitId u = nkrsim::addUnit(spec);
        if (unit) *unit = u;
        return scanForSlot(u);
    }
    // Adds, scans and opens a USB unit; returns its slot id. Quiet: forgets the traffic of the open.
    int openUnit(const nkrsim::UnitSpec& spec, nkrsim::UnitId* unit = nullptr, bool quiet = false)
    {
        nkrsim::UnitId u;
        const int id = plugAndScan(spec, &u);
        EXPECT_GE(id, 0);
        EXPECT_EQ(NKROpen(id), NKR_SUCCESS);
        if (quiet) nkrsim::clearSentReports(u);
        if (unit) *unit = u;
        return id;
    }
    int openQuiet(const nkrsim::UnitSpec& spec, nkrsim::UnitId* unit) { return openUnit(spec, unit, true); }
    // The one seam into the registry: which device path a slot stands for.
    static std::string slotPath(int id) { return slotInRange(id) ? DevPathArray[id] : ""; }
};

using Bytes = std::vector<uint8_t>;

// The unit's position as the exports report it; -1 when the read fails.
inline int position(int id)
{
    int pos = -1;
    return NKRGetPosition(id, &pos) == NKR_SUCCESS ? pos : -1;
}

// The control frames (command 0x03) among the reports the unit received.
inline bool isControlFrame(const Bytes& r)
{
    return r.size() >= 16 && r[0] == 0x03 && r[1] == 0x7E && r[2] == 0x5A && r[3] == 0x03;
}
inline std::vector<Bytes> controlFrames(nkrsim::UnitId unit)
{
    std::vector<Bytes> out = nkrsim::sentReports(unit);
    out.erase(std::remove_if(out.begin(), out.end(), [](const Bytes& r) { return !isControlFrame(r); }), out.end());
    return out;
}
inline Bytes lastControlFrame(nkrsim::UnitId unit)
{
    const std::vector<Bytes> frames = controlFrames(unit);
    return frames.empty() ? Bytes{} : frames.back();
}

// Spec of a unit with the given firmware (major*100 + minor*10 + build).
inline nkrsim::UnitSpec unitWithFirmware(int fw)
{
    nkrsim::UnitSpec s;
    s.fwMajor = fw / 100, s.fwMinor = fw / 10 % 10, s.fwBuild = fw % 10;
    return s;
}

// A unit of the newer family (model letter 'E'): battery, LED, type and Bluetooth name.
inline nkrsim::UnitSpec proUnitWithFirmware(int fw)
{
    nkrsim::UnitSpec s = unitWithFirmware(fw);
    s.modelLetter = 'E';
    s.typeText = "NKR Pro";
    return s;
}

}  // namespace nkrtest
