#include "ssh/idn.h"

#include <gtest/gtest.h>

namespace tavik {
namespace {

TEST(Idn, ConvertsBetweenUnicodeAndAsciiForms) {
    EXPECT_EQ("xn--bcher-kva.example", idn::toAscii("b\xc3\xbc"
                                                    "cher.example"));
    EXPECT_EQ(
        "b\xc3\xbc"
        "cher.example",
        idn::toUtf8("xn--bcher-kva.example"));
    EXPECT_EQ("Example.COM", idn::toAscii("Example.COM"));
    EXPECT_EQ("", idn::toAscii(""));
}

TEST(Idn, EmailKeepsItsLocalPartAndConvertsItsDomain) {
    EXPECT_EQ("J\xc3\xbcrgen@xn--bcher-kva.example", idn::emailToAscii("J\xc3\xbcrgen@b\xc3\xbc"
                                                                       "cher.example"));
    EXPECT_EQ("no-at-sign.example", idn::emailToAscii("no-at-sign.example"));
    EXPECT_EQ("user@", idn::emailToAscii("user@"));
    EXPECT_EQ("a@xn--bcher-kva.example@x", idn::emailToAscii("a@b\xc3\xbc"
                                                             "cher.example@x"));
}

TEST(Idn, FailuresCarryTheLibrarysCodeAndText) {
    try {
        idn::toAscii(std::string(64, 'a') + ".example");
        FAIL() << "a 64-byte label is too long";
    } catch (const idn::IdnaError& e) {
        EXPECT_STREQ("Output would be too large or too small", e.what());
    }
    try {
        idn::toUtf8("\xff\xfe.example");
        FAIL() << "bytes that are not UTF-8 cannot convert";
    } catch (const idn::IdnaError& e) {
        EXPECT_STREQ("Character encoding conversion error", e.what());
    }
}

}  // namespace
}  // namespace tavik
