// The message log: a message prefixed with the program's name, written to standard error and
// then to standard output, optionally ending the process.
#ifndef FERRYGATE_UTILS_PRODUCT_LOG_H
#define FERRYGATE_UTILS_PRODUCT_LOG_H

#include <cstdarg>

// The program path whose last component prefixes every message; null for no prefix.
extern const char* PROGNAME;

// Formats the message; when errno was non-zero on entry, appends "\nSystem error N: text".
// Hands the result to ex_messlog, so a non-zero `status` ends the process.
int messlog2(int status, int flags, const char* format, ...) __attribute__((format(printf, 3, 4)));
int vmesslog2(int status, int flags, const char* format, va_list args);

// Writes "name: " (when PROGNAME is set), `text` and a line break unless `text` ends with one;
// exits with `status` when it is non-zero, otherwise returns 0. `flags` is not consulted.
int ex_messlog(const char* text, int status, int flags);

#endif  // FERRYGATE_UTILS_PRODUCT_LOG_H
