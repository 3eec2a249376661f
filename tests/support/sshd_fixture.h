// A real OpenSSH server on 127.0.0.1 for tests, started through scripts/sshd-host.sh inside
// scripts/sandbox.sh, where its test account and PAM stack stay private.
#ifndef FERRYGATE_TESTS_SUPPORT_SSHD_FIXTURE_H
#define FERRYGATE_TESTS_SUPPORT_SSHD_FIXTURE_H

#include <sys/types.h>

#include <string>

#include "ssh/known_hosts.h"
#include "support/process.h"

namespace tavik {
namespace test {

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
    explicit SshdServer(const SshdOptions& options = SshdOptions());
    SshdServer(const SshdServer&) = delete;
    SshdServer& operator=(const SshdServer&) = delete;
    ~SshdServer();

    const std::string& host() const { return host_; }
    unsigned short port() const { return port_; }
    const std::string& user() const { return user_; }
    const std::string& password() const { return password_; }
    const std::string& home() const { return home_; }
    // For the clients of this server: its key recorded in a file that goes with it.
    HostKeyPolicy hostKeys() const { return HostKeyPolicy(dir_ + "/known_hosts"); }
    std::string log() const;

    // Kills every per-connection process and what runs below it, as a crash of the server side
    // of every connection would; the listener keeps running.
    void killSessions() const;
    void stop();

  private:
    std::string host_;
    unsigned short port_ = 0;
    std::string user_ = "fgtest";
    std::string password_;
    std::string home_;
    std::string dir_;
    pid_t pid_ = -1;
};

// The checkout's scripts directory.
std::string scriptsDir();
// A password of printable characters, shell-special ones and a blank included, without ':'.
std::string randomPassword();

}  // namespace test
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_SSHD_FIXTURE_H
