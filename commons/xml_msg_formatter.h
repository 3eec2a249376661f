// Turning an exception and its chain of causes into an element tree for the execution log that
// the controlling process reads. Apart from the plain-text form (commons/msg_formatter.h) so that
// the debug log needs nothing of the XML layer.
#ifndef FERRYGATE_COMMONS_XML_MSG_FORMATTER_H
#define FERRYGATE_COMMONS_XML_MSG_FORMATTER_H

#include <string>

#include "commons/exceptions.h"
#include "xml/xml_wrap.h"

namespace tavik {

// Writes a visited exception into `node` of `doc`: attributes "code" and "severity", children
// "context", "file", "line" and "text", and each cause as a nested "message" element after the
// "text" of its wrapper. Both are borrowed and must outlive the formatter.
class XmlMsgFormatter : public ExInfoVisitor {
  public:
    XmlMsgFormatter(tXmlRkuDocument& doc, xmlNode* node);

    void setCode(const std::string& code) override;
    void setMessage(const std::string& message) override;
    void setContext(const std::string& context) override;
    void setFile(const std::string& file) override;
    void setLine(int line) override;
    void advanceToInnerException() override;

  private:
    tXmlRkuDocument& doc_;
    xmlNode* current_;
};

}  // namespace tavik

#endif  // FERRYGATE_COMMONS_XML_MSG_FORMATTER_H
