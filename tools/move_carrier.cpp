#include "move_carrier.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

#include "nkrhost/session.h"

extern char** environ;

namespace nkrtool {
namespace {

std::vector<std::string> commandLine;

}  // namespace

void rememberCommandLine(int argc, char** argv)
{
    commandLine.assign(argv, argv + argc);
}

std::string startMoveCarrier(const std::string& unitKey)
{
    std::vector<std::string> args;
    for (const std::string& a : commandLine)
        if (a != "--no-wait" && a != "--json") args.push_back(a);
    if (args.empty()) return "the tool's command line is not known";
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    // Its own session (a closed terminal does not end it) and no terminal;
    // errors go to a file this process reads if it ends early.
    char errors[] = "/tmp/nkr-carrier-XXXXXX";
    const int errorFd = ::mkstemp(errors);
    if (errorFd < 0) return "cannot make a file for the carrier's errors";
    ::unlink(errors);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&files, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&files, errorFd, 2);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    pid_t child = -1;
    const int spawned = posix_spawn(&child, "/proc/self/exe", &files, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attributes);
    if (spawned != 0) {
        ::close(errorFd);
        return "cannot start the tool again to carry the move";
    }

    // Held by the carrier (its pid in the holder's line), or ended early.
    const std::string mine = "(pid " + std::to_string(child) + ")";
    for (int look = 0; look < 500; ++look) {
        if (nkrhost::unitHolder(unitKey).find(mine) != std::string::npos) {
            ::close(errorFd);
            return {};
        }
        int status = 0;
        if (::waitpid(child, &status, WNOHANG) == child) {
            std::string text(4096, '\0');
            const ssize_t n = ::pread(errorFd, text.data(), text.size(), 0);
            ::close(errorFd);
            text.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
            while (!text.empty() && text.back() == '\n') text.pop_back();
            const std::string prefix = "nkr: error: ";
            if (text.rfind(prefix, 0) == 0) text.erase(0, prefix.size());
            return text.empty() ? "the move ended at once" : text;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ::close(errorFd);
    return "the tool carrying the move did not take hold of the unit within 5 s";
}

}  // namespace nkrtool
