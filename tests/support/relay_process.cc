#include "support/relay_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace tavik {
namespace test {

namespace {

// The relay prints its port as one line; anything else, or silence, means it did not start.
uint16_t readPortLine(int fd) {
    std::string line;
    char c;
    while (line.size() < 16) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 5000) <= 0) throw std::runtime_error("fg-relay did not report its port");
        ssize_t n = read(fd, &c, 1);
        if (n <= 0) throw std::runtime_error("fg-relay exited before reporting its port");
        if (c == '\n') return static_cast<uint16_t>(std::stoul(line));
        line += c;
    }
    throw std::runtime_error("fg-relay printed something else than a port: " + line);
}

}  // namespace

RelayProcess::RelayProcess(uint16_t targetPort, const std::vector<std::string>& rules) {
    std::vector<std::string> args{FG_RELAY_BINARY, "--listen", "127.0.0.1:20000-32767", "--target",
                                  "127.0.0.1:" + std::to_string(targetPort)};
    args.insert(args.end(), rules.begin(), rules.end());
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    int out[2];
    if (pipe2(out, O_CLOEXEC) < 0)
        throw std::runtime_error("pipe: " + std::string(strerror(errno)));
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    int rc = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    if (rc != 0) {
        close(out[0]);
        pid_ = -1;
        throw std::runtime_error("cannot start fg-relay: " + std::string(strerror(rc)));
    }
    try {
        port_ = readPortLine(out[0]);
    } catch (...) {
        close(out[0]);
        stop();
        throw;
    }
    close(out[0]);
}

RelayProcess::~RelayProcess() { stop(); }

void RelayProcess::stop() {
    if (pid_ < 0) return;
    kill(pid_, SIGTERM);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
}

}  // namespace test
}  // namespace tavik
