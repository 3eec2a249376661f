// XmlMsgFormatter, declared in commons/msg_formatter.h beside the plain-text form; kept apart so
// that the plain-text form (and the debug log that uses it) needs nothing of the XML layer.
#include <string>

#include "commons/msg_formatter.h"
#include "xml/xml_wrap.h"

namespace tavik {

XmlMsgFormatter::XmlMsgFormatter(tXmlRkuDocument& doc, xmlNode* node) : doc_(doc), current_(node) {}

void XmlMsgFormatter::setCode(const std::string& code) {
    doc_.addAttribute(current_, "code", code);
    doc_.addAttribute(current_, "severity", "error");
}

void XmlMsgFormatter::setMessage(const std::string& message) {
    doc_.newTextChild(current_, "text", message);
}

void XmlMsgFormatter::setContext(const std::string& context) {
    doc_.newTextChild(current_, "context", context);
}

void XmlMsgFormatter::setFile(const std::string& file) {
    doc_.newTextChild(current_, "file", file);
}

void XmlMsgFormatter::setLine(int line) {
    doc_.newTextChild(current_, "line", std::to_string(line));
}

void XmlMsgFormatter::advanceToInnerException() { current_ = doc_.newChild(current_, "message"); }

}  // namespace tavik
