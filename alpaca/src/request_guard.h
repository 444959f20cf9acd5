// Refuses browser requests that another web site makes on the user's behalf.
// A page elsewhere can post a form here (the browser sends its Origin), and a
// name it controls can be pointed at this computer (DNS rebinding: the Host is
// then that name). Alpaca clients send no Origin; those that reach the server
// by an address, localhost or its own name are not affected.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace alpaca {

class RequestGuard {
public:
    // extraHosts: further names this server may be reached by (--allow-host).
    explicit RequestGuard(std::vector<std::string> extraHosts = {});

    // Whether a Host header names this server: an IP literal, localhost, this
    // computer's name (also with .local) or an allowed name, with the port
    // (any port when anyPort).
    bool hostAllowed(const std::string& host, int port, bool anyPort = false) const;
    // Why a request must be refused (one sentence), or nothing.
    //   control: a request of the control page (its host and port are checked);
    //   changes: it changes something (its Origin, if any, must be the Host).
    std::optional<std::string> refusal(const std::string& host, const std::optional<std::string>& origin, int port,
                                       bool control, bool changes) const;

private:
    bool readHostAllowed(const std::string& host, int port, bool anyPort) const;

    std::vector<std::string> names_;  // lower case
    std::uint64_t id_ = 0;
};

}  // namespace alpaca
