// Logging in against a real OpenSSH server of several configurations.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <log4cpp/Category.hh>
#include <log4cpp/OstreamAppender.hh>
#include <random>
#include <regex>
#include <sstream>
#include <thread>

#include "ssh/libssh2pp.h"
#include "ssh/ssh_transfer.h"
#include "support/sandbox_env.h"
#include "support/sshd_fixture.h"

namespace tavik {
namespace {

using test::SshdServer;

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

// A command works, and uploads and downloads of local files are byte-identical around the 64 KiB
// read size and past the 2 MiB channel window (a gigabyte is bench/'s); a download is mode 0640
// whatever the umask, and a missing remote file downloads as empty (callers check sizes and sums).
void expectCommandsWork(Ssh& ssh, const SshdServer& sshd) {
    std::ostringstream out, err;
    EXPECT_EQ(0, ssh.exec("echo scout", out, err, false, Ssh::nullCounter));
    EXPECT_EQ("scout\n", out.str());
    const testing::ScratchDir local;
    const std::string sent = local.path() + "/sent", back = local.path() + "/back";
    std::mt19937 random(7);
    const mode_t previous = umask(0);
    for (size_t size : {0, 1, 65535, 65536, 65537, 5 * 1024 * 1024 + 5}) {
        std::string bytes(size, '\0');
        for (char& c : bytes) c = static_cast<char>(random());
        testing::writeTextFile(sent, bytes);
        ssh.put(sent, "copy");
        EXPECT_EQ(testing::md5OfFile(sent), testing::md5OfFile(sshd.home() + "/copy")) << size;
        boost::filesystem::remove(back);
        ssh.get(back, "copy");
        EXPECT_EQ(testing::md5OfFile(sent), testing::md5OfFile(back)) << size;
        struct stat st = {};
        stat(back.c_str(), &st);
        EXPECT_EQ(0640u, st.st_mode & 07777);
    }
    EXPECT_EQ(0u, umask(previous)) << "the download must restore the process umask";
    ssh.get(back, "no-such-file");
    EXPECT_EQ(0u, boost::filesystem::file_size(back));
}

// A retry would count twice against the account's lock-out limit; a server that offers neither
// method gets no attempt at all.
TEST(Login, AWrongPasswordIsTriedOnceWithEachMethodAndNeverWithoutOne) {
    const SshdServer sshd;
    EXPECT_THROW(
        Ssh(sshd.host(), sshd.user(), sshd.password() + "x", false, sshd.port(), sshd.hostKeys()),
        Exc<&SshInvalidCredentials>);
    // sshd logs a failed attempt only once the client has gone.
    std::string log;
    for (int i = 0; i < 100 && countMatches(log, "Failed (password|keyboard-interactive)") < 2;
         ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        log = sshd.log();
    }
    EXPECT_EQ(1, countMatches(log, "Failed password for " + sshd.user()));
    EXPECT_EQ(1, countMatches(log, "Failed keyboard-interactive/pam for " + sshd.user()));

    const SshdServer keysOnly({"publickey"});
    EXPECT_THROW(Ssh(keysOnly.host(), keysOnly.user(), keysOnly.password(), false, keysOnly.port(),
                     keysOnly.hostKeys()),
                 Exc<&SshInvalidCredentials>);
    EXPECT_EQ(0, countMatches(keysOnly.log(), "Failed (password|keyboard-interactive)"));
}

// Keyboard-interactive alone, on the IPv6 loopback address alone, asked for no encryption,
// which this library does not have: a preference it cannot meet must not fail the connection.
TEST(Login, KeyboardInteractiveOverIpv6WithoutEncryptionWarnsOnceAndWorks) {
    sessionLog();
    const SshdServer sshd({"keyboard-interactive", "::1"});
    Ssh ssh("::1", sshd.user(), sshd.password(), true, sshd.port(), sshd.hostKeys());
    EXPECT_FALSE(ssh.session().compatibility());
    const std::string log = sessionLog();
    EXPECT_EQ(1, countMatches(log, "WARN .*stays encrypted"));
    EXPECT_EQ(std::string::npos, log.find("Trying 'password' authentication"));
    EXPECT_NE(std::string::npos, log.find("Filling 1 responses with the password"));
    EXPECT_EQ(std::string::npos, log.find(sshd.password()));
    expectCommandsWork(ssh, sshd);
}

// A front that hangs up on the first connection forces the retry in compatibility mode, whose
// reserve channel must leave the session fit for every later command.
TEST(Login, TheCompatibilityRetryRunsCommandsBesideItsReserveChannel) {
    const SshdServer sshd({"password,keyboard-interactive", "127.0.0.1", 0, true});
    test::RelayProcess front(sshd.port(), "--drop-first 1");
    Ssh ssh(sshd.host(), sshd.user(), sshd.password(), false, front.port(), sshd.hostKeys());
    ASSERT_TRUE(ssh.session().compatibility());
    EXPECT_NE(nullptr, ssh.session().reserveChannel());
    EXPECT_STREQ("diffie-hellman-group1-sha1",
                 libssh2_session_methods(ssh.session().get(), LIBSSH2_METHOD_KEX));
    expectCommandsWork(ssh, sshd);
}

}  // namespace
}  // namespace tavik
