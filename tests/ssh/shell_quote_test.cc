// Which words need quoting. That real shells read every quoted word back whole is the fuzz
// target's property, and the hostile remote paths' end to end.
#include "ssh/shell_quote.h"

#include <gtest/gtest.h>

namespace tavik {
namespace {

// Bytes from 128 up pass through sh_quote, yet check_shell_arg counts them as needing escapes.
TEST(ShellQuote, ClassTable) {
    EXPECT_EQ("/var/my\\ dir", sh_quote("/var/my dir"));
    EXPECT_EQ("\xc3\xa9t\xe9", sh_quote("\xc3\xa9t\xe9"));
    EXPECT_EQ(1, check_shell_arg("abc-1.2/x"));
    try {
        check_shell_arg("a b");
        FAIL() << "a blank needs escaping";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ("Internal error: bad escape_chars value", e.what());
    }
    EXPECT_THROW(check_shell_arg("caf\xc3\xa9"), std::runtime_error);
    EXPECT_EQ(1, check_shell_arg_nothrow(nullptr));
    EXPECT_EQ(1, check_shell_arg_nothrow("x!y=z"));
    EXPECT_EQ(0, check_shell_arg_nothrow("x;y"));
    EXPECT_EQ(0, check_shell_arg_nothrow("\xff"));
}

}  // namespace
}  // namespace tavik
