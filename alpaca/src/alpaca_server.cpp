#include "alpaca_server.h"

#include <NKR_focuser.h>
#include <httplib.h>

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>

#include "alpaca_request.h"
#include "focuser_members.h"
#include "log.h"

namespace alpaca {
namespace {

using nlohmann::json;

void sendBadRequest(httplib::Response& res, const std::string& reason)
{
    res.status = 400;
    res.set_content(reason, "text/plain");
}

// Every device and management answer: the four members every Alpaca answer
// carries, then Value when there is one. The fixed parts are written as they
// always read (most answers are a position or a flag, and building a JSON
// object for them cost as much as the rest of the request's own work); the
// message and the value are written by the JSON library.
void sendAnswer(httplib::Response& res, AlpacaServer& server, const AlpacaRequest& req, int errorNumber = 0,
                const std::string& errorMessage = {}, const json* value = nullptr)
{
    std::string text = R"({"ClientTransactionID":)" + std::to_string(req.clientTransactionId()) +
                       R"(,"ServerTransactionID":)" + std::to_string(server.nextServerTransactionId()) +
                       R"(,"ErrorNumber":)" + std::to_string(errorNumber) + R"(,"ErrorMessage":)";
    text += errorMessage.empty() ? R"("")" : json(errorMessage).dump();
    if (value != nullptr) text += R"(,"Value":)" + value->dump();
    text += '}';
    res.status = 200;
    res.body = std::move(text);  // set_content would copy it
    res.set_header("Content-Type", "application/json");
}

std::optional<int> deviceNumber(const std::string& text)
{
    auto parsed = parseUint32(text);
    if (!parsed || *parsed > 1000000) return std::nullopt;
    return static_cast<int>(*parsed);
}

}  // namespace

AlpacaServer::AlpacaServer(DeviceRegistry& registry, ServerLimits limits)
    : registry_(registry), limits_(limits), http_(std::make_unique<httplib::Server>()),
      history_(limits.historySpan, limits.samplePeriod), guard_(limits.allowedHosts)
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
    routeControlPage(*http_, *this);
}

AlpacaServer::~AlpacaServer() { stop(); }

int AlpacaServer::start(const std::string& host, int port)
{
    // The HTTP library's default options include SO_REUSEPORT, with which a
    // second server on the same port starts too and the kernel splits the
    // requests between two processes: only SO_REUSEADDR here, so the second
    // bind fails.
    int listening = -1;
    http_->set_socket_options([&listening](socket_t fd) {
        int yes = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        listening = fd;
    });
    port_ = port == 0 ? http_->bind_to_any_port(host) : (http_->bind_to_port(host, port) ? port : -1);
    if (port_ < 0) {
        startError_ = bindProblem(host, port);
        return -1;
    }
    // The library listens with a backlog of 5: a burst of reconnecting
    // clients overflows it and a dropped SYN is retried only after a second.
    if (listening >= 0) ::listen(listening, limits_.listenBacklog);
    thread_ = std::thread([this] { http_->listen_after_bind(); });
    if (limits_.samplingThread) sampler_ = std::thread([this] { sampleLoop(); });
    return port_;
}

void AlpacaServer::sampleLoop()
{
    std::unique_lock lock(samplerMutex_);
    while (!samplerWake_.wait_for(lock, limits_.samplePeriod, [this] { return samplerStop_; })) {
        lock.unlock();
        recordSamples(std::chrono::system_clock::now());
        lock.lock();
    }
}

void AlpacaServer::recordSamples(std::chrono::system_clock::time_point at)
{
    const int64_t millis = std::chrono::duration_cast<std::chrono::milliseconds>(at.time_since_epoch()).count();
    for (auto& unit : registry_.all()) {
        // Only units a client holds: a sample never opens or reconnects one.
        if (!unit->connected) continue;
        Sample sample;
        sample.millis = millis;
        int position = 0;
        if (registry_.call(*unit, [&](int slot) { return NKRGetPosition(slot, &position); }).ok())
            sample.position = position;
        float celsius = 0;
        if (registry_.call(*unit, [&](int slot) { return NKRGetTemp(slot, &celsius); }).ok())
            sample.temperature = std::round(static_cast<double>(celsius) * 10.0) / 10.0;
        if (sample.position || sample.temperature) history_.add(unit->number, sample);
    }
}

std::string AlpacaServer::bindProblem(const std::string& host, int port)
{
    // Asked again without the library, to tell "in use" from "no such address".
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | AI_PASSIVE;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0 || found == nullptr)
        return "cannot listen on " + host + ": not an address of this computer";
    const int fd = socket(found->ai_family, found->ai_socktype | SOCK_CLOEXEC, found->ai_protocol);
    int yes = 1;
    if (fd >= 0) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    const int rc = fd >= 0 ? bind(fd, found->ai_addr, found->ai_addrlen) : -1;
    const int error = errno;
    if (fd >= 0) close(fd);
    freeaddrinfo(found);
    if (rc != 0 && error == EADDRINUSE)
        return "port " + std::to_string(port) + " is in use (is another nkr-alpaca running?)";
    if (rc != 0 && error == EADDRNOTAVAIL) return "cannot listen on " + host + ": not an address of this computer";
    if (rc != 0 && error == EACCES) return "port " + std::to_string(port) + " needs privileges; use a port above 1023";
    return "cannot listen on " + urlHost(host) + ":" + std::to_string(port) + (rc != 0 ? std::string(": ") + std::strerror(error) : "");
}

std::string urlHost(const std::string& host)
{
    return host.find(':') != std::string::npos && host.front() != '[' ? "[" + host + "]" : host;
}

bool isLoopback(const std::string& host)
{
    return host == "localhost" || host == "::1" || host == "[::1]" || host.rfind("127.", 0) == 0;
}

std::string hostName()
{
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "localhost";
    return name;
}

void AlpacaServer::stop()
{
    {
        std::lock_guard lock(samplerMutex_);
        samplerStop_ = true;
    }
    samplerWake_.notify_all();
    if (sampler_.joinable()) sampler_.join();
    if (!thread_.joinable()) return;
    http_->stop();
    thread_.join();
}

void AlpacaServer::answerDevice(const httplib::Request& req, httplib::Response& res, const std::string& type,
                                const std::string& numberText, const std::string& memberName)
{
    try {
        AlpacaRequest request(req);
        if (type != "focuser") return sendBadRequest(res, "unknown device type '" + type + "'");
        auto number = deviceNumber(numberText);
        std::shared_ptr<Unit> unit = number ? registry_.find(*number) : nullptr;
        if (!unit) return sendBadRequest(res, "no focuser with device number '" + numberText + "'");
        const Member* member = findMember(memberName);
        if (member == nullptr) return sendBadRequest(res, "unknown member '" + memberName + "'");
        const MemberHandler& run = request.isPut() ? member->put : member->get;
        if (!run)
            return sendBadRequest(res, request.isPut() ? "'" + memberName + "' is read-only"
                                                       : "'" + memberName + "' must be sent with PUT");
        Answer answer = run(registry_, *unit, request);
        if (answer.error.number != kOk) return sendAnswer(res, *this, request, answer.error.number, answer.error.message);
        sendAnswer(res, *this, request, 0, {}, answer.value ? &*answer.value : nullptr);
    } catch (const BadRequest& e) {
        sendBadRequest(res, e.what());
    }
}

void AlpacaServer::routeDeviceApi()
{
    // The device API is most of the traffic: its paths are split by hand
    // before the router's regular expressions run. A GET, and a PUT without
    // a body (curl -X PUT .../halt: no Content-Length, which the HTTP
    // library would refuse with an empty 400), are answered here; a PUT with
    // a form body goes on to the route below, once its body is read.
    http_->set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
        // Another site's page, or a name pointed at this computer, changes nothing.
        const bool control = req.path == "/control" || req.path.rfind("/control/", 0) == 0;
        const bool changes = req.method != "GET" && req.method != "HEAD" && req.method != "OPTIONS";
        const std::optional<std::string> origin =
            req.has_header("Origin") ? std::optional<std::string>(req.get_header_value("Origin")) : std::nullopt;
        // Alpaca clients send no Origin: outside the control page only browsers are checked.
        auto refused = control || origin ? guard_.refusal(req.get_header_value("Host"), origin, port_, control, changes)
                                         : std::nullopt;
        if (refused) {
            res.status = 403;
            res.set_content(*refused, "text/plain");
            // Answered before any body is read: the connection cannot go on.
            res.set_header("Connection", "close");
            return httplib::Server::HandlerResponse::Handled;
        }
        static const std::string prefix = "/api/v1/";
        if (req.path.compare(0, prefix.size(), prefix) != 0) return httplib::Server::HandlerResponse::Unhandled;
        const bool bodiless = req.method == "PUT" && !req.has_header("Content-Length") &&
                              !req.has_header("Transfer-Encoding");
        if (req.method != "GET" && !bodiless) return httplib::Server::HandlerResponse::Unhandled;
        std::string parts[3];
        std::size_t from = prefix.size();
        for (int i = 0; i < 3; ++i) {
            const std::size_t slash = req.path.find('/', from);
            if ((i < 2) == (slash == std::string::npos)) return httplib::Server::HandlerResponse::Unhandled;
            parts[i] = req.path.substr(from, slash == std::string::npos ? std::string::npos : slash - from);
            from = slash + 1;
        }
        if (parts[0].empty() || parts[1].empty() || parts[2].empty()) return httplib::Server::HandlerResponse::Unhandled;
        answerDevice(req, res, parts[0], parts[1], parts[2]);
        return httplib::Server::HandlerResponse::Handled;
    });
    const char* pattern = R"(/api/v1/([^/]+)/([^/]+)/([^/]+))";
    auto handler = [this](const httplib::Request& req, httplib::Response& res) {
        answerDevice(req, res, req.matches[1], req.matches[2], req.matches[3]);
    };
    http_->Get(pattern, handler);
    http_->Put(pattern, handler);
    // Whatever the library refuses on its own (an unreadable request, a body
    // too large, a path nobody serves) still says why.
    http_->set_error_handler(httplib::Server::HandlerWithResponse([](const httplib::Request& req, httplib::Response& res) {
        if (!res.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
        std::string reason;
        switch (res.status) {
        case 400: reason = "the request could not be read (a PUT carries its parameters as a form body)"; break;
        case 404: reason = "nothing is served at " + req.path + " (the Alpaca API is under /api/v1/, the control page at /)"; break;
        case 413: reason = "the request body is too large"; break;
        default: reason = "HTTP " + std::to_string(res.status); break;
        }
        res.set_content(reason, "text/plain");
        return httplib::Server::HandlerResponse::Handled;
    }));
}

void AlpacaServer::routeManagement()
{
    http_->Get("/management/apiversions", [this](const httplib::Request& req, httplib::Response& res) {
        const json versions = json::array({1});
        sendAnswer(res, *this, AlpacaRequest(req), 0, {}, &versions);
    });
    http_->Get("/management/v1/description", [this](const httplib::Request& req, httplib::Response& res) {
        const json description = {{"ServerName", "nkr-alpaca"},
                                  {"Manufacturer", "NKR focuser SDK"},
                                  {"ManufacturerVersion", driverVersion()},
                                  {"Location", "focuser host"}};
        sendAnswer(res, *this, AlpacaRequest(req), 0, {}, &description);
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
        sendAnswer(res, *this, request, 0, {}, &devices);
    });
}

}  // namespace alpaca
