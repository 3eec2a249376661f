// The real ferrygate against a real sshd, sudo and the hostdump agent, as a controlling process
// would run it: one action per run, results read from the session directory.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <regex>
#include <string>
#include <vector>

#include "support/cmdline_watch.h"
#include "support/migration_host.h"

namespace tavik {
namespace test {
namespace {

namespace fs = boost::filesystem;

class Migration : public MigrationTest {
  protected:
    Migration() : MigrationTest(FERRYGATE_BINARY) {}

    // Every content archive that dump.xml names, with its MD5 sum.
    std::vector<std::pair<std::string, std::string>> contentOfDump() {
        std::vector<std::pair<std::string, std::string>> files;
        const std::string dump = readFile(sessionFile("dump.xml"));
        const std::regex content(
            "<content file=\"([^\"]+)\" size=\"[0-9]+\" unpacked=\"[0-9]+\" "
            "md5sum=\"([0-9a-f]{32})\"/>");
        for (std::sregex_iterator it(dump.begin(), dump.end(), content), end; it != end; ++it) {
            files.emplace_back((*it)[1], (*it)[2]);
        }
        return files;
    }

    void expectOwnedByLogin(const std::string& path) {
        struct stat st;
        ASSERT_EQ(0, stat(path.c_str(), &st)) << path;
        EXPECT_EQ(getpwnam(user().c_str())->pw_uid, st.st_uid) << path;
    }

    // Neither password in any command line seen, ferrygate's or the source host's; and the
    // watch saw the command that ran the agent (through sudo when `sudo`), so it was looking.
    void expectNoPasswordInCommandLines(CmdlineWatch& watch, bool sudo) {
        bool sawAgent = false;
        for (const std::string& command : watch.stop()) {
            EXPECT_EQ(std::string::npos, command.find(password())) << command;
            EXPECT_EQ(std::string::npos, command.find(sudoPassword_)) << command;
            sawAgent = sawAgent || (command.find("hostdump.pl --") != std::string::npos &&
                                    (!sudo || command.find("sudo -S") != std::string::npos));
        }
        EXPECT_TRUE(sawAgent);
    }

    void expectIdleAndSucceeded() {
        EXPECT_NE(std::string::npos, readFile(sessionFile("migration.status")).find("<idle/>"));
        EXPECT_NE(std::string::npos,
                  readFile(sessionFile("migration.result")).find("status=\"success\""));
    }

    // The whole migration, one run per action, checking what each leaves behind.
    void migrate(bool sudo) {
        ProcessResult r = ferrygate({"--send-scout", "--verbose"}, sudo);
        ASSERT_EQ(0, r.status) << r.err;
        EXPECT_NE(std::string::npos, readFile(sessionFile("scout-result.xml")).find("<scout"));
        EXPECT_NE(std::string::npos,
                  readFile(sessionFile("scout-result.xml"))
                      .find("<tool name=\"sudo\" present=\"yes\" path=\"/usr/bin/sudo\"/>"));
        expectIdleAndSucceeded();

        r = ferrygate({"--deploy-agent", "--verbose"}, sudo);
        ASSERT_EQ(0, r.status) << r.err;
        EXPECT_NE(std::string::npos, readFile(sessionFile("agent-deployment.status"))
                                         .find("<statusfile>dumping-status.xml</statusfile>"));
        for (const char* file : {"FerryAgent.pm", "hostdump.pl", "hostdump.conf"}) {
            expectOwnedByLogin(remoteAgent_ + "/" + file);
        }
        EXPECT_FALSE(fs::exists(remoteAgent_ + "/control"));
        expectIdleAndSucceeded();

        r = ferrygate({"--dump-all", "--verbose"}, sudo);
        ASSERT_EQ(0, r.status) << r.err;
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
        expectIdleAndSucceeded();

        const auto archives = contentOfDump();
        ASSERT_EQ(4u, archives.size());
        r = ferrygate({"--get-content", "--verbose"}, sudo);
        ASSERT_EQ(0, r.status) << r.err;
        for (const auto& archive : archives) {
            EXPECT_EQ(archive.second, md5OfFile(sessionFile(archive.first))) << archive.first;
            EXPECT_FALSE(fs::exists(remoteAgent_ + "/content/" + archive.first));
        }
        EXPECT_EQ(session_ + "/dump.xml", readFile(sessionFile("dump-name")));
        const std::string unpacked = session_ + "/unpacked";
        fs::create_directories(unpacked);
        ASSERT_EQ(0, runProcess({"/bin/tar", "-C", unpacked, "-xzf",
                                 sessionFile("example.com_site.tar.gz")})
                         .status);
        EXPECT_EQ(readFile(hosting_ + "/web/example.com/httpdocs/img/logo.png"),
                  readFile(unpacked + "/example.com/httpdocs/img/logo.png"));
        expectIdleAndSucceeded();

        r = ferrygate({"--remove-agent", "--verbose"}, sudo);
        ASSERT_EQ(0, r.status) << r.err;
        EXPECT_FALSE(fs::exists(remoteAgent_));
        EXPECT_EQ("", r.out + r.err);
    }
};

TEST_F(Migration, EveryActionAsTheLogin) { migrate(false); }

TEST_F(Migration, EveryActionThroughSudoWithoutLeakingEitherPassword) {
    configureAgent("delay = 1\n");  // the agent lives long enough for the watch to see it
    CmdlineWatch watch;
    migrate(true);
    expectNoPasswordInCommandLines(watch, true);
    const std::string log =
        readFile(sessionFile("migration.log")) + readFile(sessionFile("migration.log.debug"));
    EXPECT_NE(std::string::npos, log.find("sudo -S")) << "the log shows no sudo command";
    EXPECT_EQ(std::string::npos, log.find(password()));
    EXPECT_EQ(std::string::npos, log.find(sudoPassword_));
    for (fs::recursive_directory_iterator it(session_), end; it != end; ++it) {
        if (!fs::is_regular_file(it->path())) continue;
        const std::string text = readFile(it->path().string());
        EXPECT_EQ(std::string::npos, text.find(password())) << it->path();
        EXPECT_EQ(std::string::npos, text.find(sudoPassword_)) << it->path();
    }
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
    EXPECT_EQ(
        "uid=0\n"
        "arg=--content-transport=rsync\n"
        "arg=--dump-domains=-\n"
        "arg=--dump-clients=-\n"
        "arg=--dump-resellers=-\n"
        "arg=--only-mail\n"
        "arg=--no-compress\n"
        "arg=--include-app-distrib\n"
        "arg=--no-content\n"
        "in=127.0.0.1\n"
        "in=" +
            user() +
            "\n"
            "in=(password withheld)\n"
            "in=" +
            std::to_string(port()) +
            "\n"
            "in=-\n"
            "in=alice,carol\n"
            "in=r1\n"
            "in-final-newline=no\n",
        readFile(remoteAgent_ + "/last-invocation"));
    expectNoPasswordInCommandLines(watch, true);
    const std::string dump = readFile(sessionFile("dump.xml"));
    EXPECT_NE(std::string::npos, dump.find("<not-found type=\"domain\" name=\"-\"/>"));
    EXPECT_NE(std::string::npos, dump.find("<not-found type=\"reseller\" name=\"r1\"/>"));
    EXPECT_EQ(std::string::npos, dump.find("lists.org"));
    EXPECT_NE(std::string::npos, dump.find("<domain name=\"shop.test\">"));
    EXPECT_EQ(std::string::npos, dump.find("<site ")) << "--only-mail dumped a site";
    EXPECT_EQ(std::string::npos, dump.find("<content ")) << "--no-content packed content";
    const std::string log =
        readFile(sessionFile("migration.log")) + readFile(sessionFile("migration.log.debug"));
    EXPECT_EQ(std::string::npos, log.find(password()));
    EXPECT_EQ(std::string::npos, log.find(sudoPassword_));
}

TEST_F(Migration, FailuresEndWithTheirOwnCodeAndMessage) {
    const std::string base = "--session-path=" + session_;
    const std::vector<std::string> login = {"--login=" + user(), base, "--send-scout"};

    ASSERT_EQ(0, ferrygate({"--deploy-agent"}).status);
    ProcessResult r = ferrygate({"--dump-all", "--agent-name=nosuchagent"});
    EXPECT_EQ(2, r.status);
    EXPECT_EQ("Error during dump retrieval", r.err);
    const std::string result = readFile(sessionFile("migration.result"));
    const auto outer = result.find("CantRetrieveDump");
    EXPECT_NE(std::string::npos, outer) << result;
    EXPECT_NE(std::string::npos, result.find("AgentNotFound", outer)) << result;
    EXPECT_NE(std::string::npos, result.find("status=\"error\"")) << result;

    r = ferrygate({"--send-scout"}, true);
    EXPECT_EQ(0, r.status) << r.err;
    std::vector<std::string> wrongSudo = {"--host=127.0.0.1",  "--port=" + std::to_string(port()),
                                          "--login=" + user(), base,
                                          "--send-scout",      "--sudo-password"};
    r = ferrygateRaw(wrongSudo, {"HMX_PASSWORD=" + password(), "HMX_SUDO_PASSWORD=wrong"});
    EXPECT_EQ(2, r.status);
    EXPECT_EQ("sudo is not allowed for user " + user() + " on host 127.0.0.1.", r.err);

    std::vector<std::string> args = {"--host=127.0.0.1", "--port=" + std::to_string(port())};
    args.insert(args.end(), login.begin(), login.end());
    r = ferrygateRaw(args, {"HMX_PASSWORD=" + password() + "x"});
    EXPECT_EQ(17, r.status);
    EXPECT_EQ(
        "Unable to connect to host 127.0.0.1: you have specified incorrect username or "
        "password",
        r.err);

    args[0] = "--host=nowhere.invalid";
    r = ferrygateRaw(args, {"HMX_PASSWORD=" + password()});
    EXPECT_EQ(16, r.status);
    EXPECT_EQ(0u, r.err.find("Unable to resolve hostname nowhere.invalid: ")) << r.err;
    EXPECT_NE('\n', r.err.back());

    // The server's port is free once it is stopped.
    sshd().stop();
    args[0] = "--host=127.0.0.1";
    r = ferrygateRaw(args, {"HMX_PASSWORD=" + password()});
    EXPECT_EQ(11, r.status);
    EXPECT_EQ("No one listening on the remote address at host 127.0.0.1", r.err);
    EXPECT_EQ("", r.out);
}

}  // namespace
}  // namespace test
}  // namespace tavik
