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

using testing::addSystemAccount;
using testing::inSandbox;
using testing::ScratchDir;
using testing::writeTextFile;

struct stat statOf(const std::string& path) {
    struct stat st = {};
    EXPECT_EQ(0, stat(path.c_str(), &st)) << path;
    return st;
}

TEST(Session, DirectoriesGetRootHmxadmUidAndMode0750) {
    ASSERT_TRUE(inSandbox());
    ASSERT_TRUE(addSystemAccount("hmxadm"));
    const unsigned hmxadm = getpwnam("hmxadm")->pw_uid;
    ScratchDir scratch;
    const std::string dir = scratch.path() + "/deep/session";
    SessionFiles session(dir);
    for (const std::string& path : {dir, dir + "/archives"}) {
        struct stat st = statOf(path);
        EXPECT_TRUE(S_ISDIR(st.st_mode)) << path;
        EXPECT_EQ(0750u, st.st_mode & 07777) << path;
        EXPECT_EQ(0u, st.st_uid) << path;
        EXPECT_EQ(hmxadm, st.st_gid) << path;
    }
}

TEST(Session, MissingHmxadmGivesGroupZero) {
    ASSERT_TRUE(inSandbox());
    ASSERT_NE(-1, system("userdel hmxadm >/dev/null 2>&1"));
    ASSERT_EQ(nullptr, getpwnam("hmxadm"));
    ScratchDir scratch;
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    SessionFiles session(scratch.path() + "/s");
    const std::string err = ::testing::internal::GetCapturedStderr();
    ::testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, err.find("Unable to find uid for user hmxadm"));
    EXPECT_EQ(0u, statOf(scratch.path() + "/s").st_gid);
}

TEST(Session, NamesAreConcatenatedNotJoined) {
    ScratchDir scratch;
    const std::string dir = scratch.path() + "/s/";
    SessionFiles session(dir);
    EXPECT_EQ(dir, session.getDir());
    EXPECT_EQ(dir, session.getCidFilesDir());
    EXPECT_EQ(dir + "/migration.log", session.getLogFileName());
    EXPECT_EQ(dir + "/migration.result", session.getResultFileName());
    EXPECT_EQ(dir + "/migration.status", session.getStatusFileName());
    EXPECT_EQ(dir + "/agent-deployment.status", session.getDeploymentStatusFileName());
    EXPECT_EQ(dir + "/scout-result.xml", session.getScoutResultFileName());
    EXPECT_EQ(dir + "/dump.xml", session.getDumpFileName());
    EXPECT_EQ(dir + "/dumping-status.xml", session.getDumpingStatusFileName());
    EXPECT_EQ(dir + "/restore.xml", session.getTavikDumpFileName());
    EXPECT_EQ(dir + "/a.tgz", session.getCidFile("a.tgz"));
    EXPECT_TRUE(boost::filesystem::is_directory(scratch.path() + "/s/archives"));
    session.remove();
    EXPECT_FALSE(boost::filesystem::exists(scratch.path() + "/s"));
}

TEST(Session, ExistingDirectoryIsReusedUnchanged) {
    ScratchDir scratch;
    const std::string dir = scratch.path() + "/s";
    mkdir(dir.c_str(), 0700);
    mkdir((dir + "/archives").c_str(), 0711);
    writeTextFile(dir + "/migration.status", "old");
    SessionFiles session(dir);
    EXPECT_EQ(0700u, statOf(dir).st_mode & 07777);
    EXPECT_EQ(0711u, statOf(dir + "/archives").st_mode & 07777);
    EXPECT_TRUE(boost::filesystem::exists(dir + "/migration.status"));
}

TEST(Session, ControllerPublishesTheSessionForItsLifetime) {
    ScratchDir scratch;
    ASSERT_EQ(nullptr, theSession);
    {
        SessionLifetimeController controller(scratch.path() + "/s");
        ASSERT_NE(nullptr, theSession);
        EXPECT_EQ(scratch.path() + "/s", theSession->getDir());
    }
    EXPECT_EQ(nullptr, theSession);
}

TEST(Session, RegularFileIsNoSessionDirectory) {
    ScratchDir scratch;
    const std::string file = scratch.path() + "/f";
    writeTextFile(file, "x");
    try {
        SessionLifetimeController controller(file);
        FAIL() << "no exception";
    } catch (const Exc<&UnableToCreateSession>& e) {
        EXPECT_STREQ("Unable to create session: Unable to create session directory", e.what());
    }
    EXPECT_EQ(nullptr, theSession);
    // Below a regular file neither the directory nor archives can be made.
    EXPECT_THROW(SessionFiles(file + "/s"), Exc<&UnableToCreateSession>);
}

}  // namespace
}  // namespace tavik
