// Runs a program to completion and keeps what a user would see of it.
#ifndef FERRYGATE_TESTS_SUPPORT_RUN_PROGRAM_H
#define FERRYGATE_TESTS_SUPPORT_RUN_PROGRAM_H

#include <map>
#include <string>
#include <vector>

namespace tavik {
namespace testing {

struct ProgramResult {
    int exitCode = -1;  // -1 when the program did not exit normally
    std::string out;
    std::string err;
};

// Runs `program` with `args` in directory `cwd`, its environment being this process's with
// `env` added (an empty value removes the variable), standard input empty.
ProgramResult runProgram(const std::string& program, const std::vector<std::string>& args,
                         const std::string& cwd,
                         const std::map<std::string, std::string>& env = {});

}  // namespace testing
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_RUN_PROGRAM_H
