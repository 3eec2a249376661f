#include "utils/libsafe.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <string>

namespace {

bool isRealDirectory(const char* path) {
    struct stat st;
    return path != nullptr && lstat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool currentDirectory(std::string& out) {
    char buffer[PATH_MAX];
    if (getcwd(buffer, sizeof buffer) == nullptr) return false;
    out = buffer;
    return true;
}

// The working directory after changing into `path`, relative names taken from `base`.
bool resolveDirectory(const std::string& base, const char* path, std::string& out) {
    return chdir(base.c_str()) == 0 && chdir(path) == 0 && currentDirectory(out);
}

}  // namespace

int issubdir(const char* dir, const char* candidate) {
    if (!isRealDirectory(dir) || !isRealDirectory(candidate)) return 0;
    std::string original;
    if (!currentDirectory(original)) return 0;
    std::string resolvedDir;
    std::string resolvedCandidate;
    bool resolved = resolveDirectory(original, dir, resolvedDir) &&
                    resolveDirectory(original, candidate, resolvedCandidate);
    // Without the way back the process is somewhere unexpected; answer no rather than guess.
    if (chdir(original.c_str()) != 0) return 0;
    if (!resolved) return 0;
    const std::string prefix = resolvedDir + "/";
    return resolvedCandidate.size() > prefix.size() &&
           resolvedCandidate.compare(0, prefix.size(), prefix) == 0;
}

int isempty(const char* text) { return text == nullptr || *text == '\0'; }

int is_number(const char* text) {
    if (text == nullptr) return 0;
    for (const char* p = text; *p != '\0'; ++p) {
        if (!isdigit(static_cast<unsigned char>(*p))) return 0;
    }
    return 1;
}
