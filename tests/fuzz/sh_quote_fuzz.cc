// sh_quote on arbitrary words (cut at the first NUL): `printf %s WORD` must print the word's
// bytes in dash and in bash under a UTF-8 locale (where a multibyte character could swallow a
// following backslash); a word that check_shell_arg_nothrow accepts must come out unchanged.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "ssh/shell_quote.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

// What `command` printed under /bin/sh -c; it must succeed.
std::string printed(const std::string& command) {
    FILE* pipe = popen(command.c_str(), "r");
    FUZZ_CHECK(pipe != nullptr);
    std::string out;
    char buffer[4096];
    for (;;) {
        const size_t n = fread(buffer, 1, sizeof buffer, pipe);
        out.append(buffer, n);
        if (n > 0) continue;
        // libFuzzer's timeout timer interrupts the read now and then (its handler does not
        // restart calls); stopping there would close the pipe on a shell still writing.
        if (!ferror(pipe) || errno != EINTR) break;
        clearerr(pipe);
    }
    FUZZ_CHECK(pclose(pipe) == 0);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The shells see the same environment on every run, and read no start-up file.
    setenv("PATH", "/usr/bin:/bin", 1);
    setenv("LC_ALL", "C.UTF-8", 1);
    unsetenv("ENV");
    unsetenv("BASH_ENV");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string word(reinterpret_cast<const char*>(data), size);
    word = word.substr(0, word.find('\0'));
    const std::string quoted = tavik::sh_quote(word);
    if (tavik::check_shell_arg_nothrow(word.c_str()) == 1) FUZZ_CHECK(quoted == word);

    // bash takes the command from the environment, so that no other quoting stands between.
    const std::string command = "printf %s " + quoted;
    setenv("FUZZ_COMMAND", command.c_str(), 1);
    FUZZ_CHECK(printed(command) == word);  // dash
    FUZZ_CHECK(printed("exec /bin/bash -c \"$FUZZ_COMMAND\"") == word);
    return 0;
}
