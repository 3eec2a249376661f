// The list of available agents, written to standard output for the controlling process.
#ifndef FERRYGATE_XML_AGENTS_LIST_H
#define FERRYGATE_XML_AGENTS_LIST_H

#include <memory>
#include <string>

#include "xml/xml_wrap.h"

namespace tavik {

class AgentsList {
  public:
    virtual ~AgentsList();
    // Appends one agent, after those added before.
    virtual void addAgent(const std::string& name, const std::string& description) = 0;
    virtual void saveDocToStdout() = 0;
};

// Root element "agents-list"; each agent an "agent" element holding the text elements "name"
// and "description", in this order.
class XmlAgentsList : public tXmlRkuDocument, public AgentsList {
  public:
    XmlAgentsList();
    ~XmlAgentsList() noexcept override;

    void addAgent(const std::string& name, const std::string& description) override;
    void saveDocToStdout() override;
};

std::unique_ptr<AgentsList> createAgentsListFile();

}  // namespace tavik

#endif  // FERRYGATE_XML_AGENTS_LIST_H
