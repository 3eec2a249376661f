// sh_quote must give real shells back exactly the bytes it was given, as one word.
#include "ssh/shell_quote.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "ssh/ssh_transfer.h"
#include "support/sshd_fixture.h"

namespace tavik {
namespace {

TEST(ShellQuote, EscapesTheShellsSpecialCharactersOnly) {
    // Correctness is the round trip below; these pin the exact forms that commands carry.
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {"/var/my dir", "/var/my\\ dir"},
        {"a\nb", "a'\n'b"},
        {"x!y-+,./:=@]^_%", "x!y-+,./:=@]^_%"},
        {"\t\"#&()*<>?[\\`|~{}$;'",
         "\\\t\\\"\\#\\&\\(\\)\\*\\<\\>\\?\\[\\\\\\`\\|\\~\\{\\}\\$\\;\\'"},
        {"\xc3\xa9t\xe9", "\xc3\xa9t\xe9"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.second, sh_quote(c.first)) << "argument: " << c.first;
    }
}

TEST(ShellQuote, CheckShellArgAcceptsOnlyWordsThatNeedNoEscaping) {
    EXPECT_EQ(1, check_shell_arg("abc-1.2/x"));
    EXPECT_EQ(1, check_shell_arg(""));
    try {
        check_shell_arg("a b");
        FAIL() << "a blank needs escaping";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ("Internal error: bad escape_chars value", e.what());
    }
    EXPECT_THROW(check_shell_arg("caf\xc3\xa9"), std::runtime_error);
    EXPECT_THROW(check_shell_arg("a\nb"), std::runtime_error);

    EXPECT_EQ(1, check_shell_arg_nothrow(nullptr));
    EXPECT_EQ(1, check_shell_arg_nothrow(""));
    EXPECT_EQ(1, check_shell_arg_nothrow("x!y=z"));
    EXPECT_EQ(0, check_shell_arg_nothrow("x;y"));
    EXPECT_EQ(0, check_shell_arg_nothrow("\xff"));
}

// Random words of every byte but NUL, rich in the characters shells care about.
std::vector<std::string> randomWords(int count, unsigned seed) {
    std::mt19937 random(seed);
    const std::string special = " \t\n\"#$&'()*;<>?[\\]`|~{},!^=%@:-.*/";
    std::vector<std::string> words;
    for (int i = 0; i < count; ++i) {
        std::string word(random() % 24, '\0');
        for (auto& c : word) {
            c = random() % 2 ? special[random() % special.size()]
                             : static_cast<char>(1 + random() % 255);
        }
        words.push_back(word);
    }
    return words;
}

// One command that prints every word, each followed by a NUL.
std::string printEach(const std::vector<std::string>& words) {
    std::string command = "printf '%s\\0'";
    for (const auto& w : words) command += " " + (w.empty() ? "''" : sh_quote(w));
    return command;
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const auto& w : words) text += w + '\0';
    return text;
}

TEST(ShellQuote, RandomWordsComeBackWholeFromDashAndBash) {
    for (const char* shell : {"/bin/dash", "/bin/bash"}) {
        for (unsigned batch = 0; batch < 10; ++batch) {
            const std::vector<std::string> words = randomWords(300, batch);
            const test::ProcessResult r = test::runProcess({shell, "-c", printEach(words)});
            ASSERT_EQ(0, r.status) << shell << ": " << r.err;
            ASSERT_TRUE(joined(words) == r.out) << shell << " changed a word of batch " << batch;
        }
    }
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
    for (unsigned batch = 100; batch < 103; ++batch) {
        const std::vector<std::string> words = randomWords(300, batch);
        std::ostringstream out, err;
        ASSERT_EQ(0, ssh.exec(printEach(words), out, err, true, Ssh::nullCounter)) << err.str();
        ASSERT_TRUE(joined(words) == out.str()) << "dash changed a word of batch " << batch;
    }
}

}  // namespace
}  // namespace tavik
