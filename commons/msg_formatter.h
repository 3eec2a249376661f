// Turning an exception and its chain of causes into plain text, one line per exception, for the
// terminal and the debug log. (The execution log's XML form is commons/xml_msg_formatter.h.)
#ifndef FERRYGATE_COMMONS_MSG_FORMATTER_H
#define FERRYGATE_COMMONS_MSG_FORMATTER_H

#include <string>

#include "commons/exceptions.h"

namespace tavik {

// "code: message [file:line]" for `e`, then "\nInner exception:\n" and the line of each cause;
// no line break at the end. The function signature is left out.
std::string formatPlainTextMessage(const ExTraceable& e);

// Collects the plain text while an exception is visited. Values are never cleared between
// exceptions: a cause that reports no place keeps the place of the exception around it.
class TextMsgFormatter : public ExInfoVisitor {
  public:
    void setCode(const std::string& code) override;
    void setMessage(const std::string& message) override;
    void setContext(const std::string& context) override;
    void setFile(const std::string& file) override;
    void setLine(int line) override;
    void advanceToInnerException() override;

    // What was collected so far followed by the line of the exception visited last.
    std::string text() const;

  private:
    std::string currentLine() const;

    std::string output_;
    std::string code_;
    std::string context_;
    std::string file_;
    int line_ = 0;
    std::string message_;
};

}  // namespace tavik

#endif  // FERRYGATE_COMMONS_MSG_FORMATTER_H
