#include "alpaca_server.h"

#include <NKR_focuser.h>

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>

#include "alpaca_request.h"
#include "focuser_members.h"
#include "log.h"
#include "thread_name.h"

namespace alpaca {
namespace {

using nlohmann::json;

HttpResponse badRequest(const std::string& reason) { return HttpResponse::text(400, reason); }

void appendWhole(std::string& text, int64_t number)
{
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    text.append(digits, end);
}

// Every device and management answer: the four members every Alpaca answer
// carries, then Value when there is one. The fixed parts are written as they
// always read, and so are whole numbers and flags, the values of nearly every
// answer (building a JSON object for them cost as much as the rest of the
// request's own work); a message and any other value are written by the JSON
// library.
HttpResponse alpacaAnswer(AlpacaServer& server, const AlpacaRequest& req, int errorNumber = 0,
                          const std::string& errorMessage = {}, const json* value = nullptr)
{
    HttpResponse res;
    std::string& text = res.body;
    text.reserve(112 + errorMessage.size());
    text += R"({"ClientTransactionID":)";
    appendWhole(text, req.clientTransactionId());
    text += R"(,"ServerTransactionID":)";
    appendWhole(text, server.nextServerTransactionId());
    text += R"(,"ErrorNumber":)";
    appendWhole(text, errorNumber);
    text += R"(,"ErrorMessage":)";
    // Text that is not UTF-8 (from a unit, say) is replaced, never thrown over.
    text += errorMessage.empty() ? R"("")" : json(errorMessage).dump(-1, ' ', false, json::error_handler_t::replace);
    if (value != nullptr) {
        text += R"(,"Value":)";
        if (value->is_number_integer() && !value->is_number_unsigned()) appendWhole(text, value->get<int64_t>());
        else if (value->is_boolean()) text += value->get<bool>() ? "true" : "false";
        else text += value->dump(-1, ' ', false, json::error_handler_t::replace);
    }
    text += '}';
    res.contentType = "application/json";
    return res;
}

std::optional<int> deviceNumber(const std::string& text)
{
    auto parsed = parseUint32(text);
    if (!parsed || *parsed > 1000000) return std::nullopt;
    return static_cast<int>(*parsed);
}

}  // namespace

AlpacaServer::AlpacaServer(DeviceRegistry& registry, ServerLimits limits)
    : registry_(registry), limits_(limits), history_(limits.historySpan, limits.samplePeriod),
      guard_(limits.allowedHosts)
{
    http_ = std::make_unique<HttpServer>(
        limits_.http, [this](const HttpRequest& request) { return answer(request); },
        [this](const HttpRequest& request) { return mayWait(request); });
}

bool AlpacaServer::mayWait(const HttpRequest& request)
{
    static const std::string focuser = "/api/v1/focuser/";
    if (request.path.compare(0, focuser.size(), focuser) == 0) {
        // The polling that makes most of the traffic (a GET of a connected
        // USB unit nobody else is using) is a read from the library's state:
        // answered on the loop, without two hand-overs between threads.
        // Everything else of a unit (a Bluetooth exchange, an open, a change,
        // a unit busy on another thread) runs on a worker.
        if (request.method != "GET") return true;
        const std::size_t end = request.path.find('/', focuser.size());
        const auto number = parseUint32(request.path.substr(focuser.size(), end - focuser.size()));
        const std::shared_ptr<Unit> unit = number && *number < 1000000 ? registry_.find(static_cast<int>(*number)) : nullptr;
        if (!unit) return false;  // refused at once
        if (!unit->bleName.empty() || !unit->connected) return true;
        std::unique_lock busy(unit->io, std::try_to_lock);
        return !busy.owns_lock();
    }
    // A scan, the page's unit state and changes may wait; its files,
    // redirects and every refusal are answered at once.
    return request.path.rfind("/api/", 0) == 0 || request.path == "/management/v1/configureddevices" ||
           controlPageMayWait(request.path);
}

AlpacaServer::~AlpacaServer() { stop(); }

int AlpacaServer::start(const std::string& host, int port)
{
    port_ = http_->start(host, port);
    if (port_ < 0) {
        startError_ = bindProblem(host, port);
        return -1;
    }
    if (limits_.samplingThread) sampler_ = std::thread([this] {
        nameThisThread("sampler");
        sampleLoop();
    });
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
    http_->stop();
}

HttpResponse wrongMethod(const HttpRequest& request, const std::string& allow)
{
    HttpResponse res = HttpResponse::text(405, request.method + " is not answered at " + request.path +
                                                   "; it takes " + allow);
    res.headers.emplace_back("Allow", allow);
    return res;
}

HttpResponse AlpacaServer::answer(const HttpRequest& request)
{
    // Another site's page, or a name pointed at this computer, reads and changes nothing.
    const bool control = isControlPagePath(request.path);
    const bool changes = request.method != "GET" && request.method != "HEAD" && request.method != "OPTIONS";
    const auto origin = request.hasOrigin ? std::optional<std::string>(request.origin) : std::nullopt;
    if (auto refused = guard_.refusal(request.host, origin, port_, control, changes)) {
        HttpResponse res = HttpResponse::text(403, *refused);
        res.close = true;
        return res;
    }
    static const std::string api = "/api/v1/";
    if (request.path.compare(0, api.size(), api) == 0) return answerDevice(request, request.path.substr(api.size()));
    if (request.path.rfind("/management/", 0) == 0) return answerManagement(request);
    if (auto page = answerControlPage(*this, request)) return std::move(*page);
    return HttpResponse::text(404, "nothing is served at " + request.path +
                                       " (the Alpaca API is under /api/v1/, the control page at /)");
}

HttpResponse AlpacaServer::answerDevice(const HttpRequest& req, const std::string& path)
{
    // {type}/{number}/{member}
    std::string parts[3];
    std::size_t from = 0;
    for (int i = 0; i < 3; ++i) {
        const std::size_t slash = path.find('/', from);
        if ((i < 2) == (slash == std::string::npos))
            return HttpResponse::text(404, "nothing is served at " + req.path +
                                               " (device members are at /api/v1/focuser/N/member)");
        parts[i] = path.substr(from, slash == std::string::npos ? std::string::npos : slash - from);
        from = slash + 1;
    }
    const std::string& type = parts[0];
    const std::string& numberText = parts[1];
    const std::string& memberName = parts[2];
    try {
        if (type != "focuser") return badRequest("unknown device type '" + type + "'");
        auto number = deviceNumber(numberText);
        std::shared_ptr<Unit> unit = number ? registry_.find(*number) : nullptr;
        if (!unit) return badRequest("no focuser with device number '" + numberText + "'");
        const Member* member = findMember(memberName);
        if (member == nullptr) return badRequest("unknown member '" + memberName + "'");
        const bool put = req.method == "PUT";
        const bool get = req.method == "GET" || req.method == "HEAD";
        const MemberHandler* run = put ? &member->put : get ? &member->get : nullptr;
        if (run == nullptr || !*run) {
            const std::string allow = member->get && member->put ? "GET, HEAD, PUT" : member->get ? "GET, HEAD" : "PUT";
            return wrongMethod(req, allow);
        }
        AlpacaRequest request(req);
        Answer answer = (*run)(registry_, *unit, request);
        if (answer.error.number != kOk) return alpacaAnswer(*this, request, answer.error.number, answer.error.message);
        return alpacaAnswer(*this, request, 0, {}, answer.value ? &*answer.value : nullptr);
    } catch (const BadRequest& e) {
        return badRequest(e.what());
    }
}

HttpResponse AlpacaServer::answerManagement(const HttpRequest& req)
{
    const bool versions = req.path == "/management/apiversions";
    const bool description = req.path == "/management/v1/description";
    const bool devices = req.path == "/management/v1/configureddevices";
    if (!versions && !description && !devices)
        return HttpResponse::text(404, "nothing is served at " + req.path +
                                           " (management: /management/apiversions, /management/v1/description, "
                                           "/management/v1/configureddevices)");
    if (req.method != "GET" && req.method != "HEAD") return wrongMethod(req, "GET, HEAD");
    try {
        AlpacaRequest request(req);
        if (versions) {
            const json list = json::array({1});
            return alpacaAnswer(*this, request, 0, {}, &list);
        }
        if (description) {
            const json value = {{"ServerName", "nkr-alpaca"},
                                {"Manufacturer", "NKR focuser SDK"},
                                {"ManufacturerVersion", driverVersion()},
                                {"Location", "focuser host"}};
            return alpacaAnswer(*this, request, 0, {}, &value);
        }
        registry_.rescan();  // newly plugged units show up here first
        json list = json::array();
        for (auto& unit : registry_.all())
            list.push_back({{"DeviceName", "NKR focuser " + unit->serial},
                            {"DeviceType", "Focuser"},
                            {"DeviceNumber", unit->number},
                            {"UniqueID", unit->uniqueId}});
        return alpacaAnswer(*this, request, 0, {}, &list);
    } catch (const BadRequest& e) {
        return badRequest(e.what());
    }
}

}  // namespace alpaca
