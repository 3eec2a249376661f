#include "utils/product_log.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

const char* PROGNAME = nullptr;

namespace {

void writeMessage(FILE* stream, const char* name, const char* text, bool addNewline) {
    if (name != nullptr) fprintf(stream, "%s: ", name);
    fputs(text, stream);
    if (addNewline) fputc('\n', stream);
    fflush(stream);
}

std::string formatMessage(const char* format, va_list args) {
    std::vector<char> buffer(4096);
    va_list copy;
    va_copy(copy, args);
    int n = vsnprintf(buffer.data(), buffer.size(), format, copy);
    va_end(copy);
    if (n < 0) return std::string();
    if (static_cast<size_t>(n) >= buffer.size()) {
        buffer.resize(static_cast<size_t>(n) + 1);
        vsnprintf(buffer.data(), buffer.size(), format, args);
    }
    return std::string(buffer.data(), static_cast<size_t>(n));
}

}  // namespace

int ex_messlog(const char* text, int status, int /*flags*/) {
    const char* name = nullptr;
    if (PROGNAME != nullptr) {
        const char* slash = strrchr(PROGNAME, '/');
        name = slash != nullptr ? slash + 1 : PROGNAME;
    }
    size_t length = strlen(text);
    bool addNewline = length == 0 || text[length - 1] != '\n';
    writeMessage(stderr, name, text, addNewline);
    writeMessage(stdout, name, text, addNewline);
    if (status != 0) exit(status);
    return 0;
}

int vmesslog2(int status, int flags, const char* format, va_list args) {
    const int savedErrno = errno;
    std::string message;
    try {
        message = formatMessage(format, args);
        if (savedErrno != 0) {
            message += "\nSystem error " + std::to_string(savedErrno) + ": " + strerror(savedErrno);
        }
    } catch (const std::bad_alloc&) {
        return ex_messlog("Can't allocate memory for error message", status, flags);
    }
    return ex_messlog(message.c_str(), status, flags);
}

int messlog2(int status, int flags, const char* format, ...) {
    va_list args;
    va_start(args, format);
    int result = vmesslog2(status, flags, format, args);
    va_end(args);
    return result;
}
