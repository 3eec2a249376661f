#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <string>

#include "support/sandbox_env.h"
#include "utils/libsafe.h"
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

TEST(MessageLog, PrefixLineBreakSystemErrorAndNoLengthLimit) {
    PROGNAME = "/usr/sbin/ferrygate";
    EXPECT_EQ("ferrygate: has break\n", written([] { ex_messlog("has break\n", 0, 0); }));
    PROGNAME = nullptr;
    EXPECT_EQ("open x\nSystem error 2: No such file or directory\n", written([] {
                  errno = ENOENT;
                  messlog2(0, 0, "open %s", "x");
              }));
    const std::string text(10000, 'm');
    EXPECT_EQ(text + "\n", written([&] {
                  errno = 0;
                  messlog2(0, 0, "%s", text.c_str());
              }));
    EXPECT_EXIT(ex_messlog("fatal", 3, 0), ::testing::ExitedWithCode(3), "fatal");
}

// A path that only looks inside (a prefix of the name, a final symbolic link) is not.
TEST(Subdirectory, ResolvedPathsAndRestoredWorkingDirectory) {
    tavik::testing::ScratchDir scratch;
    const std::string base = scratch.path();
    boost::filesystem::create_directories(base + "/a/b/c");
    boost::filesystem::create_directories(base + "/ab");
    boost::filesystem::create_symlink(base + "/a/b", base + "/link");
    const auto before = boost::filesystem::current_path();
    auto sub = [&](const std::string& d, const std::string& c) {
        return issubdir((base + d).c_str(), (base + c).c_str());
    };
    EXPECT_EQ(1, sub("/a/", "/a/b/../b"));
    EXPECT_EQ(1, sub("/a", "/link/c"));
    EXPECT_EQ(0, sub("/a", "/link"));
    EXPECT_EQ(0, sub("/a", "/a"));
    EXPECT_EQ(0, sub("/a", "/ab"));
    EXPECT_EQ(0, sub("/a", "/missing"));
    EXPECT_EQ(before, boost::filesystem::current_path());
}

}  // namespace
