// The execution log: a small XML document ("execution-result") written into the session's
// result file when the run ends. It tells the controlling process whether the action succeeded
// and, if not, carries the error with its chain of causes.
#ifndef FERRYGATE_COMMONS_XML_LOG_H
#define FERRYGATE_COMMONS_XML_LOG_H

#include <string>
#include <vector>

#include "xml/xml_wrap.h"

namespace tavik {

class ExTraceable;

class Log {
  public:
    // Implementations may save the log here, and a failed save propagates.
    virtual ~Log() noexcept(false);
    virtual void setSuccess(bool success) = 0;
    // Records a failure inside the innermost open object.
    virtual void log(const ExTraceable& e) = 0;
    // Opens an object (an account, a domain) that later messages belong to.
    virtual void pushObject(const std::string& name, const std::string& type) = 0;
    // Closes the innermost open object; NoParentNode when none is open.
    virtual void popObject() = 0;
    // The number of open objects.
    virtual int getDepth() const = 0;
};

// Objects in which nothing was logged leave no trace. The destructor sets the root's "status"
// to "success" or "error" and replaces the result file atomically; a failed save propagates
// unless another exception is already on its way, which then wins (the save's failure goes to
// the debug log).
class XmlLog : public Log {
  public:
    explicit XmlLog(const std::string& resultFileName);
    ~XmlLog() noexcept(false) override;
    XmlLog(const XmlLog&) = delete;
    XmlLog& operator=(const XmlLog&) = delete;

    void setSuccess(bool success) override;
    void log(const ExTraceable& e) override;
    void pushObject(const std::string& name, const std::string& type) override;
    void popObject() override;
    int getDepth() const override;

  private:
    tXmlRkuDocument doc_;
    bool success_ = false;
    std::string resultFileName_;
    // The open elements, the root at the bottom, and for each open object whether anything was
    // logged inside it (none for the root).
    std::vector<xmlNode*> elements_;
    std::vector<bool> hasContent_;
    int uncaughtAtStart_;
};

// The execution log of the run, set for the length of a LogLifetimeController; null otherwise.
extern Log* theLog;

// Publishes a new XmlLog in theLog for its own lifetime; its end writes `resultFileName`.
class LogLifetimeController {
  public:
    explicit LogLifetimeController(const std::string& resultFileName);
    ~LogLifetimeController() noexcept(false);
    LogLifetimeController(const LogLifetimeController&) = delete;
    LogLifetimeController& operator=(const LogLifetimeController&) = delete;
};

}  // namespace tavik

#endif  // FERRYGATE_COMMONS_XML_LOG_H
