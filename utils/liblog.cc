#include "utils/liblog.h"

#include <strings.h>
#include <syslog.h>

#include <cstdio>
#include <cstring>
#include <string>

// Silent until initialised: the library is also used by tools whose standard output is data.
int LogEnabled = 0;
int LogLevel = 0;
int LogFacility = LOG_USER;

void (*tavik_log)(int, const char*, ...) = _tavik_utility_log;
void (*tavik_logv)(int, const char*, va_list) = _tavik_utility_logv;

namespace {
// openlog keeps the pointer it is given, so the identity must outlive the caller's text.
char logIdent[256];
}  // namespace

void tavik_log_init(const char* target, int level, int facility, int options, const char* ident) {
    LogLevel = level;
    LogEnabled = level >= 1;
    LogFacility = facility;
    if (target != nullptr) {
        tavik_log = _tavik_utility_log;
        tavik_logv = _tavik_utility_logv;
        if (strncasecmp(target, "console", 7) != 0) LogEnabled = 0;
        return;
    }
    logIdent[0] = '\0';
    if (ident != nullptr) {
        strncpy(logIdent, ident, sizeof logIdent - 1);
        logIdent[sizeof logIdent - 1] = '\0';
    }
    openlog(ident != nullptr ? logIdent : nullptr, options | LOG_PID, facility);
    tavik_log = syslog;
    tavik_logv = vsyslog;
}

void _tavik_utility_logv(int priority, const char* format, va_list args) {
    if (!LogEnabled || priority > LogLevel) return;
    va_list copy;
    va_copy(copy, args);
    vfprintf(stderr, format, args);
    fputc('\n', stderr);
    fflush(stderr);
    vfprintf(stdout, format, copy);
    fputc('\n', stdout);
    fflush(stdout);
    va_end(copy);
}

void _tavik_utility_log(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    _tavik_utility_logv(priority, format, args);
    va_end(args);
}
