// Migration agents on the destination host: one directory each below the agents directory,
// described by its control/spec file, and the registry that finds and caches them.
#ifndef FERRYGATE_FERRYGATE_AGENT_SPEC_H
#define FERRYGATE_FERRYGATE_AGENT_SPEC_H

#include <array>
#include <boost/filesystem/path.hpp>
#include <boost/shared_ptr.hpp>
#include <map>
#include <string>

namespace log4cpp {
class Category;
}

namespace tavik {

// One agent. The spec file holds "<token>:<value>" lines with the tokens Description,
// EntryPoint, DocumentType, Stylesheet and Interpreter, each optional (the last one given wins).
// Values lose their leading white space only; a carriage return stays part of the value.
class Agent {
  public:
    // The five values in token order; empty for absent tokens and for an unreadable file.
    typedef std::array<std::string, 5> Values;

    // Throws ParseFailed for a line without ":" or with an unknown token.
    static Values parse(const std::string& specFile);

    // Parses dir/control/spec; throws what parse() throws.
    Agent(const std::string& name, const boost::filesystem::path& dir);
    Agent(const std::string& name, const std::string& dir);

    void logContents() const;

    const std::string& getName() const { return name_; }
    const std::string& getDescription() const { return description_; }
    const std::string& getEntryPoint() const { return entryPoint_; }
    const std::string& getDocumentType() const { return documentType_; }
    const std::string& getStylesheet() const { return stylesheet_; }
    // As control/spec gives it, possibly empty.
    const std::string& getInterpreter() const { return interpreter_; }
    // The command that runs the entry point: the interpreter, or "perl" when none is given.
    std::string getEffectiveInterpreter() const;
    const boost::filesystem::path& getDir() const { return dir_; }
    // <agent directory>/control/<document type>, or empty when none is given.
    std::string getDocumentTypeFile() const;
    std::string getStylesheetFile() const;

  private:
    std::string controlFile(const std::string& file) const;

    std::string name_;
    std::string description_;
    std::string entryPoint_;
    std::string documentType_;
    std::string stylesheet_;
    std::string interpreter_;
    boost::filesystem::path dir_;

    static log4cpp::Category& logger;
};

// Finds agents below one agents directory and keeps each parsed agent for the process's life.
// Not thread-safe.
class AgentsFactory {
  public:
    typedef std::map<std::string, boost::shared_ptr<Agent> > AgentMap;

    // Agents below files::agents::getDir(), looked up when first needed.
    AgentsFactory();
    explicit AgentsFactory(const std::string& agentsDir);

    // Registers the agent in `dir` under the directory's last component. A missing spec file
    // or a bad one is logged and skipped; an agent already registered under that name is kept.
    void parseAgent(const std::string& name, const boost::filesystem::path& dir);
    // The same for <agents directory>/<name>, when that is a directory. Names that are not a
    // single path component are never looked up.
    void parseAgent(const std::string& name);
    // Registers every agent below the agents directory.
    const AgentMap& getAllAgents();
    // The named agent, parsed on first use; throws AgentNotFound.
    boost::shared_ptr<Agent> getAgent(const std::string& name);

  private:
    std::string agentsDir() const;

    std::string agentsDir_;  // empty: files::agents::getDir()
    AgentMap agents_;

    static log4cpp::Category& logger;
};

// The process's registry, over files::agents::getDir().
AgentsFactory& theAgentsFactory();

}  // namespace tavik

#endif  // FERRYGATE_FERRYGATE_AGENT_SPEC_H
