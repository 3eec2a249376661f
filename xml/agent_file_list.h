// The content list that an agent prints: the files to download, with their sizes and MD5 sums.
#ifndef FERRYGATE_XML_AGENT_FILE_LIST_H
#define FERRYGATE_XML_AGENT_FILE_LIST_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "xml/xml_wrap.h"

namespace tavik {

// One file of a content list.
struct DumpFile {
    std::string name;
    int64_t size;
    std::string md5;  // 32 lower-case hexadecimal digits, as the agent computed it
};

class AgentFileList {
  public:
    virtual ~AgentFileList();
    // The files in document order.
    virtual const std::vector<DumpFile>& getFileList() const = 0;
    // The root's "size" and "unpacked" attributes, read at the time of the call:
    // NoSuchAttribute when absent, boost::bad_lexical_cast when not a decimal number.
    virtual uint64_t getTotalSize() const = 0;
    virtual uint64_t getUnpackedSize() const = 0;
};

// Root element "contentlist"; each "file" child gives a file by its text (the name) and its
// attributes "size" and "md5sum". Other children are ignored.
class XmlAgentFileList : public tXmlRkuDocument, public AgentFileList {
  public:
    // Parses `content` (the XML text itself), a document of the source host: a document type
    // declaration fails with tError_ParseFile, a missing attribute with NoSuchAttribute, a size
    // that is not a decimal number with boost::bad_lexical_cast.
    explicit XmlAgentFileList(const std::string& content);
    ~XmlAgentFileList() noexcept override;

    const std::vector<DumpFile>& getFileList() const override { return files_; }
    uint64_t getTotalSize() const override;
    uint64_t getUnpackedSize() const override;

  private:
    std::vector<DumpFile> files_;
};

// The content list in `content`, the XML text an agent printed.
std::unique_ptr<AgentFileList> getFileList(const std::string& content);

}  // namespace tavik

#endif  // FERRYGATE_XML_AGENT_FILE_LIST_H
