#include "commons/commons.h"

#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "commons/exceptions.h"
#include "commons/unique_fd.h"
#include "utils/files.h"
#include "utils/read_configuration.h"

namespace tavik {

bool isDirectory(const boost::filesystem::path& path) {
    boost::system::error_code ignored;
    return boost::filesystem::is_directory(path, ignored);
}

bool isRegularFile(const boost::filesystem::path& path) {
    boost::system::error_code ignored;
    return boost::filesystem::is_regular_file(path, ignored);
}

bool pathExists(const boost::filesystem::path& path) {
    boost::system::error_code ignored;
    return boost::filesystem::exists(path, ignored);
}

namespace {

const std::string kTemplateSuffix = "XXXXXX";

}  // namespace

bool check_input_file(const char* file, bool) {
    struct stat st;
    return file != nullptr && *file != '\0' && stat(file, &st) == 0 && S_ISREG(st.st_mode);
}

void make_dir(char* path, unsigned owner, unsigned group, unsigned mode) {
    struct stat st;
    if (stat(path, &st) == 0 || errno != ENOENT) return;
    char* slash = strrchr(path, '/');
    if (slash != nullptr && slash != path) {
        *slash = '\0';
        make_dir(path, owner, group, mode);
        *slash = '/';
    }
    mkdir(path, mode);
    if (chown(path, owner, group) != 0) {
        // Deliberately unreported: callers find a missing or foreign directory when they use it.
    }
}

void make_dir(const std::string& path, unsigned owner, unsigned group, unsigned mode) {
    std::vector<char> copy;
    try {
        copy.assign(path.c_str(), path.c_str() + path.size() + 1);
    } catch (const std::bad_alloc&) {
        TAVIK_RAISE(InvalidHandle);
    }
    make_dir(copy.data(), owner, group, mode);
}

void make_dir(const boost::filesystem::path& path, unsigned owner, unsigned group, unsigned mode) {
    make_dir(path.string(), owner, group, mode);
}

std::string randomPasswd() {
    static const char alphabet[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    std::string password;
    for (int i = 0; i < 7; ++i) password += alphabet[rand() % 62];
    return password;
}

void initTempName(std::vector<char>& buffer, const std::string& directory,
                  const std::string& prefix) {
    buffer.clear();
    buffer.reserve(4096);
    std::string name = directory;
    if (name.empty()) {
        const char* configured = hmxConfGet("DUMP_TMP_D");
        name = configured != nullptr ? configured : files::getTmpDir();
    }
    if (name.empty() || name.back() != '/') name += '/';
    name += prefix + kTemplateSuffix;
    buffer.assign(name.begin(), name.end());
    buffer.push_back('\0');
}

std::string RKU_makeTempFileDirectory(const std::string& directory, const std::string& prefix) {
    std::vector<char> buffer;
    initTempName(buffer, directory, prefix);
    const std::string templateText(buffer.data());
    if (mkdtemp(buffer.data()) == nullptr) {
        TAVIK_RAISE(CantCreateTempDir, templateText, strerror(errno));
    }
    return buffer.data();
}

std::string RKU_getTempFileName(const std::string& directory, const std::string& prefix) {
    std::vector<char> buffer;
    initTempName(buffer, directory, prefix);
    const std::string templateText(buffer.data());
    // Only the name is wanted: the descriptor closes at once.
    const UniqueFd file(mkstemp(buffer.data()));
    if (!file.valid()) TAVIK_RAISE(CantCreateTempFile, templateText, strerror(errno));
    return buffer.data();
}

}  // namespace tavik
