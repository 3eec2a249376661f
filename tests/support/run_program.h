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

// Runs `program` with `args` (no single quotes in them) in `cwd`, with this process's
// environment and an empty standard input. When `program` is a ferrygate binary and the
// environment holds FERRYGATE_WRAPPER (shell words, e.g. "valgrind --error-exitcode=97"), the
// binary runs under that command instead (scripts/valgrind-e2e.sh).
ProgramResult runProgram(const std::string& program, const std::vector<std::string>& args,
                         const std::string& cwd);

}  // namespace testing
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_RUN_PROGRAM_H
