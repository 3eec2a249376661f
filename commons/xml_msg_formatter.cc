#include "commons/xml_msg_formatter.h"

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
