// The fault matrix: the real ferrygate against a loopback sshd that crashes or never answers, a
// line that goes silent or is cut, and a disk that fills. Each row
// checks the exit code and message, that nothing already on disk is lost, and that a rerun
// finishes.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <fstream>
#include <functional>
#include <thread>

#include "support/migration_host.h"

namespace tavik {
namespace test {
namespace {

namespace fs = boost::filesystem;
using Clock = std::chrono::steady_clock;

const char* const kLost = "Lost connection with the remote host";

using Faults = MigrationTest;

// The server side of our connection dies, or the line goes silent or is cut with a reset, while
// a content file downloads (each row resuming the copy the one before left); the server side
// dies while the agent dumps, before the session starts (a relay that hangs up, or never says a
// word: the connect time-out, 30 seconds by default, ends that), while the password is checked
// (the default, slow hash leaves time for that) and before the first channel opens (a relay
// keeps every request 300 ms on its way).
TEST_F(Faults, TheServerDisappearsOrTheLineFails) {
    addRandomFile("shop.test/big.bin", 8 << 20);
    configureAgent("delay = 2\n");
    deployAndDump();
    const auto files = dumpArchives();
    ASSERT_EQ(4u, files.size());
    std::ofstream("/etc/hmx/hmx.conf", std::ios::app) << "SSH_SILENCE_TIMEOUT 3\n";
    runProcess({"/usr/sbin/chpasswd"}, user() + ":" + password() + "\n");
    const std::string big = sessionFile("shop.test_site.tar.gz"),
                      log = sessionFile("migration.log");
    const std::string remoteStatus = remoteAgent_ + "/dumping-status.xml";
    fs::remove(remoteStatus);
    auto logShows = [&](const char* line) -> std::function<bool()> {
        return [=] { return contains(readFile(log), line); };
    };
    auto bigStarted = [&] { return fs::exists(big) && fs::file_size(big) > 0; };
    auto dumping = [&] { return fs::exists(remoteStatus); };
    const struct {
        std::string action, relay;       // the relay's rules
        std::function<bool()> killWhen;  // empty: no kill
        int code;                        // 18 is a lost connection, 2 a missing banner
        int minSeconds, maxSeconds;      // that the run lasts; 0: any
        bool rerun;
    } rows[] = {
        {"--get-content", "--rate-down 4000000", bigStarted, 18, 0, 0, false},
        {"--get-content", "--stall-down-at 1500000 --stall-ms 60000", {}, 18, 0, 15, false},
        {"--get-content", "--cut-down-at 1500000 --cut-with-reset", {}, 18, 0, 15, true},
        {"--dump-all", "", dumping, 18, 0, 0, true},
        {"--send-scout", "--cut-down-at 0", {}, 2, 0, 0, false},
        {"--send-scout", "--stall-down-at 0 --stall-ms 600000", {}, 18, 30, 35, false},
        {"--send-scout", "", logShows("Trying 'password'"), 18, 0, 0, false},
        {"--send-scout", "--delay-up-ms 300", logShows("Opening SSH channel"), 18, 0, 0, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE("row " + std::to_string(&row - rows));
        fs::remove(log);
        RelayProcess relay(port(), row.relay);
        const auto start = Clock::now();
        ProcessResult r;
        std::thread run([&] {
            r = ferrygate({row.action, "--port=" + std::to_string(relay.port())});
        });
        if (row.killWhen && waitUntil(row.killWhen, 30)) sshd_.killSessions();
        run.join();
        EXPECT_EQ(row.code, r.status);
        EXPECT_EQ(row.code == 18 ? kLost : "Unable to start SSH session: Failed getting banner",
                  r.err);
        EXPECT_TRUE(row.code != 18 ||
                    contains(readFile(sessionFile("migration.result")), "SshConnectionFault"));
        const auto took = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start);
        EXPECT_TRUE(took.count() >= row.minSeconds &&
                    (!row.maxSeconds || took.count() < row.maxSeconds))
            << took.count() << " s";
        for (const auto& file : files) {
            if (row.action != "--get-content" || sessionFile(file.name) == big) continue;
            EXPECT_EQ(file.md5, md5OfFile(sessionFile(file.name))) << "lost by the failed run";
        }
        if (row.rerun) {
            EXPECT_EQ(0, ferrygate({row.action}).status) << "rerun";
        }
    }
    for (const auto& file : files) EXPECT_EQ(file.md5, md5OfFile(sessionFile(file.name)));
}

// Slow lines are no faults: twenty dumps at 100 ms round trip, and every action at 700 ms,
// through sudo, all end normally. (That a server silent for less than the handshake limit of 30
// seconds is waited for is the silent-banner row's.)
TEST_F(Faults, EveryActionEndsNormallyOnSlowAndStallingLines) {
    ASSERT_EQ(0, ferrygate({"--deploy-agent"}).status);
    const std::vector<std::string> all = {"--send-scout", "--dump-all", "--get-content",
                                          "--remove-agent"};
    const struct {
        std::string rules;
        std::vector<std::string> actions;
        int times;
        int seconds;  // that each run takes at least: the rules held
    } lines[] = {
        {"--delay-up-ms 50 --delay-down-ms 50", {"--dump-all"}, 20, 1},
        {"--delay-up-ms 350 --delay-down-ms 350", all, 1, 5},
    };
    for (const auto& line : lines) {
        RelayProcess relay(port(), line.rules);
        for (int run = 0; run < line.times; ++run) {
            for (const std::string& action : line.actions) {
                SCOPED_TRACE(line.rules + ": " + action + ", run " + std::to_string(run));
                const auto start = Clock::now();
                const ProcessResult r =
                    ferrygate({action, "--port=" + std::to_string(relay.port())}, true);
                ASSERT_EQ(0, r.status) << r.err;
                EXPECT_GE(Clock::now() - start, std::chrono::seconds(line.seconds));
                if (action == "--dump-all") {
                    EXPECT_EQ(readFile(remoteAgent_ + "/dump.xml"),
                              readFile(sessionFile("dump.xml")));
                }
            }
        }
    }
    // The content of the last dump arrived whole.
    for (const auto& file : dumpArchives()) {
        EXPECT_EQ(file.md5, md5OfFile(sessionFile(file.name)));
    }
    EXPECT_FALSE(fs::exists(remoteAgent_));
}

// A rerun resumes the partial copy: the actions' resume test and the stopped download's rerun.
TEST_F(Faults, AFullDiskFailsTheDownloadAndKeepsWhatArrived) {
    addRandomFile("shop.test/big.bin", 1 << 20);
    deployAndDump();
    const auto files = dumpArchives();
    ASSERT_EQ(4u, files.size());
    const std::string dumps = session_ + "/small";
    fs::create_directories(dumps);
    ASSERT_EQ(0, mount("fgfull", dumps.c_str(), "tmpfs", 0, "size=512k"));
    const ProcessResult r =
        ferrygate({"--get-content", "--no-check-space", "--dumps-dir=" + dumps});
    EXPECT_EQ(2, r.status);
    EXPECT_EQ(0u, r.err.find("Error during " + dumps + "/shop.test_site.tar.gz write: ")) << r.err;
    EXPECT_TRUE(contains(readFile(sessionFile("migration.result")), "FileWrite"));
    EXPECT_TRUE(fs::exists(remoteAgent_ + "/content/shop.test_site.tar.gz"));
    for (const auto& file : files) {
        if (file.name == "shop.test_site.tar.gz") continue;
        EXPECT_EQ(file.md5, md5OfFile(dumps + "/" + file.name)) << file.name;
    }
    umount(dumps.c_str());
}

}  // namespace
}  // namespace test
}  // namespace tavik
