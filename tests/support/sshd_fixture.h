// A real OpenSSH server on 127.0.0.1 for tests, started through scripts/sshd-host.sh inside
// scripts/sandbox.sh, where its test account and PAM stack stay private; and fg-relay in front of
// it.
#ifndef FERRYGATE_TESTS_SUPPORT_SSHD_FIXTURE_H
#define FERRYGATE_TESTS_SUPPORT_SSHD_FIXTURE_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>

#include <cstdio>
#include <iostream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>

#include "ssh/known_hosts.h"
#include "ssh/shell_quote.h"
#include "support/process.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace test {

// A password of printable characters, shell-special ones and a blank included, without ':'.
inline std::string randomPassword() {
    static const std::string alphabet =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789 "
        "!\"#$%&'()*+,-./;<=>?@[\\]^_`{|}~";
    std::random_device seed;
    std::mt19937 random(seed());
    std::uniform_int_distribution<size_t> pick(0, alphabet.size() - 1);
    std::string password;
    for (int i = 0; i < 20; ++i) password += alphabet[pick(random)];
    return password;
}

struct SshdOptions {
    std::string auth = "password,keyboard-interactive";  // offered, comma-separated; or publickey
    std::string address = "127.0.0.1";                   // the one address listened on
    unsigned short port = 0;  // 0: a random one from 20000 to 32767 (ferrygate refuses higher)
    bool compat = false;      // also offer the legacy key exchange diffie-hellman-group1-sha1
};

// One running server and its account fgtest with a fresh random password. Throws
// std::runtime_error when it does not start; the destructor stops it with all its sessions and,
// when the running test has failed, shows the server's log.
class SshdServer {
  public:
    explicit SshdServer(const SshdOptions& options = SshdOptions())
        : host_(options.address), password_(randomPassword()) {
        if (!testing::inSandbox()) throw std::runtime_error("sshd needs scripts/sandbox.sh");
        const std::string port = std::to_string(options.port);
        const std::string ports = options.port != 0 ? port + "-" + port : "20000-32767";
        std::vector<std::string> argv = {"/bin/bash", kScript,   "start",      "--user",
                                         user_,       "--auth",  options.auth, "--address",
                                         host_,       "--ports", ports};
        if (options.compat) argv.push_back("--compat");
        const ProcessResult started =
            runProcess(argv, "", {"FERRYGATE_SSHD_PASSWORD=" + password_});
        std::istringstream lines(started.out);
        for (std::string line; std::getline(lines, line);) {
            const size_t eq = line.find('=');
            const std::string key = line.substr(0, eq), value = line.substr(eq + 1);
            if (key == "port") port_ = static_cast<unsigned short>(std::stoul(value));
            if (key == "pid") pid_ = static_cast<pid_t>(std::stol(value));
            if (key == "home") home_ = value;
            if (key == "dir") dir_ = value;
        }
        if (started.status != 0 || port_ == 0 || pid_ <= 0) {
            throw std::runtime_error("sshd-host.sh start failed: " + started.out + started.err);
        }
    }
    SshdServer(const SshdServer&) = delete;
    SshdServer& operator=(const SshdServer&) = delete;
    ~SshdServer() {
        if (::testing::Test::HasFailure() && pid_ > 0) std::cerr << "sshd log:\n" << log();
        stop();
    }

    const std::string& host() const { return host_; }
    unsigned short port() const { return port_; }
    const std::string& user() const { return user_; }
    const std::string& password() const { return password_; }
    const std::string& home() const { return home_; }
    // For the clients of this server: its key recorded in a file that goes with it.
    HostKeyPolicy hostKeys() const { return HostKeyPolicy(dir_ + "/known_hosts"); }
    std::string log() const { return testing::readFile(dir_ + "/sshd.log"); }

    // Kills every per-connection process and what runs below it, as a crash of the server side
    // of every connection would; the listener keeps running. Parents first, and nothing dies
    // before all are stopped: a server process that saw its command killed would otherwise
    // report the command's end to the client before its own kill arrived.
    void killSessions() const {
        const char* script =
            "below() { for p in $(ps -o pid= --ppid $1); do kill -STOP $p; "
            "echo $p; below $p; done; }; kill -KILL $(below $0) 2>/dev/null";
        runProcess({"/bin/bash", "-c", script, std::to_string(pid_)});
    }
    void stop() {
        if (pid_ > 0) runProcess({"/bin/bash", kScript, "stop", std::to_string(pid_)});
        pid_ = -1;
    }

  private:
    static constexpr const char* kScript = FERRYGATE_SOURCE_DIR "/scripts/sshd-host.sh";
    std::string host_;
    unsigned short port_ = 0;
    std::string user_ = "fgtest";
    std::string password_;
    std::string home_;
    std::string dir_;
    pid_t pid_ = -1;
};

// fg-relay in front of a local port, for tests that need distance or faults between ferrygate
// and sshd: RelayProcess relay(sshd.port(), "--delay-down-ms 25"), then connect to
// relay.port(), a free loopback port from 20000 to 32767 (ferrygate refuses higher ones). The
// constructor throws std::runtime_error when the relay does not start; the destructor ends it.
class RelayProcess {
  public:
    // `rules` are words of a shell command line. The shell's process id is the relay's after
    // exec; the relay prints its port once it listens, or says why it cannot and exits.
    RelayProcess(uint16_t targetPort, const std::string& rules)
        : out_(popen(("echo $$; exec " + sh_quote(FG_RELAY_BINARY) +
                      " --listen 127.0.0.1:20000-32767 --target 127.0.0.1:" +
                      std::to_string(targetPort) + " " + rules)
                         .c_str(),
                     "re")) {
        if (out_ == nullptr || std::fscanf(out_, "%d %hu", &pid_, &port_) != 2) {
            if (out_ != nullptr) pclose(out_);
            throw std::runtime_error("fg-relay did not start");
        }
    }
    ~RelayProcess() {
        kill(pid_, SIGTERM);
        pclose(out_);
    }
    RelayProcess(const RelayProcess&) = delete;
    RelayProcess& operator=(const RelayProcess&) = delete;

    uint16_t port() const { return port_; }

  private:
    FILE* out_;
    pid_t pid_ = -1;
    uint16_t port_ = 0;
};

}  // namespace test
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_SSHD_FIXTURE_H
