// Bluetooth tests: simulated Pro units reached through the simulated helper library.
#pragma once
#include "ble/BluetoothLEProtocol.h"
#include "test_support.h"

namespace nkrtest {

// A unit reachable over Bluetooth only, with a name of its own (the helper connects by name).
inline nkrsim::UnitSpec bleUnitWithFirmware(int fw)
{
    static int made = 0;
    nkrsim::UnitSpec spec = proUnitWithFirmware(fw);
    spec.bleName = "NKR Pro_T" + std::to_string(made++);
    spec.usb = false;
    spec.ble = true;
    return spec;
}

// Payload of a request frame: 00 len seq cmd payload lenHigh 00 00 00 sum.
inline std::vector<uint8_t> payloadOf(const std::vector<uint8_t>& frame)
{
    return std::vector<uint8_t>(frame.begin() + 4, frame.end() - 5);
}

// Connects the unit through the exports, as a host does, and pairs it; returns its id.
inline int connectAndPair(const nkrsim::UnitSpec& spec, nkrsim::UnitId unit, bool pair = true)
{
    int id = -1;
    EXPECT_EQ(NKRBLEConnect(spec.bleName.c_str(), nkrsim::bleAddress(unit).c_str(), &id), NKR_SUCCESS);
    EXPECT_EQ(pair ? NKRBLEPair(id) : NKR_SUCCESS, NKR_SUCCESS);
    return id;
}
// Adds a Bluetooth unit and connects it (and pairs it, when asked); returns its id.
inline int connected(int fw, nkrsim::UnitId* unit, bool pair = false)
{
    const nkrsim::UnitSpec spec = bleUnitWithFirmware(fw);
    *unit = nkrsim::addUnit(spec);
    return connectAndPair(spec, *unit, pair);
}

}  // namespace nkrtest
