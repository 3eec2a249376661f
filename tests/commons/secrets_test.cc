#include "commons/secrets.h"

#include <gtest/gtest.h>

namespace tavik {
namespace {

TEST(Secrets, EveryOccurrenceIsMaskedLongerSecretsWinAndAMaskHoldingOneDoesNotLoop) {
    clearSecrets();
    registerSecret("");
    registerSecret("pw");
    registerSecret("pw-long");
    EXPECT_EQ("a *** b *** c ***", maskSecrets("a pw b pw-long c pw"));
    EXPECT_EQ("nothing here", maskSecrets("nothing here"));
    clearSecrets();
    EXPECT_EQ("pw", maskSecrets("pw"));
    registerSecret("*");
    EXPECT_EQ("******", maskSecrets("**"));
    clearSecrets();
}

}  // namespace
}  // namespace tavik
