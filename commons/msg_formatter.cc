#include "commons/msg_formatter.h"

#include <boost/format.hpp>

namespace tavik {

void TextMsgFormatter::setCode(const std::string& code) { code_ = code; }
void TextMsgFormatter::setMessage(const std::string& message) { message_ = message; }
void TextMsgFormatter::setContext(const std::string& context) { context_ = context; }
void TextMsgFormatter::setFile(const std::string& file) { file_ = file; }
void TextMsgFormatter::setLine(int line) { line_ = line; }

void TextMsgFormatter::advanceToInnerException() {
    output_ += currentLine();
    output_ += "\nInner exception:\n";
}

std::string TextMsgFormatter::text() const { return output_ + currentLine(); }

std::string TextMsgFormatter::currentLine() const {
    return (boost::format("%1%: %2% [%3%:%4%]") % code_ % message_ % file_ % line_).str();
}

std::string formatPlainTextMessage(const ExTraceable& e) {
    TextMsgFormatter formatter;
    e.accept(formatter);
    return formatter.text();
}

}  // namespace tavik
