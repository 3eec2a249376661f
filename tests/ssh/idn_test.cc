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
    auto failure = [](std::string (*convert)(const std::string&), const std::string& text) {
        try {
            convert(text);
        } catch (const idn::IdnaError& e) {
            return std::string(e.what());
        }
        return std::string("converted");
    };
    EXPECT_EQ("Output would be too large or too small",
              failure(idn::toAscii, std::string(64, 'a') + ".example"));
    EXPECT_EQ("Character encoding conversion error", failure(idn::toUtf8, "\xff\xfe.example"));
}

}  // namespace
}  // namespace tavik
