#include "commons/checksum.h"

#include <openssl/evp.h>

#include <boost/filesystem/operations.hpp>
#include <cstdio>

#include "commons/commons.h"
#include "commons/exceptions.h"
#include "commons/handle.h"

namespace tavik {

namespace {

void freeDigest(EVP_MD_CTX* context) { EVP_MD_CTX_free(context); }

typedef Handle<EVP_MD_CTX*, freeDigest> DigestContext;
typedef Handle<char*, DefaultDestructionFunc<char*>> CharBuffer;

}  // namespace

std::string countMd5Sum(std::istream& in) {
    DigestContext context(EVP_MD_CTX_new());
    if (EVP_DigestInit(context.get(), EVP_md5()) != 1) {
        TAVIK_RAISE(AssertionFailed, "MD5 digest cannot start");
    }
    char chunk[4096];
    // fail() covers badbit too. A short read that reached the end sets failbit with eofbit; only
    // a failure before the end is an error.
    while (!in.fail()) {
        in.read(chunk, sizeof chunk);
        if (in.fail() && !in.eof()) break;
        if (EVP_DigestUpdate(context.get(), chunk, static_cast<size_t>(in.gcount())) != 1) {
            TAVIK_RAISE(AssertionFailed, "MD5 digest cannot take data");
        }
    }
    if (!in.eof() || in.bad()) {
        TAVIK_RAISE(StreamRead);
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal(context.get(), digest, &length) != 1) {
        TAVIK_RAISE(AssertionFailed, "MD5 digest cannot finish");
    }
    CharBuffer hex(new char[2 * length + 1]);
    for (unsigned int i = 0; i < length; ++i) {
        std::snprintf(hex.get() + 2 * i, 3, "%02x", digest[i]);
    }
    hex.get()[2 * length] = '\0';
    return hex.get();
}

std::atomic<bool> isProgramTerminated(false);

void terminateProgram() { isProgramTerminated = true; }

void checkProgramTerminated() {
    if (isProgramTerminated) {
        throw MigrationTerminatedException();
    }
}

void recursive_dir_walk(const boost::filesystem::path& root, DirVisitor visit) {
    recursive_dir_walk_sync(root, ".", visit);
}

void recursive_dir_walk_sync(const boost::filesystem::path& full,
                             const boost::filesystem::path& relative, DirVisitor visit) {
    if (!visit(full, relative) || !isDirectory(full)) {
        return;
    }
    for (boost::filesystem::directory_iterator it(full), end; it != end; ++it) {
        recursive_dir_walk_internal(it->path(), relative, visit);
    }
}

void recursive_dir_walk_internal(const boost::filesystem::path& entry,
                                 const boost::filesystem::path& relative, DirVisitor visit) {
    recursive_dir_walk_sync(entry, relative / entry.filename(), visit);
}

}  // namespace tavik
