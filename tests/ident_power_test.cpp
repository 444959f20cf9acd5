// The newer family's extras through the exports: battery block decoding,
// error codes, power-off reason, LED, the error-clearing status exchange and
// the controls list.
#include <cerrno>
#include <cstring>
#include <vector>

#include "test_support.h"

namespace {
using Bytes = std::vector<uint8_t>;

class Power : public nkrtest::SimTest {
protected:
    int openPro(nkrsim::UnitId* unit, int fw = 382, const char* type = "NKR Pro")
    {
        nkrsim::UnitSpec spec = nkrtest::proUnitWithFirmware(fw);
        spec.typeText = type;
        return openUnit(spec, unit);
    }
};

TEST_F(Power, BatteryTemperatureBoundsAndDecoding)
{
    nkrsim::UnitId unit;
    const int id = openPro(&unit);
    // Byte 1 is the temperature + 100, then big-endian words.
    const std::pair<int, int> cases[] = {{125, 25}, {60, -40}, {187, 87}, {59, 0}, {188, 0}, {0, 0}};
    for (auto [byte, degrees] : cases) {
        SCOPED_TRACE(byte);
        nkrsim::update(unit, [byte = byte](nkrsim::UnitState& s) {
            s.battery = {0, uint8_t(byte), 0x10, 0x68, 0x01, 0x2C, 87, 0x00, 0x20, 95, 0x10, 0x6A};
        });
        _NKR_BATTERY_INFO info;
        const int rc = NKRGetBatteryInfo(id, &info);
        const int* fields = &info.battery_temp;
        if (degrees == 0) {
            EXPECT_EQ(rc, NKR_ERROR_BATTERY_RANGE);
            for (int i = 0; i < 8; ++i) EXPECT_EQ(fields[i], -1) << "field " << i;
        } else {
            EXPECT_EQ(rc, NKR_SUCCESS);
            EXPECT_EQ(std::vector<int>(fields, fields + 8),
                      (std::vector<int>{degrees, 0x1068, 0x012C, 87, 0x0020, 95, 0x106A, 0}));
        }
    }
    EXPECT_EQ(NKRGetBatteryInfo(id, nullptr), NKR_ERROR_INVALID_VALUE);
}

TEST_F(Power, ErrorCodesReasonAndBatteryFromTheNewerFamilyOnly)
{
    nkrsim::UnitId unit;
    const int id = openPro(&unit);
    nkrsim::update(unit, [](nkrsim::UnitState& s) {
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

    // A failed exchange passes its code and leaves the record alone.
    _NKR_BATTERY_INFO info;
    nkrsim::failTransfers(unit, 1, EIO);
    std::memset(&info, 0x5A, sizeof info);
    EXPECT_EQ(NKRGetBatteryInfo(id, &info), NKR_ERROR_GENERAL);
    EXPECT_EQ(info.battery_temp, 0x5A5A5A5A);

    // The older family has none of these: refused without traffic.
    const int older = openUnit(nkrtest::unitWithFirmware(382), &unit);
    nkrsim::clearSentReports(unit);
    EXPECT_EQ(NKRSetLedState(older, true), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(NKRSetShippingMode(older), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(NKRGetBatteryInfo(older, &info), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_TRUE(nkrsim::sentReports(unit).empty());
}

TEST_F(Power, LedStateIsReadFromTheUnit)
{
    nkrsim::UnitId unit;
    const int id = openPro(&unit);
    ASSERT_EQ(NKRSetLedState(id, true), NKR_SUCCESS);
    EXPECT_TRUE(nkrsim::state(unit).led);
    nkrsim::failTransfers(unit, 1, EIO);
    EXPECT_EQ(NKRSetLedState(id, false), NKR_ERROR_GENERAL);
    bool on = false;
    ASSERT_EQ(NKRGetLedState(id, &on), NKR_SUCCESS);
    EXPECT_TRUE(on);
}

TEST_F(Power, ClearCommandOnlyWhenEnabledAndInErrorState)
{
    nkrsim::UnitId unit;
    const int id = openPro(&unit);
    auto clearsSentBy = [&](auto&& call) {
        nkrsim::clearSentReports(unit);
        EXPECT_EQ(call(), NKR_SUCCESS);
        int n = 0;
        for (const auto& r : nkrsim::sentReports(unit)) n += Bytes(r.begin(), r.begin() + 5) == Bytes{3, 0x7E, 0x5A, 1, 0x0F};
        return n;
    };
    int pos = -1;
    auto read = [&] { return NKRGetPosition(id, &pos); };
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.runState = 6; });
    EXPECT_EQ(clearsSentBy(read), 0) << "clearing disabled";
    ASSERT_EQ(NKRSetClearErr(id, true), NKR_SUCCESS);
    EXPECT_EQ(clearsSentBy(read), 1) << "enabled, error state";
    EXPECT_EQ(nkrsim::state(unit).clearErrorCount, 1);
    EXPECT_EQ(clearsSentBy(read), 0) << "enabled, no error";
    // A failed status exchange passes the transfer's own error on.
    nkrsim::failTransfers(unit, 1, ENODEV);
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_REMOVED);
}

TEST_F(Power, ControlsListDependsOnModelAndFirmware)
{
    using V = std::vector<int>;
    const std::tuple<const char*, int, V> cases[] = {
        {"NKR Pro", 369, V{0, 1, 2, 3, 4, 5}}, {"NKR Pro", 370, V{0, 1, 2, 3, 4, 5, 7}},
        {"NKR Pro", 381, V{0, 1, 2, 3, 4, 5, 7}}, {"NKR Pro", 382, V{0, 1, 2, 3, 4, 5, 7, 6}},
        {"NKRN", 369, V{1, 2, 3, 5}}, {"NKRN", 382, V{1, 2, 3, 5, 7}},
        {"NKR Pro2", 382, V{2}},  // the model word must match whole
    };
    for (const auto& [type, fw, expected] : cases) {
        SCOPED_TRACE(std::string(type) + " " + std::to_string(fw));
        nkrsim::UnitId unit;
        const int id = openPro(&unit, fw, type);
        int count = -1;
        ASSERT_EQ(NKRGetNumOfControls(id, &count), NKR_SUCCESS);
        V ids;
        for (int i = 0; i < count; ++i) {
            _NKR_CONTROL_CAPS caps;
            EXPECT_EQ(NKRGetControlCaps(id, i, &caps), NKR_SUCCESS);
            ids.push_back(caps.ControlType);
        }
        EXPECT_EQ(ids, expected);
        NKRClose(id);
    }
}

TEST_F(Power, ControlRecordsAndIndicesOutsideTheListAreUnknown)
{
    nkrsim::UnitId unit;
    const int id = openPro(&unit, 369, "NKRN");
    int count = 0;
    ASSERT_EQ(NKRGetNumOfControls(id, &count), NKR_SUCCESS);  // builds the list the records index
    _NKR_CONTROL_CAPS caps;
    std::memset(&caps, 0xAB, sizeof caps);
    ASSERT_EQ(NKRGetControlCaps(id, 2, &caps), NKR_SUCCESS);
    EXPECT_STREQ(caps.Name, "NKR Type");
    EXPECT_EQ(std::vector<int>({caps.Supported, caps.Writable, caps.Reserved1[2], caps.Name[31]}),
              std::vector<int>({1, 0, 0, 0}));
    EXPECT_EQ(NKRGetControlCaps(id, 9, &caps), NKR_ERROR_INVALID_INDEX);
    EXPECT_EQ(NKRGetControlCaps(id, 0, nullptr), NKR_ERROR_INVALID_INDEX);
    EXPECT_EQ(NKRGetNumOfControls(id, nullptr), NKR_ERROR_INVALID_VALUE);
    for (int index : {-1, -1000, 4, 8}) {
        std::memset(&caps, 0xAB, sizeof caps);
        ASSERT_EQ(NKRGetControlCaps(id, index, &caps), NKR_SUCCESS) << index;
        EXPECT_STREQ(caps.Name, "Unknown") << index;
        EXPECT_STREQ(caps.Description, "Unknown feature");
        EXPECT_EQ(std::vector<int>({caps.Supported, caps.ControlType, caps.Reserved2[31]}), std::vector<int>({0, 8, 0}));
    }
}

}  // namespace
