// A whole Bluetooth session through the real helper and D-Bus: scan, connect,
// pair, read, move, stop, sync, settings, all information, firmware update.
#include <cstring>

#include "bluez_fixture.h"

namespace bluez {
namespace {

using BlueZSession = BlueZTest;

TEST_F(BlueZSession, ScanListsTheUnitWithItsAddressAndNotTheNearbySensor)
{
    _BLE_DEVICE_INFO found[8] = {};
    int count = -1;
    ASSERT_EQ(NKRBLEScan(1000, found, 8, &count), NKR_SUCCESS);
    ASSERT_EQ(count, 1);
    EXPECT_EQ(std::string(found[0].Name) + " " + found[0].Address, std::string(kUnitName) + " " + kUnitAddress);
}

TEST_F(BlueZSession, ConnectByNameDrivesTheUnit)
{
    int id = connectAndPair(kUnitName);  // (the firmware version read: BlueZFraming)
    int position = -1;
    ASSERT_EQ(NKRGetPosition(id, &position), NKR_SUCCESS);
    EXPECT_EQ(position, 30000);
    // Sync near the end, then move to the end: both seen in the status.
    int maxStep = 0;
    ASSERT_EQ(NKRGetMaxStep(id, &maxStep), NKR_SUCCESS);
    ASSERT_EQ(NKRResetPostion(id, maxStep - 300), NKR_SUCCESS);
    ASSERT_EQ(NKRGetPosition(id, &position), NKR_SUCCESS);
    EXPECT_EQ(position, maxStep - 300);
    ASSERT_EQ(NKRMove(id, maxStep), NKR_SUCCESS);
    ASSERT_TRUE(waitStopped(id));
    ASSERT_EQ(NKRGetPosition(id, &position), NKR_SUCCESS);
    EXPECT_EQ(position, maxStep);
    // A long move stopped part-way ends short of its target.
    ASSERT_EQ(NKRMove(id, 0), NKR_SUCCESS);
    ASSERT_EQ(NKRStop(id), NKR_SUCCESS);
    ASSERT_TRUE(waitStopped(id));
    ASSERT_EQ(NKRGetPosition(id, &position), NKR_SUCCESS);
    EXPECT_TRUE(position > 0 && position < maxStep) << position;
    // Settings go out and come back, in the all-information answer (longer than one notification).
    ASSERT_EQ(NKRSetBacklash(id, 37) | NKRSetReverse(id, true) | NKRSetBeep(id, true), NKR_SUCCESS);
    _NKR_ALL_INFO info{};
    ASSERT_EQ(NKRBLEgetAllInfo(id, &info), NKR_SUCCESS);
    EXPECT_EQ(std::vector<int>({info.Backlash, info.Reverse, info.Beep, info.Step}),
              std::vector<int>({37, 1, 1, position}));
    EXPECT_NEAR(info.Temperature, 25.0, 0.01);
    EXPECT_EQ(NKRBLEClearPair(id), NKR_SUCCESS);
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
}

TEST_F(BlueZSession, ConnectByAddressAndUpdateFirmware)
{
    int id = connectAndPair(kUnitAddress);
    // An image in 480-byte blocks, each frame cut into 20-byte writes.
    std::vector<unsigned char> image(480 * 5 + 123);
    for (size_t i = 0; i < image.size(); ++i) image[i] = static_cast<unsigned char>(i * 7 + 3);
    ASSERT_EQ(NKRBLEStartUpdate(id, static_cast<int>(image.size())), NKR_SUCCESS);
    for (size_t off = 0; off < image.size(); off += 480) {
        _NKR_BLE_FILE_BUF block{};
        block.length = static_cast<int>(std::min<size_t>(480, image.size() - off));
        std::memcpy(block.data, image.data() + off, static_cast<size_t>(block.length));
        ASSERT_EQ(NKRBLEWriteUpdateFile(id, block), NKR_SUCCESS) << off;
    }
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
    // The unit restarts with the new firmware.
    id = connectAndPair(kUnitAddress);
    unsigned char major = 0, minor = 0, build = 0;
    ASSERT_EQ(NKRGetFirmwareVersion(id, &major, &minor, &build), NKR_SUCCESS);
    EXPECT_EQ(major * 100 + minor * 10 + build, 390);
    EXPECT_EQ(NKRBLEDisconnect(id), NKR_SUCCESS);
}

}  // namespace
}  // namespace bluez
