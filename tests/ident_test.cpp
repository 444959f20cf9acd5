// Identity and the newer family's extras through the exports: serials, alias,
// type, Bluetooth name, battery, error codes, LED, error clearing, controls.
#include <cerrno>
#include <cstring>

#include "test_support.h"

namespace {
using nkrtest::unitWithFirmware;
using Bytes = std::vector<uint8_t>;

Bytes head(const Bytes& report, size_t n) { return Bytes(report.begin(), report.begin() + n); }

class Ident : public nkrtest::SimTest {};

TEST_F(Ident, Firmware321RefusesAndSendsNothing322Accepts)
{
    nkrsim::UnitId unit;
    int id = openQuiet(unitWithFirmware(321), &unit);
    _NKR_SN sn;
    _NKR_TYPE type;
    char name[16];
    for (int rc : {NKRGetSerialNumber(id, &sn), NKRSetID(id, _NKR_ID{{'A'}}), NKRGetType(id, &type),
                   NKRGetBLEName(id, name)})
        EXPECT_EQ(rc, NKR_ERROR_NOT_SUPPORTED);
    EXPECT_TRUE(nkrsim::sentReports(unit).empty());
    EXPECT_EQ(NKRGetSerialNumber(openUnit(unitWithFirmware(322)), &sn), NKR_SUCCESS);
}

TEST_F(Ident, SerialIsUnpackedOnOlderUnitsAndPlainOnNewerOnes)
{
    nkrsim::UnitSpec older = unitWithFirmware(336), newer = nkrtest::proUnitWithFirmware(382);
    older.serial = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF7};  // the last half-byte is not 0
    newer.serial = {0xF1, 0xE2, 0xD3, 0xC4, 0xB5, 0xA6, 0x97, 0x88};
    nkrsim::UnitId olderUnit;
    int idOld = openQuiet(older, &olderUnit), idNew = openUnit(newer);
    _NKR_SN sn;
    ASSERT_EQ(NKRGetSerialNumber(idOld, &sn), NKR_SUCCESS);
    EXPECT_EQ(Bytes(sn.SN, sn.SN + 8), older.serial);
    ASSERT_EQ(nkrsim::sentReports(olderUnit).size(), 1u);  // one request: 7E 5A 02 0C
    EXPECT_EQ(head(nkrsim::sentReports(olderUnit)[0], 5), (Bytes{0x03, 0x7E, 0x5A, 0x02, 0x0C}));
    ASSERT_EQ(NKRGetSerialNumber(idNew, &sn), NKR_SUCCESS);
    EXPECT_EQ(Bytes(sn.SN, sn.SN + 8), newer.serial);
}

TEST_F(Ident, AliasAndTypeRoundTripCutToEightCharacters)
{
    nkrsim::UnitId unit;
    int id = openQuiet(nkrtest::proUnitWithFirmware(382), &unit);
    ASSERT_EQ(NKRSetID(id, _NKR_ID{{'S', 'c', 'o', 'p', 'e', '-', '0', '1'}}), NKR_SUCCESS);
    ASSERT_EQ(nkrsim::sentReports(unit).size(), 1u);
    EXPECT_EQ(head(nkrsim::sentReports(unit)[0], 16),
              (Bytes{0x03, 0x7E, 0x5A, 0x0D, 'S', 'c', 'o', 'p', 'e', '-', '0', '1', 0, 0, 0, 0}));
    _NKR_INFO info;
    ASSERT_EQ(NKRGetProperty(id, &info), NKR_SUCCESS);
    EXPECT_STREQ(info.Name, "NKR(Scope-01)");
    // A type read replaces the model word the controls list follows.
    _NKR_TYPE type;
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.typeText = "NKRN"; });
    int count = 0;
    ASSERT_EQ(NKRGetType(id, &type), NKR_SUCCESS);
    ASSERT_EQ(NKRGetNumOfControls(id, &count), NKR_SUCCESS);
    EXPECT_EQ(count, 5);
    // Twelve characters of alias are cut to 8; eight of type still end in a terminator.
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.alias = "ABCDEFGHIJKL", s.typeText = "ABCDEFGH"; });
    ASSERT_EQ(NKRGetProperty(id, &info), NKR_SUCCESS);
    EXPECT_STREQ(info.Name, "NKR(ABCDEFGH)");
    std::memset(&type, 0x41, sizeof type);
    ASSERT_EQ(NKRGetType(id, &type), NKR_SUCCESS);
    EXPECT_STREQ(type.Type, "ABCDEFGH");
}

TEST_F(Ident, BleNameIsReadWithTheModelAndBoundedByTheBuffer)
{
    nkrsim::UnitSpec spec = nkrtest::proUnitWithFirmware(382);
    spec.bleNameSuffix = "A1B2";
    nkrsim::UnitId unit;
    int id = openUnit(spec, &unit);
    char name[20];
    ASSERT_EQ(NKRGetBLEName(id, name), NKR_SUCCESS);
    EXPECT_STREQ(name, "NKR Pro_A1B2");
    // An 11-character part makes a name longer than the export's 16 bytes.
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.bleNameSuffix = "ABCDEFGHIJK"; });
    std::memset(name, 0x7F, sizeof name);
    ASSERT_EQ(NKRGetBLEName(id, name), NKR_SUCCESS);
    EXPECT_EQ(std::string(name, 17), std::string("NKR Pro_ABCDEFG\0\x7F", 17));
    // The export hands a USB slot the whole 16-byte record: always refused.
    nkrsim::clearSentReports(unit);
    EXPECT_EQ(NKRSetBLEName(id, _NKR_BLE_NAME{"Short"}), NKR_ERROR_INVALID_VALUE);
    EXPECT_TRUE(nkrsim::sentReports(unit).empty());
    nkrsim::failTransfers(unit, 1, EIO);
    EXPECT_EQ((std::pair{NKRGetBLEName(id, name), name[0]}), std::pair(int(NKR_ERROR_GENERAL), '\0'));
}

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
    for (auto [byte, degrees] : {std::pair{125, 25}, {60, -40}, {187, 87}, {59, 0}, {188, 0}, {0, 0}}) {
        SCOPED_TRACE(byte);
        nkrsim::update(unit, [b = uint8_t(byte)](auto& s) { s.battery = {0, b, 0x10, 0x68, 1, 0x2C, 87, 0, 0x20, 95, 0x10, 0x6A}; });
        _NKR_BATTERY_INFO info;
        EXPECT_EQ(NKRGetBatteryInfo(id, &info), degrees ? NKR_SUCCESS : NKR_ERROR_BATTERY_RANGE);
        const int* fields = &info.battery_temp;
        EXPECT_EQ(std::vector<int>(fields, fields + 8),
                  degrees ? (std::vector<int>{degrees, 0x1068, 0x012C, 87, 0x0020, 95, 0x106A, 0}) : std::vector<int>(8, -1));
    }
    EXPECT_EQ(NKRGetBatteryInfo(id, nullptr), NKR_ERROR_INVALID_VALUE);
}

TEST_F(Power, ErrorCodesReasonLedAndBatteryFromTheNewerFamilyOnly)
{
    nkrsim::UnitId unit;
    const int id = openPro(&unit);
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.batteryErr = "E5", s.powerOffReason = 2; });
    _NKR_ERROR_MSG msg;
    std::memset(&msg, 0x7F, sizeof msg);
    int reason = -1;
    ASSERT_EQ(NKRGetErrorCode(id, &msg) | NKRGetReason(id, &reason), NKR_SUCCESS);
    EXPECT_EQ(std::string(msg.MotorErrCode) + msg.BatteryErrCode + std::to_string(reason), "E0E52");
    // A failed exchange passes its code and leaves the record alone; the LED is read from the unit.
    _NKR_BATTERY_INFO info;
    nkrsim::failTransfers(unit, 1, EIO);
    std::memset(&info, 0x5A, sizeof info);
    EXPECT_EQ((std::pair{NKRGetBatteryInfo(id, &info), info.battery_temp}), std::pair(int(NKR_ERROR_GENERAL), 0x5A5A5A5A));
    ASSERT_EQ(NKRSetLedState(id, true), NKR_SUCCESS);
    nkrsim::failTransfers(unit, 1, EIO);
    EXPECT_EQ(NKRSetLedState(id, false), NKR_ERROR_GENERAL);
    bool on = false;
    ASSERT_EQ(NKRGetLedState(id, &on), NKR_SUCCESS);
    EXPECT_TRUE(on && nkrsim::state(unit).led);
    ASSERT_EQ(NKRSetShippingMode(id), NKR_SUCCESS);
    EXPECT_TRUE(nkrsim::state(unit).shippingMode);
    // The older family has none of these: refused without traffic.
    const int older = openQuiet(unitWithFirmware(382), &unit);
    for (int rc : {NKRSetLedState(older, true), NKRSetShippingMode(older), NKRGetBatteryInfo(older, &info)})
        EXPECT_EQ(rc, NKR_ERROR_NOT_SUPPORTED);
    EXPECT_TRUE(nkrsim::sentReports(unit).empty());
}

TEST_F(Power, ClearCommandOnlyWhenEnabledAndInErrorState)
{
    nkrsim::UnitId unit;
    const int id = openPro(&unit);
    int pos = -1;
    auto clearsSentByARead = [&] {
        nkrsim::clearSentReports(unit);
        EXPECT_EQ(NKRGetPosition(id, &pos), NKR_SUCCESS);
        int n = 0;
        for (const auto& r : nkrsim::sentReports(unit)) n += head(r, 5) == Bytes{3, 0x7E, 0x5A, 1, 0x0F};
        return n;
    };
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.runState = 6; });
    EXPECT_EQ(clearsSentByARead(), 0) << "clearing disabled";
    ASSERT_EQ(NKRSetClearErr(id, true), NKR_SUCCESS);
    EXPECT_EQ(clearsSentByARead(), 1) << "enabled, error state";
    EXPECT_EQ(nkrsim::state(unit).clearErrorCount, 1);
    EXPECT_EQ(clearsSentByARead(), 0) << "enabled, no error";
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
        for (_NKR_CONTROL_CAPS caps{}; int(ids.size()) < count; ids.push_back(caps.ControlType))
            EXPECT_EQ(NKRGetControlCaps(id, int(ids.size()), &caps), NKR_SUCCESS);
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
    EXPECT_EQ(std::vector<int>({caps.Supported, caps.Writable, caps.Reserved1[2], caps.Name[31]}), std::vector<int>({1, 0, 0, 0}));
    EXPECT_EQ(NKRGetControlCaps(id, 9, &caps), NKR_ERROR_INVALID_INDEX);
    EXPECT_EQ(NKRGetControlCaps(id, 0, nullptr), NKR_ERROR_INVALID_INDEX);
    EXPECT_EQ(NKRGetNumOfControls(id, nullptr), NKR_ERROR_INVALID_VALUE);
    for (int index : {-1, -1000, 4, 8}) {
        std::memset(&caps, 0xAB, sizeof caps);
        ASSERT_EQ(NKRGetControlCaps(id, index, &caps), NKR_SUCCESS) << index;
        EXPECT_EQ(std::string(caps.Name) + "/" + caps.Description, "Unknown/Unknown feature") << index;
        EXPECT_EQ(std::vector<int>({caps.Supported, caps.ControlType, caps.Reserved2[31]}), std::vector<int>({0, 8, 0}));
    }
}

}  // namespace
