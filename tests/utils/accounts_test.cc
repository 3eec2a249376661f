#include <gtest/gtest.h>

#include <string>

#include "support/sandbox_env.h"
#include "utils/tavik_ugid.h"

namespace {

// Lookups of an existing account are what every hmxadm-owned file goes through; these are
// the failures, which answer 0 or -1 and say why on standard error.
TEST(Accounts, AMissingAccountIsZeroWithAMessageAndAnUnknownIdIsItsNumber) {
    uid_t uid = 4321;
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(0u, get_user_id("no-such-account"));
    EXPECT_EQ(-1, tavik_getpw("no-such-account", &uid, nullptr, nullptr));
    EXPECT_EQ(
        "Unable to find uid for user no-such-account: not found\n"
        "Unable to getpwnam for user no-such-account\n",
        ::testing::internal::GetCapturedStderr());
    EXPECT_EQ(4321u, uid);
    EXPECT_STREQ("4000000001", get_user_name(4000000001u));
}

TEST(Groups, DigitsAreAnIdAndAnythingElseAName) {
    ASSERT_TRUE(tavik::testing::inSandbox());
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
