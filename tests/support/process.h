// Running a helper program from a test and collecting what it prints.
#ifndef FERRYGATE_TESTS_SUPPORT_PROCESS_H
#define FERRYGATE_TESTS_SUPPORT_PROCESS_H

#include <string>
#include <vector>

namespace tavik {
namespace test {

struct ProcessResult {
    // The exit code, or 128 plus the signal number when a signal ended the program.
    int status = -1;
    std::string out;
    std::string err;
};

// Runs the program at the path argv[0] with the arguments argv, standard input `input` and the
// test's environment plus `extraEnv` ("NAME=value" entries, which is how secrets should travel).
// Waits for the program to end. Throws std::runtime_error when it cannot be started. A program
// named ferrygate runs under the words of FERRYGATE_WRAPPER when that is set (see run_program.h).
ProcessResult runProcess(const std::vector<std::string>& argv, const std::string& input = "",
                         const std::vector<std::string>& extraEnv = {});

}  // namespace test
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_PROCESS_H
