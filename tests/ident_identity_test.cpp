// Identity commands against simulated units: firmware gates, the two serial
// forms, alias and Bluetooth name round trips.
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using nkrtest::unitWithFirmware;
using Bytes = std::vector<uint8_t>;

class Ident : public nkrtest::SimTest {
protected:
    static nkrsim::UnitSpec proUnit() { return nkrtest::proUnitWithFirmware(382); }
    static Bytes head(const Bytes& report, size_t n) { return Bytes(report.begin(), report.begin() + n); }
};

TEST_F(Ident, Firmware321RefusesAndSendsNothing322Accepts)
{
    nkrsim::UnitId unit;
    int id = openUnit(unitWithFirmware(321), &unit);
    nkrsim::clearSentReports(unit);
    _NKR_SN sn;
    _NKR_TYPE type;
    char name[16];
    EXPECT_EQ(NKRGetSerialNumber(id, &sn), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(NKRSetID(id, _NKR_ID{{'A'}}), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(NKRGetType(id, &type), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(NKRGetBLEName(id, name), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_TRUE(nkrsim::sentReports(unit).empty());

    int id2 = openUnit(unitWithFirmware(322));
    EXPECT_EQ(NKRGetSerialNumber(id2, &sn), NKR_SUCCESS);
}

TEST_F(Ident, SerialIsUnpackedOnOlderUnitsAndPlainOnNewerOnes)
{
    nkrsim::UnitSpec older = unitWithFirmware(336);
    older.serial = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF7};  // the last half-byte is not 0
    nkrsim::UnitSpec newer = proUnit();
    newer.serial = {0xF1, 0xE2, 0xD3, 0xC4, 0xB5, 0xA6, 0x97, 0x88};
    nkrsim::UnitId olderUnit;
    int idOld = openUnit(older, &olderUnit);
    int idNew = openUnit(newer);
    nkrsim::clearSentReports(olderUnit);

    _NKR_SN sn;
    ASSERT_EQ(NKRGetSerialNumber(idOld, &sn), NKR_SUCCESS);
    EXPECT_EQ(Bytes(sn.SN, sn.SN + 8), older.serial);
    ASSERT_EQ(nkrsim::sentReports(olderUnit).size(), 1u);
    EXPECT_EQ(head(nkrsim::sentReports(olderUnit)[0], 5), (Bytes{0x03, 0x7E, 0x5A, 0x02, 0x0C}));
    ASSERT_EQ(NKRGetSerialNumber(idNew, &sn), NKR_SUCCESS);
    EXPECT_EQ(Bytes(sn.SN, sn.SN + 8), newer.serial);
}

TEST_F(Ident, AliasOfEightCharactersRoundTrips)
{
    nkrsim::UnitId unit;
    int id = openUnit(unitWithFirmware(336), &unit);
    nkrsim::clearSentReports(unit);

    _NKR_ID alias;
    std::memcpy(alias.id, "Scope-01", 8);
    ASSERT_EQ(NKRSetID(id, alias), NKR_SUCCESS);
    ASSERT_EQ(nkrsim::sentReports(unit).size(), 1u);
    EXPECT_EQ(head(nkrsim::sentReports(unit)[0], 16),
              (Bytes{0x03, 0x7E, 0x5A, 0x0D, 'S', 'c', 'o', 'p', 'e', '-', '0', '1', 0, 0, 0, 0}));
    _NKR_INFO info;
    ASSERT_EQ(NKRGetProperty(id, &info), NKR_SUCCESS);
    EXPECT_STREQ(info.Name, "NKR(Scope-01)");

    // A 12-character alias is cut to 8.
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.alias = "ABCDEFGHIJKL"; });
    ASSERT_EQ(NKRGetProperty(id, &info), NKR_SUCCESS);
    EXPECT_STREQ(info.Name, "NKR(ABCDEFGH)");
}

TEST_F(Ident, TypeReadReplacesTheModelWord)
{
    nkrsim::UnitId unit;
    int id = openUnit(proUnit(), &unit);
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.typeText = "NKRN"; });
    _NKR_TYPE type;
    std::memset(&type, 0x41, sizeof type);
    ASSERT_EQ(NKRGetType(id, &type), NKR_SUCCESS);
    EXPECT_STREQ(type.Type, "NKRN");
    int count = 0;
    ASSERT_EQ(NKRGetNumOfControls(id, &count), NKR_SUCCESS);
    EXPECT_EQ(count, 5);

    // Eight characters fill the answer and still end in a terminator.
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.typeText = "ABCDEFGH"; });
    ASSERT_EQ(NKRGetType(id, &type), NKR_SUCCESS);
    EXPECT_STREQ(type.Type, "ABCDEFGH");
}

TEST_F(Ident, BleNameIsReadWithTheModelAndBoundedByTheBuffer)
{
    nkrsim::UnitSpec spec = proUnit();
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
    EXPECT_STREQ(name, "NKR Pro_ABCDEFG");
    EXPECT_EQ(name[16], 0x7F);

    // The export hands a USB slot the whole 16-byte record: always refused.
    nkrsim::clearSentReports(unit);
    EXPECT_EQ(NKRSetBLEName(id, _NKR_BLE_NAME{"Short"}), NKR_ERROR_INVALID_VALUE);
    EXPECT_TRUE(nkrsim::sentReports(unit).empty());

    nkrsim::failTransfers(unit, 1, EIO);
    EXPECT_EQ(NKRGetBLEName(id, name), NKR_ERROR_GENERAL);
    EXPECT_EQ(name[0], '\0');
}

}  // namespace
