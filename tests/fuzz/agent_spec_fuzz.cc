// The agent spec reader and the agent registry on arbitrary spec files and agent names.
// Input: the first line is the name asked of the registry (cut at a NUL, which a command line
// cannot hold); the rest is the control/spec file of the one agent on disk, named "agent".
#include <boost/algorithm/string.hpp>
#include <boost/filesystem.hpp>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "commons/exceptions.h"
#include "ferrygate/agent_spec.h"
#include "tests/fuzz/fuzz_support.h"

namespace fs = boost::filesystem;

namespace {

const char kAgentName[] = "agent";
fs::path agentsDir;

// A refused line is named by its number, counting the empty lines that were skipped.
void checkRefusal(const std::string& message, const std::string& specFile,
                  const std::string& spec) {
    const std::string prefix = "Unable to parse spec file: ";
    FUZZ_CHECK(message.rfind(prefix, 0) == 0);
    const std::string detail = message.substr(prefix.size());
    const std::string located = specFile + ":";
    if (detail.rfind(located, 0) != 0) {
        FUZZ_CHECK(detail.rfind("Illegal parameter found in " + specFile + ": ", 0) == 0);
        return;
    }
    const size_t number = strtoul(detail.c_str() + located.size(), nullptr, 10);
    std::vector<std::string> lines;
    boost::split(lines, spec, boost::is_any_of("\n"));
    FUZZ_CHECK(number >= 1 && number <= lines.size());
    const std::string& line = lines[number - 1];
    FUZZ_CHECK(!line.empty() && line.find(':') == std::string::npos);
    // what() is a C string: a line holding a NUL is quoted up to it.
    std::string expected =
        located + std::to_string(number) + ": Expected '<token>: <value>', got '" + line + "'";
    expected = expected.substr(0, expected.find('\0'));
    FUZZ_CHECK(detail == expected);
}

void checkValues(const tavik::Agent::Values& values, const std::string& spec) {
    for (const std::string& value : values) {
        FUZZ_CHECK(value.find('\n') == std::string::npos);
        FUZZ_CHECK(value.empty() || !isspace(static_cast<unsigned char>(value[0])));
        FUZZ_CHECK(spec.find(value) != std::string::npos);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    agentsDir = fs::temp_directory_path() / fs::unique_path("ferrygate-agents-fuzz-%%%%%%%%");
    fs::create_directories(agentsDir / kAgentName / "control");
    // The directory goes when the process ends, however it ends.
    static struct Cleanup {
        ~Cleanup() { fs::remove_all(agentsDir); }
    } cleanup;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t newline = input.find('\n');
    std::string name = input.substr(0, newline);
    name = name.substr(0, name.find('\0'));
    const std::string spec = newline == std::string::npos ? "" : input.substr(newline + 1);
    const std::string specFile = (agentsDir / kAgentName / "control" / "spec").string();
    std::ofstream(specFile, std::ios::binary | std::ios::trunc) << spec;

    bool parsed = false;
    tavik::Agent::Values values;
    try {
        values = tavik::Agent::parse(specFile);
        parsed = true;
        checkValues(values, spec);
    } catch (const tavik::Exc<&tavik::ParseFailed>& e) {
        checkRefusal(e.what(), specFile, spec);
    }

    // The registry finds exactly the one well-formed agent, under its own name only, and never
    // outside the agents directory.
    tavik::AgentsFactory factory(agentsDir.string());
    try {
        const auto agent = factory.getAgent(name);
        FUZZ_CHECK(parsed && name == kAgentName);
        FUZZ_CHECK(agent->getName() == kAgentName);
        FUZZ_CHECK(agent->getDescription() == values[0] && agent->getEntryPoint() == values[1] &&
                   agent->getDocumentType() == values[2] && agent->getStylesheet() == values[3] &&
                   agent->getInterpreter() == values[4]);
        FUZZ_CHECK(agent->getEffectiveInterpreter() == (values[4].empty() ? "perl" : values[4]));
        FUZZ_CHECK(factory.getAgent(name) == agent);
    } catch (const tavik::Exc<&tavik::AgentNotFound>&) {
        FUZZ_CHECK(!parsed || name != kAgentName);
    }
    return 0;
}
