// Opening a unit and reading its status through the exports; the report
// descriptor scan on a private sysfs tree.
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>

#include "device/NKR.h"
#include "test_support.h"

namespace {
using nkrtest::Bytes;
using nkrtest::unitWithFirmware;

class DeviceStatus : public nkrtest::SimTest {};

TEST_F(DeviceStatus, FirmwareVersionDecidesSerialCommandsAndStepRange)
{
    const std::tuple<nkrsim::UnitSpec, int, int> cases[] = {
        {unitWithFirmware(300), NKR_ERROR_NOT_SUPPORTED, 60000}, {unitWithFirmware(321), NKR_ERROR_NOT_SUPPORTED, 60000},
        {unitWithFirmware(322), NKR_SUCCESS, 60000},            {unitWithFirmware(335), NKR_SUCCESS, 60000},
        {unitWithFirmware(336), NKR_SUCCESS, 600000},           {unitWithFirmware(370), NKR_SUCCESS, 600000},
        {nkrtest::proUnitWithFirmware(321), NKR_SUCCESS, 600000},  // model letter E: the newer family
    };
    for (const auto& [spec, serialRc, range] : cases) {
        SCOPED_TRACE(spec.fwMajor * 100 + spec.fwMinor * 10 + spec.fwBuild);
        const int id = openUnit(spec);
        _NKR_SN sn{};
        int got = -1;
        EXPECT_EQ(NKRGetSerialNumber(id, &sn), serialRc);
        EXPECT_EQ((std::pair{NKRStepRange(id, &got), got}), std::pair(0, range));
        NKRClose(id);
    }
}

TEST_F(DeviceStatus, ReportsAre64BytesOnlyWhenTheDescriptorSaysSo)
{
    nkrsim::UnitSpec wide = unitWithFirmware(336), odd = wide, hidden = wide;
    wide.outputReportLen = 64;  // a unit takes reports of its own length only
    // Report 3 output of 32 bytes: not a length the firmware uses.
    odd.descriptor = {0x85, 0x01, 0x75, 0x08, 0x95, 0x10, 0x81, 0x02, 0x85, 0x03, 0x75, 0x08, 0x95, 0x1F, 0x91, 0x02};
    hidden.descriptorReadable = false;
    for (const auto& [spec, length] : {std::pair{wide, 64u}, {unitWithFirmware(336), 16u}, {odd, 16u}, {hidden, 16u}}) {
        nkrsim::UnitId unit;
        const int id = openQuiet(spec, &unit);
        ASSERT_EQ(NKRSetBeep(id, true), NKR_SUCCESS);
        EXPECT_EQ(nkrtest::lastControlFrame(unit).size(), length);
        NKRClose(id);
    }
}

TEST_F(DeviceStatus, BothLayoutsReadBack)
{
    // Up to 3.3.5 16-bit positions and the speed; from 3.3.6 24-bit positions, speed 0.
    for (auto [fw, position, maxStep, speedRead] : {std::tuple{335, 1234, 50000, 0x0102}, {336, 600000, 0x050607, 0}}) {
        SCOPED_TRACE(fw);
        nkrsim::UnitId unit;
        const int id = openQuiet(unitWithFirmware(fw), &unit);
        nkrsim::update(unit, [&, position = position, maxStep = maxStep](nkrsim::UnitState& s) {
            s.position = position, s.speed = 0x0102, s.backlash = 7, s.maxStep = maxStep, s.force = 9;
            s.beep = s.reverse = true;
        });
        int pos = -1, speed = -1, backlash = -1, max = -1, force = -1;
        bool beep = false, reverse = false;
        EXPECT_EQ(NKRGetPosition(id, &pos) | NKRGetSpeed(id, &speed) | NKRGetBacklash(id, &backlash) |
                      NKRGetMaxStep(id, &max) | NKRGetBeep(id, &beep) | NKRGetReverse(id, &reverse) |
                      NKRGetMaxForce(id, &force),
                  NKR_SUCCESS);
        EXPECT_EQ(std::vector<int>({pos, speed, backlash, max, force, beep, reverse}),
                  std::vector<int>({position, speedRead, 7, maxStep, 9, 1, 1}));
        NKRClose(id);
    }
}

TEST_F(DeviceStatus, FailedReadLeavesTheOutputUntouched)
{
    nkrsim::UnitId unit;
    const int id = openQuiet(unitWithFirmware(335), &unit);
    nkrsim::failTransfers(unit, 2, EIO);
    int pos = -77;
    bool moving = true;
    for (int rc : {NKRGetPosition(id, &pos), NKRIsMoving(id, &moving, nullptr)}) EXPECT_EQ(rc, NKR_ERROR_GENERAL);
    EXPECT_TRUE(pos == -77 && moving);
    nkrsim::clearSentReports(unit);  // null outputs are refused without traffic
    for (int rc : {NKRGetPosition(id, nullptr), NKRIsMoving(id, nullptr, &moving)}) EXPECT_EQ(rc, NKR_ERROR_INVALID_VALUE);
    EXPECT_TRUE(nkrsim::sentReports(unit).empty());
}

TEST_F(DeviceStatus, MovingReportsHostMovesAndHandMoves)
{
    nkrsim::UnitId unit;
    const int id = openQuiet(unitWithFirmware(336), &unit);
    bool moving = true, hand = true;
    auto state = [&] { return std::tuple{NKRIsMoving(id, &moving, &hand), moving, hand}; };
    EXPECT_EQ(state(), std::tuple(0, false, false));
    nkrsim::handMove(unit, 35000);
    EXPECT_EQ(state(), std::tuple(0, true, true));
    nkrsim::advanceMicros(10'000'000);
    // A host move: moving, not by hand. A null second output is allowed.
    ASSERT_EQ(NKRMove(id, 20000), NKR_SUCCESS);
    moving = false;
    EXPECT_TRUE(NKRIsMoving(id, &moving, nullptr) == NKR_SUCCESS && moving);
    EXPECT_EQ(state(), std::tuple(0, true, false));
}

TEST_F(DeviceStatus, ThermistorFirmwareTakesTheLowestRawWordsForAHandController)
{
    // 3.0.0 shares its sensor input with the hand controller: a raw word of
    // 1..341 is a controller, and the status bit is not read; later firmware has the bit.
    for (int fw : {300, 301}) {
        const nkrsim::UnitId unit = nkrsim::addUnit(unitWithFirmware(fw));
        CNKR dev;
        ASSERT_TRUE(dev.open(nkrsim::usbPath(unit).c_str()));
        for (auto [raw, bit] : {std::pair{0, true}, {1, false}, {341, false}, {342, true}, {32500, false}}) {
            SCOPED_TRACE(std::to_string(fw) + " raw " + std::to_string(raw));
            nkrsim::update(unit, [raw = raw, bit = bit](nkrsim::UnitState& s) { s.tempRaw = raw, s.handControl = bit; });
            const bool expected = fw == 300 ? raw >= 1 && raw <= 341 : bit;
            bool hand = !expected;
            EXPECT_EQ(dev.isHandControl(&hand, false), NKR_SUCCESS);
            EXPECT_EQ(hand, expected);
        }
    }
}

TEST_F(DeviceStatus, TemperatureReadingsInTurn)
{
    // raw word, code, degrees (NAN: the previous row's value is repeated)
    const std::pair<int, std::vector<std::tuple<int, int, float>>> firmware[] = {
        // (degrees + 300) * 100; -200 and below (the zero word too) are no temperature.
        {336, {{32500, 0, 25.0f}, {10000, 7, NAN}, {0, 7, NAN}, {10001, 0, -199.99f}, {22000, 0, -80.0f}}},
        // Converter readings 616..1020; beyond the table, the last table value.
        {300, {{616, 0, 74.06f}, {615, 7, NAN}, {1021, 7, NAN}, {800, 0, 50.13f}, {900, 0, 32.46f},
               {1000, 0, -4.66f}, {1013, 0, -19.01f}, {1014, 0, NAN}, {1020, 0, NAN}}},
    };
    for (const auto& [fw, steps] : firmware) {
        nkrsim::UnitId unit;
        const int id = openUnit(unitWithFirmware(fw), &unit);
        float last = NAN;
        for (const auto& [raw, rc, celsius] : steps) {
            SCOPED_TRACE(std::to_string(fw) + " raw " + std::to_string(raw));
            nkrsim::update(unit, [raw = raw](nkrsim::UnitState& st) { st.tempRaw = raw; });
            float t = 1234.0f;
            EXPECT_EQ(NKRGetTemp(id, &t), rc);
            if (!std::isnan(celsius)) last = celsius;
            EXPECT_NEAR(t, last, 0.01);
        }
        EXPECT_EQ(NKRGetTemp(id, nullptr), NKR_ERROR_INVALID_VALUE);
        NKRClose(id);
    }
}

TEST_F(DeviceStatus, RawCommandSendsOneReportOfTheUnitsLengthAndReadsOneReply)
{
    for (int len : {16, 64}) {
        SCOPED_TRACE(len);
        nkrsim::UnitSpec spec = unitWithFirmware(336);
        spec.outputReportLen = len;
        nkrsim::UnitId unit;
        int id = openQuiet(spec, &unit);
        unsigned char cmd[100] = {0x03, 0x7E, 0x5A, 0x02, 0x04};
        cmd[len - 1] = 0xAB;
        // Without a reply buffer a read only sends, cut to one report.
        EXPECT_EQ(NKRSendCMD(id, cmd, sizeof cmd, true, nullptr), NKR_SUCCESS);
        std::vector<Bytes> sent = nkrsim::sentReports(unit);
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent[0], Bytes(cmd, cmd + len));
        // With one, the 17-byte answer behind report id 1; the rest of the buffer is untouched.
        unsigned char reply[NKR_BUF_SIZE];
        std::memset(reply, 0xEE, sizeof reply);
        EXPECT_EQ(NKRSendCMD(id, cmd, sizeof cmd, true, reply), NKR_SUCCESS);
        EXPECT_EQ((Bytes{reply[0], reply[4], reply[5], reply[6], reply[17]}), (Bytes{0x01, 3, 3, 6, 0xEE}));
    }
}

// Vendor page, report 1 input of 16 bytes, report 3 output of n bytes.
Bytes focuserDescriptor(unsigned char outputCount)
{
    return {0x06, 0x00, 0xFF, 0x09, 0x01, 0xA1, 0x01, 0x85, 0x01, 0x75, 0x08, 0x95, 0x10, 0x09,
            0x01, 0x81, 0x02, 0x85, 0x03, 0x75, 0x08, 0x95, outputCount, 0x09, 0x01, 0x91, 0x02, 0xC0};
}

TEST(DeviceDescriptor, ReportSizeAndCountGiveTheLengthsOfReports1And3)
{
    namespace fs = std::filesystem;  // a sysfs tree of our own in the process's HOME
    const fs::path root = fs::path(std::getenv("HOME")) / "sysfs";
    setenv("NKR_SYSFS_ROOT", root.c_str(), 1);
    const std::string longName(32, 'h');  // too long for its 32-byte room: refused, not truncated
    // node, descriptor file (nullopt: none), result, lengths of input 1 and output 3 (-1: none)
    const std::tuple<std::string, std::optional<Bytes>, int, int, int> cases[] = {
        {"hidraw0", focuserDescriptor(63), 0, 17, 64}, {"hidraw1", focuserDescriptor(15), 0, 17, 16},
        // Items of other report ids do not count; 12-bit sizes round down to 1 byte.
        {"hidraw2", Bytes{0x85, 0x02, 0x75, 0x08, 0x95, 0x20, 0x81, 0x02, 0x91, 0x02, 0x85, 0x03, 0x75, 0x0C, 0x95, 0x05, 0x91, 0x02},
         0, -1, 6},
        // Logical Minimum 0x81 (-127) under report 1 is taken for an Input item;
        // the 0x91 consumed as Report Count data is not an Output item.
        {"hidraw3", Bytes{0x85, 0x01, 0x75, 0x08, 0x95, 0x04, 0x15, 0x81, 0x85, 0x03, 0x95, 0x91}, 0, 5, -1},
        // A size/count/id prefix as the last byte ends the scan without reading on.
        {"hidraw4", Bytes{0x85, 0x03, 0x75, 0x08, 0x95, 0x07, 0x91, 0x02, 0x75}, 0, -1, 8},
        {"hidraw5", Bytes{}, 0, -1, -1}, {"hidraw9", std::nullopt, -1, -1, -1},
        {longName, focuserDescriptor(63), -1, -1, -1}, {longName.substr(1), focuserDescriptor(63), 0, 17, 64},
    };
    for (const auto& [node, file, result, in, out] : cases) {
        SCOPED_TRACE(node);
        const fs::path dir = root / "class" / "hidraw" / node / "device";
        if (file && fs::create_directories(dir))
            std::ofstream(dir / "report_descriptor").write(reinterpret_cast<const char*>(file->data()), long(file->size()));
        int gotIn = -1, gotOut = -1;
        EXPECT_EQ(get_hid_report_descriptor_linux_mac(nullptr, ("/dev/" + node).c_str(), &gotIn, &gotOut), result);
        EXPECT_EQ(std::pair(gotIn, gotOut), std::pair(in, out));
    }
    int in = -1, out = -1;
    for (const char* path : {"/dev", static_cast<const char*>(nullptr)})
        EXPECT_EQ(get_hid_report_descriptor_linux_mac(nullptr, path, &in, &out), -1);
    EXPECT_EQ(get_hid_report_descriptor_linux_mac(nullptr, "/dev/hidraw0", nullptr, nullptr), 0) << "null lengths skipped";
}

}  // namespace
