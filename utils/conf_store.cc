// The key/value store behind the product configuration.
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "utils/liblog.h"
#include "utils/read_configuration.h"

namespace {

const int kLogPriority = 12;
const size_t kInitialEntries = 20;

struct FileCloser {
    void operator()(FILE* f) const { fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// The line buffer that getline grows.
struct LineBuffer {
    char* data = nullptr;
    size_t capacity = 0;
    LineBuffer() = default;
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;
    ~LineBuffer() { free(data); }
};

int failNoMemory() {
    tavik_log(kLogPriority, "Unable to read configuration: %s", strerror(ENOMEM));
    errno = ENOMEM;
    return -1;
}

int grow(conf_data* conf) {
    size_t wanted = conf->size * 2;
    if (wanted < conf->nmemb + 1) wanted = conf->nmemb + kInitialEntries;
    if (wanted > SIZE_MAX / sizeof(conf_entry)) return failNoMemory();
    void* grown = realloc(conf->entries, wanted * sizeof(conf_entry));
    if (grown == nullptr) return failNoMemory();
    conf->entries = static_cast<conf_entry*>(grown);
    conf->size = wanted;
    return 0;
}

int compareEntries(const void* a, const void* b) {
    return strcmp(static_cast<const conf_entry*>(a)->key, static_cast<const conf_entry*>(b)->key);
}

bool isNameChar(char c) { return isalnum(static_cast<unsigned char>(c)) || c == '_'; }
bool isBlank(char c) { return isspace(static_cast<unsigned char>(c)) != 0; }

// The end of the value under the file's long-standing trimming rule: white space after the
// first character alternately sets and clears a cut point, so a trailing run of odd length
// loses its last character and one of even length stays whole.
char* valueEnd(char* begin, char* end) {
    char* cut = nullptr;
    for (char* p = begin + 1; p < end; ++p) {
        if (isBlank(*p) && cut == nullptr) {
            cut = p;
        } else {
            cut = nullptr;
        }
    }
    return cut != nullptr ? cut : end;
}

// Where the reader's diagnostics go, and the file they are about.
struct Reporter {
    conf_message_sink sink;
    void* context;
    const char* path;

    void operator()(const char* format, ...) const __attribute__((format(printf, 2, 3))) {
        char message[1024];
        va_list args;
        va_start(args, format);
        vsnprintf(message, sizeof message, format, args);
        va_end(args);
        if (sink != nullptr) {
            sink(context, message);
        } else {
            tavik_log(kLogPriority, "%s", message);
        }
    }
};

// The length of `text` without its line break.
int withoutLineBreak(const char* text) {
    const size_t length = strcspn(text, "\r\n");
    return length > INT_MAX ? INT_MAX : static_cast<int>(length);
}

// 0 for a line stored or ignored, -1 when the store failed.
int readLine(char* line, size_t number, const Reporter& report, conf_data* conf) {
    char* p = line;
    while (isBlank(*p)) ++p;
    if (*p == '\0' || *p == '#') return 0;
    char* name = p;
    while (isNameChar(*p)) ++p;
    if (!isBlank(*p)) {
        report("%s:%zu: Invalid variable definition %.*s: expected a space after variable name",
               report.path, number, withoutLineBreak(name), name);
        return 0;
    }
    char* nameEnd = p;
    while (isBlank(*p)) ++p;
    if (*p == '\0' || *p == '#') {
        report("%s:%zu: Invalid variable definition %.*s: expected a value", report.path, number,
               withoutLineBreak(name), name);
        return 0;
    }
    char* value = p;
    char* comment = strchr(value, '#');
    char* end = comment != nullptr ? comment : value + strlen(value);
    *valueEnd(value, end) = '\0';
    *nameEnd = '\0';
    if (conf_set_r(name, value, conf) == 0) return 0;
    report("%s:%zu: Unable to store the definition of %s: %s", report.path, number, name,
           strerror(errno));
    return -1;
}

}  // namespace

int conf_init_r(conf_data* conf) {
    if (conf->entries == nullptr) {
        conf->entries = static_cast<conf_entry*>(calloc(kInitialEntries, sizeof(conf_entry)));
        if (conf->entries == nullptr) return failNoMemory();
        conf->size = kInitialEntries;
        conf->nmemb = 0;
        conf->finalized = 0;
        return 0;
    }
    return conf->nmemb < conf->size ? 0 : grow(conf);
}

int conf_set_r(const char* name, const char* value, conf_data* conf) {
    if (conf_init_r(conf) != 0) return -1;
    char* valueCopy = strdup(value);
    if (valueCopy == nullptr) {
        tavik_log(kLogPriority, "Unable to form configuration: %s", strerror(ENOMEM));
        errno = ENOMEM;
        return -1;
    }
    for (size_t i = 0; i < conf->nmemb; ++i) {
        if (strcmp(conf->entries[i].key, name) == 0) {
            free(conf->entries[i].value);
            conf->entries[i].value = valueCopy;
            return 0;
        }
    }
    char* keyCopy = strdup(name);
    if (keyCopy == nullptr) {
        free(valueCopy);
        tavik_log(kLogPriority, "Unable to form configuration: %s", strerror(ENOMEM));
        errno = ENOMEM;
        return -1;
    }
    conf->entries[conf->nmemb].key = keyCopy;
    conf->entries[conf->nmemb].value = valueCopy;
    ++conf->nmemb;
    conf->finalized = 0;
    return 0;
}

const char* conf_get_r(const char* name, const conf_data* conf) {
    if (conf == nullptr || conf->entries == nullptr || name == nullptr) return nullptr;
    if (conf->finalized) {
        conf_entry probe = {const_cast<char*>(name), nullptr};
        const void* found =
            bsearch(&probe, conf->entries, conf->nmemb, sizeof(conf_entry), compareEntries);
        return found != nullptr ? static_cast<const conf_entry*>(found)->value : nullptr;
    }
    for (size_t i = 0; i < conf->nmemb; ++i) {
        if (strcmp(conf->entries[i].key, name) == 0) return conf->entries[i].value;
    }
    return nullptr;
}

void conf_finalize_r(conf_data* conf) {
    if (conf->finalized) return;
    if (conf->nmemb > 1) qsort(conf->entries, conf->nmemb, sizeof(conf_entry), compareEntries);
    conf->finalized = 1;
}

int conf_read_file_r(const char* path, conf_data* conf) {
    return conf_read_file_to(path, conf, nullptr, nullptr);
}

int conf_read_file_to(const char* path, conf_data* conf, conf_message_sink sink, void* context) {
    const Reporter report{sink, context, path};
    if (conf_init_r(conf) != 0) return -1;
    FilePtr file(fopen(path, "r"));
    if (!file) {
        report("unable to open configuration file %s: %s", path, strerror(errno));
        return -1;
    }
    LineBuffer line;
    for (size_t number = 1; getline(&line.data, &line.capacity, file.get()) != -1; ++number) {
        if (readLine(line.data, number, report, conf) != 0) return -1;
    }
    conf_finalize_r(conf);
    if (ferror(file.get())) {
        report("Unable to read configuration file %s: %s", path, strerror(errno));
        return -1;
    }
    return 0;
}

void conf_free_r(conf_data* conf) {
    if (conf == nullptr) return;
    for (size_t i = 0; i < conf->nmemb; ++i) {
        free(conf->entries[i].key);
        free(conf->entries[i].value);
    }
    free(conf->entries);
    free(conf);
}
