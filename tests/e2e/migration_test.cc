// The real ferrygate against a real sshd, sudo and the hostdump agent, as a controlling process
// would run it: one action per run, results read from the session directory.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
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
        EXPECT_EQ(session_ + "/dump.xml", readFile(sessionFile("dump-name")));
        const std::string unpacked = session_ + "/unpacked";
        fs::create_directories(unpacked);
        ASSERT_EQ(0, runProcess({"/bin/tar", "-C", unpacked, "-xzf",
                                 sessionFile("example.com_site.tar.gz")})
                         .status);
        EXPECT_EQ(readFile(hosting_ + "/web/example.com/httpdocs/img/logo.png"),
                  readFile(unpacked + "/example.com/httpdocs/img/logo.png"));

        const ProcessResult removed = step("--remove-agent");
        EXPECT_FALSE(fs::exists(remoteAgent_));
        EXPECT_EQ("", removed.out + removed.err);
    }
};

TEST_F(Migration, EveryActionAsTheLogin) { migrate(false); }

TEST_F(Migration, EveryActionThroughSudoWithoutLeakingEitherPassword) {
    configureAgent("delay = 1\n");  // the agent lives long enough for the watch to see it
    CmdlineWatch watch;
    migrate(true);
    expectNoPasswordLeaked(watch);
    const std::string log =
        readFile(sessionFile("migration.log")) + readFile(sessionFile("migration.log.debug"));
    EXPECT_NE(std::string::npos, log.find("sudo -S")) << "the log shows no sudo command";
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
    expectNoPasswordLeaked(watch);
    const std::string dump = readFile(sessionFile("dump.xml"));
    EXPECT_NE(std::string::npos, dump.find("<not-found type=\"domain\" name=\"-\"/>"));
    EXPECT_NE(std::string::npos, dump.find("<not-found type=\"reseller\" name=\"r1\"/>"));
    EXPECT_EQ(std::string::npos, dump.find("lists.org"));
    EXPECT_NE(std::string::npos, dump.find("<domain name=\"shop.test\">"));
    EXPECT_EQ(std::string::npos, dump.find("<site ")) << "--only-mail dumped a site";
    EXPECT_EQ(std::string::npos, dump.find("<content ")) << "--no-content packed content";
}

TEST_F(Migration, FailuresEndWithTheirOwnCodeAndMessage) {
    ASSERT_EQ(0, ferrygate({"--deploy-agent"}).status);
    ProcessResult r = ferrygate({"--dump-all", "--agent-name=nosuchagent"});
    EXPECT_EQ(2, r.status);
    EXPECT_EQ("Error during dump retrieval", r.err);
    const std::string result = readFile(sessionFile("migration.result"));
    EXPECT_NE(std::string::npos, result.find("status=\"error\"")) << result;
    EXPECT_NE(std::string::npos, result.find("AgentNotFound", result.find("CantRetrieveDump")))
        << result;

    // The scout connects with the login alone; each row changes one thing of a good run.
    const std::string portArg = "--port=" + std::to_string(port());
    const struct {
        std::string host, password, sudo;
        int code;
        std::string message;  // all of standard error, or its start when it ends in ": "
    } cases[] = {
        {"127.0.0.1", password(), sudoPassword_, 0, ""},
        {"127.0.0.1", password(), "wrong", 2,
         "sudo is not allowed for user " + user() + " on host 127.0.0.1."},
        {"127.0.0.1", password() + "x", "", 17,
         "Unable to connect to host 127.0.0.1: you have specified incorrect username or password"},
        {"nowhere.invalid", password(), "", 16, "Unable to resolve hostname nowhere.invalid: "},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args = {"--host=" + c.host, portArg, "--login=" + user(),
                                         "--session-path=" + session_, "--send-scout"};
        std::vector<std::string> env = {"HMX_PASSWORD=" + c.password};
        if (!c.sudo.empty()) {
            args.push_back("--sudo-password");
            env.push_back("HMX_SUDO_PASSWORD=" + c.sudo);
        }
        r = ferrygateRaw(args, env);
        EXPECT_EQ(c.code, r.status) << c.message;
        const bool prefix = c.message.size() > 2 && c.message.substr(c.message.size() - 2) == ": ";
        EXPECT_EQ(c.message, prefix ? r.err.substr(0, c.message.size()) : r.err);
        EXPECT_FALSE(prefix && !r.err.empty() && r.err.back() == '\n') << r.err;
    }

    // The server's port is free once it is stopped.
    sshd().stop();
    r = ferrygateRaw({"--host=127.0.0.1", portArg, "--login=" + user(),
                      "--session-path=" + session_, "--send-scout"},
                     {"HMX_PASSWORD=" + password()});
    EXPECT_EQ(11, r.status);
    EXPECT_EQ("No one listening on the remote address at host 127.0.0.1", r.err);
    EXPECT_EQ("", r.out);
}

}  // namespace
}  // namespace test
}  // namespace tavik
