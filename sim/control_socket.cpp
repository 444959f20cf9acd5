// The control socket: lets a test or benchmark drive the world of another
// process (a driver started by indiserver, say). One thread serves a few
// clients at a time with poll(); every command runs under the world lock.
#include "control_socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include "nkr_sim.h"
#include "world.h"

namespace nkrsim::detail {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMaxLine = 256;
constexpr size_t kMaxClients = 8;
constexpr int kIdlePollMillis = 200;
// A wait-stop looks at the motor this often: the stop is seen within it.
constexpr int kWaitPollMillis = 1;
constexpr int kMaxWaitMillis = 60000;

struct Client {
    int fd = -1;
    std::string input;
    bool waiting = false;
    UnitId unit = 0;
    int target = 0;
    Clock::time_point deadline{};
};

std::string controlPath(const char* pattern)
{
    // "%p" stands for the process id: every driver under one indiserver
    // inherits the same environment but needs a socket of its own.
    std::string path = pattern;
    const std::string pid = std::to_string(::getpid());
    for (size_t at = path.find("%p"); at != std::string::npos; at = path.find("%p", at + pid.size()))
        path.replace(at, 2, pid);
    return path;
}

bool readInt(std::istringstream& in, int& value)
{
    long long v = 0;
    if (!(in >> v) || v < INT32_MIN || v > INT32_MAX) return false;
    value = static_cast<int>(v);
    return true;
}

bool parseSerial(const std::string& hex, std::vector<uint8_t>& serial)
{
    if (hex.size() != 16) return false;
    serial.clear();
    for (size_t i = 0; i < 16; i += 2) {
        char* end = nullptr;
        const std::string byte = hex.substr(i, 2);
        const long v = std::strtol(byte.c_str(), &end, 16);
        if (end != byte.c_str() + 2) return false;
        serial.push_back(static_cast<uint8_t>(v));
    }
    return true;
}

// "ok" once the unit stands at target, "" while it is not there yet.
std::string waitStopState(UnitId id, int target)
{
    auto guard = lockWorld();
    Unit* u = findUnit(id);
    if (u == nullptr) return "error no unit " + std::to_string(id);
    if (!u->plugged) return "error unit " + std::to_string(id) + " is unplugged";
    const bool moving = u->st.runState == 1 || u->st.handMoving;
    return !moving && u->st.position == target ? "ok" : "";
}

class ControlServer {
public:
    ControlServer(int listenFd, std::string path) : m_listenFd(listenFd), m_path(std::move(path))
    {
        int fds[2];
        if (::pipe(fds) == 0) {
            m_wakeRead = fds[0];
            m_wakeWrite = fds[1];
        }
        m_thread = std::thread([this] { run(); });
    }

    ~ControlServer()
    {
        m_stop = true;
        if (m_wakeWrite >= 0) (void)!::write(m_wakeWrite, "x", 1);
        if (m_thread.joinable()) m_thread.join();
        for (Client& c : m_clients) ::close(c.fd);
        ::close(m_listenFd);
        if (m_wakeRead >= 0) ::close(m_wakeRead);
        if (m_wakeWrite >= 0) ::close(m_wakeWrite);
        ::unlink(m_path.c_str());
    }

    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

private:
    void run()
    {
        while (!m_stop) {
            std::vector<pollfd> fds;
            fds.push_back({m_wakeRead, POLLIN, 0});
            fds.push_back({m_listenFd, POLLIN, 0});
            for (const Client& c : m_clients) fds.push_back({c.fd, POLLIN, 0});
            const bool anyWaiting =
                std::any_of(m_clients.begin(), m_clients.end(), [](const Client& c) { return c.waiting; });
            if (::poll(fds.data(), fds.size(), anyWaiting ? kWaitPollMillis : kIdlePollMillis) < 0 &&
                errno != EINTR)
                return;
            if (m_stop) return;
            for (size_t i = 0; i < m_clients.size(); ++i)
                if (fds[i + 2].revents != 0) serve(m_clients[i]);
            checkWaits();
            std::erase_if(m_clients, [](const Client& c) { return c.fd < 0; });
            if (fds[1].revents & POLLIN) accept();
        }
    }

    void accept()
    {
        const int fd = ::accept(m_listenFd, nullptr, nullptr);
        if (fd < 0) return;
        if (m_clients.size() >= kMaxClients) {
            reply(fd, "error too many clients");
            ::close(fd);
            return;
        }
        Client client;
        client.fd = fd;
        m_clients.push_back(std::move(client));
    }

    void serve(Client& c)
    {
        char buffer[512];
        const ssize_t n = ::recv(c.fd, buffer, sizeof buffer, 0);
        if (n <= 0) {
            drop(c);
            return;
        }
        c.input.append(buffer, static_cast<size_t>(n));
        for (size_t end = c.input.find('\n'); end != std::string::npos && c.fd >= 0;
             end = c.input.find('\n')) {
            std::string line = c.input.substr(0, end);
            c.input.erase(0, end + 1);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            if (c.waiting) {
                reply(c.fd, "error busy waiting");
                continue;
            }
            if (!startWait(c, line)) reply(c.fd, runControlCommand(line));
        }
        if (c.input.size() > kMaxLine) {
            reply(c.fd, "error line too long");
            drop(c);
        }
    }

    // wait-stop <unit> <target> <timeout ms>: answered once the motor stands at target.
    bool startWait(Client& c, const std::string& line)
    {
        std::istringstream in(line);
        std::string word;
        in >> word;
        if (word != "wait-stop") return false;
        int unit = 0, target = 0, timeout = 0;
        if (!readInt(in, unit) || !readInt(in, target) || !readInt(in, timeout) || timeout < 0) {
            reply(c.fd, "error usage: wait-stop <unit> <target> <timeout ms>");
            return true;
        }
        c.waiting = true;
        c.unit = unit;
        c.target = target;
        c.deadline = Clock::now() + std::chrono::milliseconds(std::min(timeout, kMaxWaitMillis));
        return true;
    }

    void checkWaits()
    {
        for (Client& c : m_clients) {
            if (!c.waiting || c.fd < 0) continue;
            std::string answer = waitStopState(c.unit, c.target);
            if (answer.empty() && Clock::now() >= c.deadline) answer = "error timed out";
            if (answer.empty()) continue;
            c.waiting = false;
            reply(c.fd, answer);
        }
    }

    void reply(int fd, const std::string& text)
    {
        const std::string line = text + '\n';
        (void)::send(fd, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }

    void drop(Client& c)
    {
        ::close(c.fd);
        c.fd = -1;
    }

    int m_listenFd;
    std::string m_path;
    int m_wakeRead = -1;
    int m_wakeWrite = -1;
    std::atomic<bool> m_stop{false};
    std::vector<Client> m_clients;
    std::thread m_thread;
};

// Destroyed at exit: stops and joins the thread, removes the socket file.
std::unique_ptr<ControlServer>& server()
{
    static std::unique_ptr<ControlServer> instance;
    return instance;
}

}  // namespace

void startControlSocketFromEnv()
{
    const char* pattern = std::getenv("NKR_SIM_CONTROL");
    if (pattern == nullptr || *pattern == '\0' || server()) return;
    const std::string path = controlPath(pattern);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        std::fprintf(stderr, "nkr-sim: control socket path too long: %s\n", path.c_str());
        return;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return;
    ::unlink(path.c_str());
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(fd, 4) != 0) {
        std::fprintf(stderr, "nkr-sim: control socket %s: %s\n", path.c_str(), std::strerror(errno));
        ::close(fd);
        return;
    }
    server() = std::make_unique<ControlServer>(fd, path);
}

std::string runControlCommand(const std::string& line)
{
    std::istringstream in(line);
    std::string command;
    in >> command;
    int unit = 0;
    if (command.empty()) return "error empty command";
    if (!readInt(in, unit)) return "error usage: " + command + " <unit> ...";

    auto guard = lockWorld();
    Unit* u = findUnit(unit);
    if (u == nullptr) return "error no unit " + std::to_string(unit);
    int value = 0;
    if (command == "unplug") {
        nkrsim::unplug(unit);
    } else if (command == "replug") {
        nkrsim::replug(unit);
    } else if (command == "ble-drop") {
        nkrsim::bleDropConnection(unit);
    } else if (command == "hand-move") {
        if (!readInt(in, value)) return "error usage: hand-move <unit> <target>";
        nkrsim::handMove(unit, value);
    } else if (command == "set-temp-raw") {
        if (!readInt(in, value) || value < 0 || value > 0xFFFF)
            return "error usage: set-temp-raw <unit> <0..65535>";
        u->st.tempRaw = value;
    } else if (command == "set-serial") {
        std::string hex;
        in >> hex;
        std::vector<uint8_t> serial;
        if (!parseSerial(hex, serial)) return "error usage: set-serial <unit> <16 hex digits>";
        u->st.serial = serial;
    } else if (command == "transfers") {
        return "ok " + std::to_string(u->sentReports.total());
    } else if (command == "refused") {
        return "ok " + std::to_string(u->refused.standing());
    } else if (command == "state") {
        const bool moving = u->st.runState == 1 || u->st.handMoving;
        return "ok " + std::to_string(u->st.position) + (moving ? " moving" : " stopped") +
               (u->plugged ? " plugged" : " unplugged");
    } else {
        return "error unknown command " + command;
    }
    return "ok";
}

}  // namespace nkrsim::detail
