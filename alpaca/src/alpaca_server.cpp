#include "alpaca_server.h"

#include <NKR_focuser.h>
#include <httplib.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "alpaca_request.h"
#include "focuser_members.h"
#include "log.h"

namespace alpaca {
namespace {

using nlohmann::json;

void sendJson(httplib::Response& res, const json& body)
{
    res.status = 200;
    res.set_content(body.dump(), "application/json");
}

void sendBadRequest(httplib::Response& res, const std::string& reason)
{
    res.status = 400;
    res.set_content(reason, "text/plain");
}

json envelope(AlpacaServer& server, const AlpacaRequest& req)
{
    return {{"ClientTransactionID", req.clientTransactionId()},
            {"ServerTransactionID", server.nextServerTransactionId()},
            {"ErrorNumber", 0},
            {"ErrorMessage", ""}};
}

std::optional<int> deviceNumber(const std::string& text)
{
    auto parsed = parseUint32(text);
    if (!parsed || *parsed > 1000000) return std::nullopt;
    return static_cast<int>(*parsed);
}

}  // namespace

AlpacaServer::AlpacaServer(DeviceRegistry& registry, ServerLimits limits)
    : registry_(registry), limits_(limits), http_(std::make_unique<httplib::Server>())
{
    int threads = std::max(1, limits_.threads);
    http_->new_task_queue = [threads] { return new httplib::ThreadPool(static_cast<size_t>(threads)); };
    http_->set_payload_max_length(limits_.maxBodyBytes);
    http_->set_read_timeout(limits_.readTimeoutSeconds, 0);
    http_->set_write_timeout(limits_.writeTimeoutSeconds, 0);
    http_->set_keep_alive_timeout(limits_.keepAliveSeconds);
    http_->set_keep_alive_max_count(limits_.keepAliveMaxRequests);
    // Headers and body go out in separate writes: without this, Nagle and the
    // client's delayed ACK add ~40 ms to every keep-alive answer.
    http_->set_tcp_nodelay(true);
    // A handler that throws anything unexpected answers 500 instead of ending the server.
    http_->set_exception_handler([](const httplib::Request&, httplib::Response& res, std::exception_ptr ep) {
        std::string what = "internal error";
        try {
            std::rethrow_exception(ep);
        } catch (const std::exception& e) {
            what += std::string(": ") + e.what();
        } catch (...) {
        }
        logWarn(what);
        res.status = 500;
        res.set_content(what, "text/plain");
    });
    routeDeviceApi();
    routeManagement();
    routeSetupPages(*http_, *this);
}

AlpacaServer::~AlpacaServer() { stop(); }

int AlpacaServer::start(const std::string& host, int port)
{
    port_ = port == 0 ? http_->bind_to_any_port(host) : (http_->bind_to_port(host, port) ? port : -1);
    if (port_ < 0) return -1;
    thread_ = std::thread([this] { http_->listen_after_bind(); });
    return port_;
}

void AlpacaServer::stop()
{
    if (!thread_.joinable()) return;
    http_->stop();
    thread_.join();
}

void AlpacaServer::routeDeviceApi()
{
    auto handler = [this](const httplib::Request& req, httplib::Response& res) {
        try {
            AlpacaRequest request(req);
            std::string type = req.matches[1];
            if (type != "focuser") return sendBadRequest(res, "unknown device type '" + type + "'");
            auto number = deviceNumber(req.matches[2]);
            std::shared_ptr<Unit> unit = number ? registry_.find(*number) : nullptr;
            if (!unit) return sendBadRequest(res, "no focuser with device number '" + std::string(req.matches[2]) + "'");
            std::string memberName = req.matches[3];
            const Member* member = findMember(memberName);
            if (member == nullptr) return sendBadRequest(res, "unknown member '" + memberName + "'");
            const MemberHandler& run = request.isPut() ? member->put : member->get;
            if (!run)
                return sendBadRequest(res, request.isPut() ? "'" + memberName + "' is read-only"
                                                           : "'" + memberName + "' must be sent with PUT");
            Answer answer = run(registry_, *unit, request);
            json body = envelope(*this, request);
            if (answer.error.number != kOk) {
                body["ErrorNumber"] = answer.error.number;
                body["ErrorMessage"] = answer.error.message;
            } else if (answer.value) {
                body["Value"] = *answer.value;
            }
            sendJson(res, body);
        } catch (const BadRequest& e) {
            sendBadRequest(res, e.what());
        }
    };
    const char* pattern = R"(/api/v1/([^/]+)/([^/]+)/([^/]+))";
    http_->Get(pattern, handler);
    http_->Put(pattern, handler);
}

void AlpacaServer::routeManagement()
{
    http_->Get("/management/apiversions", [this](const httplib::Request& req, httplib::Response& res) {
        AlpacaRequest request(req);
        json body = envelope(*this, request);
        body["Value"] = json::array({1});
        sendJson(res, body);
    });
    http_->Get("/management/v1/description", [this](const httplib::Request& req, httplib::Response& res) {
        AlpacaRequest request(req);
        json body = envelope(*this, request);
        body["Value"] = {{"ServerName", "nkr-alpaca"},
                         {"Manufacturer", "NKR focuser SDK"},
                         {"ManufacturerVersion", driverVersion()},
                         {"Location", "focuser host"}};
        sendJson(res, body);
    });
    http_->Get("/management/v1/configureddevices", [this](const httplib::Request& req, httplib::Response& res) {
        AlpacaRequest request(req);
        registry_.rescan();  // newly plugged units show up here first
        json devices = json::array();
        for (auto& unit : registry_.all())
            devices.push_back({{"DeviceName", "NKR focuser " + unit->serial},
                               {"DeviceType", "Focuser"},
                               {"DeviceNumber", unit->number},
                               {"UniqueID", unit->uniqueId}});
        json body = envelope(*this, request);
        body["Value"] = devices;
        sendJson(res, body);
    });
}

}  // namespace alpaca
