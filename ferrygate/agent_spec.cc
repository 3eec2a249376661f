#include "ferrygate/agent_spec.h"

#include <boost/filesystem/operations.hpp>
#include <boost/format.hpp>
#include <cctype>
#include <fstream>
#include <log4cpp/Category.hh>

#include "commons/commons.h"
#include "commons/exceptions.h"
#include "utils/files.h"

namespace tavik {

namespace fs = boost::filesystem;

log4cpp::Category& Agent::logger = log4cpp::Category::getInstance("p.Agent");
log4cpp::Category& AgentsFactory::logger = log4cpp::Category::getInstance("p.AgentsFactory");

namespace {

const char* const kTokens[] = {"Description", "EntryPoint", "DocumentType", "Stylesheet",
                               "Interpreter"};
const char kDefaultInterpreter[] = "perl";

std::string afterLeadingSpace(const std::string& text) {
    std::string::size_type start = 0;
    while (start < text.size() && std::isspace(static_cast<unsigned char>(text[start]))) ++start;
    return text.substr(start);
}

}  // namespace

Agent::Values Agent::parse(const std::string& specFile) {
    Values values;
    std::ifstream in(specFile.c_str(), std::ios::binary);
    if (!in) return values;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        if (line.empty()) continue;
        const std::string::size_type colon = line.find(':');
        if (colon == std::string::npos) {
            TAVIK_RAISE(ParseFailed,
                        (boost::format("%1%:%2%: Expected '<token>: <value>', got '%3%'") %
                         specFile % number % line)
                            .str());
        }
        const std::string token = line.substr(0, colon);
        std::size_t slot = 0;
        while (slot < values.size() && token != kTokens[slot]) ++slot;
        if (slot == values.size()) {
            TAVIK_RAISE(
                ParseFailed,
                (boost::format("Illegal parameter found in %1%: %2%") % specFile % token).str());
        }
        values[slot] = afterLeadingSpace(line.substr(colon + 1));
    }
    return values;
}

Agent::Agent(const std::string& name, const fs::path& dir) : name_(name), dir_(dir) {
    const Values values = parse((dir / "control" / "spec").string());
    description_ = values[0];
    entryPoint_ = values[1];
    documentType_ = values[2];
    stylesheet_ = values[3];
    interpreter_ = values[4];
    logger.infoStream() << "Agent " << name_;
    logContents();
}

Agent::Agent(const std::string& name, const std::string& dir) : Agent(name, fs::path(dir)) {}

std::string Agent::getEffectiveInterpreter() const {
    return interpreter_.empty() ? kDefaultInterpreter : interpreter_;
}

std::string Agent::controlFile(const std::string& file) const {
    if (file.empty()) return file;
    return (dir_ / "control" / file).string();
}

std::string Agent::getDocumentTypeFile() const { return controlFile(documentType_); }
std::string Agent::getStylesheetFile() const { return controlFile(stylesheet_); }

void Agent::logContents() const {
    logger.infoStream() << "Description: " << description_;
    logger.infoStream() << "EntryPoint: " << entryPoint_;
    logger.infoStream() << "DocumentType: " << getDocumentTypeFile();
    logger.infoStream() << "Stylesheet: " << getStylesheetFile();
    logger.infoStream() << "Interpreter: " << getEffectiveInterpreter();
}

AgentsFactory::AgentsFactory() {}

AgentsFactory::AgentsFactory(const std::string& agentsDir) : agentsDir_(agentsDir) {}

std::string AgentsFactory::agentsDir() const {
    return agentsDir_.empty() ? files::agents::getDir() : agentsDir_;
}

void AgentsFactory::parseAgent(const std::string& name, const fs::path& dir) {
    logger.infoStream() << "Parsing " << name;
    const fs::path spec = dir / "control" / "spec";
    if (!isRegularFile(spec)) {
        logger.warnStream() << boost::format("%1% is not a regular file") % spec.string();
        return;
    }
    try {
        const boost::shared_ptr<Agent> agent(new Agent(dir.filename().string(), dir));
        agents_.insert(AgentMap::value_type(agent->getName(), agent));
    } catch (const Exc<&ParseFailed>& e) {
        // A broken agent is reported as not found by getAgent; the reason stays in the log.
        logger.errorStream() << e.what();
        logger.errorStream() << boost::format("%1% is not a valid agent spec file") % spec.string();
    }
}

void AgentsFactory::parseAgent(const std::string& name) {
    // An agent name from the command line must not lead out of the agents directory.
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) {
        logger.warnStream() << "Not an agent name: '" << name << "'";
        return;
    }
    const fs::path dir = fs::path(agentsDir()) / name;
    if (isDirectory(dir)) parseAgent(name, dir);
}

const AgentsFactory::AgentMap& AgentsFactory::getAllAgents() {
    logger.info("Parsing available agents info");
    const fs::path dir(agentsDir());
    if (isDirectory(dir)) {
        for (fs::directory_iterator it(dir), end; it != end; ++it) {
            parseAgent(it->path().filename().string());
        }
    }
    return agents_;
}

boost::shared_ptr<Agent> AgentsFactory::getAgent(const std::string& name) {
    AgentMap::const_iterator found = agents_.find(name);
    if (found == agents_.end()) {
        parseAgent(name);
        found = agents_.find(name);
    }
    if (found == agents_.end()) TAVIK_RAISE(AgentNotFound, name);
    return found->second;
}

AgentsFactory& theAgentsFactory() {
    static AgentsFactory factory;
    return factory;
}

}  // namespace tavik
