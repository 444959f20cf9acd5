// The Alpaca server's request handling (routing, the Host and Origin checks,
// parameter decoding, members, actions, the control page's forms) over two
// simulated units: whatever the request, the answer is never a 500 and
// nothing crashes or leaks. The HTTP parsing itself is Beast's; this starts
// where a parsed request is handed to the server.
#include <nkr_sim.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "FuzzInput.h"
#include "alpaca_server.h"
#include "device_registry.h"
#include "log.h"

namespace {

struct World {
    World()
    {
        char pattern[] = "/tmp/nkr-fuzz-alpaca-XXXXXX";
        const std::string dir = mkdtemp(pattern) ? pattern : "/tmp";
        setenv("HOME", dir.c_str(), 1);
        setenv("XDG_CONFIG_HOME", (dir + "/config").c_str(), 1);
        setenv("XDG_STATE_HOME", (dir + "/state").c_str(), 1);
        setenv("XDG_RUNTIME_DIR", dir.c_str(), 1);
        alpaca::setLogQuiet(true);
        nkrsim::reset();
        nkrsim::UnitSpec unit;
        unit.serial = {'F', 'U', 'Z', 'Z', '0', '0', '0', '1'};
        unit.position = 30000;
        nkrsim::addUnit(unit);
        unit.serial.back() = '2';
        nkrsim::addUnit(unit);
        registry = std::make_unique<alpaca::DeviceRegistry>("");
        registry->rescan();
        alpaca::ServerLimits limits;
        limits.samplingThread = false;
        server = std::make_unique<alpaca::AlpacaServer>(*registry, limits);
        port = server->start("127.0.0.1", 0);
    }
    std::unique_ptr<alpaca::DeviceRegistry> registry;
    std::unique_ptr<alpaca::AlpacaServer> server;
    int port = -1;
};

std::string text(const std::vector<uint8_t>& chunk) { return std::string(chunk.begin(), chunk.end()); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static World world;
    const auto chunks = nkrfuzz::splitChunks(data, size);
    auto part = [&](size_t i) { return i < chunks.size() ? text(chunks[i]) : std::string(); };
    static const char* const kMethods[] = {"GET", "PUT", "POST", "HEAD", "DELETE", "OPTIONS"};
    static const char* const kPrefixes[] = {"/api/v1/focuser/0/", "/api/v1/focuser/1/", "/control/v1/focuser/0/",
                                            "/control/v1/", "/management/", "/", "/setup/v1/focuser/"};
    const std::string selector = part(0);
    const auto pick = [&](size_t i) { return i < selector.size() ? static_cast<unsigned char>(selector[i]) : 0u; };

    alpaca::HttpRequest request;
    request.method = kMethods[pick(0) % 6];
    request.path = std::string(kPrefixes[pick(1) % 7]) + part(1);
    request.query = part(2);
    const std::string here = "127.0.0.1:" + std::to_string(world.port);
    switch (pick(2) % 4) {
    case 0: request.host = here; break;
    case 1: request.host = "localhost:" + std::to_string(world.port); break;
    case 2: request.host = part(3); break;
    default: break;  // none
    }
    if (pick(3) % 3 == 1) {
        request.hasOrigin = true;
        request.origin = "http://" + request.host;
    } else if (pick(3) % 3 == 2) {
        request.hasOrigin = true;
        request.origin = part(4);
    }
    request.contentType = pick(4) % 2 ? "application/x-www-form-urlencoded" : part(5);
    request.body = part(6);

    const alpaca::HttpResponse answer = world.server->answer(request);
    if (answer.status >= 500 || answer.status < 200) __builtin_trap();
    return 0;
}
