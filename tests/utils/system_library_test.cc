#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "utils/product_log.h"

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

// The product's failures on standard error and output: the system error follows the text,
// and a long text is never cut.
TEST(MessageLog, SystemErrorAndNoLengthLimit) {
    EXPECT_EQ("open x\nSystem error 2: No such file or directory\n", written([] {
                  errno = ENOENT;
                  messlog2(0, 0, "open %s", "x");
              }));
    const std::string text(10000, 'm');
    EXPECT_EQ(text + "\n", written([&] {
                  errno = 0;
                  messlog2(0, 0, "%s", text.c_str());
              }));
}

}  // namespace
