// sh_quote on arbitrary words, read back by real shells: `printf %s WORD` must print the word's
// bytes exactly, in dash (/bin/sh) and in bash under a UTF-8 locale, where a multibyte
// character could swallow the backslash that follows it. A word that check_shell_arg_nothrow
// accepts must come out of sh_quote unchanged.
//
// Input: the word, cut at the first NUL (no command line can hold one).
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "ssh/shell_quote.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

struct Run {
    int status;
    std::string out;
};

// Runs `shell -c command` with a fixed environment and returns what it printed.
Run runShell(const char* shell, const std::string& command) {
    int fds[2];
    FUZZ_CHECK(pipe2(fds, O_CLOEXEC) == 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    char* argv[] = {const_cast<char*>(shell), const_cast<char*>("-c"),
                    const_cast<char*>(command.c_str()), nullptr};
    char* envp[] = {const_cast<char*>("PATH=/usr/bin:/bin"), const_cast<char*>("LC_ALL=C.UTF-8"),
                    nullptr};
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, shell, &actions, nullptr, argv, envp);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    FUZZ_CHECK(spawned == 0);
    Run run{-1, ""};
    char buffer[4096];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) != 0;) {
        if (n < 0 && errno == EINTR) continue;
        FUZZ_CHECK(n > 0);
        run.out.append(buffer, static_cast<size_t>(n));
    }
    close(fds[0]);
    while (waitpid(pid, &run.status, 0) == -1) FUZZ_CHECK(errno == EINTR);
    return run;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string word(reinterpret_cast<const char*>(data), size);
    word = word.substr(0, word.find('\0'));
    const std::string quoted = tavik::sh_quote(word);
    if (tavik::check_shell_arg_nothrow(word.c_str()) == 1) FUZZ_CHECK(quoted == word);

    for (const char* shell : {"/bin/sh", "/bin/bash"}) {
        const Run run = runShell(shell, "printf %s " + quoted);
        if (run.status != 0 || run.out != word) {
            fprintf(stderr, "%s read back %zu bytes (status %d) of a %zu-byte word\n", shell,
                    run.out.size(), run.status, word.size());
            FUZZ_CHECK(run.status == 0 && run.out == word);
        }
    }
    return 0;
}
