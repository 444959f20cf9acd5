// Alpaca discovery: answers "alpacadiscovery1" datagrams with
// {"AlpacaPort": <port>} on IPv4 (broadcast) and IPv6 (group ff12::a1:9aca).
#pragma once

#include <atomic>
#include <string>
#include <thread>

namespace alpaca {

constexpr int kDiscoveryPort = 32227;

class DiscoveryResponder {
public:
    // httpPort: the port announced. bindHost: "" or "0.0.0.0" for every
    // interface (and IPv6 on every interface), "127.0.0.1" for loopback only.
    DiscoveryResponder(int httpPort, int discoveryPort = kDiscoveryPort, std::string bindHost = "");
    ~DiscoveryResponder();

    // Opens the sockets and starts answering; false when no socket could be bound.
    bool start();
    void stop();
    // The discovery port actually bound (useful with 0 in tests).
    int boundPort() const { return boundPort_; }

private:
    void run();

    int httpPort_;
    int discoveryPort_;
    std::string bindHost_;
    int socket4_ = -1;
    int socket6_ = -1;
    int boundPort_ = -1;
    int wake_ = -1;  // eventfd that stop() writes to end the wait
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace alpaca
