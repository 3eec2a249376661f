#include "commons/xml_log.h"

#include <algorithm>
#include <exception>

#include "commons/debug_log.h"
#include "commons/exceptions.h"
#include "commons/replace_file.h"
#include "commons/xml_msg_formatter.h"

namespace tavik {

Log* theLog = nullptr;

Log::~Log() noexcept(false) = default;

XmlLog::XmlLog(const std::string& resultFileName)
    : resultFileName_(resultFileName), uncaughtAtStart_(std::uncaught_exceptions()) {
    doc_.initNewDoc("execution-result");
    elements_.push_back(doc_.getRootNode());
}

XmlLog::~XmlLog() noexcept(false) {
    try {
        doc_.addAttribute(doc_.getRootNode(), "status", success_ ? "success" : "error");
        // Written once per run, and the controller's only word on how it ended: to the disk.
        doc_.saveToFileAtomically(resultFileName_, adminAccount(), true);
    } catch (const ExTraceable& e) {
        // Unwinding already: throwing now would end the process, and the failure on its way
        // matters more than the lost result file.
        if (std::uncaught_exceptions() <= uncaughtAtStart_) throw;
        if (theDebugLog != nullptr) theDebugLog->log(e);
    }
}

void XmlLog::setSuccess(bool success) { success_ = success; }

void XmlLog::log(const ExTraceable& e) {
    XmlMsgFormatter formatter(doc_, doc_.newChild(elements_.back(), "message"));
    e.accept(formatter);
    std::fill(hasContent_.begin(), hasContent_.end(), true);
}

void XmlLog::pushObject(const std::string& name, const std::string& type) {
    xmlNode* object = doc_.newChild(elements_.back(), "object");
    doc_.addAttribute(object, "name", name);
    doc_.addAttribute(object, "type", type);
    elements_.push_back(object);
    hasContent_.push_back(false);
}

void XmlLog::popObject() {
    if (hasContent_.empty()) TAVIK_RAISE(NoParentNode);
    xmlNode* object = elements_.back();
    const bool keep = hasContent_.back();
    elements_.pop_back();
    hasContent_.pop_back();
    if (!keep) doc_.removeNode(object);
}

int XmlLog::getDepth() const { return static_cast<int>(hasContent_.size()); }

LogLifetimeController::LogLifetimeController(const std::string& resultFileName) {
    theLog = new XmlLog(resultFileName);
}

LogLifetimeController::~LogLifetimeController() noexcept(false) {
    // Null before the final save, which may throw.
    Log* log = theLog;
    theLog = nullptr;
    delete log;
}

}  // namespace tavik
