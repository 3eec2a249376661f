#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "utils/product_log.h"
#include "utils/tavik_ugid.h"

namespace {

// What a call wrote to standard error, with standard output checked to be the same.
template <class F>
std::string written(F f) {
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    f();
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, ::testing::internal::GetCapturedStdout());
    return err;
}

// The system error follows the text, and a long text is never cut. Without hmxadm every file
// the product hands over goes to root: the lookups answer 0 and say why.
TEST(MessageLog, SystemErrorNoLengthLimitAndMissingAccounts) {
    EXPECT_EQ("open x\nSystem error 2: No such file or directory\n", written([] {
                  errno = ENOENT;
                  messlog2(0, 0, "open %s", "x");
              }));
    const std::string text(10000, 'm');
    EXPECT_EQ(text + "\n", written([&] {
                  errno = 0;
                  messlog2(0, 0, "%s", text.c_str());
              }));
    EXPECT_EQ(
        "Unable to find uid for user no-such-account: not found\n"
        "Unable to getpwnam for user no-such-account\n",
        written([] {
            EXPECT_EQ(0u, get_user_id("no-such-account"));
            EXPECT_EQ(0u, tavik_ugid("no-such-account", 1));
        }));
}

}  // namespace
