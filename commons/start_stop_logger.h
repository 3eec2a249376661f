// The start/stop record: one line in the debug log when the program starts, with its command
// line, and one when it ends, with its exit code.
#ifndef FERRYGATE_COMMONS_START_STOP_LOGGER_H
#define FERRYGATE_COMMONS_START_STOP_LOGGER_H

#include <sys/types.h>

#include <list>
#include <string>

#include "commons/daemon_handlers.h"

namespace tavik {

// Writes through theDebugLog, which must outlive this object.
class StartStopLogger {
  public:
    // Logs "<name> started : <commandLine>" and registers daemonized() to run after a fork in
    // both the parent and the child. The caller quotes each word of `commandLine` for the
    // shell, so that the record reads back as the words the program was given.
    StartStopLogger(const std::string& name, const std::string& commandLine);
    // Logs "<name> finished. Exit code: N", or "<name> finished.  (exit code is not reported)"
    // when setExitCode was never called.
    ~StartStopLogger();
    StartStopLogger(const StartStopLogger&) = delete;
    StartStopLogger& operator=(const StartStopLogger&) = delete;

    void setExitCode(int code);
    // Logs "<name> <old pid> -> (<new pid> daemon)" and takes the new pid as its own.
    void daemonized();

  private:
    std::string name_;
    pid_t pid_;
    std::string commandLine_;
    int exitCode_ = 0;
    bool exitCodeSet_ = false;
    DaemonHandlers::iterator parentHandler_;
    DaemonHandlers::iterator childHandler_;
};

}  // namespace tavik

#endif  // FERRYGATE_COMMONS_START_STOP_LOGGER_H
