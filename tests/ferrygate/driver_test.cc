// The real binary refusing a command line, before any connection.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/process.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace {

using test::ProcessResult;
using testing::readFile;

ProcessResult run(const std::vector<std::string>& args, const std::string& cwd) {
    std::vector<std::string> argv = {FERRYGATE_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    return test::runProcess(argv, "", {}, cwd);
}

size_t find(const std::string& text, const std::string& what, size_t from = 0) {
    const size_t at = text.find(what, from);
    EXPECT_NE(std::string::npos, at) << "no \"" << what << "\" in:\n" << text;
    return at;
}

// Early refusals answer on standard error before any session exists. A command line refused by
// verification still leaves the session directory (root, group hmxadm, 0750) and its log, where
// the start record (every word quoted for the shell, a password masked), what the configuration
// reader found and the refusal stand in order, and nothing on the console. A one-letter password
// leaves every other word of the log intact.
TEST(Driver, RefusalsAnswerOnStandardErrorOrInTheSessionLog) {
    ASSERT_TRUE(testing::addSystemAccount("hmxadm"));
    testing::ScratchDir product, cwd;
    testing::writeTextFile("/etc/hmx/hmx.conf",
                           "PRODUCT_ROOT_D " + product.path() + "\nPRODUCT_ROOT_D=/opt/hmx\n");
    testing::writeTextFile(product.path() + "/RKU/log4cpp.properties",
                           readFile(FERRYGATE_SOURCE_DIR "/data/log4cpp.properties"));
    testing::writeTextFile(cwd.path() + "/file", "");
    const struct {
        std::vector<std::string> args;
        std::string err;  // the start of standard error, or a part of it after "..."
    } early[] = {
        {{"--session-path", "S"}, "Action required. See --help\n"},
        {{"--send-scout", "--no-such-option", "--session-path=S"}, "...no-such-option"},
        {{"--send-scout", "--session-path=file"},
         "Uncaught ExTraceableException: ...UnableToCreateSession: Unable to create session: "
         "Unable to create session directory ["},
    };
    for (const auto& c : early) {
        const ProcessResult r = run(c.args, cwd.path());
        EXPECT_EQ(1, r.status) << c.err;
        EXPECT_EQ("", r.out) << c.err;
        const size_t dots = c.err.find("...");
        EXPECT_EQ(0u, r.err.find(c.err.substr(0, dots))) << r.err;
        if (dots != std::string::npos) find(r.err, c.err.substr(dots + 3));
        EXPECT_FALSE(boost::filesystem::exists(cwd.path() + "/S")) << c.err;
    }

    setenv("HMX_PASSWORD", "p", 1);
    const ProcessResult r =
        run({"--send-scout", "--session-path", "S", "--login=a b", "--agent-name=it's",
             "--agent-dir=;", "--domains=x\ny", "--clients=p"},
            cwd.path());
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("", r.out + r.err);
    struct stat st = {};
    ASSERT_EQ(0, stat((cwd.path() + "/S").c_str(), &st));
    EXPECT_EQ(S_IFDIR | 0750u, st.st_mode);
    EXPECT_EQ(getpwnam("hmxadm")->pw_uid, st.st_gid);
    EXPECT_TRUE(boost::filesystem::is_directory(cwd.path() + "/S/archives"));

    const std::string log = readFile(cwd.path() + "/S/migration.log");
    const std::string end = "[INFO] p.log: Ferrygate finished. Exit code: 1\n";
    size_t at = find(log, std::string(" [INFO] p.log: Ferrygate started : ") + FERRYGATE_BINARY +
                              " --send-scout --session-path S --login=a\\ b --agent-name=it\\'s "
                              "--agent-dir=\\; --domains=x'\n'y ***\n");
    at = find(log,
              "[INFO] p.log: /etc/hmx/hmx.conf:2: Invalid variable definition "
              "PRODUCT_ROOT_D=/opt/hmx: expected a space after variable name\n",
              at);
    at = find(log,
              "[INFO] p.log: OptParsingError: Unable to parse command line: host is required "
              "unless --help or -h requested\n [",
              at);
    at = find(log, "/ferrygate/options.cc:", at);
    EXPECT_EQ(log.size(), find(log, end, at) + end.size());
    EXPECT_EQ(std::string::npos, log.find("***", log.find("***") + 1)) << log;
    EXPECT_EQ("", readFile(cwd.path() + "/S/migration.log.debug"))
        << "debug lines without --verbose";

    // A broken host ends an action with a clean error before any connection: agents without
    // 'shared', an agent whose spec does not parse, a session directory that not even root may
    // write (saving the status fails; the last-resort handler ends the run), no hmx.conf (last).
    testing::writeTextFile(product.path() + "/RKU/agents/a/control/spec", "EntryPoint a.pl\n");
    const std::string ro = cwd.path() + "/ro";
    boost::filesystem::create_directories(ro);
    ASSERT_EQ(0, mount("fgro", ro.c_str(), "tmpfs", MS_RDONLY, "size=64k"));
    const struct {
        std::string action, session;
        int code;
        std::string err, cause;  // all of standard error (or its start before "..."); the result's
    } broken[] = {
        {"--deploy-agent", "B", 2, "'shared' agents directory not found",
         "NoSharedAgentsDirectory"},
        {"--dump-all", "B", 2, "Error during dump retrieval", "AgentNotFound"},
        {"--send-scout", "ro", 1,
         "Can not create temporary file with the template 'ro/migration.statusXXXXXX': Read-only "
         "file system....",
         ""},
        {"--send-scout", "B", 1,
         "ferrygate: the product tree is not installed (no /usr/local/hmx/RKU/log4cpp.properties): "
         "install it with 'cmake --install build' or the ferrygate .deb package\n",
         ""},
    };
    for (const auto& row : broken) {
        if (&row == std::end(broken) - 1) boost::filesystem::remove("/etc/hmx/hmx.conf");
        std::vector<std::string> args = {row.action, "--session-path=" + row.session, "--host=h",
                                         "--login=l"};
        if (row.code == 2) args.insert(args.end(), {"--agent-dir=d", "--agent-name=a"});
        const ProcessResult r = run(args, cwd.path());
        EXPECT_EQ(row.code, r.status) << row.err;
        const size_t dots = row.err.rfind("...");
        EXPECT_EQ(row.err.substr(0, dots), r.err.substr(0, dots));
        find(readFile(cwd.path() + "/B/migration.result"), row.cause);
    }
    EXPECT_TRUE(boost::filesystem::is_empty(ro));
    umount(ro.c_str());
}

}  // namespace
}  // namespace tavik
