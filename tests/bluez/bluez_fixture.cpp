#include "bluez_fixture.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

extern char** environ;

namespace bluez {
namespace fs = std::filesystem;

bool Child::readLine(std::string& line, int timeoutMs)
{
    line.clear();
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now()).count();
        if (left <= 0) return false;
        pollfd p{out, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left)) <= 0) return false;
        char c;
        if (read(out, &c, 1) != 1) return false;
        if (c == '\n') return true;
        line += c;
    }
}

void Child::stop()
{
    for (int i = 0; pid > 0; ++i) {
        if (i == 0) kill(pid, SIGTERM);
        if (i == 100) kill(pid, SIGKILL);  // not gone within a second
        const pid_t gone = waitpid(pid, nullptr, i >= 100 ? 0 : WNOHANG);
        if (gone == pid || gone < 0) pid = -1;
        else std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (out >= 0) close(out);
    out = -1;
}

Child spawn(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv)
{
    Child child;
    int fds[2];
    if (pipe(fds) != 0) return child;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) env.emplace_back(*e);
    env.insert(env.end(), extraEnv.begin(), extraEnv.end());
    std::vector<char*> args, envp;
    for (auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    for (auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
    args.push_back(nullptr);
    envp.push_back(nullptr);
    if (posix_spawn(&child.pid, args[0], &actions, nullptr, args.data(), envp.data()) != 0)
        child.pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    child.out = fds[0];
    return child;
}

void BlueZTest::SetUp()
{
    char dir[] = "/tmp/nkr-bluez-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    tmp_ = dir;
    fs::create_directories(tmp_ + "/home");
    {
        std::ofstream conf(tmp_ + "/bus.conf");
        conf << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
                " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                "<busconfig><type>custom</type><listen>unix:dir=" << tmp_ << "</listen>"
                "<auth>EXTERNAL</auth><policy context=\"default\"><allow user=\"*\"/>"
                "<allow own=\"*\"/><allow send_type=\"method_call\"/><allow send_type=\"signal\"/>"
                "<allow send_type=\"method_return\"/><allow send_type=\"error\"/>"
                "<allow receive_type=\"method_call\"/><allow receive_type=\"signal\"/>"
                "<allow receive_type=\"method_return\"/><allow receive_type=\"error\"/>"
                "</policy></busconfig>\n";
    }
    bus_ = spawn({"/usr/bin/dbus-daemon", "--config-file=" + tmp_ + "/bus.conf", "--nofork",
                  "--print-address=1"}, {});
    ASSERT_GT(bus_.pid, 0) << "dbus-daemon did not start";
    ASSERT_TRUE(bus_.readLine(busAddress_, 10000)) << "dbus-daemon printed no address";
    setenv("DBUS_SYSTEM_BUS_ADDRESS", busAddress_.c_str(), 1);
    setenv("NKR_BLE_HELPER", NKR_BLE_HELPER_PATH, 1);
    setenv("HOME", (tmp_ + "/home").c_str(), 1);
    setenv("XDG_STATE_HOME", (tmp_ + "/home/state").c_str(), 1);
    setenv("NKR_BLE_TIMEOUT_MS", "1000", 1);
    if (!serveBluez()) return;
    std::vector<std::string> argv = {"/usr/bin/python3", NKR_SIM_BLUEZ, "--bus", busAddress_};
    for (auto& a : simArgs()) argv.push_back(a);
    std::vector<std::string> env = {"NKR_SIM_LIBRARY=" NKR_SIM_LIBRARY};
    // A sanitized simulator needs the sanitizer runtime first in the interpreter.
    if (std::strlen(NKR_SIM_PRELOAD) > 0) {
        env.push_back("LD_PRELOAD=" NKR_SIM_PRELOAD);
        env.push_back("ASAN_OPTIONS=detect_leaks=0");
    }
    sim_ = spawn(argv, env);
    ASSERT_GT(sim_.pid, 0);
    std::string ready;
    ASSERT_TRUE(sim_.readLine(ready, 20000)) << "nkr-sim-bluez did not come up";
    ASSERT_EQ(ready.rfind("ready ", 0), 0u) << ready;
}

void BlueZTest::TearDown()
{
    sim_.stop();
    bus_.stop();
    if (!tmp_.empty()) {
        std::error_code ec;
        fs::remove_all(tmp_, ec);
    }
}

// One call to nkr-sim-bluez's control interface; the "u" answer, if any.
unsigned BlueZTest::control(const char* method, const char* signature, unsigned value)
{
    sd_bus* bus = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    unsigned answer = 0;
    int r = sd_bus_new(&bus);
    sd_bus_set_address(bus, busAddress_.c_str());
    sd_bus_set_bus_client(bus, 1);
    if (r >= 0) r = sd_bus_start(bus);
    const char* sim[] = {"org.nkr.SimBlueZ", "/org/nkr/sim", "org.nkr.SimControl1"};
    if (r >= 0 && signature[0] == 'u')
        r = sd_bus_call_method(bus, sim[0], sim[1], sim[2], method, &error, &reply, "u", value);
    else if (r >= 0 && signature[0] == 'b')
        r = sd_bus_call_method(bus, sim[0], sim[1], sim[2], method, &error, &reply, "b", static_cast<int>(value != 0));
    else if (r >= 0)
        r = sd_bus_call_method(bus, sim[0], sim[1], sim[2], method, &error, &reply, "");
    EXPECT_GE(r, 0) << method << ": " << (error.message ? error.message : "");
    if (r >= 0 && std::strcmp(method, "Requests") == 0) sd_bus_message_read(reply, "u", &answer);
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_flush_close_unref(bus);
    return answer;
}

int BlueZTest::connectAndPair(const std::string& nameOrAddress)
{
    int id = -1;
    EXPECT_EQ(NKRBLEConnect(nameOrAddress.c_str(), "", &id), NKR_SUCCESS);
    EXPECT_EQ(id, 50);
    EXPECT_EQ(NKRBLEPair(id), NKR_SUCCESS);
    return id;
}

bool BlueZTest::waitStopped(int id, int timeoutMs)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < deadline) {
        bool moving = true;
        if (NKRIsMoving(id, &moving, nullptr) != NKR_SUCCESS) return false;
        if (!moving) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

}  // namespace bluez
