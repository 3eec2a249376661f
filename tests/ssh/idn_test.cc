#include "ssh/idn.h"

#include <gtest/gtest.h>

namespace tavik {
namespace {

TEST(Idn, DomainsConvertBothWaysAndAnEmailKeepsItsLocalPart) {
    const std::string unicode =
        "b\xc3\xbc"
        "cher.example";
    EXPECT_EQ("xn--bcher-kva.example", idn::toAscii(unicode));
    EXPECT_EQ(unicode, idn::toUtf8("xn--bcher-kva.example"));
    EXPECT_EQ("J\xc3\xbcrgen@xn--bcher-kva.example", idn::emailToAscii("J\xc3\xbcrgen@" + unicode));
    EXPECT_EQ("a@xn--bcher-kva.example@x", idn::emailToAscii("a@" + unicode + "@x"));
    EXPECT_EQ("no-at-sign.example", idn::emailToAscii("no-at-sign.example"));
    try {
        idn::toAscii(std::string(64, 'a') + ".example");
        ADD_FAILURE() << "a 64-byte label converted";
    } catch (const idn::IdnaError& e) {
        EXPECT_STREQ("Output would be too large or too small", e.what());
    }
}

}  // namespace
}  // namespace tavik
