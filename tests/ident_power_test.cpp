// Battery block decoding, error codes, power-off reason, LED and the
// error-clearing status exchange.
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "device/NKR.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A battery block: byte 0 unused, byte 1 temperature + 100, then the words.
Bytes batteryBlock(uint8_t tempByte, size_t len = 12)
{
    Bytes b = {0, tempByte, 0x10, 0x68, 0x01, 0x2C, 87, 0x00, 0x20, 95, 0x10, 0x6A};
    b.resize(len, 0xEE);
    return b;
}

TEST(PowerBattery, TemperatureBoundsAndLengths)
{
    _NKR_BATTERY_INFO info;
    Bytes b = batteryBlock(125);
    ASSERT_EQ(CNKR::parseBatteryInfo(b.data(), 12, &info), NKR_SUCCESS);
    const _NKR_BATTERY_INFO decoded = {25, 0x1068, 0x012C, 87, 0x0020, 95, 0x106A, 0};
    EXPECT_EQ(std::memcmp(&info, &decoded, sizeof info), 0);

    for (auto [byte, degrees] : {std::pair{60, -40}, std::pair{187, 87}}) {
        b = batteryBlock(static_cast<uint8_t>(byte));
        ASSERT_EQ(CNKR::parseBatteryInfo(b.data(), 12, &info), NKR_SUCCESS);
        EXPECT_EQ(info.battery_temp, degrees);
    }

    for (uint8_t outside : {uint8_t{59}, uint8_t{188}, uint8_t{0}}) {
        b = batteryBlock(outside);
        EXPECT_EQ(CNKR::parseBatteryInfo(b.data(), 12, &info), NKR_ERROR_BATTERY_RANGE);
        const int* fields = &info.battery_temp;
        for (int i = 0; i < 8; ++i) EXPECT_EQ(fields[i], -1) << int(outside) << " field " << i;
    }

    // 10 bytes are too few; 11 are decoded, the missing low byte of the
    // charge voltage counting as 0.
    b = batteryBlock(125, 10);
    std::memset(&info, 0x5A, sizeof info);
    EXPECT_EQ(CNKR::parseBatteryInfo(b.data(), 10, &info), NKR_ERROR_BAD_LENGTH);
    EXPECT_EQ(info.battery_temp, 0x5A5A5A5A);
    b = batteryBlock(125, 11);
    ASSERT_EQ(CNKR::parseBatteryInfo(b.data(), 11, &info), NKR_SUCCESS);
    EXPECT_EQ(info.battery_health, 95);
    EXPECT_EQ(info.battery_charge_vol, 0x1000);

    EXPECT_EQ(CNKR::parseBatteryInfo(nullptr, 0, &info), NKR_ERROR_INVALID_VALUE);
    EXPECT_EQ(CNKR::parseBatteryInfo(b.data(), 11, nullptr), NKR_ERROR_INVALID_VALUE);
}

class Power : public nkrtest::SimTest {
protected:
    int openPro(nkrsim::UnitId* unit) { return openUnit(nkrtest::proUnitWithFirmware(382), unit); }
};

TEST_F(Power, ErrorCodesReasonAndBatteryFromTheNewerFamilyOnly)
{
    nkrsim::UnitId unit;
    int id = openPro(&unit);
    nkrsim::update(unit, [](nkrsim::UnitState& s) {
        s.motorErr = "E0";
        s.batteryErr = "E5";
        s.powerOffReason = 2;
    });

    _NKR_ERROR_MSG msg;
    std::memset(&msg, 0x7F, sizeof msg);
    ASSERT_EQ(NKRGetErrorCode(id, &msg), NKR_SUCCESS);
    EXPECT_STREQ(msg.MotorErrCode, "E0");
    EXPECT_STREQ(msg.BatteryErrCode, "E5");

    int reason = -1;
    ASSERT_EQ(NKRGetReason(id, &reason), NKR_SUCCESS);
    EXPECT_EQ(reason, 2);

    _NKR_BATTERY_INFO info;
    ASSERT_EQ(NKRGetBatteryInfo(id, &info), NKR_SUCCESS);
    EXPECT_EQ(info.battery_temp, 25);
    EXPECT_EQ(info.battery_percentage, 87);

    // A failed exchange passes its code and leaves the record alone.
    nkrsim::failTransfers(unit, 1, EIO);
    std::memset(&info, 0x5A, sizeof info);
    EXPECT_EQ(NKRGetBatteryInfo(id, &info), NKR_ERROR_GENERAL);
    EXPECT_EQ(info.battery_temp, 0x5A5A5A5A);

    // The older family has none of these: refused without traffic.
    int older = openUnit(nkrtest::unitWithFirmware(382), &unit);
    nkrsim::clearSentReports(unit);
    EXPECT_EQ(NKRSetLedState(older, true), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(NKRSetShippingMode(older), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(NKRGetBatteryInfo(older, &info), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_TRUE(nkrsim::sentReports(unit).empty());
}

TEST_F(Power, LedStateIsRecordedEvenWhenTheTransferFails)
{
    nkrsim::UnitId unit;
    int id = openPro(&unit);
    ASSERT_EQ(NKRSetLedState(id, true), NKR_SUCCESS);
    EXPECT_TRUE(nkrsim::state(unit).led);
    nkrsim::failTransfers(unit, 1, EIO);
    EXPECT_EQ(NKRSetLedState(id, false), NKR_ERROR_GENERAL);
    EXPECT_FALSE(dev(id)->m_bLedOn);
    EXPECT_TRUE(nkrsim::state(unit).led);

    bool on = false;
    ASSERT_EQ(NKRGetLedState(id, &on), NKR_SUCCESS);
    EXPECT_TRUE(on);
    EXPECT_TRUE(dev(id)->m_bLedOn);
}

TEST_F(Power, ClearCommandOnlyWhenEnabledAndInErrorState)
{
    nkrsim::UnitId unit;
    int id = openPro(&unit);
    CNKR* d = dev(id);
    const Bytes clearCmd = {0x03, 0x7E, 0x5A, 0x01, 0x0F};
    auto clearsSent = [&] {
        int n = 0;
        for (const auto& r : nkrsim::sentReports(unit))
            if (Bytes(r.begin(), r.begin() + 5) == clearCmd) ++n;
        return n;
    };

    // Error state, clearing disabled: the status is read, nothing cleared.
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.runState = 6; });
    nkrsim::clearSentReports(unit);
    ASSERT_EQ(d->clearError(), NKR_SUCCESS);
    EXPECT_EQ(d->pszInBuf[4], 6);
    EXPECT_EQ(clearsSent(), 0);
    ASSERT_EQ(nkrsim::sentReports(unit).size(), 1u);

    // Enabled, error state: one clear command.
    ASSERT_EQ(NKRSetClearErr(id, true), NKR_SUCCESS);
    ASSERT_EQ(d->clearError(), NKR_SUCCESS);
    EXPECT_EQ(clearsSent(), 1);
    EXPECT_EQ(nkrsim::state(unit).clearErrorCount, 1);

    // Enabled, no error: none.
    nkrsim::clearSentReports(unit);
    ASSERT_EQ(d->clearError(), NKR_SUCCESS);
    EXPECT_EQ(clearsSent(), 0);

    // A failed status exchange passes the transfer's own error on; no link: 2.
    nkrsim::failTransfers(unit, 1, ENODEV);
    EXPECT_EQ(d->clearError(), NKR_ERROR_REMOVED);
    CNKR closed;
    EXPECT_EQ(closed.clearError(), NKR_ERROR_INVALID_ID);
}

}  // namespace
