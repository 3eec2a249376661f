#include "ssh/shell_quote.h"

#include <array>
#include <cstring>
#include <stdexcept>

namespace tavik {

namespace {

// '?' marks bytes 128 to 255: copied unchanged (no shell gives them a meaning, and quoting them
// would read the same), yet never certified as needing no escaping.
constexpr std::array<char, 256> makeEscapeTable() {
    std::array<char, 256> table{};
    for (int c = 0; c < 256; ++c) table[c] = c < 128 ? '-' : '?';
    // Braces too: bash, the usual login shell, expands an unescaped {a,b} into two words.
    for (const char* p = "\t \"#$&'()*;<>?[\\`|~{}"; *p != '\0'; ++p) {
        table[static_cast<unsigned char>(*p)] = '*';
    }
    table['\n'] = 'n';
    return table;
}

constexpr std::array<char, 256> escapeTable = makeEscapeTable();

char escapeClass(char c) { return escapeTable[static_cast<unsigned char>(c)]; }

}  // namespace

const char* const shell_escape_chars = escapeTable.data();

std::string sh_quote(const std::string& argument) {
    std::string quoted;
    quoted.reserve(argument.size() * 2);
    for (char c : argument) {
        switch (escapeClass(c)) {
            case '*':
                quoted += '\\';
                quoted += c;
                break;
            case 'n':
                quoted += '\'';
                quoted += c;
                quoted += '\'';
                break;
            default:
                quoted += c;
        }
    }
    return quoted;
}

int check_shell_arg(const std::string& argument) {
    for (char c : argument) {
        if (escapeClass(c) != '-') {
            throw std::runtime_error("Internal error: bad escape_chars value");
        }
    }
    return 1;
}

int check_shell_arg_nothrow(const char* argument) {
    if (argument == nullptr) return 1;
    for (; *argument != '\0'; ++argument) {
        if (escapeClass(*argument) != '-') return 0;
    }
    return 1;
}

}  // namespace tavik
