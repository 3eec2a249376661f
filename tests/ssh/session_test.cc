// Connecting and logging in against a real OpenSSH server of several configurations.
#include <gtest/gtest.h>

#include <chrono>
#include <log4cpp/Category.hh>
#include <log4cpp/OstreamAppender.hh>
#include <regex>
#include <sstream>
#include <thread>

#include "ssh/libssh2pp.h"
#include "ssh/ssh_transfer.h"
#include "support/relay_process.h"
#include "support/sshd_fixture.h"

namespace tavik {
namespace {

// What the session logs from the first call on; each test runs in a process of its own.
std::string sessionLog() {
    static std::ostringstream lines;
    static const bool attached = (log4cpp::Category::getInstance("p.libssh2pp.Session")
                                      .addAppender(new log4cpp::OstreamAppender("capture", &lines)),
                                  true);
    return attached ? lines.str() : "";
}

int countMatches(const std::string& text, const std::string& pattern) {
    const std::regex re(pattern);
    return static_cast<int>(
        std::distance(std::sregex_iterator(text.begin(), text.end(), re), std::sregex_iterator()));
}

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

// A server offering only some authentication methods, or also the legacy key exchange, or
// listening on the IPv6 loopback address alone.
test::SshdServer server(std::string test::SshdOptions::*field, const char* value) {
    test::SshdOptions options;
    options.*field = value;
    return test::SshdServer(options);
}

class PasswordServer : public test::SshdTest {};

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
    sessionLog();
    Ssh ssh(host(), user(), password(), true, port(), hostKeys());
    EXPECT_FALSE(ssh.session().compatibility());
    EXPECT_EQ(1, countMatches(sessionLog(), "WARN .*stays encrypted"));
    expectCommandsWork(ssh);
}

TEST(KeyboardInteractiveServer, AnswersThePromptsWithThePassword) {
    sessionLog();
    const auto sshd = server(&test::SshdOptions::auth, "keyboard-interactive");
    Ssh ssh(sshd.host(), sshd.user(), sshd.password(), false, sshd.port(), sshd.hostKeys());
    const std::string log = sessionLog();
    EXPECT_EQ(std::string::npos, log.find("Trying 'password' authentication"));
    EXPECT_NE(std::string::npos, log.find("Filling 1 responses with the password"));
    EXPECT_EQ(std::string::npos, log.find(sshd.password()));
}

TEST(PublicKeyServer, IsRefusedWithoutAnyAttempt) {
    const auto sshd = server(&test::SshdOptions::auth, "publickey");
    EXPECT_THROW(
        Ssh(sshd.host(), sshd.user(), sshd.password(), false, sshd.port(), sshd.hostKeys()),
        Exc<&SshInvalidCredentials>);
    EXPECT_EQ(0, countMatches(sshd.log(), "Failed (password|keyboard-interactive)"));
}

// A front that hangs up on the first connection forces the retry in compatibility mode, whose
// reserve channel must leave the session fit for every later command.
TEST(LegacyKexServer, TheCompatibilityRetryRunsCommandsBesideItsReserveChannel) {
    test::SshdOptions options;
    options.compat = true;
    const test::SshdServer sshd(options);
    test::RelayProcess front(sshd.port(), {"--drop-first", "1"});
    Ssh ssh(sshd.host(), sshd.user(), sshd.password(), false, front.port(), sshd.hostKeys());
    ASSERT_TRUE(ssh.session().compatibility());
    EXPECT_NE(nullptr, ssh.session().reserveChannel());
    EXPECT_STREQ("diffie-hellman-group1-sha1",
                 libssh2_session_methods(ssh.session().get(), LIBSSH2_METHOD_KEX));
    expectCommandsWork(ssh);
}

TEST(Ipv6OnlyServer, IsReachedByItsAddress) {
    const auto sshd = server(&test::SshdOptions::address, "::1");
    Ssh ssh("::1", sshd.user(), sshd.password(), false, sshd.port(), sshd.hostKeys());
    expectCommandsWork(ssh);
}

}  // namespace
}  // namespace tavik
