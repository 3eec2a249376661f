// A complete migration set-up for end-to-end tests, inside scripts/sandbox.sh: a source host
// (a real sshd on 127.0.0.1 with a login, sudo that asks for root's password, and a small
// hosting tree of sites and mailboxes), the product data of this checkout installed under a
// product root that /etc/hmx/hmx.conf names, and a session directory for the real binary.
#ifndef FERRYGATE_TESTS_SUPPORT_MIGRATION_HOST_H
#define FERRYGATE_TESTS_SUPPORT_MIGRATION_HOST_H

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
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
inline bool waitUntil(const std::function<bool()>& ready, int seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!ready() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return ready();
}

class MigrationTest : public ::testing::Test {
  protected:
    void SetUp() override {
        auto mustRun = [](const std::vector<std::string>& argv, const std::string& input) {
            const ProcessResult r = runProcess(argv, input);
            if (r.status != 0) throw std::runtime_error(argv[0] + " failed: " + r.err);
        };
        // A cheap password hash: every run logs in, and the default hash costs half a second.
        mustRun({"/usr/sbin/chpasswd", "-c", "SHA512", "-s", "1000"},
                user() + ":" + password() + "\n");
        const std::string root = scratch_.path(), product = root + "/product";
        // The login reads the hosting tree when the agent runs without sudo.
        chmod(root.c_str(), 0755);
        for (const char* account : {"hmxadm", "alice", "carol"})
            ASSERT_TRUE(testing::addSystemAccount(account)) << account;
        agentsDir_ = product + "/RKU/agents";
        testing::writeTextFile("/etc/hmx/hmx.conf", "PRODUCT_ROOT_D " + product + "\n");
        const std::string data = FERRYGATE_SOURCE_DIR "/data";
        mustRun({"/bin/mkdir", "-p", product + "/RKU"}, "");
        mustRun({"/bin/cp", "-r", data + "/scout.pl", data + "/log4cpp.properties",
                 data + "/agents", product + "/RKU/"},
                "");

        hosting_ = root + "/hosting";
        const std::string web = hosting_ + "/web", mail = hosting_ + "/mail";
        testing::writeTextFile(web + "/example.com/httpdocs/index.html", "<h1>example</h1>\n");
        std::string logo;
        for (int i = 0; i < 40000; ++i) logo += static_cast<char>((i * 7919) % 251);
        testing::writeTextFile(web + "/example.com/httpdocs/img/logo.png", logo);
        testing::writeTextFile(web + "/shop.test/index.php", "<?php echo 'shop';\n");
        testing::writeTextFile(mail + "/example.com/info/cur/1", "Subject: hello\n\nhi\n");
        testing::writeTextFile(mail + "/example.com/bob/new/2", "Subject: news\n\nnews\n");
        testing::writeTextFile(mail + "/lists.org/news/cur/1", "Subject: list\n\nlist\n");
        mustRun({"/bin/chown", "-R", "alice", web + "/example.com", mail + "/example.com"}, "");
        mustRun({"/bin/chown", "-R", "carol", web + "/shop.test"}, "");
        mustRun({"/bin/chmod", "-R", "a+rX", hosting_, product}, "");
        configureAgent();

        sudoPassword_ = randomPassword();
        mustRun({"/usr/sbin/chpasswd"}, "root:" + sudoPassword_ + "\n");
        testing::writeTextFile(
            "/etc/sudoers.d/ferrygate-test",
            "Defaults:" + user() + " targetpw, !lecture\n" + user() + " ALL=(ALL) ALL\n");
        chmod("/etc/sudoers.d/ferrygate-test", 0440);
        session_ = root + "/session";
        remoteAgent_ = sshd_.home() + "/ferry-agent";
    }

    unsigned short port() const { return sshd_.port(); }
    const std::string& user() const { return sshd_.user(); }
    const std::string& password() const { return sshd_.password(); }
    std::string sessionFile(const std::string& name) const { return session_ + "/" + name; }

    // The binary with the connection options, the session path, `args` and, for every action
    // but the scout, the agent directory and name; with `sudo` also --sudo-password.
    std::vector<std::string> command(const std::vector<std::string>& args, bool sudo) const {
        std::vector<std::string> argv = {FERRYGATE_BINARY, "--host=127.0.0.1",
                                         "--port=" + std::to_string(port()), "--login=" + user(),
                                         "--session-path=" + session_};
        if (std::find(args.begin(), args.end(), "--send-scout") == args.end()) {
            argv.push_back("--agent-dir=" + remoteAgent_);
            argv.push_back("--agent-name=hostdump");
        }
        if (sudo) argv.push_back("--sudo-password");
        argv.insert(argv.end(), args.begin(), args.end());
        return argv;
    }
    // Runs that with HMX_PASSWORD, and with `sudo` HMX_SUDO_PASSWORD, in its environment.
    ProcessResult ferrygate(const std::vector<std::string>& args, bool sudo = false,
                            const std::string& input = "") {
        std::vector<std::string> env = {"HMX_PASSWORD=" + password()};
        if (sudo) env.push_back("HMX_SUDO_PASSWORD=" + sudoPassword_);
        return runProcess(command(args, sudo), input, env);
    }
    // Writes hostdump.conf beside the product's agent (deployed along with it).
    void configureAgent(const std::string& extraLines = "") {
        testing::writeTextFile(
            agentsDir_ + "/hostdump/hostdump.conf",
            "web_root = " + hosting_ + "/web\nmail_root = " + hosting_ + "/mail\n" + extraLines);
    }
    // Adds a file of `size` random bytes to a site (`path` below the web root), so that its
    // archive is about as large.
    void addRandomFile(const std::string& path, size_t size) {
        std::ifstream random("/dev/urandom", std::ios::binary);
        std::string bytes(size, '\0');
        random.read(&bytes[0], static_cast<std::streamsize>(size));
        testing::writeTextFile(hosting_ + "/web/" + path, bytes);
        chmod((hosting_ + "/web/" + path).c_str(), 0644);
    }
    // Deploys the agent and dumps everything, both of which must succeed.
    void deployAndDump() {
        for (const char* action : {"--deploy-agent", "--dump-all"}) {
            const ProcessResult r = ferrygate({action});
            ASSERT_EQ(0, r.status) << action << ": " << r.err;
        }
    }

    struct Archive {
        std::string name;
        uint64_t size;
        std::string md5;
    };
    // The content archives that the session's dump.xml lists.
    std::vector<Archive> dumpArchives() const {
        std::vector<Archive> files;
        const std::string dump = readFile(sessionFile("dump.xml"));
        const std::regex content(
            "<content file=\"([^\"]+)\" size=\"([0-9]+)\" unpacked=\"[0-9]+\" "
            "md5sum=\"([0-9a-f]{32})\"/>");
        for (std::sregex_iterator it(dump.begin(), dump.end(), content), end; it != end; ++it) {
            files.push_back(Archive{(*it)[1], std::stoull((*it)[2]), (*it)[3]});
        }
        return files;
    }

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
