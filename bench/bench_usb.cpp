// USB: a status read and a settings change through the exports, each timed
// side by side with the bare transport on the same simulated unit, and the
// cost of one diagnostic log line.
#include <benchmark/benchmark.h>
#include <hidapi/hidapi.h>

#include <vector>

#include "NKR_focuser.h"
#include "bench_env.h"
#include "log/Log.h"
#include "timing.h"

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
// Calls per timed block: long enough that reading the clock is noise.
constexpr int kStatusBlock = 512;
constexpr int kSettingBlock = 64;

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
    // The simulator keeps every report it was sent; dropped between blocks,
    // outside the timing, so that neither side pays for growing the record.
    void dropTraffic() const { nkrsim::clearSentReports(unit); }
    ~UsbUnit()
    {
        if (bare != nullptr) hid_close(bare);
        dropTraffic();
        nkrbench::closeAll();
    }
};

// Runs the two sides' blocks in turn, the first side first on every other
// iteration, and reports their times per call as export_ns and bare_ns.
template <typename Export, typename Bare>
void sideBySide(benchmark::State& state, const UsbUnit& u, int block, Export exportCall, Bare bareCall)
{
    nkrbench::SideBySide sides(2);
    bool exportFirst = true;
    for (auto _ : state) {
        const bool ok = exportFirst ? sides.block(0, block, exportCall) && sides.block(1, block, bareCall)
                                    : sides.block(1, block, bareCall) && sides.block(0, block, exportCall);
        if (!ok) return state.SkipWithError("a call failed");
        exportFirst = !exportFirst;
        u.dropTraffic();
    }
    state.counters["export_ns"] = sides.nsPerCall(0);
    state.counters["bare_ns"] = sides.nsPerCall(1);
}

// NKRGetPosition beside one status request written and its reply read.
void usbStatusRead(benchmark::State& state)
{
    UsbUnit u;
    if (!u.setUp()) return state.SkipWithError("no USB unit");
    int step = 0;
    unsigned char in[kInputReportLen] = {};
    sideBySide(
        state, u, kStatusBlock, [&] { return NKRGetPosition(u.id, &step) == NKR_SUCCESS; },
        [&] {
            if (hid_send_feature_report(u.bare, kStatusRequest, kOutputReportLen) < 0) return false;
            in[0] = 0x01;
            return hid_get_feature_report(u.bare, in, kInputReportLen) >= 0;
        });
}

// NKRSetBacklash beside the one control-frame write it makes (no reply).
void usbSettingsChange(benchmark::State& state)
{
    UsbUnit u;
    if (!u.setUp()) return state.SkipWithError("no USB unit");
    sideBySide(
        state, u, kSettingBlock, [&] { return NKRSetBacklash(u.id, kBacklash) == NKR_SUCCESS; },
        [&] { return hid_send_feature_report(u.bare, kControlFrame, kOutputReportLen) >= 0; });
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

}  // namespace

BENCHMARK(usbStatusRead)->Name("usb/status_read");
BENCHMARK(usbSettingsChange)->Name("usb/settings_change");
BENCHMARK(logInfoLine)->Name("log/info_line");
