// The HTTP side of the server: one event loop (Boost.Asio over epoll) reads
// and answers every connection with Boost.Beast's parser and serializer, and
// a small pool of workers runs the requests that may wait for a unit. Every
// resource a client can make the server hold is bounded (see HttpLimits).
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace alpaca {

struct HttpLimits {
    int maxConnections = 512;      // open at once; past it the oldest idle one is closed, else 503
    int maxPerClient = 128;        // from one address, with the same rule
    int maxHeaderCount = 64;       // more header fields: 431
    std::size_t maxHeaderBytes = 8 * 1024;  // request line and headers together: 431
    std::size_t maxBodyBytes = 16 * 1024;   // form bodies are tiny: 413
    int requestSeconds = 10;       // first byte of a request to its last: 408
    int idleSeconds = 30;          // a keep-alive connection with no request is closed
    int workers = 4;               // requests that may wait for a unit run on these
    int listenBacklog = 512;       // connections waiting to be accepted
};

struct HttpRequest {
    std::string method;       // as sent: GET, PUT, ...
    std::string path;         // the target before '?', as sent (not decoded)
    std::string query;        // after '?', still encoded
    std::string host;         // the Host header ("" when absent)
    std::string origin;       // the Origin header
    bool hasOrigin = false;
    std::string contentType;  // lower case
    std::string body;
};

struct HttpResponse {
    int status = 200;
    std::string contentType = "text/plain; charset=utf-8";
    std::vector<std::pair<std::string, std::string>> headers;  // further fields
    std::string body;
    bool close = false;  // close the connection after this answer

    static HttpResponse text(int status, std::string body)
    {
        HttpResponse r;
        r.status = status;
        r.body = std::move(body);
        return r;
    }
};

class HttpServer {
public:
    using Handler = std::function<HttpResponse(const HttpRequest&)>;
    // handle answers a request; runsOnWorker says (from the request alone)
    // whether it may wait, for a unit or a scan: those run on the workers,
    // the rest on the event loop.
    HttpServer(HttpLimits limits, Handler handle, std::function<bool(const HttpRequest&)> runsOnWorker);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Binds host:port (0 = any free port) and serves on a thread of its own.
    // Returns the bound port, or -1 with startError() saying why.
    int start(const std::string& host, int port);
    // Closes every connection and joins the loop and the workers.
    void stop();
    const std::string& startError() const { return startError_; }

    struct Impl;  // the loop, its connections and the workers (http_server.cpp)

private:
    std::unique_ptr<Impl> impl_;
    std::string startError_;
};

// Runs a handler; what it throws is logged and answered 500, never passed
// on to the loop (both HTTP cores answer through this).
HttpResponse answerSafely(const HttpServer::Handler& handle, const HttpRequest& request);

}  // namespace alpaca
