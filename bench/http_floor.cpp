// The floor under nkr-alpaca's cost on this machine: a process that does only
// what no HTTP server can avoid for a keep-alive GET (wait in epoll, read the
// request, write one answer of the size the server sends) and nothing else.
// It is not a server (it reads no request, it only counts their ends); run
// through the same clients as nkr-alpaca (scripts/bench-alpaca), it tells how
// much of the server's time per request is the kernel's loopback and the
// wake-ups of this machine rather than the server's own work.
// Usage: nkr_bench_http_floor PORT (listens on 127.0.0.1 until killed).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <unordered_map>

namespace {

// The size and shape of nkr-alpaca's answer to a position read.
const std::string kBody =
    R"({"ClientTransactionID":0,"ServerTransactionID":100000,"ErrorNumber":0,"ErrorMessage":"","Value":30000})";
const std::string kAnswer = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                            std::to_string(kBody.size()) + "\r\n\r\n" + kBody;

// Counts the request ends ("\r\n\r\n") in what arrived, carrying the last
// three bytes over to the next read.
int requestEnds(std::string& tail, std::string_view arrived)
{
    tail.append(arrived);
    int ends = 0;
    for (std::size_t at = 0; (at = tail.find("\r\n\r\n", at)) != std::string::npos; at += 4) ++ends;
    tail.erase(0, tail.size() > 3 ? tail.size() - 3 : 0);
    return ends;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s PORT\n", argv[0]);
        return 2;
    }
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int yes = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(std::atoi(argv[1])));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(listener, 512) != 0) {
        std::perror("nkr_bench_http_floor");
        return 1;
    }
    const int poller = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = listener;
    epoll_ctl(poller, EPOLL_CTL_ADD, listener, &event);
    std::unordered_map<int, std::string> tails;
    epoll_event ready[64];
    char buffer[16384];
    for (;;) {
        const int count = epoll_wait(poller, ready, 64, -1);
        for (int i = 0; i < count; ++i) {
            const int fd = ready[i].data.fd;
            if (fd == listener) {
                for (int client; (client = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0;) {
                    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
                    epoll_event added{};
                    added.events = EPOLLIN;
                    added.data.fd = client;
                    epoll_ctl(poller, EPOLL_CTL_ADD, client, &added);
                }
                continue;
            }
            const ssize_t n = read(fd, buffer, sizeof buffer);
            if (n <= 0) {
                tails.erase(fd);
                close(fd);
                continue;
            }
            for (int ends = requestEnds(tails[fd], {buffer, static_cast<std::size_t>(n)}); ends > 0; --ends)
                if (write(fd, kAnswer.data(), kAnswer.size()) < 0) break;
        }
    }
}
