#include <gtest/gtest.h>
#include <pwd.h>
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
using testing::addSystemAccount;
using testing::inSandbox;
using testing::readFile;
using testing::ScratchDir;

// The binary with `args`, run in `cwd`.
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

const char kUsage[] =
    "Usage: [HMX_PASSWORD=<password> | HMX_SUDO_PASSWORD = <sudo_password>] ferrygate \n"
    "          --host=<hostname or IP address> (obsolete alias is --ip)\n"
    "          [--port=<port>] (defaults to 22)\n"
    "          --login=<username>\n"
    "          [--sudo-password]\n"
    "          --agent-dir=<dir> (relative path on the remote side)\n"
    "          ( --send-scout\n"
    "          | --deploy-agent --session-path <dir> --agent-name <agent>\n"
    "          | --get-dumping-status --session-path <dir>\n"
    "          | ( --dump-selected [--selected-objects-file=<file-path>]\n"
    "                [--resellers=-|<reseller1>[,<reseller2>...]] "
    "[--clients=-|<client1>[,<client2>...]] [--domains=-|<domain1>[,<domain2>...]]\n"
    "             | --dump-all ) --session-path <dir> --agent-name <agent>\n"
    "                [--no-content] [--no-compress]\n"
    "                [--only-mail]\n"
    "                [--only-hosting]\n"
    "          | --get-content --session-path <dir> --agent-name <agent>\n"
    "                [--no-check-space] [--no-encryption (not implemented)] "
    "[--dumps-dir=<dir-on-destination-host>]\n"
    "          | --remove-agent --session-path <dir> --agent-name <agent>\n"
    "          | --remove-dumping-status --session-path <dir>\n"
    "          | --help | -h)\n";

bool isEmptyDir(const std::string& dir) {
    return boost::filesystem::is_empty(boost::filesystem::path(dir));
}

TEST(Driver, HelpPrintsTheUsageAndCreatesNothing) {
    ScratchDir cwd;
    // A password in the environment does not matter: help is answered before verification.
    setenv("HMX_PASSWORD", "pw", 1);
    for (const char* help : {"--help", "-h"}) {
        ProcessResult r = run({help, "--session-path", "s"}, cwd.path());
        EXPECT_EQ(0, r.status) << help;
        EXPECT_EQ(kUsage, r.out) << help;
        EXPECT_EQ("", r.err) << help;
        EXPECT_TRUE(isEmptyDir(cwd.path())) << help;
    }
}

// A refused command line still leaves the session directory (root, group hmxadm, 0750) and
// its log, where the refusal stands between the start and the end records; but only once the
// log configuration is installed: without it the run stops at the last-resort handler.
TEST(Driver, AVerificationFailureIsRecordedInTheSessionLog) {
    ASSERT_TRUE(addSystemAccount("hmxadm"));
    ScratchDir product, cwd;
    testing::writeTextFile("/etc/hmx/hmx.conf", "PRODUCT_ROOT_D " + product.path() + "\n");
    ProcessResult r = run({"--send-scout", "--session-path", "S"}, cwd.path());
    EXPECT_EQ(1, r.status);
    EXPECT_EQ(0u, r.err.find("Uncaught std::exception: ")) << r.err;
    find(r.err, product.path() + "/RKU/log4cpp.properties");

    testing::writeTextFile(product.path() + "/RKU/log4cpp.properties",
                           readFile(FERRYGATE_SOURCE_DIR "/data/log4cpp.properties"));
    r = run({"--send-scout", "--session-path", "S"}, cwd.path());
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
                              " --send-scout --session-path S\n");
    at = find(log,
              "[INFO] p.log: OptParsingError: Unable to parse command line: host is required "
              "unless --help or -h requested\n [",
              at);
    at = find(log, "/ferrygate/options.cc:", at);
    EXPECT_EQ(log.size(), find(log, end, at) + end.size());
    EXPECT_EQ("", readFile(cwd.path() + "/S/migration.log.debug"));

    // --verbose means the debug log, never messages on the console.
    r = run({"--send-scout", "--session-path=V", "--verbose"}, cwd.path());
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("", r.out + r.err);
    const std::string debug = readFile(cwd.path() + "/V/migration.log.debug");
    find(debug, "p.log: Ferrygate started : ");
    find(debug, "p.log: " + end.substr(end.find("Ferrygate")));
}

TEST(Driver, EarlyFailuresAnswerOnStandardErrorBeforeAnySessionExists) {
    ASSERT_TRUE(addSystemAccount("hmxadm"));
    ScratchDir cwd;
    const struct {
        std::vector<std::string> args;
        std::string err;  // the start of standard error, or a part of it after "..."
    } cases[] = {
        {{"--session-path", "S"}, "Action required. See --help\n"},
        {{"--send-scout", "--host=h"}, "--session-path is required.\n"},
        {{"--send-scout", "--no-such-option", "--session-path=S"}, "...no-such-option"},
        {{"--send-scout", "--session-path=file"},
         "Uncaught ExTraceableException: ...UnableToCreateSession: Unable to create session: "
         "Unable to create session directory ["},
    };
    testing::writeTextFile(cwd.path() + "/file", "");
    for (const auto& c : cases) {
        const ProcessResult r = run(c.args, cwd.path());
        EXPECT_EQ(1, r.status) << c.err;
        EXPECT_EQ("", r.out) << c.err;
        const size_t dots = c.err.find("...");
        EXPECT_EQ(0u, r.err.find(c.err.substr(0, dots))) << r.err;
        if (dots != std::string::npos) find(r.err, c.err.substr(dots + 3));
        EXPECT_FALSE(boost::filesystem::exists(cwd.path() + "/S")) << c.err;
    }
}

}  // namespace
}  // namespace tavik
