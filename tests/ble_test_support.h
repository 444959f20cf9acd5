// Shared set-up of the Bluetooth tests: a device object connected to a
// simulated Pro unit through the simulated helper library.
#pragma once
#include <memory>
#include <string>
#include <vector>

#include "ble/BluetoothLEProtocol.h"
#include "device/NKR.h"
#include "test_support.h"

namespace nkrtest {

// Spec of a unit that is only reachable over Bluetooth, with a name of its
// own (the helper connects by name).
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

// Connects the unit through the exports, as a host does, and pairs it;
// returns its id.
inline int connectAndPair(const nkrsim::UnitSpec& spec, nkrsim::UnitId unit)
{
    int id = -1;
    const std::string address = nkrsim::bleAddress(unit);
    EXPECT_EQ(NKRBLEConnect(spec.bleName.c_str(), address.c_str(), &id), NKR_SUCCESS);
    EXPECT_EQ(NKRBLEPair(id), NKR_SUCCESS);
    return id;
}

class BleTest : public SimTest {
protected:
    // Adds a Bluetooth unit and a device object connected to it.
    std::unique_ptr<CNKR> connect(const nkrsim::UnitSpec& spec, nkrsim::UnitId* unit)
    {
        *unit = nkrsim::addUnit(spec);
        auto device = std::make_unique<CNKR>();
        std::string address = nkrsim::bleAddress(*unit);
        EXPECT_EQ(device->BLEConnect(spec.bleName.c_str(), address.c_str()), NKR_SUCCESS);
        return device;
    }

    // The status read, the smallest request every unit answers.
    static std::vector<uint8_t> statusPayload() { return {0x7E, 0x5A, 0x02, 0x03}; }
};

}  // namespace nkrtest
