// sh_quote must give real shells back exactly the bytes it was given, as one word. The fuzz
// target reads its words back through local shells; here they go over the wire.
#include "ssh/shell_quote.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "ssh/ssh_transfer.h"
#include "support/sshd_fixture.h"

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

class ShellQuoteOverDash : public test::SshdTest {
    test::SshdOptions sshdOptions() const override {
        test::SshdOptions options;
        options.shell = "/bin/dash";
        return options;
    }
};

// The command line goes through the login shell of the source host, here the strictest one.
TEST_F(ShellQuoteOverDash, RandomWordsComeBackWholeThroughDashAsLoginShell) {
    Ssh ssh(host(), user(), password(), false, port());
    std::mt19937 random(100);
    const std::string special = " \t\n\"#$&'()*;<>?[\\]`|~{},!^=%@:-.*/";
    for (int batch = 0; batch < 3; ++batch) {
        // Words of every byte but NUL, rich in shell-special ones, each printed with a NUL after.
        std::string command = "printf '%s\\0'", expected;
        for (int i = 0; i < 300; ++i) {
            std::string word(random() % 24, '\0');
            for (auto& c : word) {
                c = random() % 2 ? special[random() % special.size()]
                                 : static_cast<char>(1 + random() % 255);
            }
            command += " " + (word.empty() ? "''" : sh_quote(word));
            expected += word + '\0';
        }
        std::ostringstream out, err;
        ASSERT_EQ(0, ssh.exec(command, out, err, true, Ssh::nullCounter)) << err.str();
        ASSERT_TRUE(expected == out.str()) << "dash changed a word of batch " << batch;
    }
}

}  // namespace
}  // namespace tavik
