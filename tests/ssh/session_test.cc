// Connecting and logging in against a real OpenSSH server of several configurations.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <regex>
#include <thread>

#include "commons/socket.h"
#include "ssh/libssh2pp.h"
#include "ssh/ssh_transfer.h"
#include "support/log_capture.h"
#include "support/raised.h"
#include "support/sshd_fixture.h"

namespace tavik {
namespace {

using testing::LogCapture;

int countMatches(const std::string& text, const std::string& pattern) {
    const std::regex re(pattern);
    return static_cast<int>(
        std::distance(std::sregex_iterator(text.begin(), text.end(), re), std::sregex_iterator()));
}

// A server offering only the authentication methods `auth`, or also the legacy key exchange.
class Server : public test::SshdTest {
  protected:
    test::SshdOptions options_;
    test::SshdOptions sshdOptions() const override { return options_; }
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

TEST_F(PasswordServer, WrongPasswordIsInvalidCredentialsAfterBothMethodsWereTriedOnce) {
    // A retry would count twice against the account's lock-out limit.
    EXPECT_THROW(Ssh(host(), user(), password() + "x", false, port()), Exc<&SshInvalidCredentials>);
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

// The none cipher cannot be offered by this library: a session asked to run unencrypted must
// not silently run encrypted.
TEST_F(PasswordServer, NoEncryptionIsRefusedAndRetriedOnceInCompatibilityMode) {
    LogCapture socketLog("p.libssh2pp.Socket");
    EXPECT_EQ("Unable to start SSH session: The requested method(s) are not currently supported",
              testing::messageOf<&UnableToStartSshSession>(
                  [&] { Ssh ssh(host(), user(), password(), true, port()); }));
    EXPECT_EQ(2, countMatches(socketLog.text(), "Connected\n"));
    EXPECT_EQ(2, countMatches(socketLog.text(), "Connection closed\n"));
}

TEST_F(KeyboardInteractiveServer, AnswersThePromptsWithThePassword) {
    LogCapture sessionLog("p.libssh2pp.Session");
    Ssh ssh(host(), user(), password(), false, port());
    const std::string log = sessionLog.text();
    EXPECT_EQ(std::string::npos, log.find("Trying 'password' authentication"));
    EXPECT_NE(std::string::npos, log.find("Filling 1 responses with the password"));
    EXPECT_EQ(std::string::npos, log.find(password()));
}

TEST_F(PublicKeyServer, IsRefusedWithoutAnyAttempt) {
    EXPECT_THROW(Ssh(host(), user(), password(), false, port()), Exc<&SshInvalidCredentials>);
    EXPECT_EQ(0, countMatches(sshd().log(), "Failed (password|keyboard-interactive)"));
}

TEST_F(LegacyKexServer, CompatibilitySessionKeepsItsReserveChannelOpen) {
    Socket socket(::socket(AF_INET, SOCK_STREAM, 0));
    socket.connect(host(), static_cast<short>(port()));
    libssh2pp::Session session(socket.descriptor(), false, true);
    session.authorize(user(), password());
    ASSERT_NE(nullptr, session.reserveChannel());
    EXPECT_STREQ("diffie-hellman-group1-sha1",
                 libssh2_session_methods(session.get(), LIBSSH2_METHOD_KEX));
    // The reserve channel runs an idle cat as the user for as long as the session lives.
    test::ProcessResult ps;
    for (int i = 0; i < 50 && ps.out.find("cat") == std::string::npos; ++i) {
        if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ps = test::runProcess({"/usr/bin/ps", "-o", "comm=", "-u", user()});
    }
    EXPECT_NE(std::string::npos, ps.out.find("cat")) << ps.out;
}

}  // namespace
}  // namespace tavik
