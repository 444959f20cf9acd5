// An Alpaca server on 127.0.0.1 (ephemeral port) in this process, over the
// simulator with two USB units of distinct serials, HOME and XDG dirs in a
// temporary directory, and an HTTP client talking to it.
#pragma once
#include <gtest/gtest.h>
#include <httplib.h>
#include <nkr_sim.h>

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "alpaca_server.h"
#include "device_registry.h"

namespace alpaca::test {

using nlohmann::json;

class AlpacaTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    // Starts (or restarts) registry + server over the current simulator world.
    void startServer();
    void stopServer();

    // GET / PUT answers of the device API; HTTP status in lastStatus_.
    json get(const std::string& path);
    json put(const std::string& path, const std::string& form);
    std::string device(int n, const std::string& member) const { return "/api/v1/focuser/" + std::to_string(n) + "/" + member; }
    // Connects device n (PUT Connected=true) and checks it answered without error.
    void connect(int n);
    // Advances the simulator clock until device n stops moving (bounded).
    bool runUntilStopped(int n);
    // Sends bytes on a connection of its own and returns all that comes back
    // until the server closes it (at most 10 s): what no client library sends.
    std::string raw(const std::string& bytes, int port = 0);
    // Records status and body of a response; its JSON when the status is 200.
    json answer(const httplib::Result& res);

    std::filesystem::path dir_;
    std::string statePath_;
    nkrsim::UnitId unitA_ = -1, unitB_ = -1;
    std::unique_ptr<DeviceRegistry> registry_;
    std::unique_ptr<AlpacaServer> server_;
    std::unique_ptr<httplib::Client> client_;
    int port_ = -1, lastStatus_ = 0;
    std::string lastBody_;
};

}  // namespace alpaca::test
