// Management API, stable device numbers, and discovery over loopback.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "alpaca_fixture.h"
#include "discovery.h"

namespace alpaca::test {
namespace {

TEST_F(AlpacaTest, ManagementListsVersionsDescriptionAndDevices)
{
    json versions = get("/management/apiversions?ClientTransactionID=3");
    EXPECT_EQ(versions["Value"], json::array({1}));
    EXPECT_EQ(versions["ClientTransactionID"], 3);
    json description = get("/management/v1/description")["Value"];
    for (const char* key : {"ServerName", "Manufacturer", "ManufacturerVersion", "Location"})
        EXPECT_TRUE(description[key].is_string()) << key;
    json devices = get("/management/v1/configureddevices")["Value"];
    ASSERT_EQ(devices.size(), 2u);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(devices[i]["DeviceType"], "Focuser");
        EXPECT_EQ(devices[i]["DeviceNumber"], i);
        EXPECT_TRUE(devices[i]["DeviceName"].is_string() && devices[i]["UniqueID"].is_string());
    }
    EXPECT_NE(devices[0]["UniqueID"], devices[1]["UniqueID"]);
}

TEST_F(AlpacaTest, DeviceNumbersFollowSerialsAcrossRestarts)
{
    json before = get("/management/v1/configureddevices")["Value"];
    stopServer();
    // The first unit is missing on the next start: the second keeps its number.
    nkrsim::unplug(unitA_);
    startServer();
    json after = get("/management/v1/configureddevices")["Value"];
    ASSERT_EQ(after.size(), 1u);
    EXPECT_EQ(after[0]["DeviceNumber"], 1);
    EXPECT_EQ(after[0]["UniqueID"], before[1]["UniqueID"]);
    EXPECT_EQ(get(device(0, "absolute")).is_null(), true);  // unknown in this run: 400
    EXPECT_EQ(lastStatus_, 400);
    nkrsim::replug(unitA_);
    json replugged = get("/management/v1/configureddevices")["Value"];
    ASSERT_EQ(replugged.size(), 2u);
    EXPECT_EQ(replugged[0]["UniqueID"], before[0]["UniqueID"]);
    EXPECT_EQ(replugged[0]["DeviceNumber"], 0);
}

// Sends the probe to host:port and returns the answer ("" on timeout).
std::string probe(int family, const std::string& host, int port)
{
    int fd = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return {};
    sockaddr_storage to{};
    socklen_t len = 0;
    if (family == AF_INET) {
        auto* a = reinterpret_cast<sockaddr_in*>(&to);
        a->sin_family = AF_INET;
        a->sin_port = htons(static_cast<uint16_t>(port));
        inet_pton(AF_INET, host.c_str(), &a->sin_addr);
        len = sizeof *a;
    } else {
        auto* a = reinterpret_cast<sockaddr_in6*>(&to);
        a->sin6_family = AF_INET6;
        a->sin6_port = htons(static_cast<uint16_t>(port));
        inet_pton(AF_INET6, host.c_str(), &a->sin6_addr);
        len = sizeof *a;
    }
    std::string reply;
    // UDP may drop: a few bounded tries.
    for (int attempt = 0; attempt < 5 && reply.empty(); ++attempt) {
        sendto(fd, "alpacadiscovery1", 16, 0, reinterpret_cast<sockaddr*>(&to), len);
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 1000) == 1) {
            char buffer[256];
            ssize_t n = recv(fd, buffer, sizeof buffer, 0);
            if (n > 0) reply.assign(buffer, static_cast<size_t>(n));
        }
    }
    close(fd);
    return reply;
}

TEST(AlpacaDiscovery, AnswersTheProbeWithTheHttpPortOverIpv4Loopback)
{
    DiscoveryResponder responder(12345, 0, "127.0.0.1");
    ASSERT_TRUE(responder.start());
    std::string reply = probe(AF_INET, "127.0.0.1", responder.boundPort());
    json parsed = json::parse(reply, nullptr, false);
    EXPECT_EQ(parsed, json({{"AlpacaPort", 12345}})) << reply;
    responder.stop();
}

TEST(AlpacaDiscovery, IgnoresOtherDatagramsAndAnswersOverIpv6Loopback)
{
    DiscoveryResponder responder(23456, 0, "::1");
    if (!responder.start()) GTEST_SKIP() << "no IPv6 loopback here";
    int fd = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    to.sin6_port = htons(static_cast<uint16_t>(responder.boundPort()));
    to.sin6_addr = in6addr_loopback;
    sendto(fd, "hello", 5, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    pollfd p{fd, POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 300), 0);  // no answer to a foreign datagram
    close(fd);
    json parsed = json::parse(probe(AF_INET6, "::1", responder.boundPort()), nullptr, false);
    EXPECT_EQ(parsed["AlpacaPort"], 23456);
}

}  // namespace
}  // namespace alpaca::test
