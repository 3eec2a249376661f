// Escaping of single words for the remote POSIX shell.
#ifndef FERRYGATE_SSH_SHELL_QUOTE_H
#define FERRYGATE_SSH_SHELL_QUOTE_H

#include <string>

namespace tavik {

// The class letter of every byte: '-' copied as it is, '*' preceded by a backslash, 'n' enclosed
// in single quotes. Indexed by the byte's unsigned value.
extern const char* const shell_escape_chars;

// `argument` escaped with backslashes (a newline in single quotes) so that sh, dash and bash read
// it back as exactly one word with the same bytes. `!`, `]`, `^` and `=` stay as they are: no
// non-interactive shell gives them a meaning inside a word. Nothing surrounds the result: it is
// safe only as one whole word of a command, and an empty argument gives an empty result, which
// vanishes from the command line. Bytes 128 to 255 pass unchanged.
std::string sh_quote(const std::string& argument);

// 1 when no byte of `argument` needs escaping; otherwise throws std::runtime_error.
int check_shell_arg(const std::string& argument);
// 1 for null, empty, or a text needing no escaping; 0 otherwise.
int check_shell_arg_nothrow(const char* argument);

}  // namespace tavik

#endif  // FERRYGATE_SSH_SHELL_QUOTE_H
