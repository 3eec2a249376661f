#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <string>

#include "support/sandbox_env.h"
#include "utils/liblog.h"
#include "utils/libsafe.h"
#include "utils/product_log.h"

namespace {

using tavik::testing::ScratchDir;

struct Captured {
    std::string out;
    std::string err;
};

template <class F>
Captured capture(F f) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    f();
    Captured c;
    c.err = testing::internal::GetCapturedStderr();
    c.out = testing::internal::GetCapturedStdout();
    return c;
}

TEST(MessageLog, PrefixAndLineBreakGoToBothStreams) {
    PROGNAME = "/usr/sbin/ferrygate";
    Captured c = capture([] { EXPECT_EQ(0, ex_messlog("no break", 0, 0)); });
    EXPECT_EQ("ferrygate: no break\n", c.err);
    EXPECT_EQ(c.err, c.out);
    c = capture([] { ex_messlog("has break\n", 0, 0); });
    EXPECT_EQ("ferrygate: has break\n", c.err);
    PROGNAME = nullptr;
    c = capture([] { ex_messlog("bare", 0, 0); });
    EXPECT_EQ("bare\n", c.out);
}

TEST(MessageLog, SystemErrorIsAppendedWhenErrnoIsSet) {
    Captured c = capture([] {
        errno = ENOENT;
        messlog2(0, 0, "open %s", "x");
    });
    EXPECT_EQ("open x\nSystem error 2: No such file or directory\n", c.err);
    c = capture([] {
        errno = 0;
        messlog2(0, 0, "%d items", 3);
    });
    EXPECT_EQ("3 items\n", c.err);
}

TEST(MessageLog, LongMessagesAreNotCut) {
    const std::string text(10000, 'm');
    Captured c = capture([&] {
        errno = 0;
        messlog2(0, 0, "%s", text.c_str());
    });
    EXPECT_EQ(text + "\n", c.err);
}

TEST(MessageLogDeathTest, NonZeroStatusEndsTheProcess) {
    EXPECT_EXIT(ex_messlog("fatal", 3, 0), ::testing::ExitedWithCode(3), "fatal");
}

TEST(UtilityLog, SilentUntilEnabledForTheConsole) {
    Captured c = capture([] { tavik_log(12, "before %d", 1); });
    EXPECT_EQ("", c.err + c.out);
    tavik_log_init("CONSOLE:", 12, 0, 0, nullptr);
    c = capture([] {
        tavik_log(12, "shown %d", 2);
        tavik_log(13, "too detailed");
    });
    EXPECT_EQ("shown 2\n", c.err);
    EXPECT_EQ("shown 2\n", c.out);
    tavik_log_init("file", 12, 0, 0, nullptr);
    c = capture([] { tavik_log(1, "hidden"); });
    EXPECT_EQ("", c.err + c.out);
    tavik_log_init("console", 0, 0, 0, nullptr);
    c = capture([] { tavik_log(0, "hidden"); });
    EXPECT_EQ("", c.err + c.out);
}

TEST(TextTests, NumbersAndEmptiness) {
    EXPECT_EQ(1, is_number("0123456789"));
    EXPECT_EQ(1, is_number(""));
    EXPECT_EQ(0, is_number("12a"));
    EXPECT_EQ(0, is_number("-1"));
    EXPECT_EQ(0, is_number(" 1"));
    EXPECT_EQ(1, isempty(nullptr));
    EXPECT_EQ(1, isempty(""));
    EXPECT_EQ(0, isempty(" "));
}

TEST(Subdirectory, ResolvedPathsAndRestoredWorkingDirectory) {
    ScratchDir scratch;
    const std::string base = scratch.path();
    boost::filesystem::create_directories(base + "/a/b/c");
    boost::filesystem::create_directories(base + "/ab");
    boost::filesystem::create_symlink(base + "/a/b", base + "/link");
    char before[4096];
    ASSERT_NE(nullptr, getcwd(before, sizeof before));

    EXPECT_EQ(1, issubdir((base + "/a").c_str(), (base + "/a/b/c").c_str()));
    EXPECT_EQ(1, issubdir((base + "/a/").c_str(), (base + "/a/b/../b").c_str()));
    EXPECT_EQ(0, issubdir((base + "/a").c_str(), (base + "/a").c_str()));
    EXPECT_EQ(0, issubdir((base + "/a").c_str(), (base + "/ab").c_str()));
    EXPECT_EQ(0, issubdir((base + "/a/b").c_str(), (base + "/a").c_str()));
    EXPECT_EQ(0, issubdir((base + "/a").c_str(), (base + "/link").c_str()));
    EXPECT_EQ(1, issubdir((base + "/a").c_str(), (base + "/link/c").c_str()));
    EXPECT_EQ(0, issubdir((base + "/a").c_str(), (base + "/missing").c_str()));

    char after[4096];
    ASSERT_NE(nullptr, getcwd(after, sizeof after));
    EXPECT_STREQ(before, after);
}

}  // namespace
