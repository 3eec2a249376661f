// Connecting and logging in against a real OpenSSH server of several configurations.
#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <sstream>
#include <thread>

#include "ssh/libssh2pp.h"
#include "ssh/ssh_transfer.h"
#include "support/log_capture.h"
#include "support/relay_process.h"
#include "support/sshd_fixture.h"

namespace tavik {
namespace {

using testing::LogCapture;

int countMatches(const std::string& text, const std::string& pattern) {
    const std::regex re(pattern);
    return static_cast<int>(
        std::distance(std::sregex_iterator(text.begin(), text.end(), re), std::sregex_iterator()));
}

// A server offering only the authentication methods `auth`, or also the legacy key exchange,
// or listening on the IPv6 loopback address alone.
class Server : public test::SshdTest {
  protected:
    test::SshdOptions options_;
    test::SshdOptions sshdOptions() const override { return options_; }

    // A command, an upload and a download on `ssh` work.
    void expectCommandsWork(Ssh& ssh) {
        std::ostringstream out, err;
        EXPECT_EQ(0, ssh.exec("echo scout", out, err, false, Ssh::nullCounter));
        EXPECT_EQ("scout\n", out.str());
        std::istringstream sent(std::string(100000, 'x'));
        ssh.put(sent, "copy");
        std::ostringstream back;
        ssh.get(back, "copy");
        EXPECT_EQ(std::string(100000, 'x'), back.str());
    }
};
class PasswordServer : public Server {};
class KeyboardInteractiveServer : public Server {
  protected:
    KeyboardInteractiveServer() { options_.auth = "keyboard-interactive"; }
};
class PublicKeyServer : public Server {
  protected:
    PublicKeyServer() { options_.auth = "publickey"; }
};
class LegacyKexServer : public Server {
  protected:
    LegacyKexServer() { options_.compat = true; }
};
class Ipv6OnlyServer : public Server {
  protected:
    Ipv6OnlyServer() { options_.address = "::1"; }
};

TEST_F(PasswordServer, WrongPasswordIsInvalidCredentialsAfterBothMethodsWereTriedOnce) {
    // A retry would count twice against the account's lock-out limit.
    EXPECT_THROW(Ssh(host(), user(), password() + "x", false, port(), hostKeys()),
                 Exc<&SshInvalidCredentials>);
    // sshd logs a failed attempt only once the client has gone.
    std::string log;
    for (int i = 0; i < 100 && countMatches(log, "Failed (password|keyboard-interactive)") < 2;
         ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        log = sshd().log();
    }
    EXPECT_EQ(1, countMatches(log, "Failed password for " + user()));
    EXPECT_EQ(1, countMatches(log, "Failed keyboard-interactive/pam for " + user()));
}

// This library has no "none" cipher: a preference it cannot meet must not fail the connection.
TEST_F(PasswordServer, NoEncryptionFallsBackToEncryptionWithOneWarning) {
    LogCapture sessionLog("p.libssh2pp.Session");
    Ssh ssh(host(), user(), password(), true, port(), hostKeys());
    EXPECT_FALSE(ssh.session().compatibility());
    EXPECT_EQ(1, countMatches(sessionLog.text(), "WARN .*stays encrypted"));
    expectCommandsWork(ssh);
}

TEST_F(KeyboardInteractiveServer, AnswersThePromptsWithThePassword) {
    LogCapture sessionLog("p.libssh2pp.Session");
    Ssh ssh(host(), user(), password(), false, port(), hostKeys());
    const std::string log = sessionLog.text();
    EXPECT_EQ(std::string::npos, log.find("Trying 'password' authentication"));
    EXPECT_NE(std::string::npos, log.find("Filling 1 responses with the password"));
    EXPECT_EQ(std::string::npos, log.find(password()));
}

TEST_F(PublicKeyServer, IsRefusedWithoutAnyAttempt) {
    EXPECT_THROW(Ssh(host(), user(), password(), false, port(), hostKeys()),
                 Exc<&SshInvalidCredentials>);
    EXPECT_EQ(0, countMatches(sshd().log(), "Failed (password|keyboard-interactive)"));
}

// A front that hangs up on the first connection forces the retry in compatibility mode, whose
// reserve channel must leave the session fit for every later command.
TEST_F(LegacyKexServer, TheCompatibilityRetryRunsCommandsBesideItsReserveChannel) {
    test::RelayProcess front(port(), {"--drop-first", "1"});
    Ssh ssh(host(), user(), password(), false, front.port(), hostKeys());
    ASSERT_TRUE(ssh.session().compatibility());
    EXPECT_NE(nullptr, ssh.session().reserveChannel());
    EXPECT_STREQ("diffie-hellman-group1-sha1",
                 libssh2_session_methods(ssh.session().get(), LIBSSH2_METHOD_KEX));
    expectCommandsWork(ssh);
}

TEST_F(Ipv6OnlyServer, IsReachedByItsAddress) {
    Ssh ssh("::1", user(), password(), false, port(), hostKeys());
    expectCommandsWork(ssh);
}

}  // namespace
}  // namespace tavik
