#include "ferrygate/session.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <string>

#include "support/sandbox_env.h"

namespace tavik {
namespace {

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

// The group is the uid of hmxadm (the controlling process's account), 0 without the account.
TEST(Session, DirectoriesGetRootTheUidOfHmxadmAndMode0750) {
    ASSERT_TRUE(testing::addSystemAccount("hmxadm"));
    ScratchDir scratch;
    {
        SessionFiles session(scratch.path() + "/deep/s/");
        expectSessionDirectory(scratch.path() + "/deep/s", getpwnam("hmxadm")->pw_uid);
        expectSessionDirectory(scratch.path() + "/deep/s/archives", getpwnam("hmxadm")->pw_uid);
        // Names are concatenated to the directory as given, not joined.
        EXPECT_EQ(scratch.path() + "/deep/s//migration.status", session.getStatusFileName());
        EXPECT_EQ(scratch.path() + "/deep/s//a.tgz", session.getCidFile("a.tgz"));
        session.remove();
        EXPECT_FALSE(boost::filesystem::exists(scratch.path() + "/deep/s"));
    }
    ASSERT_NE(-1, system("userdel hmxadm >/dev/null 2>&1"));
    ::testing::internal::CaptureStdout();
    SessionFiles session(scratch.path() + "/s");
    ::testing::internal::GetCapturedStdout();
    expectSessionDirectory(scratch.path() + "/s/archives", 0);
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

}  // namespace
}  // namespace tavik
