#include "commons/secrets.h"

#include <gtest/gtest.h>

namespace tavik {
namespace {

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
