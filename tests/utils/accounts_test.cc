#include <gtest/gtest.h>
#include <pwd.h>

#include <string>

#include "support/sandbox_env.h"
#include "utils/tavik_ugid.h"

namespace {

using tavik::testing::inSandbox;

TEST(Accounts, LookupsOfAnExistingAndAMissingAccount) {
    ASSERT_TRUE(tavik::testing::addSystemAccount("fgacct"));
    const passwd* pw = getpwnam("fgacct");
    ASSERT_TRUE(pw != nullptr && pw->pw_uid != 0);
    EXPECT_EQ(pw->pw_uid, get_user_id("fgacct"));
    EXPECT_EQ(pw->pw_gid, tavik_ugid("fgacct", 1));
    uid_t uid = 0;
    const char* home = nullptr;
    EXPECT_EQ(0, tavik_getpw("fgacct", &uid, nullptr, &home));
    EXPECT_EQ(pw->pw_uid, uid);
    EXPECT_STREQ(pw->pw_dir, home);
    EXPECT_STREQ("fgacct", get_user_name(pw->pw_uid));
    EXPECT_STREQ("4000000001", get_user_name(4000000001u));

    ::testing::internal::CaptureStderr();
    EXPECT_EQ(0u, get_user_id("no-such-account"));
    EXPECT_EQ(-1, tavik_getpw("no-such-account", &uid, nullptr, nullptr));
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(pw->pw_uid, uid);
    EXPECT_EQ(
        "Unable to find uid for user no-such-account: not found\n"
        "Unable to getpwnam for user no-such-account\n",
        err);
}

TEST(Groups, DigitsAreAnIdAndAnythingElseAName) {
    ASSERT_TRUE(inSandbox());
    // A group whose name is made of digits tells the two readings apart.
    tavik::testing::writeTextFile("/etc/group", "root:x:0:\nfggroup:x:4242:\n123:x:4343:\n");
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(4242u, get_group_id("fggroup"));
    EXPECT_EQ(4242u, get_group_id("4242"));
    EXPECT_EQ(0u, get_group_id("123"));    // no group has id 123
    EXPECT_EQ(0u, get_group_id("4242x"));  // looked up by name, and there is none
    EXPECT_EQ(4343u, get_gid_by_name("123"));
    EXPECT_EQ(
        "getgrgid(123): not found\n"
        "getgrnam(4242x): not found\n",
        ::testing::internal::GetCapturedStderr());
}

}  // namespace
