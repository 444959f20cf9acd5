// nkr-alpaca: serves every NKR focuser as an ASCOM Alpaca focuser.
#include <CLI/CLI.hpp>
#include <NKR_focuser.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "src/alpaca_server.h"
#include "src/device_registry.h"
#include "src/discovery.h"
#include "src/focuser_members.h"
#include "src/log.h"
#include "src/shutdown.h"
#include "nkrhost/settings.h"
#include "nkrhost/simulation.h"

int main(int argc, char** argv)
{
    CLI::App app{"nkr-alpaca: ASCOM Alpaca server for NKR focusers"};
    bool simulate = false;
    bool noDiscovery = false;
    int port = 11111;
    int discoveryPort = alpaca::kDiscoveryPort;
    std::string bind = "0.0.0.0";
    std::vector<std::string> bleNames;
    alpaca::ServerLimits limits;
    alpaca::HttpLimits& http = limits.http;
    app.option_defaults()->always_capture_default();  // --help shows every default
    app.add_flag("--simulate", simulate, "serve simulated units instead of real hardware");
    app.add_option("--port", port, "HTTP port of the Alpaca API")->check(CLI::Range(1, 65535));
    app.add_option("--bind", bind, "address to listen on (0.0.0.0 = every interface, 127.0.0.1 = this computer only)");
    app.add_option("--ble", bleNames, "attach the Bluetooth unit with this name (repeatable)");
    app.add_flag("--no-discovery", noDiscovery, "do not answer Alpaca discovery on UDP");
    app.add_option("--discovery-port", discoveryPort, "UDP port of Alpaca discovery")->check(CLI::Range(1, 65535));
    app.add_option("--allow-host", limits.allowedHosts,
                   "a further name (a DNS name of this computer) by which clients and browsers may reach the server "
                   "(repeatable; IP addresses, localhost and this computer's name always work)");
    app.add_option("--max-connections", http.maxConnections,
                   "connections open at once (past it the longest idle one is closed, else 503)")
        ->check(CLI::Range(1, 100000));
    app.add_option("--max-connections-per-client", http.maxPerClient, "connections open at once from one address")
        ->check(CLI::Range(1, 100000));
    app.add_option("--max-header-count", http.maxHeaderCount, "header fields in one request (more: 431)")
        ->check(CLI::Range(1, 10000));
    app.add_option("--max-header-bytes", http.maxHeaderBytes, "request line and headers, in bytes (more: 431)")
        ->check(CLI::Range(512, 1 << 20));
    app.add_option("--max-body-bytes", http.maxBodyBytes, "request body, in bytes (more: 413)")
        ->check(CLI::Range(0, 1 << 24));
    app.add_option("--request-timeout", http.requestSeconds,
                   "seconds from the first byte of a request to its last (slower: 408)")
        ->check(CLI::Range(1, 3600));
    app.add_option("--idle-timeout", http.idleSeconds, "seconds a keep-alive connection may wait for its next request")
        ->check(CLI::Range(1, 86400));
    app.add_option("--workers", http.workers, "threads that run requests which may wait for a unit")
        ->check(CLI::Range(1, 64));
    app.add_flag_callback("--version", [] {
        std::printf("nkr-alpaca %s\n", alpaca::driverVersion().c_str());
        std::exit(0);
    }, "print the version");
    CLI11_PARSE(app, argc, argv);

    {
        // With --simulate the server starts itself again in the one simulated
        // world every front-end shares (settings and device numbers apart
        // from the real ones).
        const nkrhost::Status entered =
            nkrhost::enterSimulation({simulate || nkrhost::simulationRequestedByEnvironment(), false}, argv);
        if (!entered.ok()) {
            std::fprintf(stderr, "nkr-alpaca: %s\n", entered.message.c_str());
            return nkrhost::simulationActive() ? 2 : 1;
        }
        if (nkrhost::simulationActive()) alpaca::logInfo("serving simulated units");
        nkrhost::chooseSavedRecord(nkrhost::HostSettings());
    }

    // Signals are taken by sigwait below, not by handlers on random threads:
    // blocked here, before any thread starts, so every thread inherits it.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    alpaca::raiseDescriptorLimit(http.maxConnections);

    alpaca::logInfo("nkr-alpaca " + alpaca::driverVersion() + ", SDK " + NKRGetSDKVersion());
    std::string statePath = alpaca::DeviceRegistry::defaultStatePath();
    alpaca::DeviceRegistry registry(statePath);
    registry.setAddress("its page http://" + (bind == "0.0.0.0" ? std::string("localhost") : bind) + ":" +
                        std::to_string(port) + "/control");
    registry.rescan();
    for (const std::string& name : bleNames) {
        alpaca::AttachResult attached = registry.attachBle(name);
        if (attached.ok())
            alpaca::logInfo(attached.message);
        else
            alpaca::logWarn("cannot attach Bluetooth unit " + name + ": " + attached.message);
    }
    alpaca::logInfo(std::to_string(registry.all().size()) + " focuser(s); device numbers kept in " + statePath);

    registry.startSupervisor();
    alpaca::AlpacaServer server(registry, limits);
    if (server.start(bind, port) < 0) {
        std::fprintf(stderr, "nkr-alpaca: %s\n", server.startError().c_str());
        return 1;
    }
    const bool everywhere = bind.empty() || bind == "0.0.0.0" || bind == "::";
    const std::string portText = std::to_string(port);
    if (everywhere)
        alpaca::logInfo("Alpaca API on port " + portText + " of every interface; control page at http://" +
                        alpaca::hostName() + ":" + portText + "/ (http://localhost:" + portText + "/ on this computer)");
    else
        alpaca::logInfo("Alpaca API and control page on http://" + alpaca::urlHost(bind) + ":" + portText + "/");
    const bool loopback = alpaca::isLoopback(bind);
    if (loopback)
        alpaca::logInfo("bound to " + bind + ": only programs on this computer reach the server" +
                        (noDiscovery ? std::string()
                                     : ", and discovery answers only probes sent to " + bind +
                                           " (a broadcast probe or another computer gets no answer)") +
                        "; --bind 0.0.0.0 serves the network");
    alpaca::DiscoveryResponder discovery(port, discoveryPort, bind);
    if (noDiscovery)
        alpaca::logInfo("discovery is off (--no-discovery): clients must be given host and port by hand");
    else if (discovery.start())  // logs what it answers, or that it is off and why
        server.setDiscoveryPort(discovery.boundPort());

    int signal = 0;
    sigwait(&stopSignals, &signal);
    alpaca::logInfo(std::string("stopping on ") + alpaca::signalName(signal));
    discovery.stop();
    server.stop();
    // No client is served any more: a move in progress is stopped, and every
    // unit is let go (a USB unit saves its position as it is closed).
    alpaca::stopUnits(registry, alpaca::signalName(signal));
    return 0;
}
