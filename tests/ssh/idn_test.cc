// Host names and addresses in their ASCII form: only the domain of an address is converted, and
// the library's failures keep its own text.
#include "ssh/idn.h"

#include <gtest/gtest.h>

namespace tavik {
namespace {

TEST(Idn, ConvertsDomainsAndOnlyTheDomainOfAnAddress) {
    const std::string unicode =
                          "b\xc3\xbc"
                          "cher.example",
                      ascii = "xn--bcher-kva.example";
    EXPECT_EQ(ascii, idn::toAscii(unicode));
    EXPECT_EQ(unicode, idn::toUtf8(ascii));
    EXPECT_EQ("J\xc3\xbcrgen@" + ascii, idn::emailToAscii("J\xc3\xbcrgen@" + unicode));
    EXPECT_EQ("no-at-sign.example", idn::emailToAscii("no-at-sign.example"));
    EXPECT_EQ("a@" + ascii + "@x", idn::emailToAscii("a@" + unicode + "@x"));
    try {
        idn::toUtf8("\xff\xfe.example");
        ADD_FAILURE() << "invalid bytes converted";
    } catch (const idn::IdnaError& e) {
        EXPECT_STREQ("Character encoding conversion error", e.what());
    }
}

}  // namespace
}  // namespace tavik
