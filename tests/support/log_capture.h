// Collects every line logged on a log4cpp category while it lives, at every priority.
#ifndef FERRYGATE_TESTS_SUPPORT_LOG_CAPTURE_H
#define FERRYGATE_TESTS_SUPPORT_LOG_CAPTURE_H

#include <log4cpp/Category.hh>
#include <log4cpp/OstreamAppender.hh>
#include <sstream>
#include <string>

namespace tavik {
namespace testing {

class LogCapture {
  public:
    explicit LogCapture(const std::string& category)
        : category_(log4cpp::Category::getInstance(category)),
          appender_(new log4cpp::OstreamAppender("capture", &lines_)) {
        category_.addAppender(appender_);  // the category owns the appender from here
        category_.setPriority(log4cpp::Priority::DEBUG);
    }
    ~LogCapture() { category_.removeAppender(appender_); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    std::string text() const { return lines_.str(); }

  private:
    std::ostringstream lines_;
    log4cpp::Category& category_;
    log4cpp::Appender* appender_;
};

}  // namespace testing
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_LOG_CAPTURE_H
