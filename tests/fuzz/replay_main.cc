// The normal (gcc) build has no libFuzzer. This main feeds every file of the directories or
// files named on the command line to the target once, so that the seed corpus and the inputs
// that once broke a parser are replayed by ctest on every build.
#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

void replay(const boost::filesystem::path& file) {
    std::ifstream in(file.string(), std::ios::binary);
    if (!in) {
        std::cerr << "cannot read " << file << "\n";
        exit(1);
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        const boost::filesystem::path target(argv[i]);
        if (boost::filesystem::is_directory(target)) {
            // Sorted, so that a failure names the same input on every run.
            std::vector<boost::filesystem::path> files;
            for (const auto& entry : boost::filesystem::directory_iterator(target)) {
                if (boost::filesystem::is_regular_file(entry.path())) files.push_back(entry.path());
            }
            std::sort(files.begin(), files.end());
            for (const auto& file : files) replay(file);
            count += files.size();
        } else {
            replay(target);
            ++count;
        }
    }
    if (count == 0) {
        std::cerr << "no input replayed\n";
        return 1;
    }
    std::cout << count << " inputs replayed\n";
    return 0;
}
