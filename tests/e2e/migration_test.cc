// The real ferrygate against a real sshd, sudo and the hostdump agent, as a controlling process
// would run it: one action per run, results read from the session directory; then long dumps
// and content transfers: progress, space, stopping and resuming, a source that changed.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <boost/filesystem.hpp>
#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "commons/unique_fd.h"
#include "ssh/shell_quote.h"
#include "support/migration_host.h"

namespace tavik {
namespace test {
namespace {

namespace fs = boost::filesystem;
using Clock = std::chrono::steady_clock;

// Every distinct command line on the host while `body` runs (arguments joined by blanks),
// scanned a few hundred times a second. The source host is this host: what sshd runs is seen too.
std::set<std::string> commandLinesDuring(const std::function<void()>& body) {
    std::set<std::string> seen;  // only the scanning thread writes it until the join
    std::atomic<bool> done{false};
    std::thread scan([&] {
        while (!done) {
            boost::system::error_code error;
            for (fs::directory_iterator it("/proc", error), end; !error && it != end;
                 it.increment(error)) {
                std::string line = readFile((it->path() / "cmdline").string());
                std::replace(line.begin(), line.end(), '\0', ' ');
                seen.insert(line);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    body();
    done = true;
    scan.join();
    return seen;
}

class Migration : public MigrationTest {
  protected:
    // Runs ferrygate with `args` and, once `ready` holds, asks it to stop as a controlling
    // process does (SIGTERM); the run must then end within five seconds.
    ProcessResult stopWhen(const std::vector<std::string>& args,
                           const std::function<bool()>& ready) {
        ProcessResult r;
        std::thread run([&] { r = ferrygate(args); });
        waitUntil(ready, 60);
        const auto asked = Clock::now();
        runProcess({"/usr/bin/pkill", "-TERM", "-f", "session-path=" + session_});
        run.join();
        EXPECT_LT(Clock::now() - asked, std::chrono::seconds(5));
        return r;
    }
};

// The whole migration through sudo, the selection of a partial dump included; neither password
// in any command line seen (ferrygate's or the source host's) nor in any file of the session.
TEST_F(Migration, EveryActionThroughSudoWithoutLeakingEitherPassword) {
    configureAgent("delay = 1\n");  // the agent lives long enough for the scan to see it
    // Each action succeeds and leaves the status idle and a successful result.
    auto step = [&](std::vector<std::string> args, const std::string& input = "") {
        args.push_back("--verbose");
        const ProcessResult r = ferrygate(args, true, input);
        EXPECT_EQ(0, r.status) << args[0] << ": " << r.err;
        EXPECT_TRUE(contains(readFile(sessionFile("migration.status")), "<idle/>"));
        EXPECT_TRUE(contains(readFile(sessionFile("migration.result")), "status=\"success\""));
        for (fs::recursive_directory_iterator it(session_), end; it != end; ++it) {
            const std::string text = readFile(it->path().string());
            EXPECT_FALSE(contains(text, password()) || contains(text, sudoPassword_))
                << args[0] << " wrote a password into " << it->path();
        }
        return r;
    };
    const std::set<std::string> commands = commandLinesDuring([&] {
        step({"--send-scout"});
        EXPECT_TRUE(contains(readFile(sessionFile("scout-result.xml")),
                             "<tool name=\"sudo\" present=\"yes\" path=\"/usr/bin/sudo\"/>"));
        step({"--deploy-agent"});

        // Only the first list given as "-" is read from standard input, and only one line of it;
        // the login password travels to the agent (for rsync) on its input only.
        step({"--dump-selected", "--domains=-", "--clients=-", "--resellers=r1", "--only-mail",
              "--no-compress", "--no-content", "--content-transport=rsync"},
             "alice,carol\nexample.com\n");
        EXPECT_EQ(
            "uid=0\narg=--content-transport=rsync\narg=--dump-domains=-\n"
            "arg=--dump-clients=-\narg=--dump-resellers=-\narg=--only-mail\n"
            "arg=--no-compress\narg=--include-app-distrib\narg=--no-content\n"
            "in=127.0.0.1\nin=" +
                user() + "\nin=(password withheld)\nin=" + std::to_string(port()) +
                "\nin=-\nin=alice,carol\nin=r1\nin-final-newline=no\n",
            readFile(remoteAgent_ + "/last-invocation"));

        step({"--dump-all"});
        EXPECT_EQ("uid=0\narg=--dump-all\nin-final-newline=no\n",
                  readFile(remoteAgent_ + "/last-invocation"));
        EXPECT_EQ(readFile(remoteAgent_ + "/dump.xml"), readFile(sessionFile("dump.xml")));
        struct stat dump = {};
        EXPECT_EQ(0, stat((remoteAgent_ + "/dump.xml").c_str(), &dump));
        EXPECT_EQ(getpwnam(user().c_str())->pw_uid, dump.st_uid) << "not given to the login";
        EXPECT_EQ(session_ + "/dump.xml", readFile(sessionFile("dump-name")));
        const ProcessResult valid =
            runProcess({"/usr/bin/xmllint", "--noout", "--dtdvalid",
                        agentsDir_ + "/hostdump/control/hostdump.dtd", sessionFile("dump.xml")});
        EXPECT_EQ(0, valid.status) << valid.out << valid.err;

        const auto archives = dumpArchives();
        ASSERT_EQ(4u, archives.size());
        step({"--get-content"});
        for (const auto& archive : archives) {
            EXPECT_EQ(archive.md5, md5OfFile(sessionFile(archive.name))) << archive.name;
            EXPECT_FALSE(fs::exists(remoteAgent_ + "/content/" + archive.name));
        }

        const ProcessResult removed = step({"--remove-agent"});
        EXPECT_FALSE(fs::exists(remoteAgent_));
        EXPECT_EQ("", removed.out + removed.err);
    });
    // The scan saw the agent run through sudo, so it was looking.
    EXPECT_TRUE(std::any_of(commands.begin(), commands.end(), [](const std::string& command) {
        return contains(command, "hostdump.pl --") && contains(command, "sudo -S");
    }));
    for (const std::string& command : commands) {
        EXPECT_FALSE(contains(command, password()) || contains(command, sudoPassword_)) << command;
    }
    EXPECT_TRUE(contains(readFile(sessionFile("migration.log.debug")), "sudo -S"));
}

// Each row changes one thing of a good run of the scout, which connects with the login alone.
// The first records the server's key where OpenSSH's tools find it; from then on a server with
// another key at that address is refused before any log-in, and so is a key other than the one
// pinned with --host-key, and with SSH_STRICT_HOST_KEYS a host not yet known. A listener whose
// queue is full drops the connection request, as a host that is gone would.
TEST_F(Migration, FailuresEndWithTheirOwnCodeAndMessage) {
    const UniqueFd full(socket(AF_INET, SOCK_STREAM, 0)), queued(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (uint16_t port = 20000; port < 32768; ++port) {  // one that ferrygate accepts
        address.sin_port = htons(port);
        if (bind(full.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) break;
    }
    ASSERT_EQ(0, listen(full.get(), 0));
    ASSERT_EQ(0, connect(queued.get(), reinterpret_cast<sockaddr*>(&address), sizeof address));
    ProcessResult r;
    const std::string conf = readFile("/etc/hmx/hmx.conf");
    const std::string file =
        agentsDir_.substr(0, agentsDir_.rfind("/RKU/agents")) + "/var/known_hosts";
    const std::string name = "[127.0.0.1]:" + std::to_string(port());
    const std::string failed = "Host key verification failed for " + name + ": ";
    const std::string wrong = "SHA256:" + std::string(43, 'A');
    const struct {
        std::string password, sudo, more, conf;  // one more argument, lines for hmx.conf
        int code;
        std::string message;  // all of standard error, or its start when it ends in a blank
    } cases[] = {
        {password(), sudoPassword_, "", "", 0, ""},
        {password(), "wrong", "", "", 2,
         "sudo is not allowed for user " + user() + " on host 127.0.0.1."},
        {password() + "x", "", "", "", 17,
         "Unable to connect to host 127.0.0.1: you have specified incorrect username or password"},
        {password(), "", "--host=nowhere.invalid", "", 16,
         "Unable to resolve hostname nowhere.invalid: "},
        {password(), "", "--host-key=" + wrong, "", 19,
         failed + "expected " + wrong + " (given with --host-key), but the server offered "},
        {password(), "", "", "SSH_KNOWN_HOSTS " + file + "2\nSSH_STRICT_HOST_KEYS yes", 20,
         failed + "the host is not in " + file + "2, and unknown hosts are refused; the "},
        {password(), "", "--port=" + std::to_string(ntohs(address.sin_port)),
         "SSH_CONNECT_TIMEOUT 3", 12, "Timeout while attempting connection to host 127.0.0.1"},
    };
    for (const auto& c : cases) {
        testing::writeTextFile("/etc/hmx/hmx.conf", conf + c.conf + "\n");
        std::vector<std::string> args = {"--send-scout"};
        if (!c.more.empty()) args.push_back(c.more);
        std::vector<std::string> env = {"HMX_PASSWORD=" + c.password};
        if (!c.sudo.empty()) env.push_back("HMX_SUDO_PASSWORD=" + c.sudo);
        const auto start = Clock::now();
        r = runProcess(command(args, !c.sudo.empty()), "", env);
        // The time-out of hmx.conf, not the default of 30 seconds, with room for valgrind.
        const auto took = Clock::now() - start;
        EXPECT_TRUE(c.code != 12 ||
                    (took >= std::chrono::seconds(3) && took < std::chrono::seconds(20)));
        EXPECT_EQ(c.code, r.status) << c.message;
        const bool prefix = !c.message.empty() && c.message.back() == ' ';
        EXPECT_EQ(c.message, prefix ? r.err.substr(0, c.message.size()) : r.err);
        EXPECT_FALSE(prefix && !r.err.empty() && r.err.back() == '\n') << r.err;
    }
    testing::writeTextFile("/etc/hmx/hmx.conf", conf);
    const std::string listed = runProcess({"/usr/bin/ssh-keygen", "-l", "-f", file}).out;
    ASSERT_TRUE(contains(listed, " " + name + " (ED25519)")) << listed;
    EXPECT_EQ(0, runProcess({"/usr/bin/ssh-keygen", "-F", name, "-f", file}).status);
    const std::string key = listed.substr(listed.find("SHA256:"), 50);
    EXPECT_EQ(0, ferrygate({"--send-scout", "--host-key=" + key}).status);
    EXPECT_TRUE(contains(sshd_.log(), "Accepted password for " + user()));

    // Another server, with a key of its own, where the first one was; then none.
    sshd_.stop();
    SshdOptions same;
    same.port = port();
    SshdServer other(same);
    r = ferrygate({"--send-scout"});
    EXPECT_EQ(19, r.status);
    EXPECT_EQ(0u, r.err.find(failed + "expected " + key + " (recorded in " + file +
                             "), but the server offered SHA256:"))
        << r.err;
    const std::string log = other.log();
    EXPECT_TRUE(contains(log, "Connection from 127.0.0.1")) << log;
    for (const char* attempt : {"Accepted ", "Failed ", "Postponed ", "Invalid user"}) {
        EXPECT_FALSE(contains(log, attempt)) << log;
    }
    other.stop();
    r = ferrygate({"--send-scout"});
    EXPECT_EQ(11, r.status);
    EXPECT_EQ("No one listening on the remote address at host 127.0.0.1", r.err + r.out);
}

using Content = Migration;

// Each refresh replaces the session's copy of the agent's dumping status with a new file (the
// agent's own text may not have changed in between); a stop ends even a dump during which
// nothing moves, within a wait.
TEST_F(Content, ALongDumpRefreshesTheDumpingStatusAndStopsWithinAWait) {
    configureAgent("delay = 12\n");
    ASSERT_EQ(0, ferrygate({"--deploy-agent"}).status);
    std::atomic<bool> done(false);
    ProcessResult r;
    std::thread dump([&] {
        r = ferrygate({"--dump-all"});
        done = true;
    });
    std::set<ino_t> seen;
    while (!done) {
        struct stat st;
        if (contains(readFile(sessionFile("dumping-status.xml")), "state=\"running\"") &&
            stat(sessionFile("dumping-status.xml").c_str(), &st) == 0) {
            seen.insert(st.st_ino);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    dump.join();
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_GE(seen.size(), 2u) << readFile(sessionFile("migration.log"));

    r = stopWhen({"--dump-all"}, [&] {
        if (!contains(readFile(sessionFile("migration.status")), "wait")) return false;
        std::this_thread::sleep_for(std::chrono::seconds(1));  // the agent is running now
        return true;
    });
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("Migration has been terminated", r.out);
}

// The controlling process stops a download half way: the run ends in order, the partial copy
// and its source stay, and the next run fetches only what is missing.
TEST_F(Content, AStoppedDownloadEndsInOrderAndTheRerunFetchesOnlyTheRest) {
    addRandomFile("shop.test/big.bin", 4 << 20);
    deployAndDump();
    const std::string name = "shop.test_site.tar.gz";
    const std::string copy = sessionFile(name);
    RelayProcess slow(port(), "--rate-down 2000000");
    ProcessResult r = stopWhen({"--get-content", "--port=" + std::to_string(slow.port())},
                               [&] { return fs::exists(copy) && fs::file_size(copy) > (1 << 20); });
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("Migration has been terminated", r.out);
    EXPECT_TRUE(contains(readFile(sessionFile("migration.result")), "success"));
    EXPECT_TRUE(contains(readFile(sessionFile("migration.status")), "<idle/>"));
    EXPECT_TRUE(fs::exists(remoteAgent_ + "/content/" + name));
    const uint64_t kept = fs::file_size(copy);
    const auto archives = dumpArchives();
    const auto file = std::find_if(archives.begin(), archives.end(),
                                   [&](const Archive& a) { return a.name == name; });
    ASSERT_NE(archives.end(), file);
    ASSERT_GT(kept, 0u);
    ASSERT_LT(kept, file->size);
    RecordProperty("kept_bytes", std::to_string(kept));
    RecordProperty("file_bytes", std::to_string(file->size));

    r = ferrygate({"--get-content"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(file->md5, md5OfFile(copy));
    EXPECT_FALSE(fs::exists(remoteAgent_ + "/content/" + name));
    // Only the rest crossed the wire: the command started at the first missing byte.
    EXPECT_TRUE(contains(readFile(sessionFile("migration.log")),
                         "tail -c +" + std::to_string(kept + 1) + " "))
        << "resumed at " << kept << " of " << file->size;
}

// Into --dumps-dir only when it fits (--no-check-space on a disk too small is the fault
// matrix's full-disk row). A source that changed after the agent listed it (same size, same
// time, other bytes) is never accepted, and never deleted; once it is right again, a rerun
// finishes the copy, and an operator at a terminal sees the download move.
TEST_F(Content, SpaceAndSumsAreCheckedFirstAndProgressIsDrawnOnATerminal) {
    addRandomFile("shop.test/big.bin", 64 * 1024);
    deployAndDump();
    const auto archives = dumpArchives();
    uint64_t total = 0;
    for (const auto& file : archives) total += file.size;
    ASSERT_GT(total, 64u * 1024u);
    const std::string dumps = session_ + "/dumps";
    fs::create_directories(dumps);
    ASSERT_EQ(0, mount("fgsmall", dumps.c_str(), "tmpfs", 0, "size=16k"));
    ProcessResult r = ferrygate({"--get-content", "--dumps-dir=" + dumps});
    EXPECT_EQ(2, r.status);
    EXPECT_EQ("Selected filesystem has only 16384 free space, but " + std::to_string(total) +
                  " is needed for operation",
              r.err);
    EXPECT_TRUE(fs::is_empty(dumps));
    umount(dumps.c_str());

    const Archive& archive = archives.front();
    const std::string source = remoteAgent_ + "/content/" + archive.name;
    const std::string original = readFile(source);
    std::string changed = original;
    changed[changed.size() / 2] ^= 0x55;
    const std::time_t listedTime = fs::last_write_time(source);
    testing::writeTextFile(source, changed);
    fs::last_write_time(source, listedTime);
    r = ferrygate({"--get-content", "--dumps-dir=" + dumps});
    EXPECT_EQ(2, r.status);
    EXPECT_TRUE(contains(r.err, "but it has to be " + archive.md5)) << r.err;
    EXPECT_EQ(changed, readFile(source));
    EXPECT_FALSE(fs::exists(dumps + "/" + archive.name));
    EXPECT_EQ(changed, readFile(dumps + "/" + archive.name + ".rejected"));

    testing::writeTextFile(source, original);
    fs::last_write_time(source, listedTime);
    std::string line;
    for (const std::string& arg :
         command({"--get-content", "--dumps-dir=" + dumps, "--progress"}, false)) {
        line += sh_quote(arg) + " ";
    }
    r = runProcess({"/usr/bin/script", "-qec", line, "/dev/null"}, "",
                   {"HMX_PASSWORD=" + password()});
    ASSERT_EQ(0, r.status) << r.out;
    EXPECT_TRUE(contains(r.out, "\rfile ") && contains(r.out, " left")) << r.out;
    for (const auto& file : archives) {
        EXPECT_EQ(file.md5, md5OfFile(dumps + "/" + file.name)) << file.name;
    }
    EXPECT_FALSE(fs::exists(source));
    EXPECT_EQ(dumps + "/dump.xml", readFile(sessionFile("dump-name")));
}

}  // namespace
}  // namespace test
}  // namespace tavik
