#include "commons/checksum.h"

#include <openssl/evp.h>

#include <boost/filesystem/operations.hpp>
#include <cstdio>

#include "commons/commons.h"
#include "commons/exceptions.h"

namespace tavik {

std::string countMd5Sum(std::istream& in) {
    Md5 digest;
    if (!digest.update(in)) TAVIK_RAISE(StreamRead);
    return digest.hex();
}

Md5::Md5() : context_(EVP_MD_CTX_new()) {
    if (context_ == nullptr || EVP_DigestInit(context_, EVP_md5()) != 1) {
        EVP_MD_CTX_free(context_);
        TAVIK_RAISE(AssertionFailed, "MD5 digest cannot start");
    }
}

Md5::Md5(const Md5& other) : context_(EVP_MD_CTX_new()) {
    if (context_ == nullptr || EVP_MD_CTX_copy(context_, other.context_) != 1) {
        EVP_MD_CTX_free(context_);
        TAVIK_RAISE(AssertionFailed, "MD5 digest cannot be copied");
    }
}

Md5& Md5::operator=(const Md5& other) {
    if (this != &other && EVP_MD_CTX_copy(context_, other.context_) != 1) {
        TAVIK_RAISE(AssertionFailed, "MD5 digest cannot be copied");
    }
    return *this;
}

Md5::~Md5() { EVP_MD_CTX_free(context_); }

void Md5::update(const char* data, size_t size) {
    if (EVP_DigestUpdate(context_, data, size) != 1) {
        TAVIK_RAISE(AssertionFailed, "MD5 digest cannot take data");
    }
}

bool Md5::update(std::istream& in) {
    char chunk[65536];
    // fail() covers badbit too. A short read that reached the end sets failbit with eofbit; only
    // a failure before the end is an error.
    while (!in.fail()) {
        in.read(chunk, sizeof chunk);
        if (in.fail() && !in.eof()) break;
        update(chunk, static_cast<size_t>(in.gcount()));
    }
    return in.eof() && !in.bad();
}

std::string Md5::hex() const {
    Md5 finishing(*this);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal(finishing.context_, digest, &length) != 1) {
        TAVIK_RAISE(AssertionFailed, "MD5 digest cannot finish");
    }
    std::string text(2 * length, '0');
    static const char kDigits[] = "0123456789abcdef";
    for (unsigned int i = 0; i < length; ++i) {
        text[2 * i] = kDigits[digest[i] >> 4];
        text[2 * i + 1] = kDigits[digest[i] & 15];
    }
    return text;
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
