// Helpers of the fuzz targets, which abort on the first broken property so that the fuzzer (or
// the corpus replay of the normal build) reports the input that broke it.
#ifndef FERRYGATE_TESTS_FUZZ_FUZZ_SUPPORT_H
#define FERRYGATE_TESTS_FUZZ_FUZZ_SUPPORT_H

#include <cstdio>
#include <cstdlib>

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

}  // namespace fuzz
}  // namespace tavik

#endif  // FERRYGATE_TESTS_FUZZ_FUZZ_SUPPORT_H
