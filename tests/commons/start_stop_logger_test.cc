#include "commons/start_stop_logger.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "commons/debug_log.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace {

using testing::readFile;
// The messages of the log file, without date, priority and category.
std::vector<std::string> messages(const std::string& path) {
    std::vector<std::string> result;
    std::istringstream in(readFile(path));
    const std::string prefix = "[INFO] p.log: ";
    for (std::string line; std::getline(in, line);) {
        const size_t at = line.find(prefix);
        result.push_back(at == std::string::npos ? line : line.substr(at + prefix.size()));
    }
    return result;
}

class StartStopLoggerTest : public ::testing::Test {
  protected:
    StartStopLoggerTest() : debugLog_(false, false) {
        configureLog4Cpp(FERRYGATE_SOURCE_DIR "/data/log4cpp.properties", logFile(), false);
        theDebugLog = &debugLog_;
    }
    ~StartStopLoggerTest() override { theDebugLog = nullptr; }

    std::string logFile() const { return dir_.path() + "/migration.log"; }

    testing::ScratchDir dir_;
    Log4cppDebugLog debugLog_;
    char program_[16] = "ferrygate";
    char action_[16] = "--send-scout";
    char* argv_[3] = {program_, action_, nullptr};
};

TEST_F(StartStopLoggerTest, TheEndRecordCarriesTheExitCodeOrSaysItWasNotReported) {
    { StartStopLogger logger("Ferrygate", 2, argv_); }
    {
        StartStopLogger logger("Ferrygate", 2, argv_);
        logger.setExitCode(17);
    }
    const std::vector<std::string> expected = {
        "Ferrygate started : ferrygate --send-scout",
        "Ferrygate finished.  (exit code is not reported)",
        "Ferrygate started : ferrygate --send-scout",
        "Ferrygate finished. Exit code: 17",
    };
    EXPECT_EQ(expected, messages(logFile()));
}

TEST_F(StartStopLoggerTest, AForkedChildRecordsItsNewProcessId) {
    const pid_t parent = getpid();
    pid_t child = 0;
    {
        StartStopLogger logger("Ferrygate", 2, argv_);
        EXPECT_EQ(1u, parentDaemonHandlers.size());
        ASSERT_EQ(1u, childDaemonHandlers.size());
        child = fork();
        ASSERT_NE(-1, child);
        if (child == 0) {
            runDaemonHandlers(childDaemonHandlers);
            // Without destructors: the end record belongs to the parent.
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        ASSERT_TRUE(WIFEXITED(status));
    }
    EXPECT_TRUE(parentDaemonHandlers.empty());
    EXPECT_TRUE(childDaemonHandlers.empty());
    const std::vector<std::string> log = messages(logFile());
    ASSERT_EQ(3u, log.size());
    EXPECT_EQ("Ferrygate " + std::to_string(parent) + " -> (" + std::to_string(child) + " daemon)",
              log[1]);
}

}  // namespace
}  // namespace tavik
