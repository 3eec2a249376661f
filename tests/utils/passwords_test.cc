#include <crypt.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "utils/enviroment.h"
#include "utils/to64.h"

namespace {

bool isSet(const char* name) { return getenv(name) != nullptr; }

TEST(PlainPassword, FirstValueIsCachedAndEveryCallRemovesTheVariable) {
    unsetenv("HMX_PASSWORD");
    EXPECT_STREQ("", get_env_noncrypted_password());
    setenv("HMX_PASSWORD", "s3cret pass", 1);
    EXPECT_STREQ("s3cret pass", get_env_noncrypted_password());
    EXPECT_FALSE(isSet("HMX_PASSWORD"));
    setenv("HMX_PASSWORD", "other", 1);
    EXPECT_STREQ("s3cret pass", get_env_noncrypted_password());
    EXPECT_FALSE(isSet("HMX_PASSWORD"));
}

TEST(EnvPassword, PlainWinsOverCryptedAndEmptyCountsAsUnset) {
    char out[64] = "keep";
    int crypted = -1;
    setenv("HMX_PASSWORD", "", 1);
    setenv("HMX_CRYPTED_PASSWORD", "", 1);
    EXPECT_EQ(-1, get_env_password(out, sizeof out, &crypted));
    EXPECT_STREQ("keep", out);
    EXPECT_TRUE(isSet("HMX_PASSWORD") && isSet("HMX_CRYPTED_PASSWORD"));

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
    EXPECT_TRUE(isSet("HMX_CRYPTED_PASSWORD"));
}

TEST(CryptedPassword, PlainPasswordIsMd5CryptedAndCached) {
    setenv("HMX_PASSWORD", "s3cret", 1);
    setenv("HMX_CRYPTED_PASSWORD", "ignored", 1);
    const std::string hashed = get_env_crypted_password();
    EXPECT_FALSE(isSet("HMX_PASSWORD") || isSet("HMX_CRYPTED_PASSWORD"));
    ASSERT_EQ(0u, hashed.find("$1$"));
    EXPECT_EQ(std::string::npos, hashed.substr(3, 8).find_first_not_of(itoa64));
    EXPECT_EQ(hashed, crypt("s3cret", hashed.c_str()));
    EXPECT_NE(hashed, crypt("s3creT", hashed.c_str()));
    setenv("HMX_PASSWORD", "other", 1);
    EXPECT_EQ(hashed, get_env_crypted_password());
}

TEST(CryptedPassword, CryptedVariableIsTakenAsItIs) {
    setenv("HMX_CRYPTED_PASSWORD", "$1$saltsalt$hash", 1);
    EXPECT_STREQ("$1$saltsalt$hash", get_env_crypted_password());
    EXPECT_FALSE(isSet("HMX_CRYPTED_PASSWORD"));
}

TEST(CryptedPassword, NoVariableCryptsTheEmptyPassword) {
    const std::string hashed = get_env_crypted_password();
    ASSERT_EQ(0u, hashed.find("$1$"));
    EXPECT_EQ(hashed, crypt("", hashed.c_str()));
}

TEST(SaltCharacters, SpreadOverTheAlphabetWithoutATerminator) {
    char buffer[1001];
    memset(buffer, '!', sizeof buffer);
    to64(buffer, 1000);
    EXPECT_EQ('!', buffer[1000]);
    std::string seen;
    for (char c : std::string(buffer, 1000)) {
        ASSERT_NE(nullptr, strchr(itoa64, c));
        if (seen.find(c) == std::string::npos) seen += c;
    }
    EXPECT_GT(seen.size(), 60u);  // 1000 draws leave hardly any of the 64 unused
}

}  // namespace
