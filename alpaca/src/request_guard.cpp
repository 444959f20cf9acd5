#include "request_guard.h"

#include <arpa/inet.h>

#include <algorithm>
#include <atomic>
#include <cctype>

#include "alpaca_request.h"
#include "alpaca_server.h"

namespace alpaca {
namespace {

std::string lower(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
}

bool ipLiteral(const std::string& name)
{
    unsigned char buffer[16];
    if (inet_pton(AF_INET, name.c_str(), buffer) == 1) return true;
    return name.size() > 2 && name.front() == '[' && name.back() == ']' &&
           inet_pton(AF_INET6, name.substr(1, name.size() - 2).c_str(), buffer) == 1;
}

}  // namespace

RequestGuard::RequestGuard(std::vector<std::string> extraHosts)
{
    static std::atomic<std::uint64_t> guards{0};
    id_ = ++guards;
    const std::string own = lower(hostName());
    names_ = {"localhost", own, own + ".local", own.substr(0, own.find('.'))};
    for (std::string& name : extraHosts) names_.push_back(lower(name));
}

bool RequestGuard::hostAllowed(const std::string& header, int port, bool anyPort) const
{
    // A client sends the same Host with every request: the last one this
    // thread found allowed is taken again without reading it anew. The guard
    // never changes, and each has an id of its own (an address may be reused).
    thread_local struct {
        std::uint64_t guard = 0;
        int port = 0;
        bool anyPort = false;
        std::string header;
    } last;
    if (last.guard == id_ && last.port == port && last.anyPort == anyPort && last.header == header) return true;
    if (!readHostAllowed(header, port, anyPort)) return false;
    last.guard = id_;
    last.port = port;
    last.anyPort = anyPort;
    last.header = header;
    return true;
}

bool RequestGuard::readHostAllowed(const std::string& header, int port, bool anyPort) const
{
    // "name:port", "[v6]:port", or a bare name for port 80.
    std::string name = lower(header);
    std::string portText = "80";
    const std::size_t colon = name.rfind(':');
    if (colon != std::string::npos && name.find(']', colon) == std::string::npos) {
        portText = name.substr(colon + 1);
        name.resize(colon);
    }
    if (!name.empty() && name.back() == '.') name.pop_back();
    const auto given = parseUint32(portText);
    if (!given || (!anyPort && static_cast<int>(*given) != port) || name.empty()) return false;
    return ipLiteral(name) || std::find(names_.begin(), names_.end(), name) != names_.end();
}

std::optional<std::string> RequestGuard::refusal(const std::string& host, const std::optional<std::string>& origin,
                                                 int port, bool control, bool changes) const
{
    // The page, and a browser's change anywhere, must name this server with
    // its port. Elsewhere the name alone counts (a client behind a forwarded
    // port sends another port), so that a page whose name was pointed at this
    // computer (DNS rebinding) reads nothing either; a request without a Host
    // (HTTP/1.0) names nothing to rebind.
    const bool strict = control || (origin && changes);
    if ((strict || !host.empty()) && !hostAllowed(host, port, !strict))
        return "refused: this server is not known by the name '" + host +
               "' (use its IP address, localhost or this computer's name, or start nkr-alpaca with --allow-host NAME)";
    if (changes && origin && lower(*origin) != "http://" + lower(host))
        return "refused: a page of another site (" + *origin + ") may not change anything here";
    return std::nullopt;
}

}  // namespace alpaca
