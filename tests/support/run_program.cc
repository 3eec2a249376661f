#include "support/run_program.h"

#include <sys/wait.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "support/sandbox_env.h"

namespace tavik {
namespace testing {

namespace {
std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

std::string programCommand(const std::string& program) {
    const char* wrapper = getenv("FERRYGATE_WRAPPER");
    const bool wrapped = wrapper != nullptr && *wrapper != '\0' &&
                         boost::filesystem::path(program).filename() == "ferrygate";
    return (wrapped ? std::string(wrapper) + " '" : std::string("'")) + program + "'";
}

ProgramResult runProgram(const std::string& program, const std::vector<std::string>& args,
                         const std::string& cwd) {
    ScratchDir capture;
    std::string command = "cd '" + cwd + "' && exec " + programCommand(program);
    for (const std::string& word : args) command += " '" + word + "'";
    command += " </dev/null >" + capture.path() + "/out 2>" + capture.path() + "/err";
    const int status = system(command.c_str());
    ProgramResult result;
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.out = readAll(capture.path() + "/out");
    result.err = readAll(capture.path() + "/err");
    return result;
}

}  // namespace testing
}  // namespace tavik
