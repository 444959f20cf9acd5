// The simulator's Bluetooth side, driven through the helper entry points.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ble/BlueShimApi.h"
#include "nkr_sim.h"

extern "C" {
void* ble_manager_create();
void ble_manager_destroy(void* mgr);
int32_t ble_manager_scan(void* mgr, unsigned timeout, BleScanRecord* records, int capacity);
int32_t ble_manager_connect(void* mgr, const char* id, const char* second);
int32_t ble_manager_disconnect(void* mgr);
bool ble_manager_send(void* mgr, const uint8_t* data, unsigned count, unsigned a, unsigned b);
bool ble_manager_wait_for_data(void* mgr);
unsigned ble_manager_get_received_data(void* mgr, uint8_t* buf, unsigned capacity);
bool ble_manager_is_ble_supported(void* mgr);
int ble_manager_get_mac(void* mgr, char* buf, int capacity);
void ble_set_is_read(void* mgr, int isRead);
void ble_set_connect_state_callback(void* mgr, BleConnectStateFn callback);
}

namespace {

using Bytes = std::vector<uint8_t>;

uint8_t sum(const Bytes& b, size_t n)
{
    uint8_t s = 0;
    for (size_t i = 0; i < n; ++i) s = static_cast<uint8_t>(s + b[i]);
    return s;
}

Bytes request(uint8_t seq, uint8_t cmd, const Bytes& payload)
{
    Bytes f(payload.size() + 9);
    f[1] = static_cast<uint8_t>(payload.size());
    f[2] = seq;
    f[3] = cmd;
    std::copy(payload.begin(), payload.end(), f.begin() + 4);
    f[payload.size() + 4] = static_cast<uint8_t>(payload.size() >> 8);
    f.back() = sum(f, f.size() - 1);
    return f;
}

const Bytes kStatus = {0x7E, 0x5A, 0x02, 0x03};

class SimBle : public ::testing::Test {
protected:
    void SetUp() override
    {
        nkrsim::reset();
        nkrsim::UnitSpec pro;
        pro.fwMinor = 8, pro.fwBuild = 2, pro.modelLetter = 'E', pro.typeText = "NKR Pro";
        pro.usb = false;
        pro.ble = true;
        pro.bleName = "NKR Pro_A1B2";
        unit = nkrsim::addUnit(pro);
        mgr = ble_manager_create();
        ASSERT_EQ(ble_manager_connect(mgr, "NKR Pro_A1B2", ""), 0);
    }
    void TearDown() override { ble_manager_destroy(mgr); }

    bool send(uint8_t seq, uint8_t cmd, const Bytes& payload, bool read = true)
    {
        ble_set_is_read(mgr, read);
        Bytes f = request(seq, cmd, payload);
        return ble_manager_send(mgr, f.data(), static_cast<unsigned>(f.size()), 3, 0);
    }
    // The next frame, or empty when a wait comes back empty.
    Bytes receive()
    {
        if (!ble_manager_wait_for_data(mgr)) return {};
        Bytes buf(512);
        buf.resize(ble_manager_get_received_data(mgr, buf.data(), 512));
        return buf;
    }

    nkrsim::UnitId unit = -1;
    void* mgr = nullptr;
};

TEST_F(SimBle, ScanAndConnect)
{
    nkrsim::UnitSpec second;
    second.ble = true;
    second.bleName = "NKR Pro_C3D4";
    auto other = nkrsim::addUnit(second);
    BleScanRecord records[4];
    EXPECT_EQ(ble_manager_scan(mgr, 5, records, 1), 1);
    ASSERT_EQ(ble_manager_scan(mgr, 5, records, 4), 2);
    EXPECT_STREQ(records[0].name, "NKR Pro_A1B2");
    EXPECT_EQ(records[1].address, nkrsim::bleAddress(other));
    EXPECT_EQ(reinterpret_cast<char*>(&records[1]) + 288, records[1].address);

    void* m2 = ble_manager_create();
    EXPECT_EQ(ble_manager_connect(m2, nkrsim::bleAddress(other).c_str(), ""), 0);
    EXPECT_EQ(nkrsim::bleConnections(other), 1);
    EXPECT_LT(ble_manager_connect(m2, "nobody", ""), 0);
    nkrsim::bleRefuseConnect(other, true);
    EXPECT_LT(ble_manager_connect(m2, "NKR Pro_C3D4", ""), 0);
    nkrsim::bleRefuseConnect(other, false);
    nkrsim::unplug(other);
    EXPECT_LT(ble_manager_connect(m2, "NKR Pro_C3D4", ""), 0);
    ble_manager_destroy(m2);

    char mac[32];
    ble_manager_get_mac(mgr, mac, sizeof mac);
    EXPECT_STREQ(mac, "00:1A:7D:DA:71:13");
    nkrsim::setBleSupported(false);
    EXPECT_FALSE(ble_manager_is_ble_supported(mgr));
}

TEST_F(SimBle, DeviceCommandAnswersLikeAUsbReply)
{
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.position = 0x012345; });
    ASSERT_TRUE(send(7, 2, kStatus));
    Bytes f = receive();
    ASSERT_EQ(f.size(), 19u);
    EXPECT_EQ(f.back(), sum(f, f.size() - 1));
    EXPECT_EQ(Bytes(f.begin(), f.begin() + 5), (Bytes{1, 14, 7, 0, 0x03}));
    // Answer index i (the frame from byte 1) holds USB reply byte i.
    EXPECT_EQ(Bytes(f.begin() + 8, f.begin() + 11), (Bytes{0x01, 0x23, 0x45}));
    EXPECT_TRUE(receive().empty());

    // No answer wanted: the control frame still runs.
    Bytes move = {0x7E, 0x5A, 0x03, 1, 0, 0, 0x01, 0x23, 0x4F, 0, 0, 0, 0, 0xEA, 0x60};
    ASSERT_TRUE(send(8, 2, move, false));
    EXPECT_TRUE(receive().empty());
    nkrsim::advanceMicros(1'000'000);
    EXPECT_EQ(nkrsim::state(unit).position, 0x01234F);
    EXPECT_EQ(nkrsim::sentFrames(unit).size(), 2u);

    Bytes bad = request(9, 2, kStatus);
    ++bad.back();
    ble_set_is_read(mgr, 1);
    EXPECT_TRUE(ble_manager_send(mgr, bad.data(), static_cast<unsigned>(bad.size()), 3, 0));
    EXPECT_TRUE(receive().empty());
}

TEST_F(SimBle, PairingAndAllInformation)
{
    const std::string mac = "00:1A:7D:DA:71:13";
    ASSERT_TRUE(send(1, 0, Bytes(mac.begin(), mac.end())));
    EXPECT_EQ(receive()[3], 0);
    EXPECT_TRUE(nkrsim::state(unit).paired);
    ASSERT_TRUE(send(2, 1, Bytes(mac.begin(), mac.end())));
    receive();
    EXPECT_FALSE(nkrsim::state(unit).paired);

    nkrsim::update(unit, [](nkrsim::UnitState& s) {
        s.position = 600000;
        s.maxStep = 0x0A0B0C;
        s.motorErr = "E0";
        s.batteryErr = "E7";
    });
    ASSERT_TRUE(send(3, 3, {0x7E, 0x5A, 0x01, 0x00}));
    Bytes f = receive();
    Bytes a(f.begin() + 1, f.end() - 1);  // as the SDK keeps it
    ASSERT_GE(a.size(), 30u);
    EXPECT_EQ(Bytes(a.begin() + 6, a.begin() + 9), (Bytes{0x09, 0x27, 0xC0}));
    EXPECT_EQ(a[9] << 8 | a[10], 32500);
    EXPECT_EQ(Bytes(a.begin() + 12, a.begin() + 18), (Bytes{0x0A, 0x0B, 0x0C, 'E', '0', '7'}));
    EXPECT_EQ(Bytes(a.begin() + 18, a.begin() + 30), nkrsim::state(unit).battery);
}

TEST_F(SimBle, EachFaultFiresOnce)
{
    nkrsim::bleStaleFirst(unit);
    send(10, 2, kStatus);
    EXPECT_EQ(receive()[2], 9);
    EXPECT_EQ(receive()[2], 10);

    nkrsim::bleNewConnection(unit, 2);
    send(11, 2, kStatus);
    EXPECT_EQ(receive()[3], 0x9B);
    EXPECT_TRUE(receive().empty());
    EXPECT_TRUE(receive().empty());
    EXPECT_EQ(receive()[3], 0);

    nkrsim::bleCorruptChecksum(unit, 1);
    send(12, 2, kStatus);
    Bytes c = receive();
    EXPECT_NE(c.back(), sum(c, c.size() - 1));
    send(13, 2, kStatus);
    c = receive();
    EXPECT_EQ(c.back(), sum(c, c.size() - 1));

    nkrsim::bleNotifyInstead(unit, 1);
    send(14, 2, kStatus);
    EXPECT_EQ(receive(), (Bytes{2, 0, 14, 1, 17}));

    nkrsim::bleRawAnswer(unit, {1, 2, 3});
    send(15, 2, kStatus);
    EXPECT_EQ(receive(), (Bytes{1, 2, 3}));

    nkrsim::bleStatus(unit, 0x05);
    send(16, 2, kStatus);
    EXPECT_EQ(receive()[3], 0x05);
    send(17, 2, kStatus);
    EXPECT_EQ(receive()[3], 0);

    nkrsim::bleRefuseSend(unit, 1);
    nkrsim::clearSentFrames(unit);
    EXPECT_FALSE(send(18, 2, kStatus));
    EXPECT_TRUE(nkrsim::sentFrames(unit).empty());
    EXPECT_TRUE(send(19, 2, kStatus));

    nkrsim::bleSilence(unit, 1);
    EXPECT_TRUE(receive().empty());
    EXPECT_EQ(receive()[2], 19);
}

TEST_F(SimBle, FirmwareUpdatesOverBothLinks)
{
    nkrsim::configureUpdate(unit, {false, 1, 3, 9, 1});
    ASSERT_TRUE(send(1, 3, {0x7E, 0x5A, 0x02, 0, 0, 0, 6}));
    EXPECT_EQ(receive()[3], 0);
    EXPECT_TRUE(nkrsim::inUpdateMode(unit));
    send(2, 3, {0x7E, 0x5A, 0x01, 0x00});  // inside an update this is image data
    Bytes ack = receive();
    EXPECT_EQ(ack[4] << 8 | ack[5], 5);  // length 4, plus the configured delta
    send(3, 3, {9, 9});
    receive();
    EXPECT_FALSE(nkrsim::inUpdateMode(unit));
    EXPECT_EQ(nkrsim::receivedImage(unit), (Bytes{0x7E, 0x5A, 0x01, 0x00, 9, 9}));
    EXPECT_EQ(nkrsim::state(unit).fwBuild, 1);

    // The USB sequence: start (refused, then accepted), 11-byte pieces, end.
    nkrsim::configureUpdate(unit, {true, 0, 3, 9, 2});
    send(4, 2, {0x7E, 0x5A, 0x0F});
    EXPECT_NE(receive()[5], 0);
    nkrsim::configureUpdate(unit, {false, 0, 3, 9, 2});
    send(5, 2, {0x7E, 0x5A, 0x0F});
    Bytes start = receive();
    EXPECT_EQ(start[4], 0x01);
    EXPECT_EQ(start[5], 0x00);
    send(6, 2, {0x7E, 0x5A, 0x10, 2, 0xAB, 0xCD, 0xEF}, false);
    send(7, 2, {0x7E, 0x5A, 0x12});
    EXPECT_EQ(receive()[4], 0x12);
    EXPECT_EQ(nkrsim::receivedImage(unit), (Bytes{0xAB, 0xCD}));
    EXPECT_EQ(nkrsim::state(unit).fwBuild, 2);
}

std::atomic<int> g_reports{0};
std::atomic<bool> g_otherThread{false};
std::thread::id g_testThread;

void onConnectionChange(bool connected)
{
    if (!connected) ++g_reports;
    g_otherThread = std::this_thread::get_id() != g_testThread;
}

TEST_F(SimBle, DroppedConnectionReportsFromItsOwnThread)
{
    g_testThread = std::this_thread::get_id();
    ble_set_connect_state_callback(mgr, &onConnectionChange);
    nkrsim::bleDropConnection(unit);
    nkrsim::bleFlushCallbacks();
    EXPECT_EQ(g_reports.load(), 1);
    EXPECT_TRUE(g_otherThread.load());
    EXPECT_EQ(nkrsim::bleConnections(unit), 0);
    EXPECT_FALSE(send(1, 2, kStatus));
}

}  // namespace
