#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "commons/exceptions.h"
#include "commons/secrets.h"

namespace tavik {
namespace {

// Every kind formatted once with as many arguments as its format has placeholders: a format
// with a typo in its placeholders fails here instead of at a raise site in the field.
template <void (*Tag)()>
void expectFormats(const std::string& format) {
    int placeholders = 0;
    for (size_t i = 0; i + 2 < format.size(); ++i)
        if (format[i] == '%' && isdigit(static_cast<unsigned char>(format[i + 1])))
            placeholders = std::max(placeholders, format[i + 1] - '0');
    Exc<Tag> e("ctx", "file", 1);
    for (int i = 1; i <= placeholders; ++i) e % ("a" + std::to_string(i));
    EXPECT_NO_THROW(e.message()) << e.code();
    for (int i = 1; i <= placeholders; ++i)
        EXPECT_NE(std::string::npos, e.message().find("a" + std::to_string(i))) << e.code();
}

TEST(ExceptionModel, EveryKindFormatsWithItsOwnArgumentCount) {
#define TAVIK_CHECK_KIND(tag, code, format) expectFormats<&tag>(format);
    TAVIK_EXCEPTION_KINDS(TAVIK_CHECK_KIND)
#undef TAVIK_CHECK_KIND
}

// Short secrets are masked only where they are written (as lines of standard input, say); long
// ones also wherever a log line holds them as a whole word.
TEST(Secrets, TheNetMasksOnlyLongSecretsAsWholeWordsAndLinesAreMaskedWhole) {
    clearSecrets();
    for (const char* secret : {"", "p", "pw-long-1", "pw-long-1-longer", "*+*+*+*+"}) {
        registerSecret(secret);
    }
    const struct {
        const char *text, *masked;
    } net[] = {
        {"a pw-long-1 b pw-long-1-longer c pw-long-1.", "a *** b *** c ***."},
        {"xpw-long-1 pw-long-12 _pw-long-1", nullptr},
        {"a*+*+*+*+b", "a***b"},
    };
    for (const auto& c : net) EXPECT_EQ(c.masked ? c.masked : c.text, maskSecrets(c.text));
    clearSecrets();
    EXPECT_EQ("***\nap\n\n***\nl", maskSecretLines("p\nap\n\npw-1\nl", {"", "p", "pw-1"}));
}

}  // namespace
}  // namespace tavik
