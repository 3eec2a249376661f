// The manual page and the program agree on the options: every option of the usage text is
// documented, and every option the page documents is one the program accepts.

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "support/process.h"

namespace tavik {
namespace {

std::set<std::string> optionsIn(const std::string& text, const std::regex& pattern) {
    std::set<std::string> names;
    for (std::sregex_iterator it(text.begin(), text.end(), pattern), end; it != end; ++it)
        names.insert(std::regex_replace((*it)[1].str(), std::regex(R"(\\-)"), "-"));
    return names;
}

TEST(ManPage, DocumentsTheUsageOptionsAndOnlyOptionsTheProgramAccepts) {
    std::ifstream page(FERRYGATE_SOURCE_DIR "/docs/ferrygate.1");
    std::stringstream source;
    source << page.rdbuf();
    // In the page's source a long option reads \-\-name, with \- for every hyphen.
    const std::set<std::string> documented =
        optionsIn(source.str(), std::regex(R"(\\-\\-([a-z]+(?:\\-[a-z]+)*))"));

    const test::ProcessResult help = test::runProcess({FERRYGATE_BINARY, "--help"});
    ASSERT_EQ(0, help.status);
    const std::set<std::string> usage =
        optionsIn(help.out, std::regex(R"(--([a-z]+(?:-[a-z]+)*))"));
    ASSERT_GT(usage.size(), 20u) << help.out;
    for (const std::string& name : usage) EXPECT_TRUE(documented.count(name)) << "--" << name;

    // An unknown option is rejected by the parser before anything else happens; given with a
    // value and no action, a known one ends in "Action required" and touches nothing.
    for (const std::string& name : documented) {
        const test::ProcessResult r = test::runProcess({FERRYGATE_BINARY, "--" + name + "=x"});
        EXPECT_EQ(std::string::npos, r.err.find("unrecognized")) << "--" << name << ": " << r.err;
    }
}

}  // namespace
}  // namespace tavik
