// Opening a unit and reading its status through the exports: what the
// firmware version and the report descriptor decide, both position layouts,
// temperature, failed reads, the moving / hand-controller answers and the raw
// command; the descriptor scan itself on a private sysfs tree.
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
        EXPECT_EQ(NKRStepRange(id, &got), NKR_SUCCESS);
        EXPECT_EQ(got, range);
        NKRClose(id);
    }
}

TEST_F(DeviceStatus, ReportsAre64BytesOnlyWhenTheDescriptorSaysSo)
{
    nkrsim::UnitSpec wide = unitWithFirmware(336), odd = wide, hidden = wide;
    wide.outputReportLen = hidden.outputReportLen = 64;
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
            s.position = position;
            s.speed = 0x0102;
            s.backlash = 7;
            s.maxStep = maxStep;
            s.beep = s.reverse = true;
            s.force = 9;
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
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_GENERAL);
    EXPECT_EQ(NKRIsMoving(id, &moving, nullptr), NKR_ERROR_GENERAL);
    EXPECT_TRUE(pos == -77 && moving);
    // Null outputs are refused without traffic.
    nkrsim::clearSentReports(unit);
    EXPECT_EQ(NKRGetPosition(id, nullptr), NKR_ERROR_INVALID_VALUE);
    EXPECT_EQ(NKRIsMoving(id, nullptr, &moving), NKR_ERROR_INVALID_VALUE);
    EXPECT_TRUE(nkrsim::sentReports(unit).empty());
}

TEST_F(DeviceStatus, MovingReportsHostMovesAndHandMoves)
{
    nkrsim::UnitId unit;
    const int id = openQuiet(unitWithFirmware(336), &unit);
    bool moving = true, hand = true;
    EXPECT_EQ(NKRIsMoving(id, &moving, &hand), NKR_SUCCESS);
    EXPECT_FALSE(moving || hand);
    nkrsim::handMove(unit, 35000);
    EXPECT_EQ(NKRIsMoving(id, &moving, &hand), NKR_SUCCESS);
    EXPECT_TRUE(moving && hand);
    nkrsim::advanceMicros(10'000'000);
    // A host move: moving, not by hand. A null second output is allowed.
    ASSERT_EQ(NKRMove(id, 20000), NKR_SUCCESS);
    moving = false;
    EXPECT_EQ(NKRIsMoving(id, &moving, nullptr), NKR_SUCCESS);
    EXPECT_TRUE(moving);
    EXPECT_EQ(NKRIsMoving(id, &moving, &hand), NKR_SUCCESS);
    EXPECT_FALSE(hand);
}

TEST_F(DeviceStatus, TemperatureReadingsInTurn)
{
    struct Step {
        int raw, rc;
        float celsius;  // NAN: the previous row's value is repeated
    };
    const std::pair<int, std::vector<Step>> firmware[] = {
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
        for (const Step& s : steps) {
            SCOPED_TRACE(std::to_string(fw) + " raw " + std::to_string(s.raw));
            nkrsim::update(unit, [&](nkrsim::UnitState& st) { st.tempRaw = s.raw; });
            float t = 1234.0f;
            EXPECT_EQ(NKRGetTemp(id, &t), s.rc);
            if (!std::isnan(s.celsius)) last = s.celsius;
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
        ASSERT_EQ(sent[0].size(), static_cast<size_t>(len));
        EXPECT_EQ(Bytes(sent[0].begin(), sent[0].begin() + 5), Bytes(cmd, cmd + 5));
        EXPECT_EQ(sent[0].back(), 0xAB);
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
    // A sysfs tree of our own in the process's HOME (each test runs in a process of its own).
    namespace fs = std::filesystem;
    const fs::path root = fs::path(std::getenv("HOME")) / "sysfs";
    setenv("NKR_SYSFS_ROOT", root.c_str(), 1);
    struct Case {
        const char* why;
        std::string node;
        std::optional<Bytes> file;  // nullopt: no descriptor file for the node
        int result, in, out;        // lengths start at -1
    };
    const std::string longName(32, 'h');
    const Case cases[] = {
        {"64-byte output", "hidraw0", focuserDescriptor(63), 0, 17, 64},
        {"16-byte output", "hidraw1", focuserDescriptor(15), 0, 17, 16},
        // Items of other report ids do not count; 12-bit sizes round down to 1 byte.
        {"other ids, odd size", "hidraw2",
         Bytes{0x85, 0x02, 0x75, 0x08, 0x95, 0x20, 0x81, 0x02, 0x91, 0x02, 0x85, 0x03, 0x75, 0x0C, 0x95, 0x05, 0x91, 0x02},
         0, -1, 6},
        // Logical Minimum 0x81 (-127) under report 1 is taken for an Input item;
        // the 0x91 consumed as Report Count data is not an Output item.
        {"data bytes scanned as items", "hidraw3",
         Bytes{0x85, 0x01, 0x75, 0x08, 0x95, 0x04, 0x15, 0x81, 0x85, 0x03, 0x95, 0x91}, 0, 5, -1},
        // A size/count/id prefix as the last byte ends the scan without reading on.
        {"truncated", "hidraw4", Bytes{0x85, 0x03, 0x75, 0x08, 0x95, 0x07, 0x91, 0x02, 0x75}, 0, -1, 8},
        {"empty", "hidraw5", Bytes{}, 0, -1, -1},
        {"missing", "hidraw9", std::nullopt, -1, -1, -1},
        // A node name too long for its 32-character room is refused, not truncated.
        {"name of 32", longName, focuserDescriptor(63), -1, -1, -1},
        {"name of 31", longName.substr(1), focuserDescriptor(63), 0, 17, 64},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.why);
        if (c.file) {
            const fs::path dir = root / "class" / "hidraw" / c.node / "device";
            fs::create_directories(dir);
            std::ofstream(dir / "report_descriptor", std::ios::binary)
                .write(reinterpret_cast<const char*>(c.file->data()), static_cast<std::streamsize>(c.file->size()));
        }
        int in = -1, out = -1;
        EXPECT_EQ(get_hid_report_descriptor_linux_mac(nullptr, ("/dev/" + c.node).c_str(), &in, &out), c.result);
        EXPECT_EQ(std::pair(in, out), std::pair(c.in, c.out));
    }
    int in = -1, out = -1;
    EXPECT_EQ(get_hid_report_descriptor_linux_mac(nullptr, "/dev", &in, &out), -1);
    EXPECT_EQ(get_hid_report_descriptor_linux_mac(nullptr, nullptr, &in, &out), -1);
    // Null length pointers are skipped.
    EXPECT_EQ(get_hid_report_descriptor_linux_mac(nullptr, "/dev/hidraw0", nullptr, nullptr), 0);
}

}  // namespace
