// The product configuration reader on arbitrary file contents.
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/fuzz/fuzz_support.h"
#include "utils/read_configuration.h"

namespace {

using tavik::fuzz::MemFile;

bool isNameChar(char c) { return isalnum(static_cast<unsigned char>(c)) || c == '_'; }

// What every reader of the store relies on, whatever the file held.
void checkStore(const conf_data* conf, const std::string& input) {
    FUZZ_CHECK(conf->finalized);
    FUZZ_CHECK(conf->nmemb <= conf->size);
    for (size_t i = 0; i < conf->nmemb; ++i) {
        const char* key = conf->entries[i].key;
        const char* value = conf->entries[i].value;
        FUZZ_CHECK(key != nullptr && value != nullptr);
        FUZZ_CHECK(*key != '\0');
        for (const char* p = key; *p != '\0'; ++p) FUZZ_CHECK(isNameChar(*p));
        FUZZ_CHECK(input.find(key) != std::string::npos);
        // A value is never empty, never starts with white space and never holds a comment.
        FUZZ_CHECK(*value != '\0');
        FUZZ_CHECK(!isspace(static_cast<unsigned char>(*value)));
        FUZZ_CHECK(strchr(value, '#') == nullptr);
        FUZZ_CHECK(input.find(value) != std::string::npos);
        // Sorted without duplicates, so the binary search finds every key.
        if (i > 0) FUZZ_CHECK(strcmp(conf->entries[i - 1].key, key) < 0);
        FUZZ_CHECK(conf_get_r(key, conf) == value);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const MemFile file(data, size);
    conf_data* conf = static_cast<conf_data*>(calloc(1, sizeof(conf_data)));
    FUZZ_CHECK(conf_read_file_r(file.path().c_str(), conf) == 0);
    checkStore(conf, std::string(reinterpret_cast<const char*>(data), size));
    conf_free_r(conf);
    return 0;
}
