#include <crypt.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "utils/enviroment.h"

namespace {

bool isSet(const char* name) { return getenv(name) != nullptr; }

// The plain password wins, an empty one counts as unset, and whichever is taken leaves the
// environment (the options tests cover the plain reader that the driver uses).
TEST(EnvPassword, PlainWinsOverCryptedAndEmptyCountsAsUnset) {
    char out[64] = "keep";
    int crypted = -1;
    setenv("HMX_PASSWORD", "", 1);
    setenv("HMX_CRYPTED_PASSWORD", "", 1);
    EXPECT_EQ(-1, get_env_password(out, sizeof out, &crypted));
    EXPECT_STREQ("keep", out);

    setenv("HMX_CRYPTED_PASSWORD", "$1$abc$def", 1);
    EXPECT_EQ(0, get_env_password(out, sizeof out, &crypted));
    EXPECT_STREQ("$1$abc$def", out);
    EXPECT_EQ(1, crypted);
    EXPECT_FALSE(isSet("HMX_CRYPTED_PASSWORD"));

    setenv("HMX_PASSWORD", "plain", 1);
    setenv("HMX_CRYPTED_PASSWORD", "$1$abc$def", 1);
    EXPECT_EQ(0, get_env_password(out, sizeof out, &crypted));
    EXPECT_STREQ("plain", out);
    EXPECT_EQ(0, crypted);
    EXPECT_FALSE(isSet("HMX_PASSWORD"));
}

TEST(CryptedPassword, PlainPasswordIsMd5CryptedAndCached) {
    setenv("HMX_PASSWORD", "s3cret", 1);
    setenv("HMX_CRYPTED_PASSWORD", "ignored", 1);
    const std::string hashed = get_env_crypted_password();
    EXPECT_FALSE(isSet("HMX_PASSWORD") || isSet("HMX_CRYPTED_PASSWORD"));
    ASSERT_EQ(0u, hashed.find("$1$"));
    EXPECT_EQ(hashed, crypt("s3cret", hashed.c_str()));
    EXPECT_NE(hashed, crypt("s3creT", hashed.c_str()));
    setenv("HMX_PASSWORD", "other", 1);
    EXPECT_EQ(hashed, get_env_crypted_password());
}

}  // namespace
