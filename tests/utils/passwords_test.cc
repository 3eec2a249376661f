#include <crypt.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "utils/enviroment.h"
#include "utils/to64.h"

namespace {

bool isSet(const char* name) { return getenv(name) != nullptr; }

TEST(PlainPassword, FirstValueIsCachedAndTheVariableRemoved) {
    setenv("HMX_PASSWORD", "s3cret pass", 1);
    EXPECT_STREQ("s3cret pass", get_env_noncrypted_password());
    EXPECT_FALSE(isSet("HMX_PASSWORD"));
    EXPECT_STREQ("s3cret pass", get_env_noncrypted_password());
    // A later variable is removed too, yet the first value stays.
    setenv("HMX_PASSWORD", "other", 1);
    EXPECT_STREQ("s3cret pass", get_env_noncrypted_password());
    EXPECT_FALSE(isSet("HMX_PASSWORD"));
}

TEST(PlainPassword, UnsetVariableGivesEmptyAndIsReadLater) {
    unsetenv("HMX_PASSWORD");
    EXPECT_STREQ("", get_env_noncrypted_password());
    setenv("HMX_PASSWORD", "late", 1);
    EXPECT_STREQ("late", get_env_noncrypted_password());
}

TEST(PlainPassword, OverlongValueIsCut) {
    setenv("HMX_PASSWORD", std::string(5000, 'p').c_str(), 1);
    EXPECT_EQ(4095u, strlen(get_env_noncrypted_password()));
}

TEST(EnvPassword, PlainWinsOverCryptedAndEmptyCountsAsUnset) {
    char out[64];
    int crypted = -1;
    setenv("HMX_PASSWORD", "", 1);
    setenv("HMX_CRYPTED_PASSWORD", "$1$abc$def", 1);
    EXPECT_EQ(0, get_env_password(out, sizeof out, &crypted));
    EXPECT_STREQ("$1$abc$def", out);
    EXPECT_EQ(1, crypted);
    EXPECT_FALSE(isSet("HMX_CRYPTED_PASSWORD"));
    EXPECT_TRUE(isSet("HMX_PASSWORD"));

    setenv("HMX_PASSWORD", "plain", 1);
    setenv("HMX_CRYPTED_PASSWORD", "$1$abc$def", 1);
    EXPECT_EQ(0, get_env_password(out, sizeof out, &crypted));
    EXPECT_STREQ("plain", out);
    EXPECT_EQ(0, crypted);
    EXPECT_FALSE(isSet("HMX_PASSWORD"));
    EXPECT_TRUE(isSet("HMX_CRYPTED_PASSWORD"));
}

TEST(EnvPassword, NothingUsableLeavesTheEnvironmentAlone) {
    char out[8] = "keep";
    int crypted = 7;
    unsetenv("HMX_PASSWORD");
    setenv("HMX_CRYPTED_PASSWORD", "", 1);
    EXPECT_EQ(-1, get_env_password(out, sizeof out, &crypted));
    EXPECT_STREQ("keep", out);
    EXPECT_EQ(7, crypted);
    EXPECT_TRUE(isSet("HMX_CRYPTED_PASSWORD"));
}

TEST(CryptedPassword, PlainPasswordIsMd5CryptedWithAFreshSalt) {
    setenv("HMX_PASSWORD", "s3cret", 1);
    setenv("HMX_CRYPTED_PASSWORD", "ignored", 1);
    const std::string hashed = get_env_crypted_password();
    EXPECT_FALSE(isSet("HMX_PASSWORD"));
    EXPECT_FALSE(isSet("HMX_CRYPTED_PASSWORD"));
    ASSERT_EQ(0u, hashed.find("$1$"));
    ASSERT_EQ('$', hashed.at(11));
    EXPECT_EQ(std::string::npos, hashed.substr(3, 8).find_first_not_of(itoa64));
    EXPECT_STREQ(hashed.c_str(), crypt("s3cret", hashed.c_str()));
    EXPECT_STRNE(hashed.c_str(), crypt("s3creT", hashed.c_str()));
    // Cached: another password in the environment does not change it.
    setenv("HMX_PASSWORD", "other", 1);
    EXPECT_EQ(hashed, get_env_crypted_password());
}

TEST(CryptedPassword, CryptedVariableIsTakenAsItIs) {
    unsetenv("HMX_PASSWORD");
    setenv("HMX_CRYPTED_PASSWORD", "$1$saltsalt$hash", 1);
    EXPECT_STREQ("$1$saltsalt$hash", get_env_crypted_password());
    EXPECT_FALSE(isSet("HMX_CRYPTED_PASSWORD"));
}

TEST(CryptedPassword, NoVariableCryptsTheEmptyPassword) {
    unsetenv("HMX_PASSWORD");
    unsetenv("HMX_CRYPTED_PASSWORD");
    const std::string hashed = get_env_crypted_password();
    ASSERT_EQ(0u, hashed.find("$1$"));
    EXPECT_STREQ(hashed.c_str(), crypt("", hashed.c_str()));
}

TEST(SaltCharacters, OnlyTheAlphabetAndNoTerminator) {
    char buffer[1001];
    memset(buffer, '!', sizeof buffer);
    srandom(12345);
    to64(buffer, 1000);
    EXPECT_EQ('!', buffer[1000]);
    const std::string salt(buffer, 1000);
    EXPECT_EQ(std::string::npos, salt.find_first_not_of(itoa64));
    // 1000 draws over 64 characters leave hardly any unused; a stuck generator uses one.
    std::string seen;
    for (char c : salt) {
        if (seen.find(c) == std::string::npos) seen += c;
    }
    EXPECT_GT(seen.size(), 60u);
}

}  // namespace
