// The fault matrix: the real ferrygate against a loopback sshd that crashes, a disk that fills,
// a broken host configuration, kills at random moments and hostile remote paths. Each row checks
// the exit code and message, that nothing already on disk is lost, and that a rerun finishes.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <chrono>
#include <fstream>
#include <functional>
#include <random>
#include <regex>
#include <set>
#include <thread>

#include "support/loopback.h"
#include "support/migration_host.h"
#include "support/relay_process.h"
#include "support/xml_render.h"

extern char** environ;

namespace tavik {
namespace test {
namespace {

namespace fs = boost::filesystem;
using Clock = std::chrono::steady_clock;

// A download through this lasts seconds.
const std::vector<std::string> kSlowLine = {"--rate-down", "4000000"};
const std::string kLost = "Lost connection with the remote host";

bool waitFor(const std::function<bool()>& done, int milliseconds) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(milliseconds);
    while (!done() && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return done();
}

bool hasBytes(const std::string& path) {
    boost::system::error_code ec;
    return fs::file_size(path, ec) > 0 && !ec;
}

bool fileHas(const std::string& path, const std::string& part) {
    return readFile(path).find(part) != std::string::npos;
}

// A whole status document of a known shape: a torn or half-written file does not match.
bool wellFormedStatus(const std::string& path) {
    static const std::regex shape(
        R"(migration-status\((idle|agent.*|transfer(\[[^\]]*\])?\(host[^,]*,)"
        R"((dumpfile|files\[total=[^,\]]*,left=.*)\))\))");
    return std::regex_match(testing::renderFile(path), shape);
}

class Faults : public MigrationTest {
  protected:
    Faults() : MigrationTest(FERRYGATE_BINARY) {}
};

// The server side of our connection dies while a content file downloads, while the agent dumps,
// before the session starts (a relay that hangs up, or never says a word: the connect time-out,
// 30 seconds by default, ends that), while the password is checked (the default, slow hash
// leaves time for that) and before the first channel opens (a relay keeps every request 300 ms
// on its way).
TEST_F(Faults, TheServerDisappears) {
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
        return [=] { return fileHas(log, line); };
    };
    const std::string noBanner = "Unable to start SSH session: Failed getting banner";
    const struct {
        std::string action;
        std::vector<std::string> relay;
        std::function<bool()> killWhen;  // empty: no kill
        int code;
        std::string message;
        int silence;  // seconds the run waits for a word from the server
    } rows[] = {
        {"--get-content", kSlowLine, [&] { return hasBytes(big); }, 18, kLost, 0},
        {"--dump-all", {}, [&] { return fs::exists(remoteStatus); }, 18, kLost, 0},
        {"--send-scout", {"--cut-down-at", "0"}, {}, 2, noBanner, 0},
        {"--send-scout", {"--stall-down-at", "0", "--stall-ms", "600000"}, {}, 18, kLost, 30},
        {"--send-scout", {}, logShows("Trying 'password'"), 18, kLost, 0},
        {"--send-scout", {"--delay-up-ms", "300"}, logShows("Opening SSH channel"), 18, kLost, 0},
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
        if (row.killWhen && waitFor(row.killWhen, 30000)) sshd().killSessions();
        run.join();
        EXPECT_EQ(row.code, r.status);
        EXPECT_EQ(row.message, r.err);
        EXPECT_TRUE(wellFormedStatus(sessionFile("migration.status")));
        EXPECT_TRUE(row.code != 18 ||
                    fileHas(sessionFile("migration.result"), "SshConnectionFault"));
        if (row.silence) {
            EXPECT_GE(Clock::now() - start, std::chrono::seconds(row.silence));
            EXPECT_LT(Clock::now() - start, std::chrono::seconds(row.silence + 5));
        }
        if (row.action == "--send-scout") continue;
        for (const auto& file : files) {
            if (row.action != "--get-content" || sessionFile(file.name) == big) continue;
            EXPECT_EQ(file.md5, md5OfFile(sessionFile(file.name))) << "lost by the failed run";
        }
        r = ferrygate({row.action});
        EXPECT_EQ(0, r.status) << "rerun: " << r.err;
    }
    for (const auto& file : files) EXPECT_EQ(file.md5, md5OfFile(sessionFile(file.name)));
}

// A listener whose queue is full drops the connection request, as a host that is gone would.
TEST_F(Faults, AConnectionNeverAnsweredTimesOutAtTheConnectTimeout) {
    std::unique_ptr<testing::LoopbackSocket> full;  // at a port that ferrygate accepts
    for (uint16_t port = 20000; !full && port < 32768; ++port) {
        try {
            full.reset(new testing::LoopbackSocket(false, port));
        } catch (const std::runtime_error&) {
        }
    }
    ASSERT_TRUE(full && listen(full->fd(), 0) == 0);
    const int queued = testing::connectLoopback(full->port());
    std::ofstream("/etc/hmx/hmx.conf", std::ios::app) << "SSH_CONNECT_TIMEOUT 3\n";
    const auto start = Clock::now();
    const ProcessResult r = ferrygate({"--send-scout", "--port=" + std::to_string(full->port())});
    EXPECT_EQ(12, r.status);
    EXPECT_EQ("Timeout while attempting connection to host 127.0.0.1", r.err);
    EXPECT_GE(Clock::now() - start, std::chrono::seconds(3));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(6));
    close(queued);
}

TEST_F(Faults, AFullDiskFailsTheDownloadAndARerunFinishesOnceThereIsRoom) {
    addRandomFile("shop.test/big.bin", 1 << 20);
    deployAndDump();
    const auto files = dumpArchives();
    ASSERT_EQ(4u, files.size());
    const std::string dumps = session_ + "/small";
    fs::create_directories(dumps);
    ASSERT_EQ(0, mount("fgfull", dumps.c_str(), "tmpfs", 0, "size=512k"));
    const std::vector<std::string> args = {"--get-content", "--no-check-space",
                                           "--dumps-dir=" + dumps};
    ProcessResult r = ferrygate(args);
    EXPECT_EQ(2, r.status);
    EXPECT_EQ(0u, r.err.find("Error during " + dumps + "/shop.test_site.tar.gz write: ")) << r.err;
    EXPECT_TRUE(fileHas(sessionFile("migration.result"), "FileWrite"));
    EXPECT_TRUE(fs::exists(remoteAgent_ + "/content/shop.test_site.tar.gz"));
    for (const auto& file : files) {
        if (file.name == "shop.test_site.tar.gz") continue;
        EXPECT_EQ(file.md5, md5OfFile(dumps + "/" + file.name)) << file.name;
    }
    EXPECT_TRUE(wellFormedStatus(sessionFile("migration.status")));

    ASSERT_EQ(0, mount("fgfull", dumps.c_str(), "tmpfs", MS_REMOUNT, "size=4m"));
    r = ferrygate(args);
    EXPECT_EQ(0, r.status) << r.err;
    for (const auto& file : files) EXPECT_EQ(file.md5, md5OfFile(dumps + "/" + file.name));
    umount(dumps.c_str());
}

// A relay cannot drop packets, but the stalls their retransmissions cause it can make: across a
// 100 ms round trip with four one-second stalls, 200 MB arrive whole.
TEST_F(Faults, ALargeDownloadSurvivesASlowLossyLine) {
    ASSERT_EQ(0, ferrygate({"--deploy-agent"}).status);
    const std::string remote = remoteAgent_ + "/content/big.tar.gz";
    const ProcessResult made = sshd().runAsUser("mkdir -p '" + remoteAgent_ + "/content' && " +
                                                "head -c 200000000 /dev/urandom >'" + remote + "'");
    ASSERT_EQ(0, made.status) << made.err;
    const std::string md5 = md5OfFile(remote);
    std::vector<std::string> rules = {"--delay-up-ms", "50", "--delay-down-ms", "50"};
    for (const char* at : {"2000000", "60000000", "120000000", "190000000"})
        rules.insert(rules.end(), {"--stall-down-at", at});
    RelayProcess line(port(), rules);
    const auto start = Clock::now();
    const ProcessResult r = ferrygate({"--get-content", "--port=" + std::to_string(line.port())});
    std::cerr << "200 MB in " << std::chrono::duration<double>(Clock::now() - start).count()
              << " s\n";
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(md5, md5OfFile(sessionFile("big.tar.gz")));
    EXPECT_FALSE(fs::exists(remote)) << "the source copy goes once the local one is whole";
}

// A broken destination host: each row breaks one thing and runs one action.
TEST_F(Faults, ABrokenHostEndsWithACleanError) {
    const std::string spec = agentsDir_ + "/hostdump/control/spec";
    const std::string goodSpec = readFile(spec);
    const std::string conf = readFile("/etc/hmx/hmx.conf");
    const std::string noLog =
        "ferrygate: the product tree is not installed (no /usr/local/hmx/RKU/log4cpp.properties): "
        "install it with 'cmake --install build' or the ferrygate .deb package\n";
    const char junk[] = "\x01\xff#\n  \n=\n\0x\nPRODUCT_ROOT_D\n";
    const std::string garbage(junk, sizeof junk - 1);
    auto setConf = [](const std::string& text) {
        return [text] { testing::writeTextFile("/etc/hmx/hmx.conf", text); };
    };
    const struct {
        const char* name;
        std::function<void()> breakIt;
        const char* action;
        int code;
        std::string message;
        const char* cause;  // in migration.result
    } rows[] = {
        {"no hmx.conf", [] { fs::remove("/etc/hmx/hmx.conf"); }, "--send-scout", 1, noLog, ""},
        {"empty hmx.conf", setConf(""), "--send-scout", 1, noLog, ""},
        {"garbage hmx.conf", setConf(garbage), "--send-scout", 1, noLog, ""},
        {"garbage around the setting", setConf(garbage + conf), "--deploy-agent", 0, "", "success"},
        {"no agents directory", [&] { fs::rename(agentsDir_, agentsDir_ + ".away"); },
         "--deploy-agent", 2, "'shared' agents directory not found", "error"},
        {"invalid agent spec", [&] { testing::writeTextFile(spec, "EntryPoint hostdump.pl\n"); },
         "--dump-all", 2, "Error during dump retrieval", "AgentNotFound"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        row.breakIt();
        const ProcessResult r = ferrygate({row.action});
        EXPECT_EQ(row.code, r.status) << r.err;
        EXPECT_EQ(row.message, r.err);
        EXPECT_TRUE(fileHas(sessionFile("migration.result"), row.cause));
        const std::string status = sessionFile("migration.status");
        EXPECT_TRUE(!fs::exists(status) || wellFormedStatus(status));
        setConf(conf)();
        if (fs::exists(agentsDir_ + ".away")) fs::rename(agentsDir_ + ".away", agentsDir_);
        testing::writeTextFile(spec, goodSpec);
    }

    // Not even root may write the session directory: the failure to save the result ends the
    // run through the last-resort handler.
    const std::string readOnly = session_ + "/ro";
    fs::create_directories(readOnly);
    ASSERT_EQ(0, mount("fgro", readOnly.c_str(), "tmpfs", MS_RDONLY, "size=64k"));
    const ProcessResult r =
        ferrygateRaw({"--host=127.0.0.1", "--port=" + std::to_string(port()), "--login=" + user(),
                      "--session-path=" + readOnly, "--send-scout"},
                     {"HMX_PASSWORD=" + password()});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ(0u, r.err.find("Can not create temporary file with the template '" + readOnly +
                             "/migration.statusXXXXXX': Read-only file system."))
        << r.err;
    EXPECT_TRUE(fs::is_empty(readOnly));
    umount(readOnly.c_str());
}

// Kills at random moments of a long download never leave a half-written status document, nor
// more than the one temporary file that was being written. Five sessions take turns so that the
// connection set-up of one overlaps the transfer of another.
TEST_F(Faults, SigkillWhileTheStatusIsRewritten) {
    addRandomFile("shop.test/big.bin", 16 << 20);
    deployAndDump();
    std::set<std::string> expected = {"archives",         "migration.log",       "migration.result",
                                      "migration.status", "migration.log.debug", "dump-name"};
    for (const auto& file : dumpArchives()) expected.insert(file.name);
    // Only the long download stays on the source host, so that no lane deletes a file that
    // another one is fetching.
    for (fs::directory_iterator it(remoteAgent_ + "/content"), end; it != end; ++it) {
        if (it->path().filename() != "shop.test_site.tar.gz") fs::remove(it->path());
    }
    setenv("HMX_PASSWORD", password().c_str(), 1);
    const auto started = Clock::now();
    std::atomic<int> kills(0), failures(0), leftovers(0);
    auto lane = [&](int number) {
        const std::string session = session_ + "/lane" + std::to_string(number);
        const std::string big = session + "/shop.test_site.tar.gz";
        std::mt19937 random(std::random_device{}() + number);
        RelayProcess slow(port(), kSlowLine);
        std::vector<std::string> words = {FERRYGATE_BINARY, "--get-content", "--host=127.0.0.1",
                                          "--agent-name=hostdump", "--login=" + user()};
        for (auto word : {"--port=" + std::to_string(slow.port()), "--session-path=" + session,
                          "--agent-dir=" + remoteAgent_})
            words.push_back(word);
        std::vector<char*> argv;
        for (std::string& word : words) argv.push_back(&word[0]);
        argv.push_back(nullptr);
        for (int run = 0; run < 40 && failures == 0; ++run) {
            fs::remove(big);
            pid_t pid = -1;
            ASSERT_EQ(0, posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ));
            const bool transferring = waitFor([&] { return hasBytes(big); }, 20000);
            std::this_thread::sleep_for(
                std::chrono::microseconds(std::uniform_int_distribution<int>(0, 40000)(random)));
            kill(pid, SIGKILL);
            int status = 0, temporaries = 0, strays = 0;
            waitpid(pid, &status, 0);
            ++kills;
            const std::string text = readFile(session + "/migration.status");
            for (fs::directory_iterator it(session), end; it != end; ++it) {
                const std::string name = it->path().filename().string();
                if (expected.count(name)) continue;
                ++(name.rfind("migration.status", 0) == 0 ? temporaries : strays);
                fs::remove(it->path());
            }
            leftovers += temporaries;
            if (!transferring || !WIFSIGNALED(status) || temporaries > 1 || strays > 0 ||
                !wellFormedStatus(session + "/migration.status")) {
                ++failures;
                ADD_FAILURE() << "lane " << number << ", run " << run << ": transferring "
                              << transferring << ", " << temporaries << " temporary and " << strays
                              << " other files; status:\n"
                              << text;
            }
        }
    };
    std::vector<std::thread> lanes;
    for (int number = 0; number < 5; ++number) lanes.emplace_back(lane, number);
    for (std::thread& t : lanes) t.join();
    EXPECT_EQ(200, kills.load());
    std::cerr << kills << " kills, " << leftovers << " temporary files left, in "
              << std::chrono::duration<double>(Clock::now() - started).count() << " s\n";
}

// Whatever the login shell, an agent directory full of shell-special and non-ASCII bytes is one
// word on the source host: deploy, dump, content and removal all work there.
class HostileRemote : public Faults, public ::testing::WithParamInterface<const char*> {
  protected:
    SshdOptions sshdOptions() const override {
        SshdOptions options = Faults::sshdOptions();
        options.shell = GetParam();
        return options;
    }
};

TEST_P(HostileRemote, PathsSurviveTheLoginShell) {
    remoteAgent_ = sshd().home() + "/a b'c\"d$HOME;e\nf\xc3\xa9";
    testing::writeTextFile(hosting_ + "/web/o'k $x;\xc3\xa9.test/index.html", "odd\n");
    for (const char* action : {"--deploy-agent", "--dump-all", "--get-content", "--remove-agent"}) {
        const ProcessResult r = ferrygate({action}, true);
        ASSERT_EQ(0, r.status) << action << ": " << r.err;
    }
    const auto files = dumpArchives();
    ASSERT_EQ(5u, files.size()) << readFile(sessionFile("dump.xml"));
    for (const auto& file : files) EXPECT_EQ(file.md5, md5OfFile(sessionFile(file.name)));
    EXPECT_FALSE(fs::exists(remoteAgent_));
    EXPECT_TRUE(fs::exists(sshd().home()));
}

INSTANTIATE_TEST_SUITE_P(Shells, HostileRemote,
                         ::testing::Values("/bin/bash", "/bin/dash", "/bin/sh"));

}  // namespace
}  // namespace test
}  // namespace tavik
