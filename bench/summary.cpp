#include "summary.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <vector>

#include "timing.h"
#include "text_table.h"

namespace nkrbench {
namespace {

// Goals, as the library's users feel them. The library's own cost per call
// (export minus bare transport) is judged as a share of a physical round
// trip, not against the simulator's, which takes some 80 ns where real
// hardware takes a millisecond or more.
constexpr double kMaxShareOfRealTrip = 0.001;  // 0.1 %
constexpr double kMaxSettingCostNs = 10000.0;
constexpr double kMinThreadScaling = 1.7;
constexpr double kMaxPerUnitGrowth = 1.5;
constexpr long kMaxBytesPerUnit = 16 * 1024;
constexpr long kMaxLoadBytes = 4 * 1024 * 1024;
constexpr int kScaleCounts[] = {1, 16, 128};
// Physical transfers: a USB feature-report round trip takes about 1 ms, a
// BLE exchange (one connection interval each way) about 15 ms.
constexpr double kRealUsbRoundTripNs = 1e6;
constexpr double kRealBleExchangeNs = 15e6;

std::string cpuModel()
{
    std::ifstream in("/proc/cpuinfo");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("model name", 0) != 0) continue;
        const size_t colon = line.find(':');
        if (colon != std::string::npos) return line.substr(colon + 2);
    }
    return "unknown";
}

// Export beside bare transport, timed side by side under key: the two
// figures, their ratio, the library's own cost and what that cost means
// beside a real transfer of realNs.
void transportRows(std::vector<Row>& rows, const Collector& r, const std::string& item,
                   const std::string& link, const std::string& key, const std::string& bareName,
                   double realNs, const std::string& realName)
{
    const double exportNs = r.medianCounter(key, "export_ns");
    const double bareNs = r.medianCounter(key, "bare_ns");
    const double ratio = r.medianRatio(key, "export_ns", "bare_ns");
    const bool known = exportNs > 0 && bareNs > 0 && ratio > 0;
    rows.push_back({item, link + " NKRGetPosition (export)", nsText(exportNs), "", ""});
    rows.push_back({item, link + " " + bareName, nsText(bareNs), "", ""});
    rows.push_back({item, link + " ratio export / bare simulated trip (diagnostic)",
                    known ? printed("%.2f", ratio) : "n/a", "", "info"});
    const double cost = exportNs - bareNs;
    rows.push_back({item, link + " library's own cost (export − bare)", known ? nsText(cost) : "n/a", "", ""});
    const double share = cost / realNs;
    rows.push_back({item, link + " library's cost as a share of a " + realName,
                    known ? printed("%.4f %%", share * 100.0) : "n/a",
                    printed("≤ %.1f %%", kMaxShareOfRealTrip * 100.0),
                    verdict(known, share <= kMaxShareOfRealTrip)});
}

}  // namespace

std::string loadAverage()
{
    std::ifstream in("/proc/loadavg");
    std::string one, five, fifteen;
    in >> one >> five >> fifteen;
    return in ? one + " " + five + " " + fifteen : "unknown";
}

void printSummary(const Collector& r, const Footprint& fp, int repetitions, const std::string& loadBefore,
                  const std::string& loadAfter)
{
    char date[64];
    const std::time_t now = std::time(nullptr);
    std::strftime(date, sizeof date, "%Y-%m-%d %H:%M %Z", std::localtime(&now));
    std::cout << "\nNKR SDK benchmarks, " << date << "\n"
              << "machine: " << sysconf(_SC_NPROCESSORS_ONLN) << " cores (nproc), " << cpuModel()
              << "; load average before " << loadBefore << ", after " << loadAfter << "\n"
              << "figures: medians of " << repetitions
              << " interleaved repetitions on simulated units (manual clock); times per call are the\n"
              << "calling thread's CPU time, export and bare sides timed in alternating blocks (ratios are\n"
              << "medians of the per-repetition ratios); thread throughputs are wall-clock ("
              << (RealtimeScope::requested() ? "thread runs under real-time scheduling, NKR_BENCH_REALTIME=1"
                                             : "normal scheduling")
              << ")\n"
              << "note: the library's 200 ms pause after every move is replaced by a no-op sleep hook "
                 "(nkr::setSleepHook)\n\n";

    std::vector<Row> rows;
    transportRows(rows, r, "1", "USB", "usb/status_read", "bare round trip (send + get feature report)",
                  kRealUsbRoundTripNs, "1 ms USB round trip");
    rows.push_back({"1", "USB call frame's required locking alone (diagnostic)",
                    nsText(r.medianNs("usb/frame_synchronisation")), "", "info"});
    transportRows(rows, r, "2", "BLE", "ble/status_read", "bare round trip (helper send, wait, get)",
                  kRealBleExchangeNs, "15 ms BLE exchange");
    const double bleQuiet = r.medianCounter("ble/status_read", "export_log_off_ns");
    const double bleQuietRatio = r.medianRatio("ble/status_read", "export_log_off_ns", "bare_ns");
    rows.push_back({"2", "BLE NKRGetPosition, logger switched off (diagnostic)", nsText(bleQuiet), "", "info"});
    rows.push_back({"2", "BLE ratio export / bare, logger switched off (diagnostic)",
                    bleQuietRatio > 0 ? printed("%.2f", bleQuietRatio) : "n/a", "", "info"});

    const double setNs = r.medianCounter("usb/settings_change", "export_ns");
    const double writeNs = r.medianCounter("usb/settings_change", "bare_ns");
    rows.push_back({"3", "USB NKRSetBacklash (export)", nsText(setNs), "", ""});
    rows.push_back({"3", "USB bare control write (send feature report)", nsText(writeNs), "", ""});
    rows.push_back({"3", "one info log line (256-char message)", nsText(r.medianNs("log/info_line")), "", ""});
    const bool setKnown = setNs > 0 && writeNs > 0;
    rows.push_back({"3", "library's cost per settings change, log lines included",
                    setKnown ? nsText(setNs - writeNs) : "n/a", "< 10 µs",
                    verdict(setKnown, setNs - writeNs < kMaxSettingCostNs)});

    // Wall-clock throughputs of host threads need free cores: say so when the
    // machine was busy and the runs did not take real-time priority.
    const bool busy = !RealtimeScope::requested() &&
                      std::atof(loadBefore.c_str()) > static_cast<double>(sysconf(_SC_NPROCESSORS_ONLN)) / 2;
    const auto threadRows = [&](const std::string& key, const std::string& what, bool goal) {
        const double one = r.medianCounter(key, "one_rate");
        const double two = r.medianCounter(key, "two_rate");
        const double ratio = r.medianRatio(key, "two_rate", "one_rate");
        const bool known = one > 0 && two > 0 && ratio > 0;
        rows.push_back({"4", what + ", calls/s with 1 thread", known ? printed("%.0f", one) : "n/a", "", ""});
        rows.push_back({"4", what + ", calls/s with 2 threads", known ? printed("%.0f", two) : "n/a", "", ""});
        rows.push_back({"4", what + ", throughput 2 threads / 1", known ? printed("%.2f", ratio) : "n/a",
                        goal ? printed("≥ %.1f", kMinThreadScaling) : "",
                        goal ? verdict(known, ratio >= kMinThreadScaling) + (busy ? " (busy machine)" : "")
                             : "info"});
        // CPU spent per call does not depend on how busy the machine is:
        // threads that slowed each other down (contended locks, shared cache
        // lines) would spend more on each call.
        const double cpuRatio = r.medianRatio(key, "two_cpu_ns", "one_cpu_ns");
        if (goal)
            rows.push_back({"4", what + ", CPU per call 2 threads / 1 (diagnostic)",
                            cpuRatio > 0 ? printed("%.2f", cpuRatio) : "n/a", "", "info"});
    };
    threadRows("threads/usb_get_position_standin", "USB NKRGetPosition, stand-in transport", true);
    threadRows("threads/usb_get_position", "USB NKRGetPosition, simulator", false);
    threadRows("threads/usb_bare_round_trip", "USB bare round trip, simulator", false);
    threadRows("threads/ble_get_position", "BLE NKRGetPosition, simulator", false);
    threadRows("threads/log_line", "info log lines (2 per BLE exchange)", false);

    double perUnit[3];
    bool scaleKnown = true;
    for (int i = 0; i < 3; ++i) {
        const double ns = r.medianNs("scale/scan_open_read_close/" + std::to_string(kScaleCounts[i]));
        perUnit[i] = ns > 0 ? ns / kScaleCounts[i] : -1;
        scaleKnown = scaleKnown && ns > 0;
        rows.push_back({"5", "scan + open + status + close, per unit, " + std::to_string(kScaleCounts[i]) +
                                 (kScaleCounts[i] == 1 ? " unit" : " units"),
                        nsText(perUnit[i]), "", ""});
    }
    const double growth = scaleKnown ? *std::max_element(perUnit, perUnit + 3) / *std::min_element(perUnit, perUnit + 3) : -1;
    rows.push_back({"5", "per-unit time, largest / smallest", scaleKnown ? printed("%.2f", growth) : "n/a",
                    printed("≤ %.1f (flat)", kMaxPerUnitGrowth), verdict(scaleKnown, growth <= kMaxPerUnitGrowth)});
    rows.push_back({"5", "resident memory per further open unit (" + std::to_string(fp.units) + " open)",
                    bytesText(fp.perUnitBytes), "≤ 16 KiB",
                    verdict(fp.perUnitBytes >= 0, fp.perUnitBytes <= kMaxBytesPerUnit)});
    rows.push_back({"5", "resident memory: dlopen + scan + first open", bytesText(fp.loadBytes), "≤ 4 MiB",
                    verdict(fp.loadBytes >= 0, fp.loadBytes <= kMaxLoadBytes)});

    rows.push_back({"6", "encodeRequest, 20-byte request", nsText(r.medianNs("codec/encode_request_20")), "", "info"});
    rows.push_back({"6", "decodeResponse, 30-byte response", nsText(r.medianNs("codec/decode_response_30")), "", "info"});
    rows.push_back({"6", "CNKR::CalculTempuature", nsText(r.medianNs("temp/calcul_temperature")), "", "info"});

    printTable(rows);

    if (!fp.error.empty()) std::cout << "\nload program: " << fp.error;
    for (const auto& [name, message] : r.errors()) std::cout << "\nfailed: " << name << ": " << message;
    std::cout << std::endl;
}

}  // namespace nkrbench
