// A real OpenSSH server on 127.0.0.1 for tests, started through scripts/sshd-host.sh inside
// scripts/sandbox.sh, where its test account and PAM stack stay private. Derive from SshdTest;
// override sshdOptions() for a server of another kind.
#ifndef FERRYGATE_TESTS_SUPPORT_SSHD_FIXTURE_H
#define FERRYGATE_TESTS_SUPPORT_SSHD_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "ssh/known_hosts.h"
#include "support/process.h"

namespace tavik {
namespace test {

// The account is fgtest; the port is random from 20000 to 32767 (ferrygate's command line refuses
// higher ones).
struct SshdOptions {
    // Methods the server offers, comma-separated: password, keyboard-interactive, publickey.
    std::string auth = "password,keyboard-interactive";
    // Also offer the legacy key exchange diffie-hellman-group1-sha1.
    bool compat = false;
    // The one address the server listens on.
    std::string address = "127.0.0.1";
    // The port; 0 for a random one.
    unsigned short port = 0;
};

// One running server and its test account; stopped (with all its sessions) by the destructor.
class SshdServer {
  public:
    // Starts the server with a fresh random password; throws std::runtime_error on failure.
    explicit SshdServer(const SshdOptions& options = SshdOptions());
    SshdServer(const SshdServer&) = delete;
    SshdServer& operator=(const SshdServer&) = delete;
    ~SshdServer();

    const std::string& host() const { return host_; }
    unsigned short port() const { return port_; }
    const std::string& user() const { return user_; }
    const std::string& password() const { return password_; }
    const std::string& home() const { return home_; }

    // Runs `command` with /bin/sh -c as the test account in its home directory.
    ProcessResult runAsUser(const std::string& command) const;
    // Kills every per-connection process and what runs below it, as a crash of the server side
    // of every connection would; the listener keeps running.
    void killSessions() const;
    // For the clients of this server: its key recorded in a file that goes with it.
    HostKeyPolicy hostKeys() const { return HostKeyPolicy(dir_ + "/known_hosts"); }
    // The server's own log, for diagnosing a failing test.
    std::string log() const;
    // Stops the server now (the destructor does it otherwise).
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

// A gtest fixture with one server per test case.
class SshdTest : public ::testing::Test {
  protected:
    virtual SshdOptions sshdOptions() const { return SshdOptions(); }
    void SetUp() override;
    void TearDown() override;

    SshdServer& sshd() { return *server_; }
    const std::string& host() const { return server_->host(); }
    unsigned short port() const { return server_->port(); }
    const std::string& user() const { return server_->user(); }
    const std::string& password() const { return server_->password(); }
    HostKeyPolicy hostKeys() const { return server_->hostKeys(); }

  private:
    std::unique_ptr<SshdServer> server_;
};

// The checkout's scripts directory.
std::string scriptsDir();
// A password of printable characters, shell-special ones and a blank included, without ':'.
std::string randomPassword();

}  // namespace test
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_SSHD_FIXTURE_H
