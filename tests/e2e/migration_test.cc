// The real ferrygate against a real sshd, sudo and the hostdump agent, as a controlling process
// would run it: one action per run, results read from the session directory; then long dumps
// and content transfers: progress while they run, resuming, space, stopping.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <utime.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "commons/checksum.h"
#include "commons/debug_log.h"
#include "ferrygate/dispatch.h"
#include "ferrygate/session.h"
#include "ssh/shell_quote.h"
#include "support/migration_host.h"
#include "support/relay_process.h"

namespace tavik {
namespace test {
namespace {

namespace fs = boost::filesystem;

// Every distinct command line on the host while it lives (arguments joined by blanks), scanned a
// few hundred times a second. The source host is this host: what sshd runs is seen too.
class CmdlineWatch {
  public:
    CmdlineWatch() : thread_([this] { scan(); }) {}
    ~CmdlineWatch() { stop(); }
    std::set<std::string> stop() {
        stopping_ = true;
        if (thread_.joinable()) thread_.join();
        return seen_;
    }

  private:
    void scan() {
        while (!stopping_) {
            boost::system::error_code error;
            for (fs::directory_iterator it("/proc", error), end; !error && it != end;
                 it.increment(error)) {
                std::string line = readFile((it->path() / "cmdline").string());
                for (char& c : line) c = c == '\0' ? ' ' : c;
                seen_.insert(line);  // "" for a process that went away meanwhile
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

    std::atomic<bool> stopping_{false};
    std::set<std::string> seen_;  // only the scanning thread writes it until stop() joins
    std::thread thread_;
};

class Migration : public MigrationTest {
  protected:
    Migration() : MigrationTest(FERRYGATE_BINARY) {}

    void expectOwnedByLogin(const std::string& path) {
        struct stat st;
        ASSERT_EQ(0, stat(path.c_str(), &st)) << path;
        EXPECT_EQ(getpwnam(user().c_str())->pw_uid, st.st_uid) << path;
    }

    // Neither password in any command line seen (ferrygate's or the source host's) nor in any
    // file of the session; and the watch saw the agent run through sudo, so it was looking.
    void expectNoPasswordLeaked(CmdlineWatch& watch) {
        bool sawAgent = false;
        for (const std::string& command : watch.stop()) {
            EXPECT_EQ(std::string::npos, command.find(password())) << command;
            EXPECT_EQ(std::string::npos, command.find(sudoPassword_)) << command;
            sawAgent = sawAgent || (command.find("hostdump.pl --") != std::string::npos &&
                                    command.find("sudo -S") != std::string::npos);
        }
        EXPECT_TRUE(sawAgent);
        for (fs::recursive_directory_iterator it(session_), end; it != end; ++it) {
            if (!fs::is_regular_file(it->path())) continue;
            const std::string text = readFile(it->path().string());
            EXPECT_EQ(std::string::npos, text.find(password())) << it->path();
            EXPECT_EQ(std::string::npos, text.find(sudoPassword_)) << it->path();
        }
    }

    // Runs ferrygate with `args` and, once `ready` returns, asks it to stop as a controlling
    // process does (SIGTERM); the run must then end within five seconds.
    template <class Ready>
    ProcessResult stopWhen(const std::vector<std::string>& args, Ready ready) {
        ProcessResult r;
        std::thread run([&] { r = ferrygate(args); });
        ready();
        const auto asked = std::chrono::steady_clock::now();
        runProcess({"/usr/bin/pkill", "-TERM", "-f", "session-path=" + session_});
        run.join();
        EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(5));
        return r;
    }

    // The whole migration, one run per action, checking what each leaves behind.
    void migrate(bool sudo) {
        // Every action succeeds and leaves the status idle and a successful result.
        auto step = [&](const char* action) {
            const ProcessResult r = ferrygate({action, "--verbose"}, sudo);
            EXPECT_EQ(0, r.status) << action << ": " << r.err;
            EXPECT_NE(std::string::npos, readFile(sessionFile("migration.status")).find("<idle/>"));
            EXPECT_NE(std::string::npos,
                      readFile(sessionFile("migration.result")).find("status=\"success\""));
            return r;
        };
        step("--send-scout");
        EXPECT_NE(std::string::npos,
                  readFile(sessionFile("scout-result.xml"))
                      .find("<tool name=\"sudo\" present=\"yes\" path=\"/usr/bin/sudo\"/>"));

        step("--deploy-agent");
        EXPECT_NE(std::string::npos, readFile(sessionFile("agent-deployment.status"))
                                         .find("<statusfile>dumping-status.xml</statusfile>"));
        for (const char* file : {"FerryAgent.pm", "hostdump.pl", "hostdump.conf"}) {
            expectOwnedByLogin(remoteAgent_ + "/" + file);
        }
        EXPECT_FALSE(fs::exists(remoteAgent_ + "/control"));

        step("--dump-all");
        const uid_t agentUid = sudo ? 0 : getpwnam(user().c_str())->pw_uid;
        EXPECT_EQ("uid=" + std::to_string(agentUid) + "\narg=--dump-all\nin-final-newline=no\n",
                  readFile(remoteAgent_ + "/last-invocation"));
        EXPECT_EQ(readFile(remoteAgent_ + "/dump.xml"), readFile(sessionFile("dump.xml")));
        expectOwnedByLogin(remoteAgent_ + "/dump.xml");
        EXPECT_EQ(session_ + "/dump.xml", readFile(sessionFile("dump-name")));
        const ProcessResult valid =
            runProcess({"/usr/bin/xmllint", "--noout", "--dtdvalid",
                        agentsDir_ + "/hostdump/control/hostdump.dtd", sessionFile("dump.xml")});
        EXPECT_EQ(0, valid.status) << valid.out << valid.err;

        const auto archives = dumpArchives();
        ASSERT_EQ(4u, archives.size());
        step("--get-content");
        for (const auto& archive : archives) {
            EXPECT_EQ(archive.md5, md5OfFile(sessionFile(archive.name))) << archive.name;
            EXPECT_FALSE(fs::exists(remoteAgent_ + "/content/" + archive.name));
        }
        EXPECT_EQ(readFile(hosting_ + "/web/example.com/httpdocs/img/logo.png"),
                  runProcess({"/bin/tar", "-xzOf", sessionFile("example.com_site.tar.gz"),
                              "example.com/httpdocs/img/logo.png"})
                      .out);

        const ProcessResult removed = step("--remove-agent");
        EXPECT_FALSE(fs::exists(remoteAgent_));
        EXPECT_EQ("", removed.out + removed.err);
    }
};

TEST_F(Migration, EveryActionThroughSudoWithoutLeakingEitherPassword) {
    configureAgent("delay = 1\n");  // the agent lives long enough for the watch to see it
    CmdlineWatch watch;
    migrate(true);
    expectNoPasswordLeaked(watch);
    // --verbose fills the debug log.
    EXPECT_NE(std::string::npos, readFile(sessionFile("migration.log.debug")).find("sudo -S"));
}

TEST_F(Migration, TheAgentGetsTheSelectionAsArgumentsAndInputLines) {
    configureAgent("delay = 1\n");
    ASSERT_EQ(0, ferrygate({"--deploy-agent"}).status);
    CmdlineWatch watch;  // the login password travels to the agent for rsync, on its input only
    // Only the first list given as "-" is read from standard input, and only one line of it.
    ProcessResult r =
        ferrygate({"--dump-selected", "--domains=-", "--clients=-", "--resellers=r1", "--only-mail",
                   "--no-compress", "--no-content", "--content-transport=rsync", "--verbose"},
                  true, "alice,carol\nexample.com\n");
    ASSERT_EQ(0, r.status) << r.err;
    const std::string expected =
        "uid=0\narg=--content-transport=rsync\narg=--dump-domains=-\narg=--dump-clients=-\n"
        "arg=--dump-resellers=-\narg=--only-mail\narg=--no-compress\n"
        "arg=--include-app-distrib\narg=--no-content\n"
        "in=127.0.0.1\nin=" +
        user() + "\nin=(password withheld)\nin=" + std::to_string(port()) +
        "\nin=-\nin=alice,carol\nin=r1\nin-final-newline=no\n";
    EXPECT_EQ(expected, readFile(remoteAgent_ + "/last-invocation"));
    expectNoPasswordLeaked(watch);
    const std::string dump = readFile(sessionFile("dump.xml"));
    EXPECT_NE(std::string::npos, dump.find("<not-found type=\"reseller\" name=\"r1\"/>"));
    EXPECT_EQ(std::string::npos, dump.find("lists.org"));
    EXPECT_NE(std::string::npos, dump.find("<domain name=\"shop.test\">"));
    EXPECT_EQ(std::string::npos, dump.find("<site ")) << "--only-mail dumped a site";
    EXPECT_EQ(std::string::npos, dump.find("<content ")) << "--no-content packed content";
}

// Each row changes one thing of a good run of the scout, which connects with the login alone.
// The first records the server's key where OpenSSH's tools find it; from then on a server with
// another key at that address is refused before any log-in, and so is a key other than the one
// pinned with --host-key, and with SSH_STRICT_HOST_KEYS a host not yet known.
TEST_F(Migration, FailuresEndWithTheirOwnCodeAndMessage) {
    ProcessResult r;
    const std::string portArg = "--port=" + std::to_string(port());
    const std::string conf = readFile("/etc/hmx/hmx.conf");
    const std::string file =
        agentsDir_.substr(0, agentsDir_.rfind("/RKU/agents")) + "/var/known_hosts";
    const std::string name = "[127.0.0.1]:" + std::to_string(port());
    const std::string failed = "Host key verification failed for " + name + ": ";
    const std::string wrong = "SHA256:" + std::string(43, 'A');
    const struct {
        std::string host, password, sudo, more, conf;  // one more argument, lines for hmx.conf
        int code;
        std::string message;  // all of standard error, or its start when it ends in a blank
    } cases[] = {
        {"127.0.0.1", password(), sudoPassword_, "", "", 0, ""},
        {"127.0.0.1", password(), "wrong", "", "", 2,
         "sudo is not allowed for user " + user() + " on host 127.0.0.1."},
        {"127.0.0.1", password() + "x", "", "", "", 17,
         "Unable to connect to host 127.0.0.1: you have specified incorrect username or password"},
        {"nowhere.invalid", password(), "", "", "", 16,
         "Unable to resolve hostname nowhere.invalid: "},
        {"127.0.0.1", password(), "", "--host-key=" + wrong, "", 19,
         failed + "expected " + wrong + " (given with --host-key), but the server offered "},
        {"127.0.0.1", password(), "", "", "SSH_KNOWN_HOSTS " + file + "2\nSSH_STRICT_HOST_KEYS yes",
         20, failed + "the host is not in " + file + "2, and unknown hosts are refused; the "},
    };
    for (const auto& c : cases) {
        testing::writeTextFile("/etc/hmx/hmx.conf", conf + c.conf + "\n");
        std::vector<std::string> args = {"--host=" + c.host, portArg, "--login=" + user(),
                                         "--session-path=" + session_, "--send-scout"};
        std::vector<std::string> env = {"HMX_PASSWORD=" + c.password};
        if (!c.sudo.empty()) {
            args.push_back("--sudo-password");
            env.push_back("HMX_SUDO_PASSWORD=" + c.sudo);
        }
        if (!c.more.empty()) args.push_back(c.more);
        r = ferrygateRaw(args, env);
        EXPECT_EQ(c.code, r.status) << c.message;
        const bool prefix = !c.message.empty() && c.message.back() == ' ';
        EXPECT_EQ(c.message, prefix ? r.err.substr(0, c.message.size()) : r.err);
        EXPECT_FALSE(prefix && !r.err.empty() && r.err.back() == '\n') << r.err;
    }
    testing::writeTextFile("/etc/hmx/hmx.conf", conf);
    const std::string listed = runProcess({"/usr/bin/ssh-keygen", "-l", "-f", file}).out;
    ASSERT_NE(std::string::npos, listed.find(" " + name + " (ED25519)")) << listed;
    EXPECT_EQ(0, runProcess({"/usr/bin/ssh-keygen", "-F", name, "-f", file}).status);
    const std::string key = listed.substr(listed.find("SHA256:"), 50);
    EXPECT_EQ(0, ferrygate({"--send-scout", "--host-key=" + key}).status);
    EXPECT_NE(std::string::npos, sshd().log().find("Accepted password for " + user()));

    // Another server, with a key of its own, where the first one was; then none.
    sshd().stop();
    SshdOptions same;
    same.port = port();
    SshdServer other(same);
    r = ferrygate({"--send-scout"});
    EXPECT_EQ(19, r.status);
    EXPECT_EQ(0u, r.err.find(failed + "expected " + key + " (recorded in " + file +
                             "), but the server offered SHA256:"))
        << r.err;
    const std::string log = other.log();
    EXPECT_NE(std::string::npos, log.find("Connection from 127.0.0.1")) << log;
    for (const char* attempt : {"Accepted ", "Failed ", "Postponed ", "Invalid user"}) {
        EXPECT_EQ(std::string::npos, log.find(attempt)) << log;
    }
    other.stop();
    r = ferrygate({"--send-scout"});
    EXPECT_EQ(11, r.status);
    EXPECT_EQ("No one listening on the remote address at host 127.0.0.1", r.err + r.out);
}

class Content : public Migration {};

TEST_F(Content, ALongDumpRefreshesTheSessionsDumpingStatus) {
    configureAgent("delay = 12\n");
    ASSERT_EQ(0, ferrygate({"--deploy-agent"}).status);
    std::atomic<bool> done(false);
    ProcessResult r;
    std::thread dump([&] {
        r = ferrygate({"--dump-all"});
        done = true;
    });
    // Each refresh replaces the copy with a new file; the agent's own text may not have changed
    // in between.
    std::set<ino_t> seen;
    while (!done) {
        struct stat st;
        const std::string copy = readFile(sessionFile("dumping-status.xml"));
        if (copy.find("state=\"running\"") != std::string::npos &&
            stat(sessionFile("dumping-status.xml").c_str(), &st) == 0) {
            seen.insert(st.st_ino);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    dump.join();
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_GE(seen.size(), 2u) << readFile(sessionFile("migration.log"));

    // A stop ends even a dump during which nothing moves, within a wait.
    r = stopWhen({"--dump-all"}, [&] {
        const auto start = std::chrono::steady_clock::now();
        while (readFile(sessionFile("migration.status")).find("wait") == std::string::npos &&
               std::chrono::steady_clock::now() - start < std::chrono::seconds(60)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));  // the agent is running now
    });
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("Migration has been terminated", r.out);
}

// Into --dumps-dir: only when it fits (--no-check-space on a disk too small is the fault matrix's
// full-disk row), and a rerun skips the copies already whole.
TEST_F(Content, SpaceIsCheckedFirstAndARerunSkipsWhatIsAlreadyHere) {
    addRandomFile("shop.test/big.bin", 64 * 1024);
    deployAndDump();
    const auto files = dumpArchives();
    ASSERT_EQ(4u, files.size());
    uint64_t total = 0;
    for (const auto& file : files) total += file.size;
    ASSERT_GT(total, 64u * 1024u);
    const std::string small = session_ + "/small";
    fs::create_directories(small);
    ASSERT_EQ(0, mount("fgsmall", small.c_str(), "tmpfs", 0, "size=16k"));
    const ProcessResult r = ferrygate({"--get-content", "--dumps-dir=" + small});
    EXPECT_EQ(2, r.status);
    EXPECT_EQ("Selected filesystem has only 16384 free space, but " + std::to_string(total) +
                  " is needed for operation",
              r.err);
    EXPECT_TRUE(fs::is_empty(small));
    umount(small.c_str());

    const std::string dumps = session_ + "/elsewhere/dumps";
    const std::string kept = files[1].name;
    const std::string broken = files[3].name;
    // As an interrupted run leaves them: one copy whole, one cut short.
    fs::create_directories(dumps);
    testing::writeTextFile(dumps + "/" + kept, readFile(remoteAgent_ + "/content/" + kept));
    struct utimbuf old = {1000000000, 1000000000};
    utime((dumps + "/" + kept).c_str(), &old);
    testing::writeTextFile(dumps + "/" + broken, "cut short");

    for (int run = 0; run < 2; ++run) {
        const ProcessResult r = ferrygate({"--get-content", "--dumps-dir=" + dumps});
        ASSERT_EQ(0, r.status) << r.err;
        for (const auto& file : files) {
            EXPECT_EQ(file.md5, md5OfFile(dumps + "/" + file.name));
            EXPECT_FALSE(fs::exists(sessionFile(file.name)));
            EXPECT_EQ(file.name == kept, fs::exists(remoteAgent_ + "/content/" + file.name))
                << file.name;
        }
        EXPECT_EQ(1000000000, fs::last_write_time(dumps + "/" + kept)) << "fetched again";
        EXPECT_EQ(dumps + "/dump.xml", readFile(sessionFile("dump-name")));
        EXPECT_NE(std::string::npos, readFile(sessionFile("migration.status")).find("<idle/>"));
    }
}

// The controlling process stops a download half way: the run ends in order, the partial copy
// and its source stay, and the next run fetches only what is missing.
TEST_F(Content, AStoppedDownloadEndsInOrderAndTheRerunFetchesOnlyTheRest) {
    addRandomFile("shop.test/big.bin", 4 << 20);
    deployAndDump();
    const std::string name = "shop.test_site.tar.gz";
    const std::string copy = sessionFile(name);
    RelayProcess slow(port(), {"--rate-down", "2000000"});
    ProcessResult r = stopWhen({"--get-content", "--port=" + std::to_string(slow.port())}, [&] {
        const auto start = std::chrono::steady_clock::now();
        while (!(fs::exists(copy) && fs::file_size(copy) > (1 << 20)) &&
               std::chrono::steady_clock::now() - start < std::chrono::seconds(30)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("Migration has been terminated", r.out);
    EXPECT_NE(std::string::npos, readFile(sessionFile("migration.result")).find("success"));
    EXPECT_NE(std::string::npos, readFile(sessionFile("migration.status")).find("<idle/>"));
    EXPECT_TRUE(fs::exists(remoteAgent_ + "/content/" + name));
    const uint64_t kept = fs::file_size(copy);
    uint64_t size = 0;
    std::string md5;
    for (const auto& file : dumpArchives()) {
        if (file.name == name) size = file.size, md5 = file.md5;
    }
    ASSERT_GT(kept, 0u);
    ASSERT_LT(kept, size);
    RecordProperty("kept_bytes", std::to_string(kept));
    RecordProperty("file_bytes", std::to_string(size));

    r = ferrygate({"--get-content"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(md5, md5OfFile(copy));
    EXPECT_FALSE(fs::exists(remoteAgent_ + "/content/" + name));
    // Only the rest crossed the wire: the command started at the first missing byte.
    EXPECT_NE(
        std::string::npos,
        readFile(sessionFile("migration.log")).find("tail -c +" + std::to_string(kept + 1) + " "))
        << "resumed at " << kept << " of " << size;
}

// An operator at a terminal sees the download move; a controlling process sees nothing new.
TEST_F(Content, ProgressIsDrawnOnATerminalAndNowhereElse) {
    deployAndDump();
    ProcessResult r = ferrygate({"--get-content", "--progress"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", r.out + r.err);
    addRandomFile("shop.test/big.bin", 2 << 20);  // a second or so through the relay
    deployAndDump();
    RelayProcess slow(port(), {"--rate-down", "2000000"});
    std::string line = FERRYGATE_BINARY;
    for (const std::string& arg : std::vector<std::string>{
             "--host=127.0.0.1", "--port=" + std::to_string(slow.port()), "--login=" + user(),
             "--session-path=" + session_, "--agent-dir=" + remoteAgent_, "--agent-name=hostdump",
             "--get-content", "--progress"}) {
        line += " " + sh_quote(arg);
    }
    r = runProcess({"/usr/bin/script", "-qec", line, "/dev/null"}, "",
                   {"HMX_PASSWORD=" + password()});
    ASSERT_EQ(0, r.status) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("\rfile ")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find(" left")) << r.out;
}

// A source that changed after the agent listed it (same size, same time, other bytes) is never
// accepted, and never deleted; once it is right again, a rerun finishes the copy.
TEST_F(Content, ASourceThatNoLongerMatchesItsSumIsRefusedAndKept) {
    deployAndDump();
    const Archive archive = dumpArchives().front();
    const std::string source = remoteAgent_ + "/content/" + archive.name;
    const std::string original = readFile(source);
    std::string changed = original;
    changed[changed.size() / 2] ^= 0x55;
    const std::time_t listedTime = fs::last_write_time(source);
    testing::writeTextFile(source, changed);
    fs::last_write_time(source, listedTime);

    ProcessResult r = ferrygate({"--get-content"});
    EXPECT_EQ(2, r.status);
    EXPECT_NE(std::string::npos, r.err.find("but it has to be " + archive.md5)) << r.err;
    EXPECT_EQ(changed, readFile(source));
    EXPECT_FALSE(fs::exists(sessionFile(archive.name)));
    EXPECT_EQ(changed, readFile(sessionFile(archive.name + ".rejected")));

    testing::writeTextFile(source, original);
    fs::last_write_time(source, listedTime);
    r = ferrygate({"--get-content"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(original, readFile(sessionFile(archive.name)));
    EXPECT_FALSE(fs::exists(source));
}

}  // namespace
}  // namespace test
}  // namespace tavik
