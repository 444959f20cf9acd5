// Identity and power commands over Bluetooth: the payloads sent, the answers
// read from index 4, and short or refused answers.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ble_test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

class IdentBle : public nkrtest::BleTest {
protected:
    void SetUp() override
    {
        BleTest::SetUp();
        nkrsim::UnitSpec spec = nkrtest::bleUnitWithFirmware(382);
        spec.serial = {0x10, 0x20, 0x30, 0x40, 0x50, 0x60, 0x70, 0x80};
        dev = connect(spec, &unit);
        ASSERT_EQ(dev->BLEPair(), NKR_SUCCESS);
        ASSERT_TRUE(dev->m_bCanFactory);
    }

    // Payload of the last request frame: 00 len seq cmd payload lenHigh 00 00 00 sum.
    Bytes lastPayload()
    {
        auto frames = nkrsim::sentFrames(unit);
        if (frames.empty()) return {};
        const Bytes& f = frames.back();
        return Bytes(f.begin() + 4, f.end() - 5);
    }

    // Replaces the next answer with a frame of the given type and tail,
    // carrying the sequence number the next request will have.
    void rawNextAnswer(uint8_t type, const Bytes& tail)
    {
        auto frames = nkrsim::sentFrames(unit);
        ASSERT_FALSE(frames.empty());  // pairing has sent some
        uint8_t seq = static_cast<uint8_t>(frames.back()[2] + 1);
        Bytes frame = {type, static_cast<uint8_t>(tail.size()), seq};
        for (uint8_t b : tail) frame.push_back(b);
        nkrsim::bleRawAnswer(unit, frame);
    }

    nkrsim::UnitId unit = 0;
    std::unique_ptr<CNKR> dev;
};

TEST_F(IdentBle, IdentityRoundTrips)
{
    unsigned char sn[8];
    ASSERT_EQ(dev->getSerialNumber(sn, 8, true), NKR_SUCCESS);
    EXPECT_EQ(Bytes(sn, sn + 8), (Bytes{0x10, 0x20, 0x30, 0x40, 0x50, 0x60, 0x70, 0x80}));
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x02, 0x0C}));

    const unsigned char alias[8] = {'b', 'l', 'e', '-', 'u', 'n', 'i', 't'};
    ASSERT_EQ(dev->setAlias(alias, 8, true), NKR_SUCCESS);
    Bytes expected = {0x7E, 0x5A, 0x0D, 'b', 'l', 'e', '-', 'u', 'n', 'i', 't', 0, 0, 0, 0};
    EXPECT_EQ(lastPayload(), expected);
    char text[8];
    ASSERT_EQ(dev->getAlias(text, 8, true), NKR_SUCCESS);
    EXPECT_EQ(std::string(text, 8), "ble-unit");

    _NKR_TYPE type;
    ASSERT_EQ(dev->getType(&type, true), NKR_SUCCESS);
    EXPECT_STREQ(type.Type, "NKR Pro");

    // The name goes as 7E 5A 1E 00 and its characters, without waiting.
    ASSERT_EQ(dev->setBLEName("Dome", 4, true), NKR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x1E, 0x00, 'D', 'o', 'm', 'e'}));
    EXPECT_EQ(nkrsim::state(unit).bleNameSuffix, "Dome");
}

TEST_F(IdentBle, ShortOrRefusedAnswers)
{
    unsigned char sn[8];
    int reason = 7;

    // Too short to hold a status byte.
    rawNextAnswer(0x05, {});
    EXPECT_EQ(dev->getSerialNumber(sn, 8, true), NKR_ERROR_GENERAL);

    // A status but no data behind it.
    rawNextAnswer(0x07, {0x00});
    EXPECT_EQ(dev->getPowerOffReason(&reason, true), NKR_ERROR_GENERAL);
    EXPECT_EQ(reason, 7);
    unsigned char major, minor, build;
    rawNextAnswer(0x07, {0x00, 0x00, 0x03});
    EXPECT_EQ(dev->getFwVer(&major, &minor, &build, true), NKR_ERROR_GENERAL);
    bool on;
    rawNextAnswer(0x07, {0x00});
    EXPECT_EQ(dev->getLEDState(&on, true), NKR_ERROR_GENERAL);

    // A refusing status leaves the outputs empty and is no error.
    std::memset(sn, 0x55, sizeof sn);
    nkrsim::bleStatus(unit, 0x05);
    EXPECT_EQ(dev->getSerialNumber(sn, 8, true), NKR_SUCCESS);
    EXPECT_EQ(Bytes(sn, sn + 8), Bytes(8, 0));

}

TEST_F(IdentBle, PowerCommands)
{
    nkrsim::update(unit, [](nkrsim::UnitState& s) {
        s.motorErr = "E7";
        s.batteryErr = "E8";
        s.battery[1] = 59;  // below -40 degrees
    });
    _NKR_ERROR_MSG msg;
    ASSERT_EQ(dev->getErrorCode(&msg, true), NKR_SUCCESS);
    EXPECT_STREQ(msg.MotorErrCode, "E7");
    EXPECT_STREQ(msg.BatteryErrCode, "E8");
    _NKR_BATTERY_INFO info;
    EXPECT_EQ(dev->getBatteryInfo(&info, true), NKR_ERROR_BATTERY_RANGE);
    EXPECT_EQ(info.battery_vol, -1);
    Bytes battery = {0x7E, 0x5A, 0x02, 0x1E};
    battery.resize(15, 0);
    EXPECT_EQ(lastPayload(), battery);

    ASSERT_EQ(dev->setLEDState(true, true), NKR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x20, 0x01}));
    bool on = false;
    ASSERT_EQ(dev->getLEDState(&on, true), NKR_SUCCESS);
    EXPECT_TRUE(on);

    // A BLE-driven object reads the status over its own link.
    dev->bIsBleControl = true;
    ASSERT_EQ(dev->clearError(), NKR_SUCCESS);
    EXPECT_EQ(lastPayload(), (Bytes{0x7E, 0x5A, 0x02, 0x03}));
}

}  // namespace
