#include "ferrygate/agent_spec.h"

#include <gtest/gtest.h>

#include <string>

#include "commons/exceptions.h"
#include "support/raised.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace {

// Refusals by line number, the registry's lookups and the default interpreter are checked by
// the agent spec fuzz target's corpus; these are the value rules it cannot state.
TEST(AgentSpec, ValuesKeepEverythingButTheBlanksAfterTheColonAndTheLastOneWins) {
    testing::ScratchDir root;
    const std::string spec = root.path() + "/a/control/spec";
    testing::writeTextFile(spec,
                           "Description: Sites: and mail\n\nEntryPoint:   run.pl  \n"
                           "DocumentType:\tdump.dtd\r\nStylesheet:first.xsl\n"
                           "Stylesheet: second.xsl\n");
    const Agent::Values v = Agent::parse(spec);
    EXPECT_EQ((Agent::Values{"Sites: and mail", "run.pl  ", "dump.dtd\r", "second.xsl", ""}), v);
    EXPECT_EQ(root.path() + "/a/control/second.xsl",
              Agent("a", root.path() + "/a").getStylesheetFile());

    // Tokens are matched whole and case for case.
    for (const char* token : {"EntryPoint ", "entrypoint"}) {
        testing::writeTextFile(spec, "EntryPoint: a.pl\n" + std::string(token) + ": b.pl\n");
        EXPECT_EQ("Unable to parse spec file: Illegal parameter found in " + spec + ": " + token,
                  testing::messageOf<&ParseFailed>([&] { Agent::parse(spec); }));
    }
}

}  // namespace
}  // namespace tavik
