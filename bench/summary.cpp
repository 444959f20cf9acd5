#include "summary.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>

#include "bench_env.h"

namespace nkrbench {
namespace {

// Goals, as the library's users need them.
constexpr double kMaxTransportRatio = 1.3;
constexpr double kMaxSettingCostNs = 10000.0;
constexpr double kMinThreadScaling = 1.7;
constexpr double kMaxPerUnitGrowth = 1.5;
constexpr long kMaxBytesPerUnit = 16 * 1024;
constexpr long kMaxLoadBytes = 4 * 1024 * 1024;
constexpr int kScaleCounts[] = {1, 16, 128};
// Real transfers, for the projected ratios: a USB feature-report round trip
// takes about a millisecond, a BLE exchange tens of milliseconds.
constexpr double kRealUsbRoundTripNs = 1e6;
constexpr double kRealBleExchangeNs = 1e7;

double toNs(double value, benchmark::TimeUnit unit)
{
    switch (unit) {
    case benchmark::kNanosecond: return value;
    case benchmark::kMicrosecond: return value * 1e3;
    case benchmark::kMillisecond: return value * 1e6;
    case benchmark::kSecond: return value * 1e9;
    }
    return value;
}

double median(std::vector<double> v)
{
    if (v.empty()) return -1;
    std::sort(v.begin(), v.end());
    const size_t mid = v.size() / 2;
    return v.size() % 2 ? v[mid] : (v[mid - 1] + v[mid]) / 2;
}

std::string runKey(const benchmark::BenchmarkReporter::Run& run)
{
    std::string key = run.run_name.function_name;
    if (!run.run_name.args.empty()) key += "/" + run.run_name.args;
    return key;
}

std::string fmt(const char* format, double value)
{
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string nsText(double ns)
{
    if (ns < 0) return "n/a";
    if (ns < 10000) return fmt("%.0f ns", ns);
    if (ns < 10000000) return fmt("%.1f µs", ns / 1e3);
    return fmt("%.1f ms", ns / 1e6);
}

std::string bytesText(long bytes)
{
    if (bytes < 0) return "n/a";
    if (bytes < 1024 * 1024) return fmt("%.1f KiB", static_cast<double>(bytes) / 1024);
    return fmt("%.2f MiB", static_cast<double>(bytes) / (1024 * 1024));
}

std::string verdict(bool known, bool met) { return !known ? "unknown" : met ? "met" : "NOT MET"; }

struct Row {
    std::string item, measure, figure, goal, result;
};

void printTable(const std::vector<Row>& rows)
{
    const Row head{"#", "measure", "figure", "goal", "result"};
    size_t w[5] = {};
    auto widen = [&](const Row& r) {
        const std::string* cells[5] = {&r.item, &r.measure, &r.figure, &r.goal, &r.result};
        for (int i = 0; i < 5; ++i) {
            // Column width in characters, not bytes ("µ" and "≤" are two or three).
            size_t chars = 0;
            for (unsigned char c : *cells[i]) chars += (c & 0xC0) != 0x80;
            w[i] = std::max(w[i], chars);
        }
    };
    widen(head);
    for (const Row& r : rows) widen(r);
    auto cell = [](const std::string& text, size_t width) {
        size_t chars = 0;
        for (unsigned char c : text) chars += (c & 0xC0) != 0x80;
        return " " + text + std::string(width - chars, ' ') + " |";
    };
    auto line = [&](const Row& r) {
        std::cout << "|" << cell(r.item, w[0]) << cell(r.measure, w[1]) << cell(r.figure, w[2])
                  << cell(r.goal, w[3]) << cell(r.result, w[4]) << "\n";
    };
    line(head);
    std::cout << "|";
    for (size_t width : w) std::cout << std::string(width + 2, '-') << "|";
    std::cout << "\n";
    for (const Row& r : rows) line(r);
}

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

// Export beside bare transport: the two figures, the ratio, the library's
// own cost and what that cost means beside a real transfer of realNs.
void transportRows(std::vector<Row>& rows, const std::string& item, const std::string& link,
                   double exportNs, double bareNs, const std::string& bareName, double realNs,
                   const std::string& realName)
{
    rows.push_back({item, link + " NKRGetPosition (export)", nsText(exportNs), "", ""});
    rows.push_back({item, link + " " + bareName, nsText(bareNs), "", ""});
    const bool known = exportNs > 0 && bareNs > 0;
    const double ratio = known ? exportNs / bareNs : -1;
    rows.push_back({item, link + " ratio export / bare", known ? fmt("%.2f", ratio) : "n/a",
                    fmt("≤ %.1f", kMaxTransportRatio), verdict(known, ratio <= kMaxTransportRatio)});
    const double cost = exportNs - bareNs;
    rows.push_back({item, link + " library's own cost (export − bare)", known ? nsText(cost) : "n/a", "", ""});
    rows.push_back({item, link + " ratio projected onto a " + realName + " (computed)",
                    known ? fmt("%.5f", (realNs + cost) / realNs) : "n/a", "", "info"});
}

}  // namespace

bool sampleOf(const benchmark::BenchmarkReporter::Run& run, Sample& out)
{
    if (run.run_type != benchmark::BenchmarkReporter::Run::RT_Iteration) return false;
    out = Sample{};
    out.key = runKey(run);
    if (run.error_occurred) {
        out.error = run.error_message.empty() ? "failed" : run.error_message;
        return true;
    }
    const bool wall = run.run_name.time_type == "real_time";
    out.ns = toNs(wall ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime(), run.time_unit);
    auto items = run.counters.find("items_per_second");
    if (items != run.counters.end()) out.rate = items->second.value;
    auto calls = run.counters.find("calls");
    if (calls != run.counters.end() && calls->second.value > 0)
        out.cpuPerCallNs = toNs(run.GetAdjustedCPUTime(), run.time_unit) / calls->second.value;
    return true;
}

bool Collector::ReportContext(const Context& /*context*/) { return true; }

void Collector::ReportRuns(const std::vector<Run>& runs)
{
    Sample sample;
    for (const Run& run : runs)
        if (sampleOf(run, sample)) add(sample);
    std::cerr << '.' << std::flush;
}

void Collector::add(const Sample& sample)
{
    if (!sample.error.empty()) {
        errors_[sample.key] = sample.error;
        return;
    }
    ns_[sample.key].push_back(sample.ns);
    if (sample.rate >= 0) rate_[sample.key].push_back(sample.rate);
    if (sample.cpuPerCallNs >= 0) cpuPerCall_[sample.key].push_back(sample.cpuPerCallNs);
}

void Collector::Finalize() { std::cerr << '\n'; }

double Collector::medianNs(const std::string& name) const
{
    if (errors_.count(name)) return -1;
    auto it = ns_.find(name);
    return it == ns_.end() ? -1 : median(it->second);
}

double Collector::medianCpuPerCall(const std::string& name) const
{
    if (errors_.count(name)) return -1;
    auto it = cpuPerCall_.find(name);
    return it == cpuPerCall_.end() ? -1 : median(it->second);
}

double Collector::medianRate(const std::string& name) const
{
    if (errors_.count(name)) return -1;
    auto it = rate_.find(name);
    return it == rate_.end() ? -1 : median(it->second);
}

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
              << "calling thread's CPU time, thread throughputs are wall-clock ("
              << (RealtimeScope::requested() ? "thread runs under real-time scheduling, NKR_BENCH_REALTIME=1"
                                             : "normal scheduling")
              << ")\n"
              << "note: the library's 200 ms pause after every move is replaced by a no-op sleep hook "
                 "(nkr::setSleepHook)\n\n";

    std::vector<Row> rows;
    transportRows(rows, "1", "USB", r.medianNs("usb/export_get_position"), r.medianNs("usb/bare_round_trip"),
                  "bare round trip (send + get feature report)", kRealUsbRoundTripNs, "1 ms USB round trip");
    rows.push_back({"1", "USB call frame's required locking alone (diagnostic)",
                    nsText(r.medianNs("usb/frame_synchronisation")), "", "info"});
    const double bleBare = r.medianNs("ble/bare_round_trip");
    transportRows(rows, "2", "BLE", r.medianNs("ble/export_get_position"), bleBare,
                  "bare round trip (helper send, wait, get)", kRealBleExchangeNs, "10 ms BLE exchange");
    const double bleQuiet = r.medianNs("ble/export_get_position_log_off");
    rows.push_back({"2", "BLE NKRGetPosition, logger switched off (diagnostic)", nsText(bleQuiet), "", "info"});
    rows.push_back({"2", "BLE ratio export / bare, logger switched off (diagnostic)",
                    bleQuiet > 0 && bleBare > 0 ? fmt("%.2f", bleQuiet / bleBare) : "n/a", "", "info"});

    const double setNs = r.medianNs("usb/export_set_backlash");
    const double writeNs = r.medianNs("usb/bare_control_write");
    const double logNs = r.medianNs("log/info_line");
    rows.push_back({"3", "USB NKRSetBacklash (export)", nsText(setNs), "", ""});
    rows.push_back({"3", "USB bare control write (send feature report)", nsText(writeNs), "", ""});
    rows.push_back({"3", "one info log line (256-char message)", nsText(logNs), "", ""});
    const bool setKnown = setNs > 0 && writeNs > 0;
    rows.push_back({"3", "library's cost per settings change, log lines included",
                    setKnown ? nsText(setNs - writeNs) : "n/a", "< 10 µs",
                    verdict(setKnown, setNs - writeNs < kMaxSettingCostNs)});

    const auto threadRows = [&](const std::string& base, const std::string& what, bool goal) {
        const double one = r.medianRate(base + "/1");
        const double two = r.medianRate(base + "/2");
        const bool known = one > 0 && two > 0;
        rows.push_back({"4", what + ", calls/s with 1 thread", known ? fmt("%.0f", one) : "n/a", "", ""});
        rows.push_back({"4", what + ", calls/s with 2 threads", known ? fmt("%.0f", two) : "n/a", "", ""});
        rows.push_back({"4", what + ", throughput 2 threads / 1", known ? fmt("%.2f", two / one) : "n/a",
                        goal ? fmt("≥ %.1f", kMinThreadScaling) : "",
                        goal ? verdict(known, two / one >= kMinThreadScaling) : "info"});
        // CPU spent per call does not depend on how busy the machine is:
        // threads that slowed each other down (contended locks, shared cache
        // lines) would spend more on each call.
        const double cpuOne = r.medianCpuPerCall(base + "/1");
        const double cpuTwo = r.medianCpuPerCall(base + "/2");
        if (goal)
            rows.push_back({"4", what + ", CPU per call 2 threads / 1 (diagnostic)",
                            cpuOne > 0 && cpuTwo > 0 ? fmt("%.2f", cpuTwo / cpuOne) : "n/a", "", "info"});
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
    rows.push_back({"5", "per-unit time, largest / smallest", scaleKnown ? fmt("%.2f", growth) : "n/a",
                    fmt("≤ %.1f (flat)", kMaxPerUnitGrowth), verdict(scaleKnown, growth <= kMaxPerUnitGrowth)});
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
