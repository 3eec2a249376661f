#include <gtest/gtest.h>
#include <pwd.h>

#include <string>

#include "support/sandbox_env.h"
#include "utils/tavik_ugid.h"

namespace {

using tavik::testing::addSystemAccount;
using tavik::testing::inSandbox;
using tavik::testing::writeTextFile;

const passwd* account(const char* name) { return getpwnam(name); }

TEST(Accounts, LookupsOfAnExistingAccount) {
    ASSERT_TRUE(inSandbox());
    ASSERT_TRUE(addSystemAccount("fgacct"));
    const passwd* pw = account("fgacct");
    ASSERT_NE(nullptr, pw);
    ASSERT_NE(0u, pw->pw_uid);
    EXPECT_EQ(pw->pw_uid, get_user_id("fgacct"));
    EXPECT_EQ(pw->pw_uid, tavik_ugid("fgacct", 0));
    EXPECT_EQ(pw->pw_gid, tavik_ugid("fgacct", 1));
    uid_t uid = 0;
    gid_t gid = 0;
    const char* home = nullptr;
    EXPECT_EQ(0, tavik_getpw("fgacct", &uid, &gid, &home));
    EXPECT_EQ(pw->pw_uid, uid);
    EXPECT_EQ(pw->pw_gid, gid);
    EXPECT_STREQ(pw->pw_dir, home);
    EXPECT_EQ(0, tavik_getpw("fgacct", nullptr, nullptr, nullptr));
    EXPECT_STREQ("fgacct", get_user_name(pw->pw_uid));
}

TEST(Accounts, MissingAccountGivesZeroAndAMessage) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(0u, get_user_id("no-such-account-fg"));
    EXPECT_EQ(0u, tavik_ugid("no-such-account-fg", 1));
    uid_t uid = 77;
    EXPECT_EQ(-1, tavik_getpw("no-such-account-fg", &uid, nullptr, nullptr));
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(77u, uid);
    EXPECT_NE(std::string::npos,
              err.find("Unable to find uid for user no-such-account-fg: not found\n"));
    EXPECT_NE(std::string::npos, err.find("Unable to getpwnam for user no-such-account-fg"));
}

TEST(Accounts, UserNameOfAnUnknownIdIsItsNumber) {
    EXPECT_STREQ("root", get_user_name(0));
    EXPECT_STREQ("4000000001", get_user_name(4000000001u));
}

TEST(Groups, DigitsAreAnIdAndAnythingElseAName) {
    ASSERT_TRUE(inSandbox());
    // A group whose name is made of digits tells the two readings apart.
    writeTextFile("/etc/group", "root:x:0:\nfggroup:x:4242:\n123:x:4343:\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(4242u, get_group_id("fggroup"));
    EXPECT_EQ(4242u, get_group_id("4242"));
    EXPECT_EQ(0u, get_group_id("123"));    // no group has id 123
    EXPECT_EQ(0u, get_group_id("4242x"));  // looked up by name, and there is none
    EXPECT_EQ(4343u, get_gid_by_name("123"));
    EXPECT_EQ(0u, get_gid_by_id(5555));
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find("getgrgid(123): "));
    EXPECT_NE(std::string::npos, err.find("getgrnam(4242x): "));
    EXPECT_NE(std::string::npos, err.find("getgrgid(5555): "));
}

}  // namespace
