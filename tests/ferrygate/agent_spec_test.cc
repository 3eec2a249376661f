#include "ferrygate/agent_spec.h"

#include <gtest/gtest.h>

#include <string>

#include "commons/exceptions.h"
#include "support/raised.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace {

using testing::ScratchDir;
using testing::writeTextFile;

// Writes <root>/<name>/control/spec with `spec` and returns the agent directory.
std::string makeAgent(const std::string& root, const std::string& name, const std::string& spec) {
    const std::string dir = root + "/" + name;
    writeTextFile(dir + "/control/spec", spec);
    return dir;
}

std::string parseError(const std::string& file) {
    return testing::messageOf<&ParseFailed>([&] { Agent::parse(file); });
}

TEST(AgentSpec, ValuesKeepEverythingButTheBlanksAfterTheColon) {
    ScratchDir root;
    const std::string dir = makeAgent(root.path(), "a",
                                      "Description: Sites: and mail\n"
                                      "\n"
                                      "EntryPoint:   run.pl  \n"
                                      "DocumentType:\tdump.dtd\r\n"
                                      "Stylesheet:first.xsl\n"
                                      "Stylesheet: second.xsl\n");
    const Agent::Values v = Agent::parse(dir + "/control/spec");
    EXPECT_EQ("Sites: and mail", v[0]);
    EXPECT_EQ("run.pl  ", v[1]);
    EXPECT_EQ("dump.dtd\r", v[2]);
    EXPECT_EQ("second.xsl", v[3]);
    EXPECT_EQ("", v[4]);

    const Agent agent("a", dir);
    EXPECT_EQ("", agent.getInterpreter());
    EXPECT_EQ("perl", agent.getEffectiveInterpreter());
    EXPECT_EQ(dir + "/control/second.xsl", agent.getStylesheetFile());

    const Agent::Values none = Agent::parse(root.path() + "/no/such/spec");
    for (const std::string& value : none) EXPECT_EQ("", value);
}

// Line-numbered refusals are checked byte for byte by the agent spec fuzz target's corpus.
TEST(AgentSpec, UnknownOrMisspelledTokensAreIllegalParameters) {
    ScratchDir root;
    const std::string spec = root.path() + "/spec";
    writeTextFile(spec, "EntryPoint: a.pl\nEntryPoint : b.pl\n");
    EXPECT_EQ("Unable to parse spec file: Illegal parameter found in " + spec + ": EntryPoint ",
              parseError(spec));
    writeTextFile(spec, "entrypoint: a.pl\n");
    EXPECT_EQ("Unable to parse spec file: Illegal parameter found in " + spec + ": entrypoint",
              parseError(spec));
}

TEST(AgentsFactory, BrokenOrMissingAgentsAreNotFound) {
    ScratchDir scratch;
    const std::string agents = scratch.path() + "/agents";
    makeAgent(agents, "good", "EntryPoint: good.pl\nInterpreter: sh\n");
    makeAgent(agents, "bad", "EntryPoint: bad.pl\nVersion: 2\n");
    writeTextFile(agents + "/nospec/run.pl", "");
    writeTextFile(agents + "/plainfile", "");
    makeAgent(scratch.path(), "outside", "EntryPoint: x.pl\n");

    AgentsFactory factory(agents);
    EXPECT_EQ("sh", factory.getAgent("good")->getEffectiveInterpreter());
    for (const char* name : {"bad", "nospec", "plainfile", "absent", "", "../outside", ".."}) {
        EXPECT_EQ(
            std::string("Agent ") + name + " was not found or does not contain proper spec file",
            testing::messageOf<&AgentNotFound>([&] { factory.getAgent(name); }));
    }

    const AgentsFactory::AgentMap& all = factory.getAllAgents();
    ASSERT_EQ(1u, all.size());
    EXPECT_EQ("good", all.begin()->first);
}

TEST(AgentsFactory, AnAgentIsParsedOnceAndListedByName) {
    ScratchDir root;
    const std::string dir = makeAgent(root.path(), "zeta", "EntryPoint: first.pl\n");
    makeAgent(root.path(), "alpha", "EntryPoint: a.pl\n");
    makeAgent(root.path(), "Mid", "EntryPoint: m.pl\n");

    AgentsFactory factory(root.path());
    const boost::shared_ptr<Agent> first = factory.getAgent("zeta");
    writeTextFile(dir + "/control/spec", "EntryPoint: second.pl\n");
    const boost::shared_ptr<Agent> again = factory.getAgent("zeta");
    EXPECT_EQ(first.get(), again.get());
    EXPECT_EQ("first.pl", again->getEntryPoint());

    std::string names;
    for (const auto& entry : factory.getAllAgents()) names += entry.first + " ";
    EXPECT_EQ("Mid alpha zeta ", names);
    EXPECT_EQ("first.pl", factory.getAllAgents().at("zeta")->getEntryPoint());
}

}  // namespace
}  // namespace tavik
