#include <gtest/gtest.h>

#include <string>

#include "utils/tavik_ugid.h"

namespace {

// Without hmxadm every file the product hands over goes to root: the lookups answer 0 and say
// why on standard error.
TEST(Accounts, AMissingAccountIsZeroWithAMessage) {
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(0u, get_user_id("no-such-account"));
    EXPECT_EQ(0u, tavik_ugid("no-such-account", 1));
    EXPECT_EQ(
        "Unable to find uid for user no-such-account: not found\n"
        "Unable to getpwnam for user no-such-account\n",
        ::testing::internal::GetCapturedStderr());
}

}  // namespace
