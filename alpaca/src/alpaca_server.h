// The Alpaca server: device API, management API and control page, answered
// over the event-driven HTTP core (http_server.h) with its limits.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "device_registry.h"
#include "history.h"
#include "http_server.h"
#include "request_guard.h"

namespace alpaca {

struct ServerLimits {
    HttpLimits http;  // connections, headers, bodies and times
    // The control page's plot: one sample of each connected unit this often,
    // kept this long. Without the sampling thread samples come only from
    // recordSamples (tests choose their times).
    std::chrono::seconds samplePeriod{5};
    std::chrono::seconds historySpan{3600};
    bool samplingThread = true;
    // Names besides IP addresses, localhost and this computer's own name by
    // which this server may be reached (a DNS name of this host).
    std::vector<std::string> allowedHosts;
};

class AlpacaServer {
public:
    AlpacaServer(DeviceRegistry& registry, ServerLimits limits = {});
    ~AlpacaServer();

    // Binds host:port (port 0 = any free port) and serves on a thread of its
    // own. Returns the bound port, or -1 when the address cannot be bound.
    int start(const std::string& host, int port);
    // Stops serving and joins the thread.
    void stop();
    int port() const { return port_; }
    // Why start() failed, in one sentence.
    const std::string& startError() const { return startError_; }

    // Takes one sample of every connected unit for the plot, stamped `at`.
    void recordSamples(std::chrono::system_clock::time_point at);
    const History& history() const { return history_; }
    UnitPresence& presence() { return presence_; }
    const RequestGuard& guard() const { return guard_; }

    // Counts up from 1 for every device and management answer.
    uint32_t nextServerTransactionId() { return ++serverTransactionId_; }
    DeviceRegistry& registry() { return registry_; }
    const ServerLimits& limits() const { return limits_; }
    // The UDP port discovery answers on, for the page's footer (0: off, the default).
    void setDiscoveryPort(int port) { discoveryPort_ = port; }
    int discoveryPort() const { return discoveryPort_; }

    // One request, as the HTTP core hands it over (any thread).
    HttpResponse answer(const HttpRequest& request);

private:
    // Whether a request may wait (for a unit, a scan): it then runs on a worker.
    bool mayWait(const HttpRequest& request);
    HttpResponse answerDevice(const HttpRequest& request, const std::string& path);
    HttpResponse answerManagement(const HttpRequest& request);
    static std::string bindProblem(const std::string& host, int port);
    void sampleLoop();

    DeviceRegistry& registry_;
    ServerLimits limits_;
    std::unique_ptr<HttpServer> http_;
    std::atomic<uint32_t> serverTransactionId_{0};
    std::atomic<int> discoveryPort_{0};
    std::atomic<int> port_{-1};  // read by requests on other threads
    std::string startError_;
    History history_;
    UnitPresence presence_;
    RequestGuard guard_;
    std::thread sampler_;
    std::mutex samplerMutex_;
    std::condition_variable samplerWake_;
    bool samplerStop_ = false;
};

// A host as it goes into a URL: an IPv6 literal in brackets.
std::string urlHost(const std::string& host);
// True for an address only this computer reaches (127.x.x.x, ::1, localhost).
bool isLoopback(const std::string& host);
// This computer's host name ("localhost" when it has none).
std::string hostName();

// The control page (/, /control and its JSON API) and the ASCOM setup URLs
// (/setup, /setup/v1/focuser/{n}/setup), which lead to it; nothing for a
// path that is not the page's.
std::optional<HttpResponse> answerControlPage(AlpacaServer& server, const HttpRequest& request);
// True for the page's paths (the browser's checks apply to every request there).
bool isControlPagePath(const std::string& path);
// True for the requests that may wait for a unit or a scan.
bool controlPageMayWait(const std::string& path);

// 405 naming what the path accepts.
HttpResponse wrongMethod(const HttpRequest& request, const std::string& allow);

}  // namespace alpaca
