// Load on nkr-alpaca: clients read a focuser's position over HTTP keep-alive,
// one thread and one connection each, for a fixed time; every latency is
// kept. With --rate each client sends at a fixed pace instead of as fast as
// it can (an open loop: the latency of a request the server made wait for
// the one before is counted from when it was due). With --direct the same reads are made in-process through the public
// interface (run under the simulator), which gives the baseline the server's
// round trip is compared with. scripts/bench-alpaca runs both.
//
// Prints one line of key=value figures; exits 1 when any request failed.
#include <sys/prctl.h>
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <NKR_focuser.h>
#include <httplib.h>

#include <algorithm>
#include <barrier>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    std::string host = "127.0.0.1";
    int port = 0;
    int clients = 1;
    double seconds = 60;
    int warmup = 200;                // requests per client before timing starts
    std::vector<int> devices{0};     // client i uses devices[i % size]
    bool direct = false;
    double rate = 0;                 // requests per second and client; 0: closed loop
};

// What one client saw. Latencies in nanoseconds, capped at 4.29 s to halve
// the memory of tens of millions of direct calls; the true maximum apart.
struct ClientResult {
    std::vector<uint32_t> latencies;
    int64_t maxNanos = 0;
    long over1ms = 0;
    long over20ms = 0;
    long errors = 0;
    long closedByServer = 0;  // answers that ended the keep-alive connection
    int64_t reconnectMaxNanos = 0;  // slowest request that had to open a new connection
};

// Fixes the timed span when the last client has warmed up, before any starts.
struct TimedSpan {
    Clock::time_point* began;
    Clock::time_point* stopAt;
    double seconds;
    void operator()() noexcept
    {
        *began = Clock::now();
        *stopAt = *began + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    }
};
using StartBarrier = std::barrier<TimedSpan>;

int64_t record(ClientResult& out, Clock::time_point start, Clock::time_point end)
{
    int64_t ns = std::chrono::duration_cast<std::chrono::nanoseconds>(end - start).count();
    out.latencies.push_back(static_cast<uint32_t>(std::min<int64_t>(ns, UINT32_MAX)));
    out.maxNanos = std::max(out.maxNanos, ns);
    if (ns > 1000000) ++out.over1ms;
    if (ns > 20000000) ++out.over20ms;
    return ns;
}

// The open loop's pace: when the next request is due, and from when its time
// counts. A request the previous one made late counts from when it was due
// (the server's wait is the client's); otherwise from when it is sent, so that
// the client's own late wake-up from sleep is not put on the server.
class Pace {
public:
    explicit Pace(double rate)
        : interval_(rate > 0 ? std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / rate))
                             : Clock::duration::zero())
    {
        // The default timer slack (50 µs) would make every paced wake-up late.
        if (rate > 0) prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    }
    Clock::time_point begin()
    {
        if (interval_ == Clock::duration::zero()) return Clock::now();
        Clock::time_point now = Clock::now();
        if (due_ == Clock::time_point{}) due_ = now;
        Clock::time_point from = due_;
        if (now < due_) {
            std::this_thread::sleep_until(due_);
            from = Clock::now();
        }
        due_ += interval_;
        return from;
    }

private:
    Clock::duration interval_;
    Clock::time_point due_{};
};

// The first few failures are worth reading; the rest are only counted.
void reportError(const std::string& what)
{
    static std::mutex mutex;
    static int shown = 0;
    std::lock_guard lock(mutex);
    if (shown++ < 5) std::fprintf(stderr, "error: %s\n", what.c_str());
}

// Returns "" for a good answer, else why it was not.
std::string checkAnswer(const httplib::Result& result)
{
    if (!result) return "request failed: " + httplib::to_string(result.error());
    if (result->status != 200) return "HTTP " + std::to_string(result->status) + ": " + result->body;
    auto body = nlohmann::json::parse(result->body, nullptr, false);
    if (body.is_discarded() || !body.contains("ErrorNumber") || !body.contains("Value"))
        return "malformed answer: " + result->body;
    if (body["ErrorNumber"] != 0) return "ErrorNumber " + body["ErrorNumber"].dump() + ": " + body.value("ErrorMessage", "");
    return {};
}

// Warms up, waits at `start` until every client has, then runs until *stopAt.
void httpClient(const Options& options, int device, StartBarrier& start, const Clock::time_point* stopAt,
                ClientResult& out)
{
    httplib::Client client(options.host, options.port);
    client.set_keep_alive(true);
    client.set_tcp_nodelay(true);
    client.set_connection_timeout(5, 0);
    client.set_read_timeout(5, 0);
    const std::string path = "/api/v1/focuser/" + std::to_string(device) + "/position";
    bool reconnect = true;  // the next request opens a connection
    for (int i = 0; i < options.warmup; ++i) {
        auto result = client.Get(path);
        reconnect = !result || result->get_header_value("Connection") == "close";
    }
    start.arrive_and_wait();
    Pace pace(options.rate);
    while (Clock::now() < *stopAt) {
        auto begin = pace.begin();
        auto result = client.Get(path);
        auto end = Clock::now();
        std::string error = checkAnswer(result);
        if (!error.empty()) {
            ++out.errors;
            reportError(error);
            reconnect = true;
            continue;
        }
        int64_t ns = record(out, begin, end);
        if (reconnect) out.reconnectMaxNanos = std::max(out.reconnectMaxNanos, ns);
        reconnect = result->get_header_value("Connection") == "close";
        if (reconnect) ++out.closedByServer;
    }
}

void directClient(const Options& options, int slot, StartBarrier& start, const Clock::time_point* stopAt,
                  ClientResult& out)
{
    int position = 0;
    for (int i = 0; i < options.warmup; ++i) NKRGetPosition(slot, &position);
    start.arrive_and_wait();
    Pace pace(options.rate);
    while (Clock::now() < *stopAt) {
        auto begin = pace.begin();
        int rc = NKRGetPosition(slot, &position);
        auto end = Clock::now();
        if (rc != NKR_SUCCESS) {
            ++out.errors;
            reportError("NKRGetPosition returned " + std::to_string(rc));
            continue;
        }
        record(out, begin, end);
    }
}

// Scan indexes -> open slot ids; empty when a unit cannot be opened.
std::vector<int> openUnits(const std::vector<int>& indexes)
{
    int count = NKRGetNum();
    std::vector<int> slots;
    for (int index : indexes) {
        int slot = -1;
        if (index >= count || NKRGetID(index, &slot) != NKR_SUCCESS || NKROpen(slot) != NKR_SUCCESS) {
            std::fprintf(stderr, "cannot open unit %d of %d (is the simulator on LD_LIBRARY_PATH?)\n", index, count);
            for (int open : slots) NKRClose(open);
            return {};
        }
        slots.push_back(slot);
    }
    return slots;
}

double processCpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double quantileMicros(const std::vector<uint32_t>& sorted, double q)
{
    if (sorted.empty()) return 0;
    return sorted[static_cast<size_t>(q * static_cast<double>(sorted.size() - 1))] / 1000.0;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    CLI::App app{"nkr_bench_alpaca: position reads through nkr-alpaca, or directly through the library"};
    app.add_option("--host", options.host, "server address");
    app.add_option("--port", options.port, "server port")->check(CLI::Range(1, 65535));
    app.add_option("--clients", options.clients, "concurrent clients (threads)")->check(CLI::Range(1, 256));
    app.add_option("--seconds", options.seconds, "timed run length")->check(CLI::Range(0.1, 3600.0));
    app.add_option("--warmup", options.warmup, "untimed requests per client first")->check(CLI::Range(0, 1000000));
    app.add_option("--devices", options.devices, "device numbers (scan indexes with --direct), shared out round-robin")
        ->delimiter(',');
    app.add_option("--rate", options.rate, "requests per second and client, sent at that pace (default: as fast as answered)")
        ->check(CLI::Range(0.0, 1e6));
    app.add_flag("--direct", options.direct, "call NKRGetPosition in-process instead of going through the server");
    CLI11_PARSE(app, argc, argv);
    if (!options.direct && options.port == 0) {
        std::fprintf(stderr, "--port is required unless --direct\n");
        return 2;
    }

    std::vector<int> targets = options.devices;
    if (options.direct) {
        targets = openUnits(options.devices);
        if (targets.empty()) return 2;
    }

    double cpuBefore = processCpuSeconds();
    std::vector<ClientResult> results(static_cast<size_t>(options.clients));
    std::vector<std::thread> threads;
    // Every client warms up, then all time the same span.
    Clock::time_point began, stopAt;
    StartBarrier start(options.clients, TimedSpan{&began, &stopAt, options.seconds});
    for (int i = 0; i < options.clients; ++i) {
        int target = targets[static_cast<size_t>(i) % targets.size()];
        ClientResult& out = results[static_cast<size_t>(i)];
        out.latencies.reserve(1 << 20);
        threads.emplace_back([&options, target, &start, &stopAt, &out] {
            if (options.direct)
                directClient(options, target, start, &stopAt, out);
            else
                httpClient(options, target, start, &stopAt, out);
        });
    }
    for (auto& thread : threads) thread.join();
    double elapsed = std::chrono::duration<double>(Clock::now() - began).count();
    double cpu = processCpuSeconds() - cpuBefore;  // includes the warm-up: a slight overestimate
    if (options.direct)
        for (int slot : targets) NKRClose(slot);

    std::vector<uint32_t> all;
    long errors = 0, closed = 0, over1ms = 0, over20ms = 0;
    int64_t maxNanos = 0, reconnectMax = 0;
    for (auto& result : results) {
        maxNanos = std::max(maxNanos, result.maxNanos);
        reconnectMax = std::max(reconnectMax, result.reconnectMaxNanos);
        over1ms += result.over1ms;
        over20ms += result.over20ms;
        all.insert(all.end(), result.latencies.begin(), result.latencies.end());
        errors += result.errors;
        closed += result.closedByServer;
    }
    std::sort(all.begin(), all.end());
    std::string devices;
    for (int d : options.devices) devices += (devices.empty() ? "" : ",") + std::to_string(d);
    std::printf("mode=%s clients=%d devices=%s seconds=%.1f requests=%zu errors=%ld closed_by_server=%ld rps=%.0f "
                "median_us=%.1f p99_us=%.1f max_us=%.1f over_1ms=%ld over_20ms=%ld reconnect_max_us=%.1f cpu_us_per_request=%.2f\n",
                options.direct ? "direct" : "http", options.clients, devices.c_str(), elapsed, all.size(), errors,
                closed, static_cast<double>(all.size()) / elapsed, quantileMicros(all, 0.5),
                quantileMicros(all, 0.99), static_cast<double>(maxNanos) / 1000.0, over1ms, over20ms,
                static_cast<double>(reconnectMax) / 1000.0,
                all.empty() ? 0.0 : cpu * 1e6 / static_cast<double>(all.size()));
    return errors == 0 && !all.empty() ? 0 : 1;
}
