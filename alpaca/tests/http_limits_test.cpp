// The HTTP core against clients that misbehave: pipelining, malformed and
// oversized requests, wrong methods, ranges, and slow or idle connections
// that must not lock anyone out. Raw bytes over loopback, each bounded.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "alpaca_fixture.h"

namespace alpaca::test {
namespace {

int statusOf(const std::string& reply)
{
    return reply.rfind("HTTP/1.1 ", 0) == 0 ? std::atoi(reply.c_str() + 9) : -1;
}

std::string bodyOf(const std::string& reply)
{
    const std::size_t end = reply.find("\r\n\r\n");
    return end == std::string::npos ? std::string() : reply.substr(end + 4);
}

// A connection held open by the test; closed when it goes out of scope.
struct Socket {
    explicit Socket(int port)
    {
        fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(static_cast<uint16_t>(port));
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        timeval timeout{10, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        connected = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    }
    ~Socket() { close(fd); }
    void send(const std::string& bytes) { ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
    // Everything until the server closes (or 10 s pass).
    std::string readAll()
    {
        std::string reply;
        char buffer[4096];
        for (ssize_t n; (n = recv(fd, buffer, sizeof buffer, 0)) > 0;) reply.append(buffer, static_cast<size_t>(n));
        return reply;
    }
    int fd = -1;
    bool connected = false;
};

const std::string kGet = "GET /management/apiversions HTTP/1.1\r\nHost: 127.0.0.1\r\n";

// Splits a stream of answers by their Content-Length: a wrong length (of a
// kept status line and header, say) breaks every answer after it.
std::vector<std::string> answerBodies(const std::string& stream)
{
    std::vector<std::string> bodies;
    std::size_t at = 0;
    while (at < stream.size()) {
        const std::size_t end = stream.find("\r\n\r\n", at);
        const std::size_t field = stream.find("Content-Length: ", at);
        if (end == std::string::npos || field == std::string::npos || field > end) break;
        const auto length = static_cast<std::size_t>(std::stoul(stream.substr(field + 16)));
        bodies.push_back(stream.substr(end + 4, length));
        at = end + 4 + length;
    }
    return bodies;
}

TEST_F(AlpacaTest, HttpPipelinedRequestsAreAllAnsweredInOrderAndWhole)
{
    const std::string page = client_->Get("/control")->body;
    const std::string script = client_->Get("/control/control.js")->body;
    ASSERT_GT(script.size(), 10000u);
    // Answers of several lengths, and files far more than the socket buffers
    // on both sides hold (a few MiB on loopback) before the client reads: the
    // server must wait to write and go on with the next request afterwards.
    std::string requests;
    const int count = 600;
    const auto fileOf = [](int i) -> const char* {
        return i % 10 == 5 ? "/control" : i % 10 == 0 || i % 10 == 1 ? nullptr : "/control/control.js";
    };
    for (int i = 1; i <= count; ++i) {
        const char* file = fileOf(i);
        requests += (file != nullptr ? std::string("GET ") + file
                              : "GET /api/v1/focuser/0/absolute?ClientTransactionID=" + std::to_string(i)) +
                    " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) + "\r\n" +
                    (i == count ? "Connection: close\r\n" : "") + "\r\n";
    }
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int small = 4096;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    timeval timeout{10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port_));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(::send(fd, requests.data(), requests.size(), MSG_NOSIGNAL), static_cast<ssize_t>(requests.size()));
    // Reads nothing until the answers stop arriving (at most 2 s): the server
    // then holds an answer it could not write whole. (Without the wait the
    // test still checks the answers, only perhaps not that case.)
    int queued = -1;
    for (int i = 0, same = 0; i < 100 && same < 3; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        int now = 0;
        ioctl(fd, FIONREAD, &now);
        same = now == queued && now > 0 ? same + 1 : 0;
        queued = now;
    }
    std::string reply;
    char buffer[4096];
    for (ssize_t n; (n = recv(fd, buffer, sizeof buffer, 0)) > 0;) reply.append(buffer, static_cast<size_t>(n));
    close(fd);

    const std::vector<std::string> bodies = answerBodies(reply);
    ASSERT_EQ(bodies.size(), static_cast<size_t>(count)) << reply.substr(0, 400);
    for (int i = 1; i <= count; ++i) {
        const std::string& body = bodies[static_cast<size_t>(i - 1)];
        if (const char* file = fileOf(i)) {
            EXPECT_EQ(body, file == std::string("/control") ? page : script) << "answer " << i;
            continue;
        }
        const json answer = json::parse(body, nullptr, false);
        EXPECT_EQ(answer.value("ClientTransactionID", -1), i) << body;
    }
}

TEST_F(AlpacaTest, HttpMalformedRequestsGet400NamingTheFault)
{
    const std::string put = "PUT /api/v1/focuser/0/halt HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    const struct {
        std::string request, reason;
    } cases[] = {
        {put + "Content-Length: 3\r\nContent-Length: 5\r\n\r\nabcde", "Content-Length headers that disagree"},
        {put + "Content-Length: 3\r\nContent-Length: 3\r\n\r\nabc", "more than one Content-Length"},
        {put + "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", "both Content-Length and Transfer-Encoding"},
        {put + "Transfer-Encoding: chunked\r\nContent-Length: 5\r\n\r\n0\r\n\r\n", "both Content-Length and Transfer-Encoding"},
        {put + "Content-Length: many\r\n\r\n", "Content-Length is not a decimal number"},
        {put + "Transfer-Encoding: chunked\r\n\r\nzz\r\n", "chunked body is not valid"},
        {"GARBAGE\r\n\r\n", "request"},
        {"GET /management/apiversions HTTP/1.1\nHost: 127.0.0.1\n\n", "CR LF"},
        {"GET /management/apiversions HTTP/1.1\r\nBad Name: x\r\n\r\n", "header field name"},
    };
    for (const auto& c : cases) {
        const std::string reply = raw(c.request);
        EXPECT_EQ(statusOf(reply), 400) << c.request << "\n" << reply;
        EXPECT_NE(bodyOf(reply).find(c.reason), std::string::npos) << c.request << "\n" << reply;
        EXPECT_NE(reply.find("Connection: close"), std::string::npos) << reply;
    }
    EXPECT_EQ(get(device(0, "absolute"))["Value"], true);  // and the server goes on
}

TEST_F(AlpacaTest, HttpOversizedHeadersAreRefusedWith431)
{
    std::string many = kGet;
    for (int i = 0; i < 100; ++i) many += "X-" + std::to_string(i) + ": 1\r\n";
    std::string reply = raw(many + "\r\n");
    EXPECT_EQ(statusOf(reply), 431) << reply;
    EXPECT_NE(reply.find("101 header fields; at most 64"), std::string::npos) << reply;
    // A flood of headers is refused once the limit is read, not stored.
    std::string flood = kGet;
    while (flood.size() < 1024 * 1024) flood += "X-Flood: aaaaaaaaaaaaaaaaaaaaaaaaaaaaaa\r\n";
    reply = raw(flood + "\r\n");
    EXPECT_EQ(statusOf(reply), 431) << reply.substr(0, 300);
    EXPECT_NE(reply.find("larger than 8192 bytes"), std::string::npos) << reply.substr(0, 300);
    EXPECT_EQ(get(device(0, "absolute"))["Value"], true);
}

TEST_F(AlpacaTest, HttpWrongMethodsGet405WithAllow)
{
    const struct {
        std::string method, path, allow;
    } cases[] = {
        {"DELETE", device(0, "position"), "GET, HEAD"},
        {"PUT", device(0, "position"), "GET, HEAD"},
        {"POST", device(0, "move"), "PUT"},
        {"GET", device(0, "move"), "PUT"},
        {"PUT", "/management/apiversions", "GET, HEAD"},
        {"GET", "/control/v1/focuser/0/move", "POST"},
        {"DELETE", "/control", "GET, HEAD"},
    };
    for (const auto& c : cases) {
        const std::string reply =
            raw(c.method + " " + c.path + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) +
                "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
        EXPECT_EQ(statusOf(reply), 405) << c.method << " " << c.path << "\n" << reply;
        EXPECT_NE(reply.find("Allow: " + c.allow + "\r\n"), std::string::npos) << c.method << " " << c.path << "\n" << reply;
        EXPECT_NE(bodyOf(reply).find(c.allow), std::string::npos) << reply;
    }
    // HEAD is a GET without the body.
    const std::string head = raw("HEAD " + device(0, "absolute") + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(statusOf(head), 200) << head;
    EXPECT_EQ(bodyOf(head), "");
}

TEST_F(AlpacaTest, HttpRangesAreIgnoredAndTheWholeAnswerSentOnce)
{
    auto member = client_->Get(device(0, "interfaceversion"), {{"Range", "bytes=5-10"}});
    ASSERT_TRUE(member);
    EXPECT_EQ(member->status, 200);
    EXPECT_EQ(json::parse(member->body, nullptr, false)["Value"], 4);
    auto whole = client_->Get("/control");
    std::string ranges = "bytes=0-";  // 2,700 ranges of the whole page in under 8 KiB
    for (int i = 1; i < 2700; ++i) ranges += ",0-";
    auto page = client_->Get("/control", {{"Range", ranges}});
    ASSERT_TRUE(page && whole);
    EXPECT_EQ(page->status, 200);
    EXPECT_EQ(page->body, whole->body);
}

TEST_F(AlpacaTest, HttpSlowAndIdleClientsCannotLockOthersOut)
{
    ServerLimits limits;
    limits.samplingThread = false;
    limits.http.maxPerClient = 4;  // every test client is 127.0.0.1
    limits.http.requestSeconds = 1;
    AlpacaServer small(*registry_, limits);
    const int port = small.start("127.0.0.1", 0);
    ASSERT_GT(port, 0);
    auto served = [port] {
        httplib::Client client("127.0.0.1", port);
        client.set_read_timeout(10, 0);
        auto res = client.Get("/management/apiversions");
        return res ? res->status : -1;
    };
    {
        // Idle connections make room for a newcomer, the longest idle first,
        // once they have had a second to send something.
        std::vector<std::unique_ptr<Socket>> idle;
        for (int i = 0; i < limits.http.maxPerClient; ++i) idle.push_back(std::make_unique<Socket>(port));
        std::this_thread::sleep_for(std::chrono::milliseconds(1100));
        EXPECT_EQ(served(), 200);
        EXPECT_EQ(idle.front()->readAll(), "") << "the oldest idle connection is closed";
    }
    // Connections in the middle of a request (or just opened) are not closed
    // for a newcomer: it is told to come back, and they get 408 when their
    // time is up.
    std::vector<std::unique_ptr<Socket>> slow;
    for (int i = 0; i < limits.http.maxPerClient; ++i) {
        slow.push_back(std::make_unique<Socket>(port));
        slow.back()->send(kGet);  // and never the blank line
    }
    Socket late(port);
    const std::string refused = late.readAll();
    EXPECT_EQ(statusOf(refused), 503) << refused;
    EXPECT_NE(refused.find("Retry-After"), std::string::npos);
    for (auto& s : slow) {
        const std::string reply = s->readAll();
        EXPECT_EQ(statusOf(reply), 408) << reply;
        EXPECT_NE(bodyOf(reply).find("within 1 s of its first byte"), std::string::npos) << reply;
    }
    EXPECT_EQ(served(), 200);
    small.stop();
}

}  // namespace
}  // namespace alpaca::test
