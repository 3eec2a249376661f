// The utility log through which the system library reports: by default a console writer that
// stays silent until tavik_log_init enables it, or the system log once it is opened.
#ifndef FERRYGATE_UTILS_LIBLOG_H
#define FERRYGATE_UTILS_LIBLOG_H

#include <cstdarg>

extern int LogEnabled;
extern int LogLevel;
extern int LogFacility;

// Where library code sends its messages; priorities follow syslog's numbering.
extern void (*tavik_log)(int priority, const char* format, ...);
extern void (*tavik_logv)(int priority, const char* format, va_list args);

// `level` below 1 disables logging. With a `target`, messages go to the console, and only when
// the target starts with "console" (any case); without one, the system log is opened with
// `ident` (copied), `options` plus LOG_PID and `facility`.
void tavik_log_init(const char* target, int level, int facility, int options, const char* ident);

// Console writers: when enabled and `priority` does not exceed the level, the message and a
// line break go to standard error and then to standard output.
void _tavik_utility_log(int priority, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
void _tavik_utility_logv(int priority, const char* format, va_list args);

#endif  // FERRYGATE_UTILS_LIBLOG_H
