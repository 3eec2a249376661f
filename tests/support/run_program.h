// Runs a program to completion and keeps what a user would see of it.
#ifndef FERRYGATE_TESTS_SUPPORT_RUN_PROGRAM_H
#define FERRYGATE_TESTS_SUPPORT_RUN_PROGRAM_H

#include <string>
#include <vector>

namespace tavik {
namespace testing {

struct ProgramResult {
    int exitCode = -1;  // -1 when the program did not exit normally
    std::string out;
    std::string err;
};

// The start of a shell command line that runs `program` (no single quotes in it): the quoted
// path, preceded by the words of FERRYGATE_WRAPPER (e.g. "valgrind --error-exitcode=97", set by
// scripts/valgrind-e2e.sh) when `program` is a ferrygate binary. Tests that start ferrygate
// through a shell of their own use it, so that the binary runs under the wrapper too.
std::string programCommand(const std::string& program);

// Runs programCommand(program) with `args` (no single quotes in them) in `cwd`, with this
// process's environment and an empty standard input.
ProgramResult runProgram(const std::string& program, const std::vector<std::string>& args,
                         const std::string& cwd);

}  // namespace testing
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_RUN_PROGRAM_H
