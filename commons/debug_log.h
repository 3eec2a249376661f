// The debug log: the text log of a run, written through log4cpp into the session's log file.
// Every subsystem writes to it through its own category ("p.Ssh", "p.Action", ...); this file
// configures log4cpp once per process and offers the driver's own log object.
#ifndef FERRYGATE_COMMONS_DEBUG_LOG_H
#define FERRYGATE_COMMONS_DEBUG_LOG_H

#include <boost/format/format_fwd.hpp>
#include <string>

namespace log4cpp {
class Category;
}

namespace tavik {

class ExTraceable;

class DebugLog {
  public:
    virtual ~DebugLog();
    virtual void log(const std::string& text) = 0;
    virtual void log(const boost::format& text) = 0;
    // The exception and its causes, one line each.
    virtual void log(const ExTraceable& e) = 0;
    virtual bool isVerboseMode() const = 0;
    virtual bool isDebugMode() const = 0;
};

// Writes at INFO to the category "p.log".
class Log4cppDebugLog : public DebugLog {
  public:
    Log4cppDebugLog(bool verbose, bool debug);

    void log(const std::string& text) override;
    void log(const boost::format& text) override;
    void log(const ExTraceable& e) override;
    bool isVerboseMode() const override { return verboseMode_; }
    bool isDebugMode() const override { return debugMode_; }

  private:
    bool verboseMode_;
    bool debugMode_;

    static log4cpp::Category& logger;
};

// The debug log of the run, set for the length of a DebugLogLifetimeController; null otherwise.
extern DebugLog* theDebugLog;
// Whether log4cpp has been configured in this process.
extern bool log4cppInitialized;

// The appender the properties file defines for debug output; silenced unless debug is asked for.
extern const char* const kDebugAppenderName;

// Configures log4cpp from the properties file `configFile` once per process: every
// "${LOG_FILE_NAME}" in it stands for `logFileName`. Every appender it attaches is then wrapped
// in the masking net for registered secrets (maskAllAppenders). Unless `debug`, the appender
// "A2" is detached from the root category, on every call. A missing or broken file throws
// log4cpp::ConfigureFailure.
void configureLog4Cpp(const std::string& configFile, const std::string& logFileName, bool debug);

// Configures log4cpp from the host's properties file, writing to `logFile`, and publishes a
// Log4cppDebugLog in theDebugLog for its own lifetime. The driver passes (false, --verbose):
// --verbose means debug mode.
class DebugLogLifetimeController {
  public:
    DebugLogLifetimeController(bool verbose, bool debug, const std::string& logFile);
    ~DebugLogLifetimeController();
    DebugLogLifetimeController(const DebugLogLifetimeController&) = delete;
    DebugLogLifetimeController& operator=(const DebugLogLifetimeController&) = delete;
};

}  // namespace tavik

#endif  // FERRYGATE_COMMONS_DEBUG_LOG_H
