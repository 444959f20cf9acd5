// Firmware update over USB and Bluetooth: gates, block lengths, how blocks
// are cut into reports, and that the unit receives exactly the image sent.
#include <cerrno>
#include <cstring>

#include "ble_test_support.h"

namespace {
using nkrtest::Bytes;
using nkrtest::payloadOf;

Bytes makeImage(size_t size, int factor = 7)
{
    Bytes image(size);
    for (size_t i = 0; i < size; ++i) image[i] = static_cast<uint8_t>(i * factor + 3);
    return image;
}

class Update : public nkrtest::SimTest {
protected:
    int openWithReports(int reportLen, nkrsim::UnitId* unit, int fw = 380)
    {
        nkrsim::UnitSpec spec = nkrtest::unitWithFirmware(fw);
        spec.outputReportLen = reportLen;
        return openQuiet(spec, unit);
    }
    static _NKR_HID_FILE_BUF block(const Bytes& image, size_t offset, size_t len)
    {
        _NKR_HID_FILE_BUF b{};
        b.len = static_cast<int>(len);
        std::memcpy(b.buf, image.data() + offset, len);
        return b;
    }
    // Start, every block in order, end; returns the first failure.
    static int sendImage(int id, const Bytes& image, size_t blockLen)
    {
        int rc = NKRHidStartUpdate(id);
        for (size_t off = 0; rc == NKR_SUCCESS && off < image.size(); off += blockLen)
            rc = NKRHidWriteUpdateFile(id, block(image, off, std::min(blockLen, image.size() - off)));
        return rc != NKR_SUCCESS ? rc : NKRHidEndUpdate(id);
    }
};

TEST_F(Update, StartNeedsFirmware370AndTheUnitsConsent)
{
    nkrsim::UnitId old, cur;
    EXPECT_EQ(NKRHidStartUpdate(openWithReports(16, &old, 369)), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_TRUE(nkrsim::sentReports(old).empty());
    int id = openWithReports(16, &cur, 370);
    ASSERT_EQ(NKRHidStartUpdate(id), NKR_SUCCESS);
    auto sent = nkrsim::sentReports(cur);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(Bytes(sent[0].begin(), sent[0].begin() + 4), (Bytes{0x03, 0x7E, 0x5A, 0x0F}));
    EXPECT_TRUE(nkrsim::inUpdateMode(cur));
    nkrsim::UpdateConfig refuse;
    refuse.refuseStart = true;
    nkrsim::configureUpdate(cur, refuse);
    EXPECT_EQ(NKRHidStartUpdate(id), NKR_ERROR_BAD_STATE);
}

TEST_F(Update, BlockLengthsAndReportCutting)
{
    nkrsim::UnitId unit;
    int id = openWithReports(16, &unit);
    ASSERT_EQ(NKRHidStartUpdate(id), NKR_SUCCESS);
    nkrsim::clearSentReports(unit);
    Bytes image = makeImage(55);
    for (int bad : {0, 56, -1}) {
        _NKR_HID_FILE_BUF b = block(image, 0, 55);
        EXPECT_EQ(NKRHidWriteUpdateFile(id, (b.len = bad, b)), NKR_ERROR_BAD_LENGTH) << bad;
    }
    EXPECT_TRUE(nkrsim::sentReports(unit).empty());
    // 55 bytes go as five reports of 11, 12 as 11 and 1 (zero padded).
    for (size_t len : {size_t{55}, size_t{12}}) {
        nkrsim::clearSentReports(unit);
        ASSERT_EQ(NKRHidWriteUpdateFile(id, block(image, 0, len)), NKR_SUCCESS);
        const auto sent = nkrsim::sentReports(unit);
        ASSERT_EQ(sent.size(), (len + 10) / 11);
        for (size_t i = 0, at = 0; i < sent.size(); ++i, at += 11) {
            const size_t n = std::min<size_t>(11, len - at);
            Bytes expected = {0x03, 0x7E, 0x5A, 0x10, uint8_t(n)};
            expected.insert(expected.end(), image.begin() + long(at), image.begin() + long(at + n));
            expected.resize(16, 0);
            EXPECT_EQ(sent[i], expected) << len << " report " << i;
        }
    }
}

TEST_F(Update, UnitCollectsTheImageSent)
{
    for (int reportLen : {16, 64}) {
        nkrsim::UnitId unit;
        int id = openWithReports(reportLen, &unit);
        Bytes image = makeImage(1000);  // no multiple of the block size: the last block is short
        ASSERT_EQ(sendImage(id, image, 55), NKR_SUCCESS) << reportLen;
        EXPECT_EQ(nkrsim::receivedImage(unit), image) << reportLen;
        // Long reports carry a whole block each: start, 19 blocks, end.
        EXPECT_TRUE(reportLen == 16 || nkrsim::sentReports(unit).size() == 21u);
        EXPECT_FALSE(nkrsim::inUpdateMode(unit));
        EXPECT_EQ(nkrsim::state(unit).fwMinor, 9);  // the unit took the new firmware
        NKRClose(id);
    }
}

TEST_F(Update, TransferErrorIsReportedAndANewStartWorks)
{
    nkrsim::UnitId unit;
    int id = openWithReports(16, &unit);
    Bytes image = makeImage(300);
    ASSERT_EQ(NKRHidStartUpdate(id), NKR_SUCCESS);
    nkrsim::clearSentReports(unit);  // then the first report of a three-report block fails: the rest is not sent
    ASSERT_EQ(NKRHidWriteUpdateFile(id, block(image, 55, 11)), NKR_SUCCESS);
    nkrsim::failTransfers(unit, 1, EIO);
    EXPECT_EQ(NKRHidWriteUpdateFile(id, block(image, 66, 33)), NKR_ERROR_GENERAL);
    EXPECT_EQ(nkrsim::sentReports(unit).size(), 1u);
    // Starting over gives a clean image.
    ASSERT_EQ(sendImage(id, image, 40), NKR_SUCCESS);
    EXPECT_EQ(nkrsim::receivedImage(unit), image);
}

class UpdateBle : public nkrtest::SimTest {
protected:
    int pairedUnit(int fw, nkrsim::UnitId* unit)
    {
        const int id = nkrtest::connected(fw, unit, true);
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
    const Bytes image = makeImage(74565, 13);
    ASSERT_EQ(NKRBLEStartUpdate(id, static_cast<int>(image.size())), NKR_SUCCESS);
    auto frames = nkrsim::sentFrames(unit);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0][3], BLEProtocol::CMD_EXTENDED);
    EXPECT_EQ(payloadOf(frames[0]), (Bytes{0x7E, 0x5A, 0x02, 0x00, 0x01, 0x23, 0x45}));
    // Lengths the record or the exchange cannot carry never reach the unit.
    nkrsim::clearSentFrames(unit);
    for (int bad : {0, 3, -1, 481}) {
        _NKR_BLE_FILE_BUF b = block(image, 0, 4);
        EXPECT_EQ(NKRBLEWriteUpdateFile(id, (b.length = bad, b)), NKR_ERROR_BAD_LENGTH) << bad;
    }
    EXPECT_TRUE(nkrsim::sentFrames(unit).empty());
    for (size_t off = 0; off < image.size(); off += 480)
        ASSERT_EQ(NKRBLEWriteUpdateFile(id, block(image, off, std::min<size_t>(480, image.size() - off))), NKR_SUCCESS);
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
    nkrsim::bleRawAnswer(unit, {0x07, 0x02, uint8_t(nkrsim::sentFrames(unit).back()[2] + 1), 0x00, 0x01});
    EXPECT_EQ(NKRBLEWriteUpdateFile(id, block(image, 0, 480)), NKR_ERROR_BAD_LENGTH);
    nkrsim::bleSilence(unit, 1);
    EXPECT_EQ(NKRBLEWriteUpdateFile(id, block(image, 0, 480)), NKR_ERROR_BLE_NO_ANSWER);
}

}  // namespace
