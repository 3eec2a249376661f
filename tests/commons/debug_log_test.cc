#include "commons/debug_log.h"

#include <gtest/gtest.h>

#include <boost/format.hpp>
#include <log4cpp/Category.hh>
#include <log4cpp/NDC.hh>
#include <string>

#include "commons/exceptions.h"
#include "commons/secrets.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace {

using testing::readFile;

// Every way a line is built (stream, format, exception, context) goes through the mask.
TEST(DebugLog, RegisteredPasswordsNeverReachAnyAppender) {
    testing::ScratchDir dir;
    const std::string logFile = dir.path() + "/migration.log", debugFile = logFile + ".debug";
    registerSecret("Login-Pw");
    registerSecret("sudo pw 9");
    configureLog4Cpp(FERRYGATE_SOURCE_DIR "/data/log4cpp.properties", logFile, true);

    log4cpp::Category::getInstance("p.Ssh").infoStream() << "stdin: sudo pw 9\nls -l";
    log4cpp::Category::getInstance("p.Action").debug("login with Login-Pw and Login-Pw");
    log4cpp::NDC::push("ndc Login-Pw");
    log4cpp::Category::getInstance("p.Agent").warn("under a context");
    log4cpp::NDC::pop();
    Log4cppDebugLog debugLog(false, true);
    debugLog.log(TAVIK_EXC(SudoNotAllowed, "u-Login-Pw", "host"));
    debugLog.log(boost::format("%1%|%2%") % "Login-Pw" % "sudo pw 9");

    for (const std::string& file : {logFile, debugFile}) {
        const std::string log = readFile(file);
        EXPECT_EQ(std::string::npos, log.find("Login-Pw")) << file << ":\n" << log;
        EXPECT_EQ(std::string::npos, log.find("sudo pw 9")) << file << ":\n" << log;
        EXPECT_NE(std::string::npos, log.find("p.Ssh: stdin: ***\nls -l\n")) << log;
        EXPECT_NE(std::string::npos, log.find("p.log: ***|***\n")) << log;
        EXPECT_NE(std::string::npos, log.find("sudo is not allowed for user u-*** on host")) << log;
    }
    EXPECT_NE(std::string::npos, readFile(debugFile).find("p.Action: login with *** and ***\n"));
}

}  // namespace
}  // namespace tavik
