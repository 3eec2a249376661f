#include "support/migration_host.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <regex>
#include <stdexcept>
#include <thread>

namespace tavik {
namespace test {

namespace {

void mustRun(const std::vector<std::string>& argv, const std::string& input = "") {
    const ProcessResult r = runProcess(argv, input);
    if (r.status != 0) throw std::runtime_error(argv[0] + " failed: " + r.err);
}

}  // namespace

bool waitUntil(const std::function<bool()>& ready, int seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!ready() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return ready();
}

void MigrationTest::SetUp() {
    // A cheap password hash: every run logs in, and the default hash costs half a second.
    mustRun({"/usr/sbin/chpasswd", "-c", "SHA512", "-s", "1000"}, user() + ":" + password() + "\n");
    const std::string root = scratch_.path();
    // The login reads the hosting tree when the agent runs without sudo.
    chmod(root.c_str(), 0755);
    for (const char* account : {"hmxadm", "alice", "carol"})
        ASSERT_TRUE(testing::addSystemAccount(account)) << account;

    const std::string product = root + "/product";
    agentsDir_ = product + "/RKU/agents";
    testing::writeTextFile("/etc/hmx/hmx.conf", "PRODUCT_ROOT_D " + product + "\n");
    const std::string data = scriptsDir() + "/../data";
    mustRun({"/bin/mkdir", "-p", product + "/RKU"});
    mustRun({"/bin/cp", "-r", data + "/scout.pl", data + "/log4cpp.properties", data + "/agents",
             product + "/RKU/"});

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
    mustRun({"/bin/chown", "-R", "alice", web + "/example.com", mail + "/example.com"});
    mustRun({"/bin/chown", "-R", "carol", web + "/shop.test"});
    mustRun({"/bin/chmod", "-R", "a+rX", hosting_, product});
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

std::vector<MigrationTest::Archive> MigrationTest::dumpArchives() const {
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

void MigrationTest::configureAgent(const std::string& extraLines) {
    testing::writeTextFile(
        agentsDir_ + "/hostdump/hostdump.conf",
        "web_root = " + hosting_ + "/web\nmail_root = " + hosting_ + "/mail\n" + extraLines);
}

void MigrationTest::addRandomFile(const std::string& path, size_t size) {
    std::ifstream random("/dev/urandom", std::ios::binary);
    std::string bytes(size, '\0');
    random.read(&bytes[0], static_cast<std::streamsize>(size));
    testing::writeTextFile(hosting_ + "/web/" + path, bytes);
    chmod((hosting_ + "/web/" + path).c_str(), 0644);
}

void MigrationTest::deployAndDump() {
    for (const char* action : {"--deploy-agent", "--dump-all"}) {
        const ProcessResult r = ferrygate({action});
        ASSERT_EQ(0, r.status) << action << ": " << r.err;
    }
}

std::vector<std::string> MigrationTest::command(const std::vector<std::string>& args,
                                                bool sudo) const {
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

ProcessResult MigrationTest::ferrygate(const std::vector<std::string>& args, bool sudo,
                                       const std::string& input) {
    std::vector<std::string> env = {"HMX_PASSWORD=" + password()};
    if (sudo) env.push_back("HMX_SUDO_PASSWORD=" + sudoPassword_);
    return runProcess(command(args, sudo), input, env);
}

}  // namespace test
}  // namespace tavik
