#include "commons/debug_log.h"

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <boost/format.hpp>
#include <log4cpp/Category.hh>
#include <log4cpp/Configurator.hh>
#include <log4cpp/NDC.hh>
#include <string>

#include "commons/exceptions.h"
#include "commons/secrets.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace {

using testing::readFile;
using testing::ScratchDir;

const std::string kShippedProperties = FERRYGATE_SOURCE_DIR "/data/log4cpp.properties";

bool attachedToRoot(const std::string& name) {
    for (log4cpp::Appender* appender : log4cpp::Category::getRoot().getAllAppenders()) {
        if (appender->getName() == name) return true;
    }
    return false;
}

// Each test runs in a process of its own, so log4cpp starts unconfigured every time.
class DebugLogTest : public ::testing::Test {
  protected:
    std::string logFile() const { return dir_.path() + "/migration.log"; }
    std::string debugFile() const { return logFile() + ".debug"; }

    ScratchDir dir_;
};

TEST_F(DebugLogTest, WithoutDebugOnlyTheSessionLogReceivesLinesFromInfoUp) {
    configureLog4Cpp(kShippedProperties, logFile(), false);
    EXPECT_TRUE(log4cppInitialized);
    EXPECT_TRUE(attachedToRoot("A1"));
    EXPECT_FALSE(attachedToRoot("A2"));
    log4cpp::Category& ssh = log4cpp::Category::getInstance("p.Ssh");
    ssh.info("connected to 127.0.0.1");
    ssh.debug("read 12 bytes");
    Log4cppDebugLog(false, false).log(boost::format("%1% rows") % 3);

    const std::string log = readFile(logFile());
    EXPECT_NE(std::string::npos, log.find(" [INFO] p.Ssh: connected to 127.0.0.1\n")) << log;
    EXPECT_NE(std::string::npos, log.find(" [INFO] p.log: 3 rows\n")) << log;
    EXPECT_EQ(std::string::npos, log.find("read 12 bytes")) << log;
    EXPECT_EQ("", readFile(debugFile()));
}

TEST_F(DebugLogTest, WithDebugTheDebugAppenderReceivesEverything) {
    configureLog4Cpp(kShippedProperties, logFile(), true);
    log4cpp::Category& agent = log4cpp::Category::getInstance("p.Agent");
    agent.debug("spec parsed");
    agent.error("agent failed");
    const std::string debug = readFile(debugFile());
    EXPECT_NE(std::string::npos, debug.find(" [DEBUG] p.Agent: spec parsed\n")) << debug;
    EXPECT_NE(std::string::npos, debug.find(" [ERROR] p.Agent: agent failed\n")) << debug;
    EXPECT_EQ(std::string::npos, readFile(logFile()).find("spec parsed"));
}

TEST_F(DebugLogTest, ConfiguredOnceButTheDebugAppenderIsDetachedOnEveryCallWithoutDebug) {
    configureLog4Cpp(kShippedProperties, logFile(), true);
    configureLog4Cpp(kShippedProperties, dir_.path() + "/other.log", false);
    log4cpp::Category::getInstance("p.Action").info("once");
    const std::string log = readFile(logFile());
    EXPECT_EQ(log.find("once"), log.rfind("once")) << log;
    EXPECT_NE(std::string::npos, log.find("once")) << log;
    EXPECT_FALSE(boost::filesystem::exists(dir_.path() + "/other.log"));
    EXPECT_EQ("", readFile(debugFile()));
}

TEST_F(DebugLogTest, RegisteredPasswordsNeverReachAnyAppender) {
    registerSecret("Login-Pw");
    registerSecret("sudo pw 9");
    configureLog4Cpp(kShippedProperties, logFile(), true);

    log4cpp::Category::getInstance("p.Ssh").infoStream() << "stdin: sudo pw 9\nls -l";
    log4cpp::Category::getInstance("p.Action").debug("login with Login-Pw and Login-Pw");
    log4cpp::Category::getInstance("p.SendAgentAction").error("sudo pw 9");
    log4cpp::NDC::push("ndc Login-Pw");
    log4cpp::Category::getInstance("p.Agent").warn("under a context");
    log4cpp::NDC::pop();
    Log4cppDebugLog debugLog(false, true);
    debugLog.log(TAVIK_EXC(SudoNotAllowed, "u-Login-Pw", "host"));
    debugLog.log(boost::format("%1%|%2%") % "Login-Pw" % "sudo pw 9");

    for (const std::string& file : {logFile(), debugFile()}) {
        const std::string log = readFile(file);
        EXPECT_EQ(std::string::npos, log.find("Login-Pw")) << file << ":\n" << log;
        EXPECT_EQ(std::string::npos, log.find("sudo pw 9")) << file << ":\n" << log;
        EXPECT_NE(std::string::npos, log.find("p.Ssh: stdin: ***\nls -l\n")) << log;
        EXPECT_NE(std::string::npos, log.find("p.log: ***|***\n")) << log;
        EXPECT_NE(std::string::npos, log.find("sudo is not allowed for user u-*** on host")) << log;
    }
    const std::string debug = readFile(debugFile());
    EXPECT_NE(std::string::npos, debug.find("p.Action: login with *** and ***\n")) << debug;
    EXPECT_NE(std::string::npos, debug.find("p.SendAgentAction: ***\n")) << debug;
}

}  // namespace
}  // namespace tavik
