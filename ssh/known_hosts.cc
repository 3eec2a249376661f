#include "ssh/known_hosts.h"

#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string/case_conv.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <log4cpp/Category.hh>
#include <sstream>
#include <vector>

#include "commons/exceptions.h"
#include "commons/replace_file.h"
#include "utils/files.h"
#include "utils/read_configuration.h"

namespace tavik {

namespace {

log4cpp::Category& logger() { return log4cpp::Category::getInstance("p.KnownHosts"); }

// The key type bits of the known-hosts API for a host key type of the session; 0 for a type it
// cannot record.
int keyTypeBits(int type) {
    switch (type) {
        case LIBSSH2_HOSTKEY_TYPE_RSA:
            return LIBSSH2_KNOWNHOST_KEY_SSHRSA;
        case LIBSSH2_HOSTKEY_TYPE_DSS:
            return LIBSSH2_KNOWNHOST_KEY_SSHDSS;
        case LIBSSH2_HOSTKEY_TYPE_ECDSA_256:
            return LIBSSH2_KNOWNHOST_KEY_ECDSA_256;
        case LIBSSH2_HOSTKEY_TYPE_ECDSA_384:
            return LIBSSH2_KNOWNHOST_KEY_ECDSA_384;
        case LIBSSH2_HOSTKEY_TYPE_ECDSA_521:
            return LIBSSH2_KNOWNHOST_KEY_ECDSA_521;
        case LIBSSH2_HOSTKEY_TYPE_ED25519:
            return LIBSSH2_KNOWNHOST_KEY_ED25519;
        default:
            return 0;
    }
}

std::string libraryError(LIBSSH2_SESSION* session) {
    char* message = nullptr;
    int length = 0;
    libssh2_session_last_error(session, &message, &length, 0);
    return message != nullptr ? std::string(message, static_cast<size_t>(length)) : "";
}

[[noreturn]] void unusable(const std::string& file, const std::string& why) {
    logger().error("Cannot use the known hosts file " + file + ": " + why);
    TAVIK_RAISE(KnownHostsUnusable, file, why);
}

// The raw bytes of base64 text; empty when it is none.
std::string fromBase64(const std::string& text) {
    std::vector<unsigned char> raw(text.size() / 4 * 3 + 3);
    const int n = EVP_DecodeBlock(raw.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                  static_cast<int>(text.size()));
    if (n < 0) return "";
    // The decoder counts each "=" of the padding as a byte of zeros.
    const size_t padding = text.size() - std::min(text.size(), text.find_last_not_of('=') + 1);
    return std::string(reinterpret_cast<const char*>(raw.data()),
                       static_cast<size_t>(n) - std::min(padding, static_cast<size_t>(n)));
}

std::string readWhole(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    if (in) text << in.rdbuf();
    return text.str();
}

}  // namespace

HostKeyPolicy HostKeyPolicy::configured() {
    HostKeyPolicy policy;
    policy.file = files::getKnownHostsFileName();
    const char* strict = hmxConfGet("SSH_STRICT_HOST_KEYS");
    policy.strict = strict != nullptr && std::strcmp(strict, "yes") == 0;
    return policy;
}

void KnownHosts::Free::operator()(LIBSSH2_KNOWNHOSTS* hosts) const {
    libssh2_knownhost_free(hosts);
}

KnownHosts::KnownHosts(LIBSSH2_SESSION* session, const std::string& file)
    : hosts_(libssh2_knownhost_init(session)), file_(file) {
    if (!hosts_) unusable(file_, "the SSH library cannot hold it: " + libraryError(session));
    struct stat st = {};
    if (stat(file_.c_str(), &st) != 0) {
        if (errno == ENOENT) return;
        unusable(file_, std::strerror(errno));
    }
    if (libssh2_knownhost_readfile(hosts_.get(), file_.c_str(), LIBSSH2_KNOWNHOST_FILE_OPENSSH) <
        0) {
        unusable(file_, libraryError(session));
    }
}

KnownHosts::~KnownHosts() = default;

std::string KnownHosts::entryName(const std::string& host, unsigned short port) {
    const std::string name = boost::algorithm::to_lower_copy(host);
    return port == 22 ? name : "[" + name + "]:" + std::to_string(port);
}

std::string KnownHosts::fingerprint(const std::string& key) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_Digest(key.data(), key.size(), digest, &size, EVP_sha256(), nullptr);
    std::vector<unsigned char> text(4 * ((size + 2) / 3) + 1);
    const int length = EVP_EncodeBlock(text.data(), digest, static_cast<int>(size));
    std::string encoded(reinterpret_cast<const char*>(text.data()), static_cast<size_t>(length));
    return "SHA256:" + encoded.substr(0, encoded.find('='));
}

KnownHosts::Verdict KnownHosts::check(const std::string& host, unsigned short port,
                                      const std::string& key, int type,
                                      std::string* recorded) const {
    if (keyTypeBits(type) == 0) unusable(file_, "the server's key is of an unknown type");
    // The name is made here, not by the library, which would also take an entry of the bare
    // host for another port. No key type is given, so that every key recorded for the host is
    // compared: a host known by a key of one type that shows one of another type is refused.
    libssh2_knownhost* found = nullptr;
    const int verdict = libssh2_knownhost_checkp(
        hosts_.get(), entryName(host, port).c_str(), -1, key.data(), key.size(),
        LIBSSH2_KNOWNHOST_TYPE_PLAIN | LIBSSH2_KNOWNHOST_KEYENC_RAW, &found);
    switch (verdict) {
        case LIBSSH2_KNOWNHOST_CHECK_MATCH:
            return Match;
        case LIBSSH2_KNOWNHOST_CHECK_MISMATCH:
            if (recorded != nullptr && found != nullptr && found->key != nullptr) {
                *recorded = fromBase64(found->key);
            }
            return Mismatch;
        case LIBSSH2_KNOWNHOST_CHECK_NOTFOUND:
            return NotFound;
        default:
            unusable(file_, "the SSH library cannot compare the server's key with it");
    }
}

void KnownHosts::record(const std::string& host, unsigned short port, const std::string& key,
                        int type) {
    const int bits = keyTypeBits(type);
    if (bits == 0) unusable(file_, "the server's key is of an unknown type");
    const std::string name = entryName(host, port);
    libssh2_knownhost* added = nullptr;
    if (libssh2_knownhost_addc(
            hosts_.get(), name.c_str(), nullptr, key.data(), key.size(), nullptr, 0,
            LIBSSH2_KNOWNHOST_TYPE_PLAIN | LIBSSH2_KNOWNHOST_KEYENC_RAW | bits, &added) != 0) {
        unusable(file_, "the SSH library cannot add " + name);
    }
    // Base64 takes a third more than the key; the rest is the name, the type and blanks.
    std::vector<char> line(2 * key.size() + name.size() + 256);
    size_t length = 0;
    if (libssh2_knownhost_writeline(hosts_.get(), added, line.data(), line.size(), &length,
                                    LIBSSH2_KNOWNHOST_FILE_OPENSSH) != 0) {
        unusable(file_, "the SSH library cannot write the line of " + name);
    }
    // The file's own lines stay as they are, comments and entries the library reads differently
    // included; the new one is appended.
    std::string text = readWhole(file_);
    if (!text.empty() && text.back() != '\n') text += '\n';
    text.append(line.data(), length);

    const boost::filesystem::path directory = boost::filesystem::path(file_).parent_path();
    boost::system::error_code error;
    if (!directory.empty()) boost::filesystem::create_directories(directory, error);
    if (error) unusable(file_, "cannot create its directory: " + error.message());
    replaceFile(file_, FileOwner{geteuid(), getegid()}, [&](const std::string& temporary) {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out << text;
        out.close();
        // Keys are public, and OpenSSH's tools read the file as any user.
        if (!out || chmod(temporary.c_str(), 0644) != 0) {
            TAVIK_RAISE(FileWrite, file_, std::strerror(errno));
        }
    });
}

void verifyHostKey(LIBSSH2_SESSION* session, const std::string& host, unsigned short port,
                   const HostKeyPolicy& policy) {
    size_t length = 0;
    int type = LIBSSH2_HOSTKEY_TYPE_UNKNOWN;
    const char* blob = libssh2_session_hostkey(session, &length, &type);
    if (blob == nullptr) unusable(policy.file, "the server showed no host key");
    const std::string key(blob, length);
    const std::string name = KnownHosts::entryName(host, port);
    const std::string offered = KnownHosts::fingerprint(key);
    logger().info("The host key of " + name + " is " + offered);
    if (!policy.pinned.empty()) {
        if (offered == policy.pinned) return;
        logger().error("The host key of " + name + " is not the one given with --host-key");
        TAVIK_RAISE(HostKeyMismatch, name, policy.pinned, "given with --host-key", offered);
    }
    KnownHosts known(session, policy.file);
    std::string recorded;
    switch (known.check(host, port, key, type, &recorded)) {
        case KnownHosts::Match:
            return;
        case KnownHosts::Mismatch:
            logger().error("The host key of " + name + " differs from the one in " + policy.file);
            TAVIK_RAISE(HostKeyMismatch, name, KnownHosts::fingerprint(recorded),
                        "recorded in " + policy.file, offered);
        case KnownHosts::NotFound:
            if (policy.strict) {
                logger().error("The host " + name + " is not in " + policy.file);
                TAVIK_RAISE(HostKeyUnknown, name, policy.file, offered);
            }
            logger().warn("The host " + name + " is seen for the first time: its key " + offered +
                          " is recorded in " + policy.file);
            known.record(host, port, key, type);
    }
}

}  // namespace tavik
