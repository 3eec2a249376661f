#include "commons/start_stop_logger.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "commons/debug_log.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace {

// The messages of the log file, without date, priority and category.
std::vector<std::string> messages(const std::string& path) {
    std::vector<std::string> result;
    std::istringstream in(testing::readFile(path));
    const std::string prefix = "[INFO] p.log: ";
    for (std::string line; std::getline(in, line);) {
        const size_t at = line.find(prefix);
        result.push_back(at == std::string::npos ? line : line.substr(at + prefix.size()));
    }
    return result;
}

TEST(StartStopLogger, TheEndRecordCarriesTheExitCodeOrSaysItWasNotReported) {
    testing::ScratchDir dir;
    const std::string logFile = dir.path() + "/migration.log";
    configureLog4Cpp(FERRYGATE_SOURCE_DIR "/data/log4cpp.properties", logFile, false);
    Log4cppDebugLog debugLog(false, false);
    theDebugLog = &debugLog;
    char program[] = "ferrygate", action[] = "--send-scout";
    char* argv[] = {program, action, nullptr};
    { StartStopLogger logger("Ferrygate", 2, argv); }
    {
        StartStopLogger logger("Ferrygate", 2, argv);
        logger.setExitCode(17);
    }
    theDebugLog = nullptr;
    const std::vector<std::string> expected = {
        "Ferrygate started : ferrygate --send-scout",
        "Ferrygate finished.  (exit code is not reported)",
        "Ferrygate started : ferrygate --send-scout",
        "Ferrygate finished. Exit code: 17",
    };
    EXPECT_EQ(expected, messages(logFile));
}

}  // namespace
}  // namespace tavik
