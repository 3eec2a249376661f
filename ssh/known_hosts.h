// The source host's identity: its host key against the keys this host has seen, kept in a file of
// OpenSSH's known_hosts format (so ssh-keygen -F, -R and -l work on it) through libssh2's
// known-hosts API.
#ifndef FERRYGATE_SSH_KNOWN_HOSTS_H
#define FERRYGATE_SSH_KNOWN_HOSTS_H

#include <libssh2.h>

#include <memory>
#include <string>

namespace tavik {

// What the client takes for the server's identity.
struct HostKeyPolicy {
    HostKeyPolicy() = default;
    // The first key of each host recorded in `file`, and trusted from then on.
    explicit HostKeyPolicy(const std::string& file) : file(file) {}

    // The known hosts file.
    std::string file;
    // "SHA256:..." of the one key to accept, which then decides alone; empty: the file decides.
    std::string pinned;
    // A host that the file does not know is refused instead of recorded. Without it, the first
    // key a host shows is recorded and trusted from then on (OpenSSH's accept-new).
    bool strict = false;

    // The product's: the file SSH_KNOWN_HOSTS of the product configuration (by default
    // <PRODUCT_ROOT_D>/var/known_hosts), strict when SSH_STRICT_HOST_KEYS is "yes".
    static HostKeyPolicy configured();
};

// The keys of one known hosts file, read once; a session's library state holds them.
class KnownHosts {
  public:
    enum Verdict { Match, Mismatch, NotFound };

    // Reads `file`; one that does not exist is empty. Throws KnownHostsUnusable when the file
    // cannot be read or holds a line the library cannot parse. `session` must outlive this.
    KnownHosts(LIBSSH2_SESSION* session, const std::string& file);
    ~KnownHosts();
    KnownHosts(const KnownHosts&) = delete;
    KnownHosts& operator=(const KnownHosts&) = delete;

    // How `key` (the raw key blob, of libssh2's host key `type`) compares with the keys recorded
    // for `host` at `port`: Match when one of them is it, Mismatch when there are others only
    // (the first of them in `recorded`), NotFound otherwise. Throws KnownHostsUnusable for a key
    // type the library cannot record.
    Verdict check(const std::string& host, unsigned short port, const std::string& key, int type,
                  std::string* recorded) const;
    // Adds the key for `host` at `port` to the file, which is replaced at once for any reader.
    // Throws KnownHostsUnusable, or the failures of replacing a file.
    void record(const std::string& host, unsigned short port, const std::string& key, int type);

    // The name OpenSSH files a host under: the host in lower case, as "[host]:port" for ports
    // other than 22.
    static std::string entryName(const std::string& host, unsigned short port);
    // OpenSSH's fingerprint of a raw key blob: "SHA256:" and the base64 of its SHA-256 digest,
    // without padding.
    static std::string fingerprint(const std::string& key);

  private:
    struct Free {
        void operator()(LIBSSH2_KNOWNHOSTS* hosts) const;
    };
    std::unique_ptr<LIBSSH2_KNOWNHOSTS, Free> hosts_;
    std::string file_;
};

// Decides whether the server of `session`, reached as `host` at `port`, is the one `policy`
// expects, before anything secret is sent to it; records a host seen for the first time unless
// the policy is strict. Throws HostKeyMismatch (its key differs from the recorded or pinned one),
// HostKeyUnknown (strict, and the host is not in the file), KnownHostsUnusable.
void verifyHostKey(LIBSSH2_SESSION* session, const std::string& host, unsigned short port,
                   const HostKeyPolicy& policy);

}  // namespace tavik

#endif  // FERRYGATE_SSH_KNOWN_HOSTS_H
