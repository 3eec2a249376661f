#include "ferrygate/agent_spec.h"

#include <gtest/gtest.h>

#include <string>

#include "commons/exceptions.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace {

// Values keep everything but the blanks after the colon, and the last one wins; tokens are
// matched whole and case for case. A name from the command line never leads out of the agents
// directory, and one too long for the system is no agent, not an uncaught file-system error.
TEST(AgentSpec, ValuesTokensAndNames) {
    testing::ScratchDir root;
    const std::string spec = root.path() + "/agents/a/control/spec";
    testing::writeTextFile(spec,
                           "Description: Sites: and mail\n\nEntryPoint:   run.pl  \n"
                           "DocumentType:\tdump.dtd\r\nStylesheet:first.xsl\n"
                           "Stylesheet: second.xsl\n");
    EXPECT_EQ((Agent::Values{"Sites: and mail", "run.pl  ", "dump.dtd\r", "second.xsl", ""}),
              Agent::parse(spec));
    testing::writeTextFile(root.path() + "/control/spec", "EntryPoint: run.pl\n");
    AgentsFactory agents(root.path() + "/agents");
    EXPECT_EQ(root.path() + "/agents/a/control/second.xsl",
              agents.getAgent("a")->getStylesheetFile());
    for (const std::string& name : {std::string(".."), std::string(300, 'a')})
        EXPECT_THROW(agents.getAgent(name), Exc<&AgentNotFound>) << name;

    for (const char* token : {"EntryPoint ", "entrypoint"}) {
        testing::writeTextFile(spec, "EntryPoint: a.pl\n" + std::string(token) + ": b.pl\n");
        EXPECT_EQ("Unable to parse spec file: Illegal parameter found in " + spec + ": " + token,
                  testing::messageOf<&ParseFailed>([&] { Agent::parse(spec); }));
    }
}

}  // namespace
}  // namespace tavik
