#include "alpaca_fixture.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

#include "log.h"

#if defined(__SANITIZE_THREAD__)
// NKRClose holds more locks at once than ThreadSanitizer's lock-order
// detector can track (it aborts past 64); data races are still reported.
extern "C" const char* __tsan_default_options() { return "detect_deadlocks=0"; }
#endif

namespace alpaca::test {

void AlpacaTest::SetUp()
{
    char pattern[] = "/tmp/nkr-alpaca-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    setenv("HOME", dir_.c_str(), 1);
    setenv("XDG_CONFIG_HOME", (dir_ / "config").c_str(), 1);
    setenv("XDG_STATE_HOME", (dir_ / "state").c_str(), 1);
    // Unit claims live here: parallel tests must not see each other's.
    std::filesystem::create_directories(dir_ / "run");
    std::filesystem::permissions(dir_ / "run", std::filesystem::perms::owner_all);
    setenv("XDG_RUNTIME_DIR", (dir_ / "run").c_str(), 1);
    statePath_ = (dir_ / "config" / "nkr-alpaca" / "devices.json").string();
    setLogQuiet(true);

    nkrsim::reset();
    // Both start at 30000: the scan closes each unit (saving a position) and
    // the library may restore the last one saved on the next open.
    nkrsim::UnitSpec a;
    a.serial = {'A', 'L', 'P', 'A', 'C', 'A', '0', '1'};
    a.position = 30000;
    unitA_ = nkrsim::addUnit(a);
    a.serial.back() = '2';
    unitB_ = nkrsim::addUnit(a);
    startServer();
}

void AlpacaTest::TearDown()
{
    stopServer();
    EXPECT_EQ(nkrsim::refusedTotal(), 0u) << "a unit refused a message the library sent";
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
}

void AlpacaTest::startServer()
{
    registry_ = std::make_unique<DeviceRegistry>(statePath_);
    registry_->rescan();
    ServerLimits limits;
    limits.samplingThread = false;  // the plot's samples are taken when a test says
    server_ = std::make_unique<AlpacaServer>(*registry_, limits);
    port_ = server_->start("127.0.0.1", 0);
    ASSERT_GT(port_, 0);
    client_ = std::make_unique<httplib::Client>("127.0.0.1", port_);
    client_->set_read_timeout(10, 0);
}

void AlpacaTest::stopServer()
{
    client_.reset();
    if (server_) server_->stop();
    server_.reset();
    registry_.reset();
}

json AlpacaTest::answer(const httplib::Result& res)
{
    lastStatus_ = res ? res->status : -1;
    if (!res) return {};
    lastBody_ = res->body;
    return res->status == 200 ? json::parse(res->body, nullptr, false) : json();
}

std::string AlpacaTest::raw(const std::string& bytes, int port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port == 0 ? port_ : port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    timeval timeout{10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    std::string reply;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
        send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size())) {
        shutdown(fd, SHUT_WR);  // nothing more comes: the server closes once it has answered
        char buffer[4096];
        for (ssize_t n; (n = recv(fd, buffer, sizeof buffer, 0)) > 0;) reply.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return reply;
}

json AlpacaTest::get(const std::string& path) { return answer(client_->Get(path)); }

json AlpacaTest::put(const std::string& path, const std::string& form)
{
    return answer(client_->Put(path, form, "application/x-www-form-urlencoded"));
}

void AlpacaTest::connect(int n)
{
    json answer = put(device(n, "connected"), "Connected=true&ClientID=1&ClientTransactionID=1");
    ASSERT_EQ(lastStatus_, 200) << lastBody_;
    ASSERT_EQ(answer["ErrorNumber"], 0) << answer.dump();
}

bool AlpacaTest::runUntilStopped(int n)
{
    for (int i = 0; i < 2000; ++i, nkrsim::advanceMicros(50'000)) {
        json moving = get(device(n, "ismoving"));
        if (moving["ErrorNumber"] != 0 || moving["Value"] == false) return moving["ErrorNumber"] == 0;
    }
    return false;
}

}  // namespace alpaca::test
