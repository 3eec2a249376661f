#include "xml/agent_file_list.h"

#include <libxml/tree.h>

#include <boost/lexical_cast.hpp>

namespace tavik {

namespace {

// boost::lexical_cast wraps "-1" around to the largest value; a size is never negative.
uint64_t parseUnsigned(const std::string& text) {
    if (!text.empty() && text[0] == '-') boost::throw_exception(boost::bad_lexical_cast());
    return boost::lexical_cast<uint64_t>(text);
}

}  // namespace

AgentFileList::~AgentFileList() = default;

XmlAgentFileList::XmlAgentFileList(const std::string& content) : tXmlRkuDocument(content) {
    initFileDoc("contentlist");
    for (xmlNode* child = getRootNode()->children; child != nullptr; child = child->next) {
        if (child->type != XML_ELEMENT_NODE || !stringEq(child->name, "file")) continue;
        const int64_t size = boost::lexical_cast<int64_t>(getAttribute(child, "size"));
        const std::string md5 = getAttribute(child, "md5sum");
        files_.push_back(DumpFile{getNodeText(child), size, md5});
    }
}

XmlAgentFileList::~XmlAgentFileList() noexcept {}

uint64_t XmlAgentFileList::getTotalSize() const {
    return parseUnsigned(getAttribute(getRootNode(), "size"));
}

uint64_t XmlAgentFileList::getUnpackedSize() const {
    return parseUnsigned(getAttribute(getRootNode(), "unpacked"));
}

std::unique_ptr<AgentFileList> getFileList(const std::string& content) {
    return std::unique_ptr<AgentFileList>(new XmlAgentFileList(content));
}

}  // namespace tavik
