#include "xml/agents_list.h"

namespace tavik {

AgentsList::~AgentsList() = default;

XmlAgentsList::XmlAgentsList() { initNewDoc("agents-list"); }

XmlAgentsList::~XmlAgentsList() noexcept {}

void XmlAgentsList::addAgent(const std::string& name, const std::string& description) {
    xmlNode* agent = newChild(getRootNode(), "agent");
    newTextChild(agent, "name", name);
    newTextChild(agent, "description", description);
}

void XmlAgentsList::saveDocToStdout() { saveToStdout(); }

std::unique_ptr<AgentsList> createAgentsListFile() {
    return std::unique_ptr<AgentsList>(new XmlAgentsList());
}

}  // namespace tavik
