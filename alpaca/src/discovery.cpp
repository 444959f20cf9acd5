#include "discovery.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "log.h"
#include "thread_name.h"

namespace alpaca {
namespace {

constexpr char kProbe[] = "alpacadiscovery1";
constexpr char kGroup6[] = "ff12::a1:9aca";

// Closes fd and returns -1 with errno as the failed call left it.
int fail(int fd)
{
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

int openSocket4(const std::string& host, int port)
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    if (!host.empty() && host != "0.0.0.0" && inet_pton(AF_INET, host.c_str(), &addr.sin_addr) != 1) {
        close(fd);
        errno = EADDRNOTAVAIL;
        return -1;
    }
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return fail(fd);
    return fd;
}

int openSocket6(const std::string& host, int port)
{
    int fd = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    sockaddr_in6 addr{};
    addr.sin6_family = AF_INET6;
    addr.sin6_port = htons(static_cast<uint16_t>(port));
    addr.sin6_addr = in6addr_any;
    bool any = host.empty() || host == "0.0.0.0" || host == "::";
    if (!any && inet_pton(AF_INET6, host.c_str(), &addr.sin6_addr) != 1) {
        close(fd);
        errno = EADDRNOTAVAIL;
        return -1;
    }
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return fail(fd);
    if (any) {
        // Join the group on every interface that has multicast; the default
        // interface (0) alone misses the others on a multi-homed host.
        ipv6_mreq group{};
        inet_pton(AF_INET6, kGroup6, &group.ipv6mr_multiaddr);
        bool joined = false;
        if (struct if_nameindex* list = if_nameindex()) {
            for (struct if_nameindex* i = list; i->if_index != 0; ++i) {
                group.ipv6mr_interface = i->if_index;
                if (setsockopt(fd, IPPROTO_IPV6, IPV6_JOIN_GROUP, &group, sizeof group) == 0) joined = true;
            }
            if_freenameindex(list);
        }
        if (!joined) logWarn("IPv6 discovery: cannot join ff12::a1:9aca");
    }
    return fd;
}

void answer(int fd, int httpPort)
{
    char buffer[512];
    sockaddr_storage from{};
    socklen_t fromLen = sizeof from;
    ssize_t n = recvfrom(fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &fromLen);
    if (n < static_cast<ssize_t>(sizeof kProbe - 1)) return;
    if (std::memcmp(buffer, kProbe, sizeof kProbe - 1) != 0) return;
    std::string reply = nlohmann::json{{"AlpacaPort", httpPort}}.dump();
    sendto(fd, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&from), fromLen);
}

int localPort(int fd)
{
    sockaddr_storage addr{};
    socklen_t len = sizeof addr;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) return -1;
    if (addr.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in*>(&addr)->sin_port);
    return ntohs(reinterpret_cast<sockaddr_in6*>(&addr)->sin6_port);
}

}  // namespace

DiscoveryResponder::DiscoveryResponder(int httpPort, int discoveryPort, std::string bindHost)
    : httpPort_(httpPort), discoveryPort_(discoveryPort), bindHost_(std::move(bindHost))
{
}

DiscoveryResponder::~DiscoveryResponder() { stop(); }

bool DiscoveryResponder::start()
{
    const bool v6Only = bindHost_.find(':') != std::string::npos;
    std::string problem4, problem6;
    if (!v6Only) {
        socket4_ = openSocket4(bindHost_, discoveryPort_);
        if (socket4_ < 0) problem4 = std::strerror(errno);
    }
    const int port = socket4_ >= 0 ? localPort(socket4_) : discoveryPort_;
    const std::string host6 =
        bindHost_.empty() || bindHost_ == "0.0.0.0" ? "" : bindHost_ == "127.0.0.1" ? "::1" : bindHost_;
    const bool want6 = v6Only || host6.empty() || host6 == "::1";
    if (want6) {
        socket6_ = openSocket6(host6, port);
        if (socket6_ < 0) problem6 = std::strerror(errno);
    }
    const std::string where = "UDP port " + std::to_string(discoveryPort_);
    if (socket4_ < 0 && socket6_ < 0) {
        logWarn("discovery is OFF: cannot bind " + where + " (" + (problem4.empty() ? problem6 : problem4) +
                "; another program holds it without sharing it?). Clients must be given this server's host and "
                "port by hand, or run with --discovery-port to answer on another port");
        return false;
    }
    // One family missing leaves discovery half on: say which clients miss out.
    if (!v6Only && socket4_ < 0)
        logWarn("discovery over IPv4 is off: cannot bind " + where + " (" + problem4 +
                "); IPv4 clients (the usual broadcast probe) will not find this server, IPv6 clients still do");
    if (want6 && socket6_ < 0 && socket4_ >= 0 && host6.empty())
        logInfo("discovery over IPv6 is off (" + problem6 + "); IPv4 clients still find this server");
    boundPort_ = socket4_ >= 0 ? port : localPort(socket6_);
    logInfo("discovery answers on UDP port " + std::to_string(boundPort_) + (socket4_ >= 0 ? " (IPv4)" : "") +
            (socket6_ >= 0 ? " (IPv6 ff12::a1:9aca)" : ""));
    wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    thread_ = std::thread([this] {
        nameThisThread("discovery");
        run();
    });
    return true;
}

void DiscoveryResponder::stop()
{
    stopping_ = true;
    if (wake_ >= 0) {
        const uint64_t one = 1;
        (void)!write(wake_, &one, sizeof one);
    }
    if (thread_.joinable()) thread_.join();
    if (wake_ >= 0) close(wake_);
    wake_ = -1;
    if (socket4_ >= 0) close(socket4_);
    if (socket6_ >= 0) close(socket6_);
    socket4_ = socket6_ = -1;
}

void DiscoveryResponder::run()
{
    // Sleeps until a probe comes or stop() wakes it: no wake-ups while nobody looks.
    while (!stopping_) {
        pollfd fds[3];
        int count = 0;
        if (socket4_ >= 0) fds[count++] = {socket4_, POLLIN, 0};
        if (socket6_ >= 0) fds[count++] = {socket6_, POLLIN, 0};
        const int sockets = count;
        if (wake_ >= 0) fds[count++] = {wake_, POLLIN, 0};
        if (poll(fds, static_cast<nfds_t>(count), wake_ >= 0 ? -1 : 200) <= 0) continue;
        for (int i = 0; i < sockets; ++i)
            if (fds[i].revents & POLLIN) answer(fds[i].fd, httpPort_);
    }
}

}  // namespace alpaca
