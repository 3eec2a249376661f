// Running a helper program from a test and collecting what it prints.
#ifndef FERRYGATE_TESTS_SUPPORT_PROCESS_H
#define FERRYGATE_TESTS_SUPPORT_PROCESS_H

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <boost/filesystem/path.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/sandbox_env.h"

extern char** environ;

namespace tavik {
namespace test {

struct ProcessResult {
    // The exit code, or 128 plus the signal number when a signal ended the program.
    int status = -1;
    std::string out;
    std::string err;
};

// Runs the program at the path argv[0] with the arguments argv, standard input `input`, the
// test's environment plus `extraEnv` ("NAME=value" entries, which is how secrets should travel),
// in `cwd` (empty: the test's own). Waits for the program to end. Throws std::runtime_error when
// it cannot be started. A ferrygate binary runs behind the blank-separated words of
// FERRYGATE_WRAPPER when that is set (scripts/valgrind-e2e.sh sets it to a valgrind command).
inline ProcessResult runProcess(const std::vector<std::string>& argv, const std::string& input = "",
                                const std::vector<std::string>& extraEnv = {},
                                const std::string& cwd = "") {
    std::vector<std::string> words;
    const char* wrapper = getenv("FERRYGATE_WRAPPER");
    if (wrapper != nullptr && boost::filesystem::path(argv.at(0)).filename() == "ferrygate") {
        std::istringstream in(wrapper);
        for (std::string word; in >> word;) words.push_back(word);
    }
    words.insert(words.end(), argv.begin(), argv.end());
    std::vector<char*> args, env;
    for (const auto& a : words) args.push_back(const_cast<char*>(a.c_str()));
    for (const auto& e : extraEnv) env.push_back(const_cast<char*>(e.c_str()));
    for (char** e = environ; *e; ++e) env.push_back(*e);
    args.push_back(nullptr);
    env.push_back(nullptr);

    // Files instead of pipes: nothing to pump, and the child never blocks on a full pipe.
    testing::ScratchDir io;
    const std::string in = io.path() + "/in", out = io.path() + "/out", err = io.path() + "/err";
    testing::writeTextFile(in, input);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT, 0600);
    if (!cwd.empty()) posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());
    pid_t pid = -1;
    const int failed = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), env.data());
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) throw std::runtime_error(words[0] + ": " + std::strerror(failed));
    int status = 0;
    while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    ProcessResult result;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = testing::readFile(out);
    result.err = testing::readFile(err);
    return result;
}

}  // namespace test
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_PROCESS_H
