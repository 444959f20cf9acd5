// The same HTTP side over libmicrohttpd instead of Boost.Beast, built with
// -DNKR_ALPACA_HTTP_CORE=microhttpd to compare the two cores on the same
// bench and the same tests. MHD's own thread reads every connection (epoll);
// the requests runsOnWorker marks are suspended there and answered by a small
// pool of workers, which resume them. The limits go to MHD's options where it
// has one; where it has none, the comment at that limit says what is done.
#include <microhttpd.h>
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>

#include "http_server.h"
#include "log.h"

namespace alpaca {
namespace {

// One request, from MHD's first look at its target to its completion.
struct Exchange {
    std::string target;  // as sent: MHD decodes the copy it hands the handler
    HttpRequest request;
    bool headerRead = false;
    bool bodyTooLarge = false;
    std::optional<HttpResponse> answer;  // made by a worker while suspended
};

std::string lower(const char* text)
{
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
    return out;
}

MHD_Result countContentLength(void* cls, MHD_ValueKind, const char* key, const char*)
{
    if (strcasecmp(key, MHD_HTTP_HEADER_CONTENT_LENGTH) == 0) ++*static_cast<int*>(cls);
    return MHD_YES;
}

}  // namespace

struct HttpServer::Impl {
    Impl(HttpLimits l, Handler h, std::function<bool(const HttpRequest&)> w)
        : limits(l), handle(std::move(h)), onWorker(std::move(w))
    {
    }

    MHD_Result onRequest(MHD_Connection* connection, const char* method, const char* data, std::size_t* size,
                         Exchange& exchange);
    std::optional<HttpResponse> checkHeader(MHD_Connection* connection, Exchange& exchange, const char* method);
    MHD_Result dispatch(MHD_Connection* connection, Exchange& exchange);
    MHD_Result send(MHD_Connection* connection, HttpResponse answer);
    HttpResponse answer(const HttpRequest& request);

    HttpLimits limits;
    Handler handle;
    std::function<bool(const HttpRequest&)> onWorker;
    MHD_Daemon* daemon = nullptr;
    std::unique_ptr<boost::asio::thread_pool> pool;
    std::mutex mutex;  // guards what follows
    bool stopping = false;
    // Suspended connections a worker has yet to resume: every one must be
    // resumed before the daemon is stopped.
    std::map<Exchange*, MHD_Connection*> suspended;
    std::mutex logMutex;  // MHD may log while mutex is held
    std::string lastLog;  // MHD's last complaint, for a failed start
};

namespace {

void* onTarget(void*, const char* target, MHD_Connection*)
{
    auto* exchange = new (std::nothrow) Exchange;
    if (exchange != nullptr) exchange->target = target;
    return exchange;
}

void onCompleted(void*, MHD_Connection*, void** context, MHD_RequestTerminationCode)
{
    delete static_cast<Exchange*>(*context);
    *context = nullptr;
}

MHD_Result onAccess(void* cls, MHD_Connection* connection, const char*, const char* method, const char*,
                    const char* data, std::size_t* size, void** context)
{
    auto* exchange = static_cast<Exchange*>(*context);
    if (exchange == nullptr) return MHD_NO;  // out of memory at the target: closed
    try {
        return static_cast<HttpServer::Impl*>(cls)->onRequest(connection, method, data, size, *exchange);
    } catch (...) {
        return MHD_NO;  // closes the connection: nothing is thrown into MHD
    }
}

void onLog(void* cls, const char* format, va_list args)
{
    char line[512];
    std::vsnprintf(line, sizeof line, format, args);
    auto& s = *static_cast<HttpServer::Impl*>(cls);
    std::lock_guard lock(s.logMutex);
    s.lastLog = line;
    while (!s.lastLog.empty() && std::isspace(static_cast<unsigned char>(s.lastLog.back()))) s.lastLog.pop_back();
}

void freeBody(void* body) { delete static_cast<std::string*>(body); }

}  // namespace

// MHD calls the handler once when the header is read, once per piece of
// body, and once more when the request is whole (and again after a resume).
MHD_Result HttpServer::Impl::onRequest(MHD_Connection* connection, const char* method, const char* data,
                                       std::size_t* size, Exchange& exchange)
{
    if (!exchange.headerRead) {
        exchange.headerRead = true;
        if (auto refusal = checkHeader(connection, exchange, method)) return send(connection, std::move(*refusal));
        return MHD_YES;
    }
    if (*size > 0) {
        // A chunked body past the limit: MHD takes no answer before the body
        // is read, so the rest is read and dropped and 413 sent at its end.
        if (!exchange.bodyTooLarge && exchange.request.body.size() + *size > limits.maxBodyBytes) {
            exchange.bodyTooLarge = true;
            exchange.request.body.clear();
        }
        if (!exchange.bodyTooLarge) exchange.request.body.append(data, *size);
        *size = 0;
        return MHD_YES;
    }
    if (exchange.answer) return send(connection, std::move(*exchange.answer));
    if (exchange.bodyTooLarge) {
        HttpResponse refusal = HttpResponse::text(
            413, "the request body is larger than " + std::to_string(limits.maxBodyBytes) + " bytes");
        refusal.close = true;
        return send(connection, std::move(refusal));
    }
    return dispatch(connection, exchange);
}

// What this server refuses once the header is read. The parser's own
// refusals (conflicting framing, bad characters) are MHD's to make and are
// not added here: the Beast core makes the same checks at this point.
std::optional<HttpResponse> HttpServer::Impl::checkHeader(MHD_Connection* connection, Exchange& exchange,
                                                         const char* method)
{
    auto refuse = [](int status, std::string why) {
        HttpResponse r = HttpResponse::text(status, std::move(why));
        r.close = true;
        return r;
    };
    // MHD has no limit on the count of header fields: it is checked here,
    // once the header is in MHD's per-connection memory (see start).
    const int fields = MHD_get_connection_values(connection, MHD_HEADER_KIND, nullptr, nullptr);
    if (fields > limits.maxHeaderCount)
        return refuse(431, "the request has " + std::to_string(fields) + " header fields; at most " +
                               std::to_string(limits.maxHeaderCount) + " are read");
    int lengths = 0;
    MHD_get_connection_values(connection, MHD_HEADER_KIND, countContentLength, &lengths);
    if (lengths > 1) return refuse(400, "the request has more than one Content-Length header");
    if (const char* length = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH)) {
        // A body announced too large is refused before it is read (MHD then closes).
        char* end = nullptr;
        errno = 0;
        const unsigned long long announced = std::strtoull(length, &end, 10);
        if (errno == 0 && end != length && announced > limits.maxBodyBytes)
            return refuse(413, "the request body is larger than " + std::to_string(limits.maxBodyBytes) + " bytes");
    }

    HttpRequest& request = exchange.request;
    request.method = method;
    const std::size_t question = exchange.target.find('?');
    request.path = exchange.target.substr(0, question);
    if (question != std::string::npos) request.query = exchange.target.substr(question + 1);
    if (const char* host = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_HOST))
        request.host = host;
    if (const char* origin = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_ORIGIN)) {
        request.origin = origin;
        request.hasOrigin = true;
    }
    if (const char* type = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_TYPE))
        request.contentType = lower(type);
    return std::nullopt;
}

MHD_Result HttpServer::Impl::dispatch(MHD_Connection* connection, Exchange& exchange)
{
    if (!onWorker(exchange.request)) return send(connection, answer(exchange.request));
    std::lock_guard lock(mutex);
    if (stopping) {
        HttpResponse refusal = HttpResponse::text(503, "the server is stopping");
        refusal.close = true;
        return send(connection, std::move(refusal));
    }
    suspended.emplace(&exchange, connection);
    MHD_suspend_connection(connection);
    boost::asio::post(*pool, [this, connection, x = &exchange] {
        // The exchange lives until the connection is resumed: MHD neither
        // times out nor closes a suspended connection.
        HttpResponse made = answer(x->request);
        std::lock_guard done(mutex);
        suspended.erase(x);
        x->answer = std::move(made);
        MHD_resume_connection(connection);
    });
    return MHD_YES;
}

MHD_Result HttpServer::Impl::send(MHD_Connection* connection, HttpResponse answer)
{
    // The body is handed over, not copied; MHD frees it with the response.
    auto* body = new std::string(std::move(answer.body));
    MHD_Response* response =
        MHD_create_response_from_buffer_with_free_callback_cls(body->size(), body->data(), freeBody, body);
    if (response == nullptr) {
        delete body;
        return MHD_NO;
    }
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, answer.contentType.c_str());
    for (const auto& [name, value] : answer.headers) MHD_add_response_header(response, name.c_str(), value.c_str());
    // MHD closes after an answer that says so (and after one sent before the body was read).
    if (answer.close) MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
    const MHD_Result queued = MHD_queue_response(connection, static_cast<unsigned>(answer.status), response);
    MHD_destroy_response(response);
    return queued;
}

HttpResponse HttpServer::Impl::answer(const HttpRequest& request) { return answerSafely(handle, request); }

HttpServer::HttpServer(HttpLimits limits, Handler handle, std::function<bool(const HttpRequest&)> runsOnWorker)
    : impl_(std::make_unique<Impl>(limits, std::move(handle), std::move(runsOnWorker)))
{
}

HttpServer::~HttpServer() { stop(); }

int HttpServer::start(const std::string& host, int port)
{
    Impl& s = *impl_;
    if (s.daemon != nullptr) return -1;
    addrinfo hints{};
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0 || found == nullptr) {
        startError_ = "cannot listen on " + host + ": not an address of this computer";
        return -1;
    }
    sockaddr_storage address{};
    std::memcpy(&address, found->ai_addr, std::min<std::size_t>(found->ai_addrlen, sizeof address));
    const bool six = found->ai_family == AF_INET6;
    freeaddrinfo(found);

    {
        std::lock_guard lock(s.mutex);
        s.stopping = false;
    }
    s.pool = std::make_unique<boost::asio::thread_pool>(static_cast<std::size_t>(std::max(1, s.limits.workers)));
    const HttpLimits& l = s.limits;
    // maxConnections and maxPerClient: MHD closes a newcomer past either at
    // once, without an answer; it has no way to close an idle connection to
    // make room. requestSeconds: MHD's only timeout is one of inactivity,
    // restarted by every byte, so idleSeconds is given to it and a request
    // sent a byte at a time has no deadline. maxHeaderBytes: MHD refuses a
    // header that does not fit its per-connection memory (431, its own
    // page); that memory also holds the parsed fields and the answer's
    // header, so it is twice the limit, which lets a header of the limit
    // through as Beast's parser does. maxHeaderCount: checked in checkHeader.
    const unsigned int flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ERROR_LOG |
                               (six ? static_cast<unsigned int>(MHD_USE_IPv6) : 0u);
    s.daemon = MHD_start_daemon(
        flags, static_cast<uint16_t>(port), nullptr, nullptr, onAccess, &s,                 //
        MHD_OPTION_SOCK_ADDR, reinterpret_cast<sockaddr*>(&address),                       //
        MHD_OPTION_CONNECTION_LIMIT, static_cast<unsigned int>(std::max(1, l.maxConnections)),
        MHD_OPTION_PER_IP_CONNECTION_LIMIT, static_cast<unsigned int>(std::max(1, l.maxPerClient)),
        MHD_OPTION_CONNECTION_TIMEOUT, static_cast<unsigned int>(std::max(1, l.idleSeconds)),
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, 2 * std::max<std::size_t>(l.maxHeaderBytes, 1024),
        MHD_OPTION_LISTEN_BACKLOG_SIZE, static_cast<unsigned int>(std::max(1, l.listenBacklog)),
        MHD_OPTION_URI_LOG_CALLBACK, onTarget, &s,                                 //
        MHD_OPTION_NOTIFY_COMPLETED, onCompleted, &s,                              //
        MHD_OPTION_EXTERNAL_LOGGER, onLog, &s,                                     //
        MHD_OPTION_END);
    if (s.daemon == nullptr) {
        std::lock_guard lock(s.logMutex);
        startError_ = s.lastLog.empty() ? std::string("cannot listen: ") + std::strerror(errno) : s.lastLog;
        s.pool.reset();
        return -1;
    }
    const MHD_DaemonInfo* bound = MHD_get_daemon_info(s.daemon, MHD_DAEMON_INFO_BIND_PORT);
    return bound != nullptr ? bound->port : port;
}

void HttpServer::stop()
{
    Impl& s = *impl_;
    if (s.daemon == nullptr) return;
    {
        std::lock_guard lock(s.mutex);
        s.stopping = true;
    }
    // A request on a worker finishes (it may be waiting for a unit); queued
    // ones are dropped, and their connections resumed with a refusal, since
    // MHD must not be stopped with a connection suspended.
    s.pool->stop();
    s.pool->join();
    {
        std::lock_guard lock(s.mutex);
        for (auto& [exchange, connection] : s.suspended) {
            exchange->answer = HttpResponse::text(503, "the server is stopping");
            exchange->answer->close = true;
            MHD_resume_connection(connection);
        }
        s.suspended.clear();
    }
    MHD_stop_daemon(s.daemon);
    s.daemon = nullptr;
}

}  // namespace alpaca
