#include "commons/start_stop_logger.h"

#include <unistd.h>

#include <boost/format.hpp>

#include "commons/debug_log.h"

namespace tavik {

StartStopLogger::StartStopLogger(const std::string& name, const std::string& commandLine)
    : name_(name), pid_(getpid()), commandLine_(commandLine) {
    theDebugLog->log(name_ + " started : " + commandLine_);
    parentHandler_ =
        parentDaemonHandlers.insert(parentDaemonHandlers.end(), [this] { daemonized(); });
    childHandler_ = childDaemonHandlers.insert(childDaemonHandlers.end(), [this] { daemonized(); });
}

StartStopLogger::~StartStopLogger() {
    parentDaemonHandlers.erase(parentHandler_);
    childDaemonHandlers.erase(childHandler_);
    if (exitCodeSet_) {
        theDebugLog->log(name_ + " finished. Exit code: " + std::to_string(exitCode_));
    } else {
        theDebugLog->log(name_ + " finished.  (exit code is not reported)");
    }
}

void StartStopLogger::setExitCode(int code) {
    exitCode_ = code;
    exitCodeSet_ = true;
}

void StartStopLogger::daemonized() {
    const pid_t now = getpid();
    theDebugLog->log(boost::format("%1% %2% -> (%3% daemon)") % name_ % pid_ % now);
    pid_ = now;
}

}  // namespace tavik
