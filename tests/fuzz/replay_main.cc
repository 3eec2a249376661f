// Without libFuzzer (the gcc build), ctest replays the seeds and old crashers through this main:
// every file of the directories named on the command line, once.
#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
    namespace fs = boost::filesystem;
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    std::vector<fs::path> files;
    for (int i = 1; i < argc; ++i) files.insert(files.end(), fs::directory_iterator(argv[i]), {});
    std::sort(files.begin(), files.end());  // a failure names the same input on every run
    for (const fs::path& file : files) {
        std::ifstream in(file.string(), std::ios::binary);
        if (!in) {
            std::cerr << "cannot read " << file << "\n";
            return 1;
        }
        const std::string bytes((std::istreambuf_iterator<char>(in)), {});
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    std::cout << files.size() << " inputs replayed\n";
    return files.empty() ? 1 : 0;
}
