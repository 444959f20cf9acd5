// Bluetooth: one status read through the export beside the bare exchange of
// the helper library on the same simulated unit.
#include <benchmark/benchmark.h>
#include <spdlog/spdlog.h>

#include <type_traits>
#include <vector>

#include "NKR_focuser.h"
#include "bench_env.h"
#include "ble/BlueShimApi.h"
#include "ble/BluetoothLEProtocol.h"
#include "timing.h"

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

// Calls per timed block.
constexpr int kBlock = 32;
// A status answer is the frame header and at least 16 status bytes.
constexpr unsigned kStatusAnswerMin = 16;

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

// NKRGetPosition beside the bare exchange of a status request frame, with a
// third side: the export again with the logger switched off, to tell the two
// info lines of every exchange from the rest of the library's cost (the
// messages are still formatted; only the logger drops them).
void bleStatusRead(benchmark::State& state)
{
    BleUnit u;
    if (!u.setUp()) return state.SkipWithError("no Bluetooth unit");
    auto logger = spdlog::default_logger();
    const spdlog::level::level_enum level = logger->level();
    int step = 0;
    uint8_t answer[512];
    const auto frameSize = static_cast<unsigned>(u.statusFrame.size());
    nkrbench::SideBySide sides(3);
    auto exportCall = [&] { return NKRGetPosition(u.id, &step) == NKR_SUCCESS; };
    auto bareCall = [&] {
        return ble_manager_send(u.bare, u.statusFrame.data(), frameSize, 3, 0) &&
               ble_manager_wait_for_data(u.bare) &&
               ble_manager_get_received_data(u.bare, answer, sizeof answer) >= kStatusAnswerMin;
    };
    auto quietBlock = [&] {
        logger->set_level(spdlog::level::off);
        const bool ok = sides.block(2, kBlock, exportCall);
        logger->set_level(level);
        return ok;
    };

    size_t first = 0;
    for (auto _ : state) {
        // Each side leads in turn.
        bool ok = true;
        for (size_t k = 0; k < 3 && ok; ++k) {
            const size_t side = (first + k) % 3;
            ok = side == 0   ? sides.block(0, kBlock, exportCall)
                 : side == 1 ? sides.block(1, kBlock, bareCall)
                             : quietBlock();
        }
        if (!ok) return state.SkipWithError("a call failed");
        first = (first + 1) % 3;
        u.dropTraffic();
    }
    state.counters["export_ns"] = sides.nsPerCall(0);
    state.counters["bare_ns"] = sides.nsPerCall(1);
    state.counters["export_log_off_ns"] = sides.nsPerCall(2);
}

}  // namespace

BENCHMARK(bleStatusRead)->Name("ble/status_read");
