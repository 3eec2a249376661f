#include "ferrygate/session.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <string>

#include "commons/exceptions.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace {

using testing::inSandbox;
using testing::ScratchDir;

struct stat statOf(const std::string& path) {
    struct stat st = {};
    EXPECT_EQ(0, stat(path.c_str(), &st)) << path;
    return st;
}

void expectSessionDirectory(const std::string& path, unsigned group) {
    struct stat st = statOf(path);
    EXPECT_EQ(S_IFDIR | 0750u, st.st_mode) << path;
    EXPECT_EQ(0u, st.st_uid) << path;
    EXPECT_EQ(group, st.st_gid) << path;
}

TEST(Session, DirectoriesGetRootTheUidOfHmxadmAndMode0750) {
    ASSERT_TRUE(testing::addSystemAccount("hmxadm"));
    const unsigned hmxadm = getpwnam("hmxadm")->pw_uid;
    ScratchDir scratch;
    SessionFiles session(scratch.path() + "/deep/s");
    expectSessionDirectory(scratch.path() + "/deep/s", hmxadm);
    expectSessionDirectory(scratch.path() + "/deep/s/archives", hmxadm);
}

TEST(Session, WithoutHmxadmTheGroupIsZero) {
    ASSERT_TRUE(inSandbox());
    ASSERT_NE(-1, system("userdel hmxadm >/dev/null 2>&1"));
    ScratchDir scratch;
    ::testing::internal::CaptureStdout();
    SessionFiles session(scratch.path() + "/s");
    ::testing::internal::GetCapturedStdout();
    expectSessionDirectory(scratch.path() + "/s/archives", 0);
}

TEST(Session, NamesAreConcatenatedNotJoined) {
    ScratchDir scratch;
    const std::string dir = scratch.path() + "/s/";
    SessionFiles session(dir);
    EXPECT_EQ(dir, session.getDir());
    EXPECT_EQ(dir, session.getCidFilesDir());
    const std::pair<std::string, std::string> names[] = {
        {session.getLogFileName(), "/migration.log"},
        {session.getResultFileName(), "/migration.result"},
        {session.getStatusFileName(), "/migration.status"},
        {session.getDeploymentStatusFileName(), "/agent-deployment.status"},
        {session.getScoutResultFileName(), "/scout-result.xml"},
        {session.getDumpFileName(), "/dump.xml"},
        {session.getDumpingStatusFileName(), "/dumping-status.xml"},
        {session.getTavikDumpFileName(), "/restore.xml"},
        {session.getCidFile("a.tgz"), "/a.tgz"},
    };
    for (const auto& name : names) EXPECT_EQ(dir + name.second, name.first);
    session.remove();
    EXPECT_FALSE(boost::filesystem::exists(dir));
}

TEST(Session, ExistingDirectoryIsReusedUnchanged) {
    ScratchDir scratch;
    const std::string dir = scratch.path() + "/s";
    mkdir(dir.c_str(), 0700);
    mkdir((dir + "/archives").c_str(), 0711);
    SessionFiles session(dir);
    EXPECT_EQ(S_IFDIR | 0700u, statOf(dir).st_mode);
    EXPECT_EQ(S_IFDIR | 0711u, statOf(dir + "/archives").st_mode);
}

TEST(Session, ControllerPublishesTheSessionOnlyForItsLifetime) {
    ScratchDir scratch;
    {
        SessionLifetimeController controller(scratch.path() + "/s");
        ASSERT_NE(nullptr, theSession);
        EXPECT_EQ(scratch.path() + "/s", theSession->getDir());
    }
    EXPECT_EQ(nullptr, theSession);
    testing::writeTextFile(scratch.path() + "/f", "x");
    try {
        SessionLifetimeController controller(scratch.path() + "/f");
        ADD_FAILURE() << "a regular file was taken for a session directory";
    } catch (const Exc<&UnableToCreateSession>& e) {
        EXPECT_STREQ("Unable to create session: Unable to create session directory", e.what());
    }
    EXPECT_EQ(nullptr, theSession);
}

}  // namespace
}  // namespace tavik
