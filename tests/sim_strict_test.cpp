// The simulated units check what a real unit checks, and refuse the rest as
// one would: a stalled transfer, or no answer, with each refusal on record.
#include <hidapi/hidapi.h>

#include <cerrno>
#include <initializer_list>

#include "ble/BlueShimExports.h"
#include "ble/BluetoothLEProtocol.h"
#include "ble_test_support.h"

namespace {
using nkrsim::Refusal;
using nkrtest::Bytes;

class SimStrict : public nkrtest::SimTest {
protected:
    // The unit's refusals (kind and message), forgotten once read: the fixture wants none left.
    static std::vector<std::pair<Refusal, Bytes>> takeRefusals(nkrsim::UnitId unit)
    {
        std::vector<std::pair<Refusal, Bytes>> out;
        for (const nkrsim::RefusedMessage& r : nkrsim::refusedMessages(unit)) out.emplace_back(r.why, r.message);
        nkrsim::clearRefusedMessages(unit);
        return out;
    }
};

Bytes sized(std::initializer_list<uint8_t> head, size_t len = 16)
{
    Bytes r(head);
    r.resize(len, 0);
    return r;
}

// A move to 31000 on 3.3.6 firmware, maximum 60000: the control frame every change rides on.
Bytes controlFrame(size_t at = 0, uint8_t value = 0)
{
    Bytes c = {0x03, 0x7E, 0x5A, 0x03, 1, 0, 0, 0, 0x79, 0x18, 0, 0, 0, 0, 0xEA, 0x60};
    if (at != 0) c[at] = value;
    return c;
}

TEST_F(SimStrict, UsbReportsOfAnotherIdOrLengthStallAndBadCommandsAreIgnored)
{
    const nkrsim::UnitId unit = nkrsim::addUnit(nkrtest::unitWithFirmware(336));
    const nkrsim::UnitState before = nkrsim::state(unit);
    hid_device* dev = hid_open_path(nkrsim::usbPath(unit).c_str());
    ASSERT_NE(dev, nullptr);
    const Bytes status = sized({0x03, 0x7E, 0x5A, 0x02, 0x03});
    const struct {
        const char* what;
        Bytes sent;
        Refusal why;
    } cases[] = {
        {"the answer's report id", sized({0x01, 0x7E, 0x5A, 0x02, 0x03}), Refusal::ReportId},
        {"report id 0", sized({0x00, 0x7E, 0x5A, 0x02, 0x03}), Refusal::ReportId},
        {"15 bytes", sized({0x03, 0x7E, 0x5A, 0x02, 0x03}, 15), Refusal::ReportLength},
        {"64 bytes to a 16-byte unit", sized({0x03, 0x7E, 0x5A, 0x02, 0x03}, 64), Refusal::ReportLength},
        {"no mark", sized({0x03, 0x7E, 0x5B, 0x02, 0x03}), Refusal::Mark},
        {"unknown command", sized({0x03, 0x7E, 0x5A, 0x55}), Refusal::Command},
        {"unknown read selector", sized({0x03, 0x7E, 0x5A, 0x02, 0x07}), Refusal::Command},
        {"mode 3", controlFrame(10, 3), Refusal::FixedByte},
        {"flag bit 2", controlFrame(13, 0x04), Refusal::FixedByte},
        {"flag bit 3", controlFrame(13, 0x08), Refusal::FixedByte},
        {"clear 0E", sized({0x03, 0x7E, 0x5A, 0x01, 0x0E}), Refusal::FixedByte},
        {"LED 2", sized({0x03, 0x7E, 0x5A, 0x20, 0x02}), Refusal::FixedByte},
        {"shipping 01", sized({0x03, 0x7E, 0x5A, 0x1F, 0x01}), Refusal::FixedByte},
        {"factory 01 01", sized({0x03, 0x7E, 0x5A, 0x22, 0x01, 0x01}), Refusal::FixedByte},
        {"name sub-command 2", sized({0x03, 0x7E, 0x5A, 0x1E, 0x02}), Refusal::FixedByte},
        {"chunk of 12 in 16 bytes", sized({0x03, 0x7E, 0x5A, 0x10, 12}), Refusal::FixedByte},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const bool stalls = c.why == Refusal::ReportId || c.why == Refusal::ReportLength;
        errno = 0;
        EXPECT_EQ(hid_send_feature_report(dev, c.sent.data(), c.sent.size()), stalls ? -1 : 16);
        if (stalls) {
            EXPECT_EQ(errno, EPIPE);
        }
        // Taken and ignored: nothing to read back.
        unsigned char answer[17] = {0x01};
        EXPECT_TRUE(stalls || (hid_get_feature_report(dev, answer, sizeof answer) == 17 && answer[3] == 0));
        EXPECT_EQ(takeRefusals(unit), (std::vector<std::pair<Refusal, Bytes>>{{c.why, c.sent}}));
    }
    const nkrsim::UnitState after = nkrsim::state(unit);
    EXPECT_EQ(std::tuple(after.target, after.runState, after.led, after.shippingMode, after.factoryMode,
                         after.clearErrorCount, after.bleNameSuffix),
              std::tuple(before.target, before.runState, before.led, before.shippingMode, before.factoryMode,
                         before.clearErrorCount, before.bleNameSuffix));

    // The same frames, right, are taken; a read asks for input report 1, whole.
    ASSERT_EQ(hid_send_feature_report(dev, controlFrame().data(), 16), 16);
    EXPECT_EQ(nkrsim::state(unit).target, 31000);
    ASSERT_EQ(hid_send_feature_report(dev, status.data(), 16), 16);
    unsigned char answer[64] = {0x01};
    EXPECT_EQ(hid_get_feature_report(dev, answer, sizeof answer), 17);
    EXPECT_EQ((Bytes{answer[1], answer[2], answer[3]}), (Bytes{0x7E, 0x5A, 0x03}));
    answer[0] = 0x00;
    EXPECT_EQ(hid_get_feature_report(dev, answer, 17), -1);
    answer[0] = 0x01;
    EXPECT_EQ(hid_get_feature_report(dev, answer, 16), -1);
    const auto reads = takeRefusals(unit);
    ASSERT_EQ(reads.size(), 2u);
    EXPECT_EQ(std::pair(reads[0].first, reads[1].first), std::pair(Refusal::ReportId, Refusal::ReportLength));
    hid_close(dev);
}

TEST_F(SimStrict, ALongReportUnitTakesItsOwnLengthOnly)
{
    nkrsim::UnitSpec spec = nkrtest::unitWithFirmware(370);
    spec.outputReportLen = 64;
    const nkrsim::UnitId unit = nkrsim::addUnit(spec);
    hid_device* dev = hid_open_path(nkrsim::usbPath(unit).c_str());
    ASSERT_NE(dev, nullptr);
    // A 55-byte chunk fits a long report; 16 bytes are not one.
    EXPECT_EQ(hid_send_feature_report(dev, sized({0x03, 0x7E, 0x5A, 0x10, 55}, 64).data(), 64), 64);
    EXPECT_EQ(hid_send_feature_report(dev, sized({0x03, 0x7E, 0x5A, 0x02, 0x03}).data(), 16), -1);
    const auto refused = takeRefusals(unit);
    ASSERT_EQ(refused.size(), 1u);
    EXPECT_EQ(refused[0].first, Refusal::ReportLength);
    hid_close(dev);
}

// A request frame as the library encodes it.
Bytes request(uint8_t command, const Bytes& payload)
{
    BLEProtocol::ProtoRequest r;
    r.command = command;
    r.sequence = 7;
    r.data = payload;
    r.length = static_cast<uint8_t>(payload.size());
    Bytes frame;
    BLEProtocol::encodeRequest(r, frame);
    return frame;
}

// The frame with one byte changed and its checksum made good again.
Bytes changed(Bytes frame, size_t at, uint8_t value)
{
    frame[at] = value;
    frame.back() = BLEProtocol::calculateChecksum(frame.data(), static_cast<uint32_t>(frame.size() - 1));
    return frame;
}

TEST_F(SimStrict, BluetoothRequestsThatAreNotWellFormedGetNoAnswer)
{
    const nkrsim::UnitSpec spec = nkrtest::bleUnitWithFirmware(382);
    const nkrsim::UnitId unit = nkrsim::addUnit(spec);
    void* radio = ble_manager_create();
    ASSERT_EQ(ble_manager_connect(radio, spec.bleName.c_str(), ""), 0);
    ble_set_is_read(radio, 1);
    const Bytes allInfo = request(BLEProtocol::CMD_EXTENDED, {0x7E, 0x5A, 0x01, 0x00});
    Bytes bent = allInfo;
    ++bent.back();
    const Bytes bitThree = controlFrame(13, 0x08);
    const struct {
        const char* what;
        Bytes sent;
        Refusal why;
    } cases[] = {
        {"a response's first byte", changed(allInfo, 0, 0x01), Refusal::FrameKind},
        {"length low byte", changed(allInfo, 1, 5), Refusal::FrameLength},
        {"length high byte", changed(allInfo, 8, 1), Refusal::FrameLength},
        {"reserved byte", changed(allInfo, 10, 1), Refusal::Reserved},
        {"checksum", bent, Refusal::Checksum},
        {"command type 4", changed(allInfo, 3, 4), Refusal::Command},
        {"all-information byte 3", request(BLEProtocol::CMD_EXTENDED, {0x7E, 0x5A, 0x01, 0x01}), Refusal::FixedByte},
        {"unknown extended command", request(BLEProtocol::CMD_EXTENDED, {0x7E, 0x5A, 0x05, 0x00}), Refusal::Command},
        {"device command without its mark", request(BLEProtocol::CMD_DEVICE, {0x7E, 0x5B, 0x02, 0x03}), Refusal::Mark},
        {"control flag bit 3", request(BLEProtocol::CMD_DEVICE, Bytes(bitThree.begin() + 1, bitThree.end())), Refusal::FixedByte},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_TRUE(ble_manager_send(radio, c.sent.data(), static_cast<unsigned>(c.sent.size()), 3, 0));
        EXPECT_FALSE(ble_manager_wait_for_data(radio));
        const auto refused = takeRefusals(unit);
        ASSERT_EQ(refused.size(), 1u);
        EXPECT_EQ(refused[0].first, c.why) << nkrsim::refusalName(refused[0].first);
    }
    EXPECT_EQ(nkrsim::state(unit).runState, 0);
    // The good frame is answered.
    EXPECT_TRUE(ble_manager_send(radio, allInfo.data(), static_cast<unsigned>(allInfo.size()), 3, 0));
    EXPECT_TRUE(ble_manager_wait_for_data(radio));
    ble_manager_disconnect(radio);
    ble_manager_destroy(radio);
}

TEST_F(SimStrict, TheLibraryGetsAnErrorWhereAUnitStalls)
{
    nkrsim::UnitId unit;
    const int id = openQuiet(nkrtest::unitWithFirmware(336), &unit);
    unsigned char cmd[16] = {0x00, 0x7E, 0x5A, 0x02, 0x03};
    unsigned char reply[128] = {};  // the library's report buffer size
    EXPECT_EQ(NKRSendCMD(id, cmd, sizeof cmd, true, reply), NKR_ERROR_GENERAL);
    EXPECT_EQ(nkrsim::refusedTotal(), 1u);
    EXPECT_EQ(takeRefusals(unit).at(0).first, Refusal::ReportId);
    EXPECT_EQ(nkrtest::position(id), 30000) << "the next good exchange works";
}

}  // namespace
