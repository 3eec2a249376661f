// A complete migration set-up for end-to-end tests, inside scripts/sandbox.sh: a source host
// (a real sshd on 127.0.0.1 with a login, sudo that asks for root's password, and a small
// hosting tree of sites and mailboxes), the product data of this checkout installed under a
// product root that /etc/hmx/hmx.conf names, and a session directory for the real binary.
#ifndef FERRYGATE_TESTS_SUPPORT_MIGRATION_HOST_H
#define FERRYGATE_TESTS_SUPPORT_MIGRATION_HOST_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "support/process.h"
#include "support/sandbox_env.h"
#include "support/sshd_fixture.h"

namespace tavik {
namespace test {

using testing::md5OfFile;
using testing::readFile;

inline bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}
// Polls `ready` every few milliseconds until it holds or `seconds` have passed; whether it holds.
bool waitUntil(const std::function<bool()>& ready, int seconds);

class MigrationTest : public ::testing::Test {
  protected:
    void SetUp() override;

    unsigned short port() const { return sshd_.port(); }
    const std::string& user() const { return sshd_.user(); }
    const std::string& password() const { return sshd_.password(); }
    std::string sessionFile(const std::string& name) const { return session_ + "/" + name; }

    // The binary with the connection options, the session path, `args` and, for every action
    // but the scout, the agent directory and name; with `sudo` also --sudo-password.
    std::vector<std::string> command(const std::vector<std::string>& args, bool sudo) const;
    // Runs that with HMX_PASSWORD, and with `sudo` HMX_SUDO_PASSWORD, in its environment.
    ProcessResult ferrygate(const std::vector<std::string>& args, bool sudo = false,
                            const std::string& input = "");
    // Writes hostdump.conf beside the product's agent (deployed along with it).
    void configureAgent(const std::string& extraLines = "");
    // Adds a file of `size` random bytes to a site (`path` below the web root), so that its
    // archive is about as large.
    void addRandomFile(const std::string& path, size_t size);
    // Deploys the agent and dumps everything, both of which must succeed.
    void deployAndDump();

    struct Archive {
        std::string name;
        uint64_t size;
        std::string md5;
    };
    // The content archives that the session's dump.xml lists.
    std::vector<Archive> dumpArchives() const;

    SshdServer sshd_;
    std::string agentsDir_;     // the product's agents, below the product root of hmx.conf
    std::string hosting_;       // hosting_/web and hosting_/mail: the source host's objects
    std::string session_;       // the session directory
    std::string remoteAgent_;   // the agent directory on the source host (absolute)
    std::string sudoPassword_;  // root's password, which sudo asks for

  private:
    testing::ScratchDir scratch_;
};

}  // namespace test
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_MIGRATION_HOST_H
