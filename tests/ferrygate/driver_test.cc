#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <string>

#include "support/product_root.h"
#include "support/run_program.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace {

using testing::addSystemAccount;
using testing::inSandbox;
using testing::ProgramResult;
using testing::runProgram;
using testing::ScratchDir;

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
        ProgramResult r = runProgram(FERRYGATE_BINARY, {help, "--session-path", "s"}, cwd.path());
        EXPECT_EQ(0, r.exitCode) << help;
        EXPECT_EQ(kUsage, r.out) << help;
        EXPECT_EQ("", r.err) << help;
        EXPECT_TRUE(isEmptyDir(cwd.path())) << help;
    }
}

TEST(Driver, RejectedOptionsLeaveTheSessionDirectoryStandingWithItsMode) {
    ASSERT_TRUE(inSandbox());
    ASSERT_TRUE(addSystemAccount("hmxadm"));
    testing::ProductRoot product(FERRYGATE_SOURCE_DIR "/data/log4cpp.properties");
    ScratchDir cwd;
    ProgramResult r = runProgram(
        FERRYGATE_BINARY, {"--send-scout", "--send-scout", "--session-path", "S"}, cwd.path());
    EXPECT_EQ(1, r.exitCode);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("", r.err);
    struct stat st = {};
    ASSERT_EQ(0, stat((cwd.path() + "/S").c_str(), &st));
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(0750u, st.st_mode & 07777);
    EXPECT_EQ(getpwnam("hmxadm")->pw_uid, st.st_gid);
    EXPECT_TRUE(boost::filesystem::is_directory(cwd.path() + "/S/archives"));
}

TEST(Driver, EarlyChecksAnswerBeforeAnySessionExists) {
    ScratchDir cwd;
    ProgramResult r = runProgram(FERRYGATE_BINARY, {"--session-path", "S"}, cwd.path());
    EXPECT_EQ(1, r.exitCode);
    EXPECT_EQ("Action required. See --help\n", r.err);

    r = runProgram(FERRYGATE_BINARY, {"--send-scout", "--host=h"}, cwd.path());
    EXPECT_EQ(1, r.exitCode);
    EXPECT_EQ("--session-path is required.\n", r.err);

    r = runProgram(FERRYGATE_BINARY, {"--send-scout", "--no-such-option", "--session-path=S"},
                   cwd.path());
    EXPECT_EQ(1, r.exitCode);
    EXPECT_NE(std::string::npos, r.err.find("no-such-option"));
    EXPECT_EQ("", r.out);
    EXPECT_TRUE(isEmptyDir(cwd.path()));
}

TEST(Driver, AnUncreatableSessionIsReportedAsUncaught) {
    ASSERT_TRUE(inSandbox());
    ASSERT_TRUE(addSystemAccount("hmxadm"));
    ScratchDir cwd;
    testing::writeTextFile(cwd.path() + "/file", "");
    ProgramResult r =
        runProgram(FERRYGATE_BINARY, {"--send-scout", "--session-path=file"}, cwd.path());
    EXPECT_EQ(1, r.exitCode);
    EXPECT_EQ(0u, r.err.find("Uncaught ExTraceableException: ")) << r.err;
    EXPECT_NE(std::string::npos,
              r.err.find("UnableToCreateSession: Unable to create session: Unable to create "
                         "session directory ["))
        << r.err;
}

}  // namespace
}  // namespace tavik
