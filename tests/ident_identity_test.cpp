// Identity commands against simulated units: firmware gates, the two serial
// forms, alias and Bluetooth name round trips, and the shared answer buffers.
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "api/Registry.h"
#include "device/NKR.h"
#include "test_support.h"

namespace {

using nkrtest::unitWithFirmware;
using Bytes = std::vector<uint8_t>;

class Ident : public nkrtest::SimTest {
protected:
    static nkrsim::UnitSpec proUnit(int fw = 382)
    {
        nkrsim::UnitSpec spec = unitWithFirmware(fw);
        spec.modelLetter = 'E';
        spec.typeText = "NKR Pro";
        return spec;
    }
    static CNKR* dev(int id) { return pNKR[id].load(); }
};

TEST_F(Ident, Firmware321RefusesAndSendsNothing322Accepts)
{
    nkrsim::UnitId unit;
    int id = openUnit(unitWithFirmware(321), &unit);
    nkrsim::clearSentReports(unit);

    _NKR_SN sn;
    _NKR_TYPE type;
    char name[16];
    _NKR_ID alias = {{'A', 'B'}};
    EXPECT_EQ(NKRGetSerialNumber(id, &sn), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(NKRSetID(id, alias), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(NKRGetType(id, &type), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(NKRGetBLEName(id, name), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(NKRSetBLEName(id, _NKR_BLE_NAME{"x"}), NKR_ERROR_NOT_SUPPORTED);
    char text[8];
    EXPECT_EQ(dev(id)->getAlias(text, 8, false), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(dev(id)->setSerialNumber(sn.SN, 8), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(dev(id)->setFactoryMode(), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_TRUE(nkrsim::sentReports(unit).empty());

    // The version read has no gate.
    unsigned char major = 0, minor = 0, build = 0;
    EXPECT_EQ(NKRGetFirmwareVersion(id, &major, &minor, &build), NKR_SUCCESS);
    EXPECT_EQ(major * 100 + minor * 10 + build, 321);

    int id2 = openUnit(unitWithFirmware(322));
    EXPECT_EQ(NKRGetSerialNumber(id2, &sn), NKR_SUCCESS);
}

TEST_F(Ident, SerialIsUnpackedOnOlderUnitsAndPlainOnNewerOnes)
{
    const Bytes serial = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0};
    nkrsim::UnitSpec older = unitWithFirmware(336);
    older.serial = serial;
    nkrsim::UnitSpec newer = proUnit();
    newer.serial = {0xF1, 0xE2, 0xD3, 0xC4, 0xB5, 0xA6, 0x97, 0x88};
    nkrsim::UnitId olderUnit;
    int idOld = openUnit(older, &olderUnit);
    int idNew = openUnit(newer);
    nkrsim::clearSentReports(olderUnit);

    _NKR_SN sn;
    ASSERT_EQ(NKRGetSerialNumber(idOld, &sn), NKR_SUCCESS);
    EXPECT_EQ(Bytes(sn.SN, sn.SN + 8), serial);
    auto sent = nkrsim::sentReports(olderUnit);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(Bytes(sent[0].begin(), sent[0].begin() + 5), (Bytes{0x03, 0x7E, 0x5A, 0x02, 0x0C}));

    ASSERT_EQ(NKRGetSerialNumber(idNew, &sn), NKR_SUCCESS);
    EXPECT_EQ(Bytes(sn.SN, sn.SN + 8), newer.serial);

    // A short caller buffer gets the leading bytes only.
    unsigned char three[4] = {0, 0, 0, 0x55};
    ASSERT_EQ(dev(idNew)->getSerialNumber(three, 3, false), NKR_SUCCESS);
    EXPECT_EQ(Bytes(three, three + 4), (Bytes{0xF1, 0xE2, 0xD3, 0x55}));
    EXPECT_EQ(dev(idNew)->getSerialNumber(nullptr, 8, false), NKR_ERROR_INVALID_VALUE);
    EXPECT_EQ(dev(idNew)->getSerialNumber(three, -1, false), NKR_ERROR_INVALID_VALUE);
}

TEST_F(Ident, AliasOfEightCharactersRoundTrips)
{
    nkrsim::UnitId unit;
    int id = openUnit(unitWithFirmware(336), &unit);
    nkrsim::clearSentReports(unit);

    _NKR_ID alias;
    std::memcpy(alias.id, "Scope-01", 8);
    ASSERT_EQ(NKRSetID(id, alias), NKR_SUCCESS);
    auto sent = nkrsim::sentReports(unit);
    ASSERT_EQ(sent.size(), 1u);
    Bytes expected = {0x03, 0x7E, 0x5A, 0x0D, 'S', 'c', 'o', 'p', 'e', '-', '0', '1', 0, 0, 0, 0};
    EXPECT_EQ(Bytes(sent[0].begin(), sent[0].begin() + 16), expected);
    EXPECT_EQ(nkrsim::state(unit).alias, "Scope-01");

    char text[9];
    std::memset(text, 0x7F, sizeof text);
    ASSERT_EQ(dev(id)->getAlias(text, 8, false), NKR_SUCCESS);
    EXPECT_EQ(std::string(text, 8), "Scope-01");
    EXPECT_EQ(text[8], 0x7F);  // nothing beyond len is written

    _NKR_INFO info;
    ASSERT_EQ(NKRGetProperty(id, &info), NKR_SUCCESS);
    EXPECT_STREQ(info.Name, "NKR(Scope-01)");

    // A longer stored alias is cut to what the caller asked for.
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.alias = "ABCDEFGHIJKL"; });
    std::memset(text, 0, sizeof text);
    ASSERT_EQ(dev(id)->getAlias(text, 8, false), NKR_SUCCESS);
    EXPECT_EQ(std::string(text, 8), "ABCDEFGH");

    // Lengths the 12-byte field cannot take are refused before sending.
    nkrsim::clearSentReports(unit);
    unsigned char thirteen[13] = {};
    EXPECT_EQ(dev(id)->setAlias(thirteen, 13, false), NKR_ERROR_INVALID_VALUE);
    EXPECT_EQ(dev(id)->setAlias(thirteen, -1, false), NKR_ERROR_INVALID_VALUE);
    EXPECT_EQ(dev(id)->setSerialNumber(thirteen, 13), NKR_ERROR_INVALID_VALUE);
    EXPECT_EQ(dev(id)->setSerialNumber(thirteen, -1), NKR_ERROR_INVALID_VALUE);
    EXPECT_TRUE(nkrsim::sentReports(unit).empty());
}

TEST_F(Ident, TypeAndFirmwareVersionAreRead)
{
    nkrsim::UnitId unit;
    int id = openUnit(proUnit(382), &unit);
    unsigned char major = 0, minor = 0, build = 0;
    ASSERT_EQ(NKRGetFirmwareVersion(id, &major, &minor, &build), NKR_SUCCESS);
    EXPECT_EQ(major, 3);
    EXPECT_EQ(minor, 8);
    EXPECT_EQ(build, 2);

    // The type read replaces the model word, which the controls list follows.
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.typeText = "NKRN"; });
    _NKR_TYPE type;
    std::memset(&type, 0x41, sizeof type);
    ASSERT_EQ(NKRGetType(id, &type), NKR_SUCCESS);
    EXPECT_STREQ(type.Type, "NKRN");
    EXPECT_EQ(dev(id)->m_strType, "NKRN");
    int count = 0;
    ASSERT_EQ(NKRGetNumOfControls(id, &count), NKR_SUCCESS);
    EXPECT_EQ(count, 5);

    // An 8-character text fills the answer and still ends in a terminator.
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
    std::memset(name, 0x7F, sizeof name);
    ASSERT_EQ(NKRGetBLEName(id, name), NKR_SUCCESS);
    EXPECT_STREQ(name, "NKR Pro_A1B2");

    // Write the unit's part over the USB object, then read it back cut to
    // the 16-byte buffer the export is given.
    ASSERT_EQ(dev(id)->setBLEName("ABCDEFGHIJK", 11, false), NKR_SUCCESS);
    EXPECT_EQ(nkrsim::state(unit).bleNameSuffix, "ABCDEFGHIJK");
    std::memset(name, 0x7F, sizeof name);
    ASSERT_EQ(NKRGetBLEName(id, name), NKR_SUCCESS);
    EXPECT_STREQ(name, "NKR Pro_ABCDEFG");
    EXPECT_EQ(name[16], 0x7F);

    // The export hands a USB slot the whole record, which is always too long.
    nkrsim::clearSentReports(unit);
    EXPECT_EQ(NKRSetBLEName(id, _NKR_BLE_NAME{"Short"}), NKR_ERROR_INVALID_VALUE);
    EXPECT_EQ(dev(id)->setBLEName("ABCDEFGHIJKL", 12, false), NKR_ERROR_INVALID_VALUE);
    EXPECT_EQ(dev(id)->setBLEName("x", -1, false), NKR_ERROR_INVALID_VALUE);
    EXPECT_TRUE(nkrsim::sentReports(unit).empty());

    // A failed read leaves an empty name.
    nkrsim::failTransfers(unit, 1, 5 /* EIO */);
    std::memset(name, 0x7F, sizeof name);
    EXPECT_EQ(NKRGetBLEName(id, name), NKR_ERROR_GENERAL);
    EXPECT_EQ(name[0], '\0');
    EXPECT_EQ(name[15], '\0');
}

TEST_F(Ident, FactoryModeNeedsTheNewerFamily)
{
    nkrsim::UnitId older, newer;
    int idOld = openUnit(unitWithFirmware(382), &older);
    int idNew = openUnit(proUnit(), &newer);
    nkrsim::clearSentReports(older);
    nkrsim::clearSentReports(newer);

    EXPECT_EQ(dev(idOld)->setFactoryMode(), NKR_ERROR_NOT_SUPPORTED);
    EXPECT_TRUE(nkrsim::sentReports(older).empty());
    ASSERT_EQ(dev(idNew)->setFactoryMode(), NKR_SUCCESS);
    EXPECT_TRUE(nkrsim::state(newer).factoryMode);
    auto sent = nkrsim::sentReports(newer);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(Bytes(sent[0].begin(), sent[0].begin() + 6), (Bytes{0x03, 0x7E, 0x5A, 0x22, 0x01, 0x00}));
}

// The serial and alias answers pass through buffers shared by all objects:
// two units read from two threads must each see only their own.
TEST_F(Ident, ConcurrentReadsOfTwoUnitsDoNotMix)
{
    nkrsim::UnitSpec a = proUnit(), b = proUnit();
    a.serial = Bytes(8, 0xAA);
    a.alias = "unit-A";
    b.serial = Bytes(8, 0xBB);
    b.alias = "unit-B";
    int idA = openUnit(a);
    int idB = openUnit(b);

    std::atomic<int> mixed{0};
    auto reader = [&mixed](CNKR* d, uint8_t serialByte, const char* alias) {
        for (int i = 0; i < 300; ++i) {
            unsigned char sn[8];
            char text[8];
            if (d->getSerialNumber(sn, 8, false) != NKR_SUCCESS || sn[0] != serialByte ||
                sn[7] != serialByte)
                ++mixed;
            if (d->getAlias(text, 8, false) != NKR_SUCCESS || std::strncmp(text, alias, 8) != 0)
                ++mixed;
        }
    };
    std::thread ta(reader, dev(idA), 0xAA, "unit-A");
    std::thread tb(reader, dev(idB), 0xBB, "unit-B");
    ta.join();
    tb.join();
    EXPECT_EQ(mixed.load(), 0);
}

}  // namespace
