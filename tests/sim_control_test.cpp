// The simulator's control channel for other processes (NKR_SIM_CONTROL): the
// commands, and one socket session with a wait for the motor to stop.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include <hidapi/hidapi.h>

#include "control_socket.h"
#include "nkr_sim.h"

namespace {

using nkrsim::detail::runControlCommand;

nkrsim::UnitId freshUnit()
{
    nkrsim::reset();
    return nkrsim::addUnit(nkrsim::UnitSpec{});
}

// One line from the socket, waiting at most timeoutMs; "" on time-out or close.
std::string readLine(int fd, int timeoutMs)
{
    std::string line;
    char c = 0;
    while (true) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, timeoutMs) != 1 || ::recv(fd, &c, 1, 0) != 1) return {};
        if (c == '\n') return line;
        line += c;
    }
}

void sendLine(int fd, const std::string& text)
{
    const std::string line = text + '\n';
    ASSERT_EQ(::send(fd, line.data(), line.size(), MSG_NOSIGNAL), static_cast<ssize_t>(line.size()));
}

}  // namespace

TEST(SimControl, CommandsChangeTheWorldAndRefuseWhatTheyCannotDo)
{
    const nkrsim::UnitId unit = freshUnit();
    const std::string id = std::to_string(unit);

    EXPECT_EQ(runControlCommand("state " + id), "ok 30000 stopped plugged");
    EXPECT_EQ(runControlCommand("unplug " + id), "ok");
    EXPECT_EQ(runControlCommand("state " + id), "ok 30000 stopped unplugged");
    EXPECT_EQ(runControlCommand("replug " + id), "ok");
    EXPECT_EQ(runControlCommand("state " + id), "ok 30000 stopped plugged");

    EXPECT_EQ(runControlCommand("hand-move " + id + " 30100"), "ok");
    EXPECT_EQ(runControlCommand("state " + id), "ok 30000 moving plugged");
    nkrsim::advanceMicros(1'000'000);
    EXPECT_EQ(runControlCommand("state " + id), "ok 30100 stopped plugged");

    EXPECT_EQ(runControlCommand("set-temp-raw " + id + " 0"), "ok");
    EXPECT_EQ(nkrsim::state(unit).tempRaw, 0);
    EXPECT_EQ(runControlCommand("set-serial " + id + " 00112233445566ff"), "ok");
    EXPECT_EQ(nkrsim::state(unit).serial,
              (std::vector<uint8_t>{0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0xFF}));
    EXPECT_EQ(runControlCommand("transfers " + id), "ok 0");

    // Bad input is answered, never acted on.
    EXPECT_EQ(runControlCommand("set-temp-raw " + id + " 65536").rfind("error usage", 0), 0u);
    EXPECT_EQ(runControlCommand("set-serial " + id + " 0011").rfind("error usage", 0), 0u);
    EXPECT_EQ(runControlCommand("set-serial " + id + " 00112233445566zz").rfind("error usage", 0), 0u);
    EXPECT_EQ(runControlCommand("hand-move " + id).rfind("error usage", 0), 0u);
    EXPECT_EQ(runControlCommand("unplug 99"), "error no unit 99");
    EXPECT_EQ(runControlCommand("unplug x").rfind("error usage", 0), 0u);
    EXPECT_EQ(runControlCommand("unplug 99999999999").rfind("error usage", 0), 0u);
    EXPECT_EQ(runControlCommand("explode " + id), "error unknown command explode");
    EXPECT_EQ(runControlCommand(""), "error empty command");
    EXPECT_EQ(nkrsim::state(unit).tempRaw, 0);
}

TEST(SimControl, SocketAnswersCommandsAndWaitsForTheMotorToStop)
{
    const nkrsim::UnitId unit = freshUnit();
    const std::string dir = std::string(std::getenv("HOME")) + "/control";
    std::filesystem::create_directories(dir);
    setenv("NKR_SIM_CONTROL", (dir + "/sim-%p.sock").c_str(), 1);
    nkrsim::detail::startControlSocketFromEnv();
    const std::string path = dir + "/sim-" + std::to_string(::getpid()) + ".sock";
    ASSERT_TRUE(std::filesystem::exists(path));

    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);

    sendLine(fd, "state " + std::to_string(unit));
    EXPECT_EQ(readLine(fd, 5000), "ok 30000 stopped plugged");

    // The answer to wait-stop comes once the motor stands at the target: not
    // before the (manual) clock has moved it there.
    nkrsim::update(unit, [](nkrsim::UnitState& s) {
        s.target = 30200;
        s.runState = 1;
    });
    sendLine(fd, "wait-stop " + std::to_string(unit) + " 30200 10000");
    EXPECT_EQ(readLine(fd, 100), "");
    nkrsim::advanceMicros(200'000);
    EXPECT_EQ(readLine(fd, 5000), "ok");
    EXPECT_EQ(nkrsim::state(unit).position, 30200);

    sendLine(fd, "wait-stop " + std::to_string(unit) + " 1 0");
    EXPECT_EQ(readLine(fd, 5000), "error timed out");

    // An endless line is cut off with an answer and the connection closed.
    sendLine(fd, std::string(1000, 'x'));
    EXPECT_EQ(readLine(fd, 5000), "error line too long");
    EXPECT_EQ(readLine(fd, 5000), "");
    ::close(fd);
    unsetenv("NKR_SIM_CONTROL");
}

TEST(SimControl, TrafficKeepsTheLatestReportsAndCountsEveryOne)
{
    // A simulator that serves for days behind a server must not keep every
    // report it was ever sent.
    const nkrsim::UnitId unit = freshUnit();
    hid_device* dev = hid_open_path(nkrsim::usbPath(unit).c_str());
    ASSERT_NE(dev, nullptr);
    constexpr int kSent = 10000;
    for (int i = 0; i < kSent; ++i) {
        unsigned char report[16] = {0x03, 0x7E, 0x5A, 0x02, 0x03, static_cast<unsigned char>(i >> 8),
                                    static_cast<unsigned char>(i)};
        ASSERT_EQ(hid_send_feature_report(dev, report, sizeof report), 16);
    }
    // A report the unit refuses is sent too, and counted as refused.
    const unsigned char answerId[16] = {0x01, 0x7E, 0x5A, 0x02, 0x03};
    EXPECT_EQ(hid_send_feature_report(dev, answerId, sizeof answerId), -1);
    EXPECT_EQ(runControlCommand("refused " + std::to_string(unit)), "ok 1");
    hid_close(dev);
    const auto kept = nkrsim::sentReports(unit);
    EXPECT_LE(kept.size(), 4096u);
    ASSERT_GE(kept.size(), 2u);
    const auto& last = kept[kept.size() - 2];  // the last good one
    EXPECT_EQ(last[5], (kSent - 1) >> 8);
    EXPECT_EQ(last[6], (kSent - 1) & 0xFF);
    EXPECT_EQ(runControlCommand("transfers " + std::to_string(unit)), "ok " + std::to_string(kSent + 1));
}
