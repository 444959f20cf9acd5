// One status read and one settings change through the exports, each beside
// the bare transport round trip on the same simulated unit, and the cost of
// one diagnostic log line.
#include <benchmark/benchmark.h>
#include <hidapi/hidapi.h>

#include <spdlog/spdlog.h>

#include <cstdio>
#include <type_traits>

#include "NKR_focuser.h"
#include "bench_env.h"
#include "ble/BlueShimApi.h"
#include "ble/BluetoothLEProtocol.h"
#include "log/Log.h"

// The helper library's entry points, as the simulator exports them.
extern "C" {
std::remove_pointer_t<pfn_ble_manager_create> ble_manager_create;
std::remove_pointer_t<pfn_ble_manager_destroy> ble_manager_destroy;
std::remove_pointer_t<pfn_ble_manager_connect> ble_manager_connect;
std::remove_pointer_t<pfn_ble_manager_send> ble_manager_send;
std::remove_pointer_t<pfn_ble_manager_wait_for_data> ble_manager_wait_for_data;
std::remove_pointer_t<pfn_ble_manager_get_received_data> ble_manager_get_received_data;
std::remove_pointer_t<pfn_ble_set_is_read> ble_set_is_read;
}

namespace {

constexpr size_t kOutputReportLen = 16;
constexpr size_t kInputReportLen = 17;
// The status request: report 3, mark 7E 5A, command 02, selector 03.
constexpr unsigned char kStatusRequest[kOutputReportLen] = {0x03, 0x7E, 0x5A, 0x02, 0x03};
// The control frame the library sends for backlash 10 (position 30000,
// maximum 60000, everything else off).
constexpr unsigned char kControlFrame[kOutputReportLen] = {0x03, 0x7E, 0x5A, 0x03, 0x00, 10,
                                                           0x00, 0x00, 0x75, 0x30, 0x00, 0x00,
                                                           0x00, 0x00, 0xEA, 0x60};
constexpr int kBacklash = 10;
// The simulator records every report and frame it is sent; the records are
// dropped this often, outside the timing, so that neither side pays for
// growing them (page faults) and memory stays flat.
constexpr unsigned kDropTrafficEvery = 4096;

template <typename Drop>
void dropTrafficNow(benchmark::State& state, unsigned& calls, Drop drop)
{
    if (++calls % kDropTrafficEvery != 0) return;
    state.PauseTiming();
    drop();
    state.ResumeTiming();
}

// One USB unit opened by the library, and a second, bare hidapi handle on it.
struct UsbUnit {
    int id = -1;
    nkrsim::UnitId unit = -1;
    hid_device* bare = nullptr;

    bool setUp()
    {
        nkrbench::resetWorld();
        std::vector<nkrsim::UnitId> units;
        std::vector<int> ids = nkrbench::openUsbUnits(1, &units);
        if (ids.empty()) return false;
        id = ids[0];
        unit = units[0];
        bare = hid_open_path(nkrsim::usbPath(unit).c_str());
        return bare != nullptr;
    }
    void dropTraffic() const { nkrsim::clearSentReports(unit); }
    ~UsbUnit()
    {
        if (bare != nullptr) hid_close(bare);
        dropTraffic();
        nkrbench::closeAll();
    }
};

void usbExportGetPosition(benchmark::State& state)
{
    UsbUnit u;
    if (!u.setUp()) return state.SkipWithError("no USB unit");
    int step = 0;
    unsigned calls = 0;
    for (auto _ : state) {
        if (NKRGetPosition(u.id, &step) != NKR_SUCCESS) return state.SkipWithError("NKRGetPosition failed");
        benchmark::DoNotOptimize(step);
        dropTrafficNow(state, calls, [&] { u.dropTraffic(); });
    }
}

bool bareStatusRoundTrip(hid_device* dev, unsigned char* in)
{
    if (hid_send_feature_report(dev, kStatusRequest, kOutputReportLen) < 0) return false;
    in[0] = 0x01;
    return hid_get_feature_report(dev, in, kInputReportLen) >= 0;
}

void usbBareRoundTrip(benchmark::State& state)
{
    UsbUnit u;
    if (!u.setUp()) return state.SkipWithError("no USB unit");
    unsigned char in[kInputReportLen] = {};
    unsigned calls = 0;
    for (auto _ : state) {
        if (!bareStatusRoundTrip(u.bare, in)) return state.SkipWithError("bare transfer failed");
        benchmark::DoNotOptimize(in);
        dropTrafficNow(state, calls, [&] { u.dropTraffic(); });
    }
}

void usbExportSetBacklash(benchmark::State& state)
{
    UsbUnit u;
    if (!u.setUp()) return state.SkipWithError("no USB unit");
    unsigned calls = 0;
    for (auto _ : state) {
        if (NKRSetBacklash(u.id, kBacklash) != NKR_SUCCESS) return state.SkipWithError("NKRSetBacklash failed");
        dropTrafficNow(state, calls, [&] { u.dropTraffic(); });
    }
}

// A settings change expects no reply: the bare transfer is one write.
void usbBareControlWrite(benchmark::State& state)
{
    UsbUnit u;
    if (!u.setUp()) return state.SkipWithError("no USB unit");
    unsigned calls = 0;
    for (auto _ : state) {
        if (hid_send_feature_report(u.bare, kControlFrame, kOutputReportLen) < 0)
            return state.SkipWithError("bare transfer failed");
        dropTrafficNow(state, calls, [&] { u.dropTraffic(); });
    }
}

// One info line as every operation writes it: formatted into 256 characters,
// then handed to the logger (which flushes after every info line).
void logInfoLine(benchmark::State& state)
{
    UsbUnit u;  // its device object has set the logger up
    if (!u.setUp()) return state.SkipWithError("no USB unit");
    static const char kFiller[] =
        "benchmark line: the quick brown fox jumps over the lazy dog while the focuser "
        "reports its position, its temperature, its backlash and its maximum step to the "
        "host program that drives it over USB HID or Bluetooth LE, and the log keeps it all";
    int n = 0;
    for (auto _ : state) {
        NKR_LOG("%s #%d", kFiller, n);
        ++n;
    }
}

// One Bluetooth unit connected and paired by the library, and a second, bare
// helper manager connected to it.
struct BleUnit {
    int id = -1;
    nkrsim::UnitId unit = -1;
    void* bare = nullptr;
    std::vector<uint8_t> statusFrame;

    bool setUp()
    {
        nkrbench::resetWorld();
        unit = nkrsim::addUnit(nkrbench::bleSpec());
        id = nkrbench::connectBleUnit(unit);
        if (id < 0) return false;
        bare = ble_manager_create();
        if (bare == nullptr || ble_manager_connect(bare, nkrsim::bleAddress(unit).c_str(), "") != 0)
            return false;
        ble_set_is_read(bare, 1);
        BLEProtocol::ProtoRequest request;
        request.command = BLEProtocol::CMD_DEVICE;
        request.data = {0x7E, 0x5A, 0x02, 0x03};
        request.length = static_cast<uint8_t>(request.data.size());
        BLEProtocol::encodeRequest(request, statusFrame);
        return true;
    }
    void dropTraffic() const { nkrsim::clearSentFrames(unit); }
    ~BleUnit()
    {
        if (bare != nullptr) ble_manager_destroy(bare);
        dropTraffic();
        nkrbench::closeAll();
    }
};

void bleExportGetPosition(benchmark::State& state)
{
    BleUnit u;
    if (!u.setUp()) return state.SkipWithError("no Bluetooth unit");
    int step = 0;
    unsigned calls = 0;
    for (auto _ : state) {
        if (NKRGetPosition(u.id, &step) != NKR_SUCCESS) return state.SkipWithError("NKRGetPosition failed");
        benchmark::DoNotOptimize(step);
        dropTrafficNow(state, calls, [&] { u.dropTraffic(); });
    }
}

// Diagnostic: the same with the logger switched off, to tell the two info
// lines of every exchange from the rest of the library's cost. The messages
// are still formatted; only the logger drops them.
void bleExportGetPositionLogOff(benchmark::State& state)
{
    BleUnit u;
    if (!u.setUp()) return state.SkipWithError("no Bluetooth unit");
    auto logger = spdlog::default_logger();
    const spdlog::level::level_enum level = logger->level();
    logger->set_level(spdlog::level::off);
    int step = 0;
    unsigned calls = 0;
    for (auto _ : state) {
        if (NKRGetPosition(u.id, &step) != NKR_SUCCESS) {
            state.SkipWithError("NKRGetPosition failed");
            break;
        }
        benchmark::DoNotOptimize(step);
        dropTrafficNow(state, calls, [&] { u.dropTraffic(); });
    }
    logger->set_level(level);
}

void bleBareRoundTrip(benchmark::State& state)
{
    BleUnit u;
    if (!u.setUp()) return state.SkipWithError("no Bluetooth unit");
    uint8_t answer[512];
    const auto size = static_cast<unsigned>(u.statusFrame.size());
    unsigned calls = 0;
    for (auto _ : state) {
        if (!ble_manager_send(u.bare, u.statusFrame.data(), size, 3, 0) || !ble_manager_wait_for_data(u.bare) ||
            ble_manager_get_received_data(u.bare, answer, sizeof answer) < 16)
            return state.SkipWithError("bare exchange failed");
        benchmark::DoNotOptimize(answer);
        dropTrafficNow(state, calls, [&] { u.dropTraffic(); });
    }
}

}  // namespace

BENCHMARK(usbExportGetPosition)->Name("usb/export_get_position");
BENCHMARK(usbBareRoundTrip)->Name("usb/bare_round_trip");
BENCHMARK(bleExportGetPosition)->Name("ble/export_get_position");
BENCHMARK(bleBareRoundTrip)->Name("ble/bare_round_trip");
BENCHMARK(bleExportGetPositionLogOff)->Name("ble/export_get_position_log_off");
BENCHMARK(usbExportSetBacklash)->Name("usb/export_set_backlash");
BENCHMARK(usbBareControlWrite)->Name("usb/bare_control_write");
BENCHMARK(logInfoLine)->Name("log/info_line");
