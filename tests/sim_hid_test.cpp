// The simulator's USB side, driven through the hidapi functions directly.
#include <gtest/gtest.h>
#include <hidapi/hidapi.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "NKR_focuser.h"
#include "nkr_sim.h"

namespace {

using Bytes = std::vector<uint8_t>;

// The SDK's byte scan of a report descriptor: {input length, output length}.
std::pair<int, int> scanDescriptor(const Bytes& d)
{
    int size = 0, count = 0, id = 0, in = -1, out = -1;
    for (size_t i = 0; i < d.size(); ++i) {
        uint8_t b = d[i];
        if (b == 0x75 || b == 0x95 || b == 0x85) {
            if (i + 1 == d.size()) break;
            (b == 0x75 ? size : b == 0x95 ? count : id) = d[++i];
        } else if (b == 0x81 && id == 1) {
            in = size / 8 * count + 1;
        } else if (b == 0x91 && id == 3) {
            out = size / 8 * count + 1;
        }
    }
    return {in, out};
}

Bytes readDescriptor(nkrsim::UnitId unit)
{
    std::string path = std::string(std::getenv("NKR_SYSFS_ROOT")) + "/class/hidraw/" +
                       nkrsim::usbPath(unit).substr(5) + "/device/report_descriptor";
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

class SimHid : public ::testing::Test {
protected:
    void SetUp() override { nkrsim::reset(); }
    void TearDown() override
    {
        for (hid_device* d : open_) hid_close(d);
    }

    hid_device* open(nkrsim::UnitId unit)
    {
        hid_device* d = hid_open_path(nkrsim::usbPath(unit).c_str());
        if (d) open_.push_back(d);
        return d;
    }

    // One command padded to 16 bytes, then the 17-byte reply.
    static Bytes exchange(hid_device* d, Bytes cmd)
    {
        cmd.resize(16);
        EXPECT_EQ(hid_send_feature_report(d, cmd.data(), cmd.size()), 16);
        Bytes reply(17);
        reply[0] = 1;
        EXPECT_EQ(hid_get_feature_report(d, reply.data(), reply.size()), 17);
        return reply;
    }

    static Bytes moveFrame(int run, int target, bool wide)
    {
        Bytes f = {3, 0x7E, 0x5A, 0x03, static_cast<uint8_t>(run), 0, 0, 0,
                   static_cast<uint8_t>(target >> 8), static_cast<uint8_t>(target), 0, 0, 0, 0,
                   0xEA, 0x60};
        if (wide) f[7] = static_cast<uint8_t>(target >> 16);
        return f;
    }

    std::vector<hid_device*> open_;
};

TEST_F(SimHid, DescriptorFilesParseToTheReportLengths)
{
    nkrsim::UnitSpec narrow, wide, hidden, custom;
    wide.outputReportLen = 64;
    hidden.descriptorReadable = false;
    custom.descriptor = {0x85, 0x03, 0x75, 0x08, 0x95, 0x1F, 0x91, 0x02};
    auto n = nkrsim::addUnit(narrow), w = nkrsim::addUnit(wide);
    auto h = nkrsim::addUnit(hidden), c = nkrsim::addUnit(custom);
    EXPECT_EQ(scanDescriptor(readDescriptor(n)), std::make_pair(17, 16));
    EXPECT_EQ(scanDescriptor(readDescriptor(w)), std::make_pair(17, 64));
    EXPECT_TRUE(readDescriptor(h).empty());
    EXPECT_EQ(readDescriptor(c), custom.descriptor);
}

TEST_F(SimHid, EnumerationFiltersByIds)
{
    nkrsim::addUnit({});
    nkrsim::UnitSpec bleOnly;
    bleOnly.usb = false;
    bleOnly.ble = true;
    nkrsim::addUnit(bleOnly);
    hid_device_info* all = hid_enumerate(FOCUSER_USB_VID, FOCUSER_USB_PID);
    ASSERT_NE(all, nullptr);
    EXPECT_STREQ(all->path, "/dev/nkrsim0");
    EXPECT_EQ(all->next, nullptr);
    hid_free_enumeration(all);
    EXPECT_EQ(hid_enumerate(0x1234, 0), nullptr);
}

TEST_F(SimHid, StatusCarriesBothPositionLayouts)
{
    nkrsim::UnitSpec older;
    older.fwBuild = 5;  // 3.3.5: 16-bit positions and the speed
    older.position = 0x1234;
    auto o = nkrsim::addUnit(older);
    nkrsim::update(o, [](nkrsim::UnitState& s) {
        s.beep = true;
        s.handControl = true;
        s.force = 5;
        s.backlash = 7;
    });
    Bytes r = exchange(open(o), {3, 0x7E, 0x5A, 0x02, 0x03});
    EXPECT_EQ(Bytes(r.begin(), r.begin() + 16),
              (Bytes{1, 0x7E, 0x5A, 0x03, 0, 7, 0x0B, 0xB8, 0x12, 0x34, 0, 0x7E, 0xF4, 0x59, 0xEA,
                     0x60}));

    nkrsim::UnitSpec newer;  // 3.3.6: 24-bit positions
    newer.position = 600000;
    newer.maxStep = 0x0A0B0C;
    Bytes w = exchange(open(nkrsim::addUnit(newer)), {3, 0x7E, 0x5A, 0x02, 0x03});
    EXPECT_EQ(Bytes(w.begin() + 6, w.begin() + 10), (Bytes{0x0A, 0x09, 0x27, 0xC0}));
    EXPECT_EQ(w[14], 0x0B);
    EXPECT_EQ(w[15], 0x0C);
}

TEST_F(SimHid, MoveFollowsTheClockAndStops)
{
    auto u = nkrsim::addUnit({});  // 30000, 2000 steps per second
    hid_device* d = open(u);
    exchange(d, moveFrame(1, 31000, true));
    nkrsim::advanceMicros(250000);
    EXPECT_EQ(nkrsim::state(u).position, 30500);
    EXPECT_EQ(exchange(d, {3, 0x7E, 0x5A, 0x02, 0x03})[4], 1);
    nkrsim::advanceMicros(10'000'000);
    Bytes r = exchange(d, {3, 0x7E, 0x5A, 0x02, 0x03});
    EXPECT_EQ(r[4], 0);
    EXPECT_EQ(r[8] << 8 | r[9], 31000);

    exchange(d, moveFrame(1, 30000, true));
    nkrsim::advanceMicros(100000);
    exchange(d, moveFrame(0, 30000, true));  // run flag 0 stops where it is
    nkrsim::advanceMicros(1'000'000);
    EXPECT_EQ(nkrsim::state(u).position, 30800);
    EXPECT_EQ(nkrsim::state(u).runState, 0);

    // A report without the frame mark changes nothing and gets no answer.
    Bytes r2 = exchange(d, {3, 0x7E, 0x00, 0x03, 1, 0, 0, 0, 0, 0});
    EXPECT_EQ(r2[1], 0);
    EXPECT_EQ(nkrsim::state(u).runState, 0);
}

TEST_F(SimHid, UnplugFailsHandlesAndReplugPowersUpAgain)
{
    auto u = nkrsim::addUnit({});
    hid_device* d = open(u);
    exchange(d, moveFrame(1, 40000, true));
    nkrsim::advanceMicros(1'000'000);
    nkrsim::unplug(u);
    Bytes cmd = {3, 0x7E, 0x5A, 0x02, 0x03};
    errno = 0;
    EXPECT_EQ(hid_send_feature_report(d, cmd.data(), cmd.size()), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(hid_enumerate(0, 0), nullptr);
    EXPECT_EQ(open(u), nullptr);

    nkrsim::replug(u);
    hid_device_info* e = hid_enumerate(0, 0);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->path, nkrsim::usbPath(u));
    hid_free_enumeration(e);
    EXPECT_EQ(hid_send_feature_report(d, cmd.data(), cmd.size()), -1);  // old plug stays dead
    Bytes r = exchange(open(u), cmd);
    EXPECT_EQ(r[7] << 16 | r[8] << 8 | r[9], 30000);
    EXPECT_EQ(r[4], 0);
}

TEST_F(SimHid, InjectedFailuresAndTrafficLog)
{
    auto u = nkrsim::addUnit({});
    hid_device* d = open(u);
    nkrsim::failTransfers(u, 2, EIO);
    Bytes cmd = {3, 0x7E, 0x5A, 0x02, 0x04};
    EXPECT_EQ(hid_send_feature_report(d, cmd.data(), cmd.size()), -1);
    EXPECT_EQ(errno, EIO);
    Bytes r(17);
    EXPECT_EQ(hid_get_feature_report(d, r.data(), r.size()), -1);
    EXPECT_NE(std::wstring(hid_error(d)), L"Success");
    EXPECT_EQ(hid_send_feature_report(d, cmd.data(), cmd.size()), 5);
    EXPECT_EQ(nkrsim::sentReports(u), std::vector<Bytes>{cmd});
    nkrsim::refuseOpen(u, true);
    EXPECT_EQ(hid_open_path(nkrsim::usbPath(u).c_str()), nullptr);
}

TEST_F(SimHid, IdentityAnswers)
{
    nkrsim::UnitSpec older;  // model 'A': the serial comes packed
    older.alias = "Scope1";
    hid_device* d = open(nkrsim::addUnit(older));
    Bytes b = exchange(d, {3, 0x7E, 0x5A, 0x02, 0x0C});
    uint8_t s[8] = {
        static_cast<uint8_t>((b[4] << 4) + b[5]),          static_cast<uint8_t>((b[6] << 4) + b[7]),
        static_cast<uint8_t>((b[8] << 4) + b[9]),          static_cast<uint8_t>((b[10] << 4) + (b[11] >> 4)),
        static_cast<uint8_t>((b[11] << 4) + (b[12] >> 4)), static_cast<uint8_t>((b[12] << 4) + (b[13] >> 4)),
        static_cast<uint8_t>((b[13] << 4) + (b[14] >> 4)), static_cast<uint8_t>((b[14] << 4) + b[15])};
    EXPECT_EQ(Bytes(s, s + 8), older.serial);
    EXPECT_STREQ(reinterpret_cast<const char*>(exchange(d, {3, 0x7E, 0x5A, 0x02, 0x0D}).data() + 4),
                 "Scope1");

    nkrsim::UnitSpec pro;
    pro.fwMinor = 8, pro.fwBuild = 2, pro.modelLetter = 'E', pro.typeText = "NKR Pro";
    auto p = nkrsim::addUnit(pro);
    nkrsim::update(p, [](nkrsim::UnitState& st) { st.batteryErr = "E5"; });
    hid_device* e = open(p);
    Bytes v = exchange(e, {3, 0x7E, 0x5A, 0x02, 0x04});
    EXPECT_EQ(Bytes(v.begin() + 4, v.begin() + 8), (Bytes{3, 8, 2, 'E'}));
    EXPECT_EQ(std::string(v.begin() + 8, v.begin() + 15), "NKR Pro");
    Bytes serial = exchange(e, {3, 0x7E, 0x5A, 0x02, 0x0C});
    EXPECT_EQ(Bytes(serial.begin() + 4, serial.begin() + 12), pro.serial);
    Bytes err = exchange(e, {3, 0x7E, 0x5A, 0x02, 0x05});
    EXPECT_GT(std::strlen(reinterpret_cast<const char*>(err.data())), 6u);
    EXPECT_EQ(std::string(err.begin() + 4, err.begin() + 7), "E05");
}

}  // namespace
