#include "http_server.h"

#include <sys/socket.h>

#include <algorithm>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <cctype>
#include <chrono>
#include <list>
#include <map>
#include <optional>
#include <thread>

#include "log.h"
#include "thread_name.h"

namespace alpaca {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using Clock = std::chrono::steady_clock;

// What a connection is doing, for the sweep that enforces the time limits.
enum class Phase {
    Idle,      // waiting for the first byte of a request (idleSeconds)
    Reading,   // between the first byte of a request and its last (requestSeconds)
    Handling,  // its answer is being made
    Writing,   // its answer is being sent (requestSeconds)
    Draining,  // refused: the answer is out, what the client still sends is read and dropped
    Closed,
};

// A refused client may still be sending; reading on for this long lets it
// see the answer instead of a reset.
constexpr auto kDrainTime = std::chrono::seconds(2);
// How long a new or just-answered connection is safe from being closed to make room.
constexpr auto kGrace = std::chrono::seconds(1);

std::string lower(std::string_view text)
{
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
    return out;
}

}  // namespace

struct Connection;

struct HttpServer::Impl {
    Impl(HttpLimits l, Handler h, std::function<bool(const HttpRequest&)> w)
        : limits(l), handle(std::move(h)), onWorker(std::move(w))
    {
    }

    void accept();
    void admit(tcp::socket socket);
    bool evictIdle(const std::string* client);
    void sweepBy(Clock::time_point due);
    void sweep();
    void forget(Connection& connection);
    HttpResponse answer(const HttpRequest& request);
    const std::string& statusAndFields(const HttpResponse& answer, bool keepAlive);

    HttpLimits limits;
    Handler handle;
    std::function<bool(const HttpRequest&)> onWorker;
    asio::io_context io{1};
    asio::executor_work_guard<asio::io_context::executor_type> guard = asio::make_work_guard(io);
    tcp::acceptor acceptor{io};
    asio::steady_timer sweepTimer{io};
    asio::steady_timer acceptRetry{io};
    asio::io_context pool;  // the workers' queue
    asio::executor_work_guard<asio::io_context::executor_type> poolGuard = asio::make_work_guard(pool);
    std::vector<std::thread> workers;
    std::thread loop;
    // Only the loop thread touches these.
    std::list<std::shared_ptr<Connection>> connections;
    std::map<std::string, int> perClient;
    Clock::time_point sweepAt = Clock::time_point::max();  // when the sweep timer fires
    // Status lines and headers as Beast wrote them, by status, content type,
    // length and keep-alive: the answers to polling differ only in the body.
    struct Head {
        int status;
        bool keepAlive;
        std::size_t bodySize;
        std::string contentType;
        std::string text;
    };
    std::vector<Head> heads;
    std::string unusual;  // the fields of the last answer not kept in heads
    bool stopping = false;
};

struct Connection : std::enable_shared_from_this<Connection> {
    Connection(HttpServer::Impl& s, tcp::socket sock, std::string c)
        : server(s), socket(std::move(sock)), client(std::move(c)), buffer(s.limits.maxHeaderBytes + 4096)
    {
    }

    void start()
    {
        enter(Phase::Idle);
        newParser();
        read();
    }

    // Moves to a phase. Its deadline is handed to the sweep only when the
    // connection waits (armDeadline): a request read and answered within one
    // turn of the loop, as nearly all are, touches no timer.
    void enter(Phase next)
    {
        phase = next;
        since = Clock::now();
    }

    void armDeadline()
    {
        if (auto due = deadline()) server.sweepBy(*due);
    }

    // When this connection's phase runs out of time (never while its answer is made).
    std::optional<Clock::time_point> deadline() const
    {
        const HttpLimits& limits = server.limits;
        switch (phase) {
        case Phase::Idle: return since + std::chrono::seconds(limits.idleSeconds);
        case Phase::Reading:
        case Phase::Writing: return since + std::chrono::seconds(limits.requestSeconds);
        case Phase::Draining: return since + kDrainTime;
        case Phase::Handling:
        case Phase::Closed: break;
        }
        return std::nullopt;
    }

    void newParser()
    {
        parser.emplace();
        parser->header_limit(static_cast<std::uint32_t>(std::min<std::size_t>(server.limits.maxHeaderBytes, UINT32_MAX)));
        parser->body_limit(server.limits.maxBodyBytes);
        parser->eager(true);
        headerChecked = false;
    }

    void read()
    {
        if (reading || phase == Phase::Closed) return;
        const std::size_t room = buffer.max_size() - buffer.size();
        if (room == 0) {  // the parser refuses before this; a last guard
            refuse(431, "the request line and headers are larger than " +
                            std::to_string(server.limits.maxHeaderBytes) + " bytes");
            return;
        }
        reading = true;
        armDeadline();
        socket.async_read_some(buffer.prepare(std::min<std::size_t>(room, 4096)),
                               [self = shared_from_this()](beast::error_code ec, std::size_t n) { self->onRead(ec, n); });
    }

    void onRead(beast::error_code ec, std::size_t n)
    {
        reading = false;
        if (ec || phase == Phase::Closed) return close();
        buffer.commit(n);
        if (phase == Phase::Draining) {
            buffer.consume(buffer.size());
            return read();
        }
        if (phase != Phase::Idle && phase != Phase::Reading) return;  // a refusal is on its way
        if (phase == Phase::Idle) enter(Phase::Reading);
        process();
    }

    // Feeds what has arrived to the parser: a whole request is answered, a
    // bad one refused, a partial one waits for more.
    void process()
    {
        for (;;) {
            if (buffer.size() == 0) return read();
            beast::error_code ec;
            const std::size_t used = parser->put(buffer.data(), ec);
            buffer.consume(used);
            if (ec == http::error::need_more) return read();
            if (ec) return refuseParse(ec);
            if (!headerChecked && parser->is_header_done()) {
                if (checkHeader()) return;
                headerChecked = true;
            }
            if (parser->is_done()) return dispatch();
            if (used == 0) return read();
        }
    }

    // What the parser accepts but this server does not; true when refused.
    bool checkHeader()
    {
        const auto& message = parser->get();
        const auto fields = static_cast<std::size_t>(std::distance(message.begin(), message.end()));
        if (fields > static_cast<std::size_t>(server.limits.maxHeaderCount)) {
            refuse(431, "the request has " + std::to_string(fields) + " header fields; at most " +
                            std::to_string(server.limits.maxHeaderCount) + " are read");
            return true;
        }
        if (message.count(http::field::content_length) > 1) {
            refuse(400, "the request has more than one Content-Length header");
            return true;
        }
        return false;
    }

    void refuseParse(beast::error_code ec)
    {
        const auto& message = parser->get();
        const bool hasLength = message.count(http::field::content_length) > 0;
        const bool hasEncoding = message.count(http::field::transfer_encoding) > 0;
        const std::size_t headerLimit = server.limits.maxHeaderBytes;
        if (ec == http::error::header_limit)
            return refuse(431, "the request line and headers are larger than " + std::to_string(headerLimit) + " bytes");
        if (ec == http::error::body_limit)
            return refuse(413, "the request body is larger than " + std::to_string(server.limits.maxBodyBytes) + " bytes");
        std::string why;
        if (ec == http::error::bad_method) why = "the request line does not start with a method";
        else if (ec == http::error::bad_target) why = "the request target is not a valid path";
        else if (ec == http::error::bad_version) why = "the request line does not end in HTTP/1.0 or HTTP/1.1 and CR LF";
        else if (ec == http::error::bad_line_ending) why = "a line of the request does not end in CR LF";
        else if (ec == http::error::bad_field) why = "a header field name is not valid";
        else if (ec == http::error::bad_value) why = "a header field value is not valid";
        else if (ec == http::error::bad_content_length)
            why = hasEncoding ? "the request has both Content-Length and Transfer-Encoding"
                  : hasLength ? "the request has Content-Length headers that disagree"
                              : "Content-Length is not a decimal number";
        else if (ec == http::error::bad_transfer_encoding)
            why = hasLength ? "the request has both Content-Length and Transfer-Encoding"
                            : "the request has more than one Transfer-Encoding header";
        else if (ec == http::error::bad_chunk || ec == http::error::bad_chunk_extension)
            why = "the chunked body is not valid";
        else
            why = "the request could not be read (" + ec.message() + ")";
        refuse(400, why);
    }

    void dispatch()
    {
        phase = Phase::Handling;
        auto& message = parser->get();
        auto request = std::make_shared<HttpRequest>();
        request->method = std::string(message.method_string());
        const std::string_view target = message.target();
        const std::size_t question = target.find('?');
        request->path = std::string(target.substr(0, question));
        if (question != std::string_view::npos) request->query = std::string(target.substr(question + 1));
        if (auto it = message.find(http::field::host); it != message.end()) request->host = std::string(it->value());
        if (auto it = message.find(http::field::origin); it != message.end()) {
            request->origin = std::string(it->value());
            request->hasOrigin = true;
        }
        if (auto it = message.find(http::field::content_type); it != message.end())
            request->contentType = lower(it->value());
        request->body = std::move(message.body());
        keepAlive = message.keep_alive();
        head = message.method() == http::verb::head;
        if (!server.onWorker(*request)) return respond(server.answer(*request));
        asio::post(server.pool, [self = shared_from_this(), request] {
            HttpResponse made = self->server.answer(*request);
            asio::post(self->server.io, [self, made = std::move(made)]() mutable { self->respond(std::move(made)); });
        });
    }

    void respond(HttpResponse answer)
    {
        if (phase == Phase::Closed) return;
        keepAfterWrite = keepAlive && !answer.close && !server.stopping;
        out.assign(server.statusAndFields(answer, keepAfterWrite));
        if (!head) out += answer.body;  // a HEAD answer's Content-Length stays that of the GET
        beast::error_code ec;
        enter(Phase::Writing);
        std::size_t sent = socket.write_some(asio::buffer(out), ec);  // the socket does not block
        if (ec == asio::error::would_block || ec == asio::error::try_again) {
            sent = 0;
            ec = {};
        }
        if (ec) return close();
        if (sent == out.size()) return written();
        armDeadline();
        asio::async_write(socket, asio::buffer(out.data() + sent, out.size() - sent),
                          [self = shared_from_this()](beast::error_code e, std::size_t) {
                              if (e || self->phase == Phase::Closed) return self->close();
                              self->written();
                          });
    }

    void written()
    {
        if (!keepAfterWrite) return drain();
        newParser();
        if (buffer.size() == 0) {
            enter(Phase::Idle);
            return read();
        }
        // The client sent its next request already (pipelining): it is
        // answered next, in order, from a fresh turn of the loop so that a
        // long run of them does not nest.
        enter(Phase::Reading);
        asio::post(socket.get_executor(), [self = shared_from_this()] {
            if (self->phase == Phase::Reading) self->process();
        });
    }

    // Answers with the reason and closes; the request is not read further.
    void refuse(int status, std::string why)
    {
        keepAlive = false;
        head = false;
        respond(HttpResponse::text(status, std::move(why)));
    }

    void drain()
    {
        beast::error_code ignored;
        socket.shutdown(tcp::socket::shutdown_send, ignored);
        enter(Phase::Draining);
        buffer.consume(buffer.size());
        read();
    }

    void close()
    {
        if (phase == Phase::Closed) return;
        const auto keep = shared_from_this();  // forget() drops the list's reference
        phase = Phase::Closed;
        beast::error_code ignored;
        socket.close(ignored);
        server.forget(*this);
    }

    // Called by the sweep: ends a phase whose time is up.
    void enforceTimes(Clock::time_point now)
    {
        const auto due = deadline();
        if (!due || now < *due) return;
        if (phase == Phase::Reading)
            return refuse(408, "the request was not complete within " + std::to_string(server.limits.requestSeconds) +
                                   " s of its first byte");
        close();  // idle too long, a client that does not read its answer, or drained enough
    }

    HttpServer::Impl& server;
    tcp::socket socket;
    std::string client;
    beast::flat_buffer buffer;
    std::optional<http::request_parser<http::string_body>> parser;
    std::string out;  // the answer being sent, serialized
    bool keepAfterWrite = true;
    Phase phase = Phase::Idle;
    Clock::time_point since;
    bool reading = false;
    bool headerChecked = false;
    bool keepAlive = true;
    bool head = false;
    std::list<std::shared_ptr<Connection>>::iterator entry;
};

HttpResponse HttpServer::Impl::answer(const HttpRequest& request) { return answerSafely(handle, request); }

// The status line and header fields of an answer, as Beast's serializer
// writes them. Answers of one shape (status, type, length, keep-alive)
// differ only in their body, and polling asks for the same few shapes over
// and over: those are written once and kept. Answers with fields of their own
// (Allow, the page's security headers) are written every time; past 64 shapes
// the cache starts afresh.
const std::string& HttpServer::Impl::statusAndFields(const HttpResponse& answer, bool keepAlive)
{
    const bool plain = answer.headers.empty();
    if (plain) {
        for (const Head& known : heads)
            if (known.status == answer.status && known.keepAlive == keepAlive &&
                known.bodySize == answer.body.size() && known.contentType == answer.contentType)
                return known.text;
    }
    http::response<http::string_body> response;
    response.version(11);
    response.result(static_cast<unsigned>(answer.status));
    response.set(http::field::content_type, answer.contentType);
    for (auto& [name, value] : answer.headers) response.set(name, value);
    response.content_length(answer.body.size());
    response.keep_alive(keepAlive);
    std::string& written = unusual;
    written.clear();
    http::response_serializer<http::string_body> serializer{response};
    serializer.split(true);
    beast::error_code ec;
    while (!ec && !serializer.is_header_done()) {
        serializer.next(ec, [&](beast::error_code&, const auto& buffers) {
            const std::size_t size = beast::buffer_bytes(buffers);
            const std::size_t at = written.size();
            written.resize(at + size);
            asio::buffer_copy(asio::buffer(written.data() + at, size), buffers);
            serializer.consume(size);
        });
    }
    if (plain) {
        if (heads.size() >= 64) heads.clear();
        heads.push_back({answer.status, keepAlive, answer.body.size(), answer.contentType, written});
        return heads.back().text;
    }
    return written;
}

void HttpServer::Impl::accept()
{
    acceptor.async_accept([this](beast::error_code ec, tcp::socket socket) {
        if (stopping || ec == asio::error::operation_aborted) return;
        if (ec) {
            // Out of descriptors, say: try again shortly rather than spin.
            acceptRetry.expires_after(std::chrono::milliseconds(100));
            acceptRetry.async_wait([this](beast::error_code e) {
                if (!e) accept();
            });
            return;
        }
        admit(std::move(socket));
        accept();
    });
}

// Closes the connection (of that client, if given) that has waited longest
// for a request, or a refused one being drained; false when all are busy. A
// connection gets a second to send its first bytes before it counts as idle.
bool HttpServer::Impl::evictIdle(const std::string* client)
{
    const auto now = Clock::now();
    Connection* oldest = nullptr;
    for (auto& c : connections) {
        const bool idle = c->phase == Phase::Idle && now - c->since >= kGrace;
        if ((idle || c->phase == Phase::Draining) && (client == nullptr || c->client == *client) &&
            (oldest == nullptr || c->since < oldest->since))
            oldest = c.get();
    }
    if (oldest == nullptr) return false;
    oldest->close();
    return true;
}

void HttpServer::Impl::admit(tcp::socket socket)
{
    beast::error_code ec;
    const tcp::endpoint peer = socket.remote_endpoint(ec);
    if (ec) return;
    std::string client = peer.address().to_string();
    // Past a limit the connection that has waited longest without a request
    // makes room; when every one is busy the newcomer is told and closed.
    const char* full = nullptr;
    if (static_cast<int>(connections.size()) >= limits.maxConnections && !evictIdle(nullptr))
        full = "the server has as many connections as it serves at once; try again shortly";
    else if (perClient[client] >= limits.maxPerClient && !evictIdle(&client))
        full = "this address has as many connections as one address may hold; try again shortly";
    if (full != nullptr) {
        const std::string text = full;
        const std::string reply = "HTTP/1.1 503 Service Unavailable\r\nContent-Type: text/plain; charset=utf-8\r\n"
                                  "Retry-After: 1\r\nConnection: close\r\nContent-Length: " +
                                  std::to_string(text.size()) + "\r\n\r\n" + text;
        (void)::send(socket.native_handle(), reply.data(), reply.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        socket.close(ec);
        return;
    }
    socket.set_option(tcp::no_delay(true), ec);
    socket.non_blocking(true, ec);  // answers are written at once where the socket takes them
    auto connection = std::make_shared<Connection>(*this, std::move(socket), client);
    connections.push_back(connection);
    connection->entry = std::prev(connections.end());
    ++perClient[client];
    connection->start();
}

void HttpServer::Impl::forget(Connection& connection)
{
    auto count = perClient.find(connection.client);
    if (count != perClient.end() && --count->second <= 0) perClient.erase(count);
    connections.erase(connection.entry);  // may free the connection: nothing after this
}

// The sweep runs when the first deadline of any connection is due, and not
// otherwise: a client polling once a second moves its own deadline on and
// wakes nothing; with no connection there is no timer at all.
void HttpServer::Impl::sweepBy(Clock::time_point due)
{
    if (stopping || due >= sweepAt) return;
    sweepAt = due;
    sweepTimer.expires_at(due);
    sweepTimer.async_wait([this](beast::error_code ec) {
        if (ec || stopping) return;  // moved earlier: a newer wait is pending
        sweepAt = Clock::time_point::max();
        sweep();
    });
}

void HttpServer::Impl::sweep()
{
    const auto now = Clock::now();
    std::vector<std::shared_ptr<Connection>> all(connections.begin(), connections.end());
    for (auto& c : all) c->enforceTimes(now);
    for (auto& c : connections)
        if (auto due = c->deadline()) sweepBy(*due);
}

HttpServer::HttpServer(HttpLimits limits, Handler handle, std::function<bool(const HttpRequest&)> runsOnWorker)
    : impl_(std::make_unique<Impl>(limits, std::move(handle), std::move(runsOnWorker)))
{
}

HttpServer::~HttpServer() { stop(); }

int HttpServer::start(const std::string& host, int port)
{
    Impl& s = *impl_;
    beast::error_code ec;
    tcp::resolver resolver(s.io);
    auto found = resolver.resolve(host, std::to_string(port), tcp::resolver::passive | tcp::resolver::numeric_service, ec);
    if (ec || found.empty()) {
        startError_ = "cannot listen on " + host + ": not an address of this computer";
        return -1;
    }
    const tcp::endpoint endpoint = *found.begin();
    s.acceptor.open(endpoint.protocol(), ec);
    // Only SO_REUSEADDR (a restart does not wait for old connections), never
    // SO_REUSEPORT: a second server on the same port must fail to bind.
    if (!ec) s.acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
    if (!ec) s.acceptor.bind(endpoint, ec);
    if (!ec) s.acceptor.listen(s.limits.listenBacklog, ec);
    if (ec) {
        startError_ = ec.message();
        beast::error_code ignored;
        s.acceptor.close(ignored);
        return -1;
    }
    const int bound = s.acceptor.local_endpoint(ec).port();
    for (int i = 0; i < std::max(1, s.limits.workers); ++i)
        s.workers.emplace_back([&s] {
            nameThisThread("http-worker");
            s.pool.run();
        });
    s.accept();
    s.loop = std::thread([&s] {
        nameThisThread("http-loop");
        s.io.run();
    });
    return bound;
}

void HttpServer::stop()
{
    Impl& s = *impl_;
    if (!s.loop.joinable()) return;
    asio::post(s.io, [&s] {
        s.stopping = true;
        beast::error_code ignored;
        s.acceptor.close(ignored);
        s.sweepTimer.cancel();
        s.acceptRetry.cancel();
        std::vector<std::shared_ptr<Connection>> all(s.connections.begin(), s.connections.end());
        for (auto& c : all) c->close();
    });
    // A request on a worker finishes (it may be waiting for a unit); queued ones are dropped.
    s.pool.stop();
    for (auto& worker : s.workers) worker.join();
    s.guard.reset();
    s.loop.join();
}

}  // namespace alpaca
