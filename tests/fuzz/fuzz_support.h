// Helpers of the fuzz targets, which abort on the first broken property so that the fuzzer (or
// the corpus replay of the normal build) reports the input that broke it.
#ifndef FERRYGATE_TESTS_FUZZ_FUZZ_SUPPORT_H
#define FERRYGATE_TESTS_FUZZ_FUZZ_SUPPORT_H

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "commons/unique_fd.h"

namespace tavik {
namespace fuzz {

[[noreturn]] inline void fail(const char* file, int line, const char* what) {
    fprintf(stderr, "%s:%d: property violated: %s\n", file, line, what);
    abort();
}

// Aborts with the condition's text when it does not hold. Unlike assert, never compiled out.
#define FUZZ_CHECK(condition)                                                  \
    do {                                                                       \
        if (!(condition)) ::tavik::fuzz::fail(__FILE__, __LINE__, #condition); \
    } while (0)

// The fuzz input as an anonymous in-memory file that code wanting a path can open by name.
// Nothing touches the disk, and the file vanishes with the object.
class MemFile {
  public:
    MemFile(const uint8_t* data, size_t size) : fd_(memfd_create("fuzz-input", 0)) {
        // A memory file takes any size in one write.
        FUZZ_CHECK(fd_.valid() && write(fd_.get(), data, size) == static_cast<ssize_t>(size));
    }
    std::string path() const { return "/proc/self/fd/" + std::to_string(fd_.get()); }

  private:
    UniqueFd fd_;
};

}  // namespace fuzz
}  // namespace tavik

#endif  // FERRYGATE_TESTS_FUZZ_FUZZ_SUPPORT_H
