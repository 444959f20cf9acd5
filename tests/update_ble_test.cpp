// Firmware update over Bluetooth: firmware gate, the start payload, block
// lengths refused before sending, and the acknowledged length.
#include <vector>

#include "ble_test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;
using nkrtest::payloadOf;

class UpdateBle : public nkrtest::SimTest {
protected:
    int pairedUnit(int fw, nkrsim::UnitId* unit)
    {
        const nkrsim::UnitSpec spec = nkrtest::bleUnitWithFirmware(fw);
        *unit = nkrsim::addUnit(spec);
        const int id = nkrtest::connectAndPair(spec, *unit);
        nkrsim::clearSentFrames(*unit);
        return id;
    }

    static _NKR_BLE_FILE_BUF block(const Bytes& image, size_t offset, size_t len)
    {
        _NKR_BLE_FILE_BUF b{};
        b.length = static_cast<int>(len);
        std::copy_n(image.begin() + static_cast<long>(offset), len, b.data);
        return b;
    }
};

TEST_F(UpdateBle, ImageGoesOutInAcknowledgedBlocksFromFirmware382)
{
    nkrsim::UnitId old;
    const int older = pairedUnit(381, &old);
    EXPECT_EQ(NKRBLEStartUpdate(older, 100), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(NKRBLEWriteUpdateFile(older, block(Bytes(100, 0x11), 0, 100)), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_TRUE(nkrsim::sentFrames(old).empty());

    nkrsim::UnitId unit;
    const int id = pairedUnit(382, &unit);
    Bytes image(74565);
    for (size_t i = 0; i < image.size(); ++i) image[i] = static_cast<uint8_t>(i * 13 + 1);

    ASSERT_EQ(NKRBLEStartUpdate(id, static_cast<int>(image.size())), NKR_SUCCESS);
    auto frames = nkrsim::sentFrames(unit);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0][3], BLEProtocol::CMD_EXTENDED);
    EXPECT_EQ(payloadOf(frames[0]), (Bytes{0x7E, 0x5A, 0x02, 0x00, 0x01, 0x23, 0x45}));

    // Lengths the record or the exchange cannot carry never reach the unit.
    nkrsim::clearSentFrames(unit);
    for (int bad : {0, 3, -1, 481}) {
        _NKR_BLE_FILE_BUF b = block(image, 0, 4);
        b.length = bad;
        EXPECT_EQ(NKRBLEWriteUpdateFile(id, b), NKR_ERROR_BAD_LENGTH) << bad;
    }
    EXPECT_TRUE(nkrsim::sentFrames(unit).empty());

    for (size_t off = 0; off < image.size(); off += 480) {
        size_t len = std::min<size_t>(480, image.size() - off);
        ASSERT_EQ(NKRBLEWriteUpdateFile(id, block(image, off, len)), NKR_SUCCESS) << off;
    }
    EXPECT_EQ(nkrsim::receivedImage(unit), image);
    EXPECT_EQ(payloadOf(nkrsim::sentFrames(unit).front()), Bytes(image.begin(), image.begin() + 480));
}

TEST_F(UpdateBle, WrongAcknowledgementOrShortAnswer)
{
    nkrsim::UnitId unit;
    const int id = pairedUnit(382, &unit);
    ASSERT_EQ(NKRBLEStartUpdate(id, 2000), NKR_SUCCESS);
    Bytes image(480, 0x42);

    nkrsim::UpdateConfig off;
    off.ackLengthDelta = -1;  // 0x01DF for a block of 0x01E0
    nkrsim::configureUpdate(unit, off);
    EXPECT_EQ(NKRBLEWriteUpdateFile(id, block(image, 0, 480)), NKR_ERROR_BLE_LENGTH_MISMATCH);

    // An answer without the acknowledged length.
    auto frames = nkrsim::sentFrames(unit);
    uint8_t seq = static_cast<uint8_t>(frames.back()[2] + 1);
    nkrsim::bleRawAnswer(unit, {0x07, 0x02, seq, 0x00, 0x01});
    EXPECT_EQ(NKRBLEWriteUpdateFile(id, block(image, 0, 480)), NKR_ERROR_BAD_LENGTH);

    nkrsim::bleSilence(unit, 1);
    EXPECT_EQ(NKRBLEWriteUpdateFile(id, block(image, 0, 480)), NKR_ERROR_BLE_NO_ANSWER);
}

}  // namespace
