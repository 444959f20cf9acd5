// The HTTP side: device API, management API and control page on one
// httplib server with bounded bodies, timeouts and a fixed thread pool.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "device_registry.h"
#include "history.h"
#include "request_guard.h"

namespace httplib {
class Server;
struct Request;
struct Response;
}

namespace alpaca {

struct ServerLimits {
    size_t maxBodyBytes = 16 * 1024;  // form bodies are tiny; anything larger is refused (413)
    int readTimeoutSeconds = 5;       // a client that stalls mid-request is dropped
    int writeTimeoutSeconds = 5;
    // A keep-alive connection holds a pool thread while it is open. An idle
    // one (a browser keeps several) gives its thread back after this long;
    // clients that poll every second or faster keep theirs.
    int keepAliveSeconds = 5;
    // After this many requests a connection is closed (the client reconnects)
    // so that a waiting connection gets a turn.
    size_t keepAliveMaxRequests = 100;
    int threads = 16;                 // connections served at once
    int listenBacklog = 512;          // connections waiting to be accepted
    // The control page's plot: one sample of each connected unit this often,
    // kept this long. Without the sampling thread samples come only from
    // recordSamples (tests choose their times).
    std::chrono::seconds samplePeriod{5};
    std::chrono::seconds historySpan{3600};
    bool samplingThread = true;
    // Names besides IP addresses, localhost and this computer's own name by
    // which browsers may reach the control page (a DNS name of this host).
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
    const RequestGuard& guard() const { return guard_; }

    // Counts up from 1 for every device and management answer.
    uint32_t nextServerTransactionId() { return ++serverTransactionId_; }
    DeviceRegistry& registry() { return registry_; }

private:
    void routeDeviceApi();
    void answerDevice(const httplib::Request& req, httplib::Response& res, const std::string& type,
                      const std::string& number, const std::string& member);
    static std::string bindProblem(const std::string& host, int port);
    void routeManagement();
    void sampleLoop();

    DeviceRegistry& registry_;
    ServerLimits limits_;
    std::unique_ptr<httplib::Server> http_;
    std::thread thread_;
    std::atomic<uint32_t> serverTransactionId_{0};
    int port_ = -1;
    std::string startError_;
    History history_;
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

// Registers the control page (/, /control and its JSON API) and the ASCOM
// setup URLs (/setup, /setup/v1/focuser/{n}/setup), which lead to it.
void routeControlPage(httplib::Server& http, AlpacaServer& server);

}  // namespace alpaca
