#include "commons/debug_log.h"

#include <sys/mman.h>

#include <boost/algorithm/string/replace.hpp>
#include <boost/format.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <log4cpp/Category.hh>
#include <log4cpp/Configurator.hh>
#include <log4cpp/Priority.hh>
#include <log4cpp/PropertyConfigurator.hh>

#include "commons/masking_appender.h"
#include "commons/msg_formatter.h"
#include "commons/unique_fd.h"
#include "utils/files.h"

namespace tavik {

DebugLog* theDebugLog = nullptr;
bool log4cppInitialized = false;
const char* const kDebugAppenderName = "A2";

DebugLog::~DebugLog() = default;

log4cpp::Category& Log4cppDebugLog::logger = log4cpp::Category::getInstance("p.log");

Log4cppDebugLog::Log4cppDebugLog(bool verbose, bool debug)
    : verboseMode_(verbose), debugMode_(debug) {}

void Log4cppDebugLog::log(const std::string& text) { logger.log(log4cpp::Priority::INFO, text); }

void Log4cppDebugLog::log(const boost::format& text) { log(text.str()); }

void Log4cppDebugLog::log(const ExTraceable& e) { log(formatPlainTextMessage(e)); }

namespace {

const char kLogFileVariable[] = "${LOG_FILE_NAME}";

void configureWithLogFile(const std::string& configFile, const std::string& logFileName) {
    std::ifstream in(configFile);
    if (!in) throw log4cpp::ConfigureFailure("cannot read log configuration " + configFile);
    // log4cpp reads its configuration only from a named file and substitutes variables only
    // from the environment. The substituted text goes into an anonymous memory file instead,
    // which vanishes with its descriptor: nothing is left on disk, whatever happens.
    const UniqueFd substituted(memfd_create("log4cpp.properties", MFD_CLOEXEC));
    if (!substituted.valid()) {
        throw log4cpp::ConfigureFailure(std::string("cannot create a memory file: ") +
                                        strerror(errno));
    }
    const std::string path = "/proc/self/fd/" + std::to_string(substituted.get());
    {
        std::ofstream out(path);
        std::string line;
        while (std::getline(in, line)) {
            boost::algorithm::replace_all(line, kLogFileVariable, logFileName);
            out << line << '\n';
        }
        if (in.bad() || !out.flush()) {
            throw log4cpp::ConfigureFailure("cannot read log configuration " + configFile);
        }
    }
    try {
        log4cpp::PropertyConfigurator::configure(path);
    } catch (const log4cpp::ConfigureFailure& e) {
        throw log4cpp::ConfigureFailure(configFile + ": " + e.what());
    }
}

}  // namespace

void configureLog4Cpp(const std::string& configFile, const std::string& logFileName, bool debug) {
    if (!log4cppInitialized) {
        configureWithLogFile(configFile, logFileName);
        maskAllAppenders();
        log4cppInitialized = true;
    }
    if (!debug) {
        // Category::getAppender(name) answers from the process-wide registry, attached or
        // not, so the root's own set is searched.
        log4cpp::Category& root = log4cpp::Category::getRoot();
        for (log4cpp::Appender* appender : root.getAllAppenders()) {
            if (appender->getName() == kDebugAppenderName) root.removeAppender(appender);
        }
    }
}

DebugLogLifetimeController::DebugLogLifetimeController(bool verbose, bool debug,
                                                       const std::string& logFile) {
    configureLog4Cpp(files::getRkuLogConfigFileName(), logFile, debug);
    theDebugLog = new Log4cppDebugLog(verbose && !debug, debug);
}

DebugLogLifetimeController::~DebugLogLifetimeController() {
    delete theDebugLog;
    theDebugLog = nullptr;
}

}  // namespace tavik
