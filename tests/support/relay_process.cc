#include "support/relay_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

extern char** environ;

namespace tavik {
namespace test {

RelayProcess::RelayProcess(uint16_t targetPort, const std::vector<std::string>& rules) {
    std::vector<std::string> args{FG_RELAY_BINARY, "--listen", "127.0.0.1:20000-32767", "--target",
                                  "127.0.0.1:" + std::to_string(targetPort)};
    args.insert(args.end(), rules.begin(), rules.end());
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("no pipe for fg-relay");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    // The relay prints its port once it listens; on a bad rule it says why on
    // standard error and exits.
    const std::unique_ptr<FILE, int (*)(FILE*)> reader(fdopen(out[0], "r"), fclose);
    if (pid_ < 0 || std::fscanf(reader.get(), "%hu", &port_) != 1) {
        if (pid_ >= 0) waitpid(pid_, nullptr, 0);
        throw std::runtime_error("fg-relay did not start");
    }
}

RelayProcess::~RelayProcess() {
    if (pid_ < 0) return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

}  // namespace test
}  // namespace tavik
