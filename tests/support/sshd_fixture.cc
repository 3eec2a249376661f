#include "support/sshd_fixture.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <boost/filesystem/path.hpp>
#include <iostream>
#include <random>
#include <sstream>
#include <stdexcept>

#include "support/sandbox_env.h"

namespace tavik {
namespace test {

std::string scriptsDir() {
    // The build passes absolute source paths: this file is <checkout>/tests/support/.
    return boost::filesystem::path(__FILE__).parent_path().parent_path().parent_path().string() +
           "/scripts";
}

std::string randomPassword() {
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

SshdServer::SshdServer(const SshdOptions& options)
    : host_(options.address), password_(randomPassword()) {
    if (!testing::inSandbox()) {
        throw std::runtime_error(
            "the sshd fixture needs scripts/sandbox.sh (run the tests with ctest)");
    }
    const std::string port = std::to_string(options.port);
    const std::string ports = options.port != 0 ? port + "-" + port : "20000-32767";
    std::vector<std::string> argv = {"/bin/bash",    scriptsDir() + "/sshd-host.sh",
                                     "start",        "--user",
                                     user_,          "--auth",
                                     options.auth,   "--ports",
                                     ports,          "--address",
                                     options.address};
    if (options.compat) argv.push_back("--compat");
    const ProcessResult started = runProcess(argv, "", {"FERRYGATE_SSHD_PASSWORD=" + password_});
    if (started.status != 0) {
        throw std::runtime_error("sshd-host.sh start failed: " + started.err);
    }
    std::istringstream lines(started.out);
    std::string line;
    while (std::getline(lines, line)) {
        const auto eq = line.find('=');
        if (eq == std::string::npos) continue;
        const std::string key = line.substr(0, eq), value = line.substr(eq + 1);
        if (key == "port") port_ = static_cast<unsigned short>(std::stoul(value));
        if (key == "pid") pid_ = static_cast<pid_t>(std::stol(value));
        if (key == "home") home_ = value;
        if (key == "dir") dir_ = value;
    }
    if (port_ == 0 || pid_ <= 0) {
        throw std::runtime_error("sshd-host.sh start printed no port or pid: " + started.out);
    }
}

SshdServer::~SshdServer() {
    if (::testing::Test::HasFailure() && pid_ > 0) std::cerr << "sshd log:\n" << log();
    stop();
}

void SshdServer::stop() {
    if (pid_ <= 0) return;
    runProcess({"/bin/bash", scriptsDir() + "/sshd-host.sh", "stop", std::to_string(pid_)});
    pid_ = -1;
}

namespace {

std::vector<pid_t> childrenOf(pid_t parent) {
    const ProcessResult ps =
        runProcess({"/usr/bin/ps", "-o", "pid=", "--ppid", std::to_string(parent)});
    std::vector<pid_t> pids;
    std::istringstream in(ps.out);
    pid_t pid;
    while (in >> pid) pids.push_back(pid);
    return pids;
}

// Parents first, and nothing dies before all are stopped: a server process that saw its command
// killed would otherwise report the command's end to the client before its own kill arrived.
void stopTree(pid_t root, std::vector<pid_t>& stopped) {
    kill(root, SIGSTOP);
    stopped.push_back(root);
    for (pid_t child : childrenOf(root)) stopTree(child, stopped);
}

}  // namespace

void SshdServer::killSessions() const {
    std::vector<pid_t> stopped;
    for (pid_t session : childrenOf(pid_)) stopTree(session, stopped);
    for (pid_t pid : stopped) kill(pid, SIGKILL);
}

std::string SshdServer::log() const { return testing::readFile(dir_ + "/sshd.log"); }

}  // namespace test
}  // namespace tavik
