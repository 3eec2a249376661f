#include "support/run_program.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

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

ProgramResult runProgram(const std::string& program, const std::vector<std::string>& args,
                         const std::string& cwd, const std::map<std::string, std::string>& env) {
    ScratchDir capture;
    const std::string outPath = capture.path() + "/out";
    const std::string errPath = capture.path() + "/err";
    std::vector<std::string> argv = {program};
    argv.insert(argv.end(), args.begin(), args.end());

    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        // Only async-signal-safe work would be strictly proper here; the test process is
        // single-threaded, so the plain library calls are safe enough.
        for (const auto& variable : env) {
            if (variable.second.empty()) {
                unsetenv(variable.first.c_str());
            } else {
                setenv(variable.first.c_str(), variable.second.c_str(), 1);
            }
        }
        const int in = open("/dev/null", O_RDONLY);
        const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (in < 0 || out < 0 || err < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 ||
            dup2(err, 2) < 0 || chdir(cwd.c_str()) != 0) {
            _exit(127);
        }
        close(in);
        close(out);
        close(err);
        std::vector<char*> raw;
        for (std::string& word : argv) raw.push_back(&word[0]);
        raw.push_back(nullptr);
        execv(program.c_str(), raw.data());
        _exit(127);
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) throw std::runtime_error("waitpid failed");
    ProgramResult result;
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.out = readAll(outPath);
    result.err = readAll(errPath);
    return result;
}

}  // namespace testing
}  // namespace tavik
