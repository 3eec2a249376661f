// Connecting and logging in against a real OpenSSH server of several configurations.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <memory>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "commons/socket.h"
#include "ssh/libssh2pp.h"
#include "ssh/ssh_transfer.h"
#include "support/log_capture.h"
#include "support/raised.h"
#include "support/sshd_fixture.h"

namespace tavik {
namespace {

using test::SshdOptions;
using test::SshdTest;
using testing::LogCapture;

int countMatches(const std::string& text, const std::string& pattern) {
    const std::regex re(pattern);
    return static_cast<int>(
        std::distance(std::sregex_iterator(text.begin(), text.end(), re), std::sregex_iterator()));
}

// sshd writes a failed attempt to its log only when the client has gone, so a check right after
// the client gave up can run ahead of the line it looks for.
std::string logOnceItHas(const test::SshdServer& server, const std::vector<std::string>& patterns) {
    std::string log;
    for (int attempt = 0; attempt < 100; ++attempt) {
        log = server.log();
        bool all = true;
        for (const std::string& pattern : patterns) all = all && countMatches(log, pattern) > 0;
        if (all) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return log;
}

class PasswordServer : public SshdTest {};

TEST_F(PasswordServer, LogsInEncryptedWithoutReserveChannelAndNeverLogsThePassword) {
    LogCapture sessionLog("p.libssh2pp.Session");
    Ssh ssh(host(), user(), password(), false, port());
    EXPECT_EQ(0u, ssh.session().encryption().find("aes")) << ssh.session().encryption();
    EXPECT_EQ(nullptr, ssh.session().reserveChannel());
    std::ostringstream out, err;
    EXPECT_EQ(0, ssh.exec("id -un", out, err, false, Ssh::nullCounter));
    EXPECT_EQ(user() + "\n", out.str());
    const std::string log = sessionLog.text();
    EXPECT_NE(std::string::npos, log.find("Authenticated succesfully"));
    EXPECT_EQ(std::string::npos, log.find(password()));
}

TEST_F(PasswordServer, WrongPasswordIsInvalidCredentialsAfterBothMethodsWereTried) {
    const auto e = testing::caught<&SshInvalidCredentials>(
        [&] { Ssh ssh(host(), user(), password() + "x", false, port()); });
    EXPECT_EQ(
        "Unable to connect to host 127.0.0.1: you have specified incorrect username or password",
        e.message());
    EXPECT_EQ(
        "tavik::Ssh::Ssh(const std::string&, const std::string&, const std::string&, bool, short "
        "unsigned int)",
        e.context());
    const std::string log =
        logOnceItHas(sshd(), {"Failed password for ", "Failed keyboard-interactive/pam for "});
    EXPECT_EQ(1, countMatches(log, "Failed password for " + user()));
    EXPECT_EQ(1, countMatches(log, "Failed keyboard-interactive/pam for " + user()));
}

TEST_F(PasswordServer, NoEncryptionIsRefusedAndRetriedOnceInCompatibilityMode) {
    LogCapture socketLog("p.libssh2pp.Socket");
    // The none cipher cannot be offered by this library.
    const auto e = testing::caught<&UnableToStartSshSession>(
        [&] { Ssh ssh(host(), user(), password(), true, port()); });
    EXPECT_EQ("Unable to start SSH session: The requested method(s) are not currently supported",
              e.message());
    EXPECT_EQ("tavik::libssh2pp::Session::Session(int, bool, bool)", e.context());
    EXPECT_EQ(2, countMatches(socketLog.text(), "Connected\n"));
    EXPECT_EQ(2, countMatches(socketLog.text(), "Connection closed\n"));
}

class KeyboardInteractiveServer : public SshdTest {
    SshdOptions sshdOptions() const override {
        SshdOptions options;
        options.auth = "keyboard-interactive";
        return options;
    }
};

TEST_F(KeyboardInteractiveServer, AnswersThePromptsWithThePassword) {
    LogCapture sessionLog("p.libssh2pp.Session");
    Ssh ssh(host(), user(), password(), false, port());
    const std::string log = sessionLog.text();
    EXPECT_EQ(std::string::npos, log.find("Trying 'password' authentication"));
    EXPECT_NE(std::string::npos, log.find("Filling 1 responses with the password"));
    EXPECT_NE(std::string::npos, log.find("Authenticated successfully"));
    EXPECT_EQ(std::string::npos, log.find(password()));
}

class PublicKeyServer : public SshdTest {
    SshdOptions sshdOptions() const override {
        SshdOptions options;
        options.auth = "publickey";
        return options;
    }
};

TEST_F(PublicKeyServer, IsRefusedWithoutAnyAttempt) {
    EXPECT_THROW(Ssh(host(), user(), password(), false, port()), Exc<&SshInvalidCredentials>);
    EXPECT_EQ(0, countMatches(sshd().log(), "Failed (password|keyboard-interactive)"));
}

class LegacyKexServer : public SshdTest {
    SshdOptions sshdOptions() const override {
        SshdOptions options;
        options.compat = true;
        return options;
    }
};

TEST_F(LegacyKexServer, CompatibilitySessionKeepsItsReserveChannelOpen) {
    Socket socket(::socket(AF_INET, SOCK_STREAM, 0));
    socket.connect(host(), static_cast<short>(port()));
    {
        libssh2pp::Session session(socket.descriptor(), false, true);
        session.authorize(user(), password());
        ASSERT_NE(nullptr, session.reserveChannel());
        // The reserve channel runs an idle cat as the user for as long as the session lives.
        test::ProcessResult ps;
        for (int i = 0; i < 50; ++i) {
            ps = test::runProcess({"/usr/bin/ps", "-o", "comm=", "-u", user()});
            if (ps.out.find("cat") != std::string::npos) break;
            usleep(100000);
        }
        EXPECT_NE(std::string::npos, ps.out.find("cat")) << ps.out;
        EXPECT_STREQ("diffie-hellman-group1-sha1",
                     libssh2_session_methods(session.get(), LIBSSH2_METHOD_KEX));
    }
}

}  // namespace
}  // namespace tavik
