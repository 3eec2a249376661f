// The installed product: `cmake --install` and the Debian package put the program, its data, its
// manual and the product configuration where the program looks for them, and the program
// installed by dpkg runs an action against a real SSH server. dpkg writes /var/lib/dpkg, /var/log
// and /usr/local, so the package is installed over private overlays of /var and /usr/local that
// vanish with the test; the test then checks that the host's package database is as it was.

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/migration_host.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace {

namespace fs = boost::filesystem;
using test::ProcessResult;
using test::readFile;

const fs::path kPrefix = FERRYGATE_INSTALL_PREFIX;
const fs::path kSource = FERRYGATE_SOURCE_DIR;

// Standard error is folded into the output, for failure messages.
ProcessResult sh(const std::string& command) {
    return test::runProcess({"/bin/sh", "-c", command + " 2>&1"});
}

std::string inQuotes(const fs::path& p) { return "'" + p.string() + "'"; }

ProcessResult inBuildDir(const std::string& command) {
    return sh("cd " + inQuotes(FERRYGATE_BUILD_DIR) + " && " + command);
}

std::set<std::string> wordsOf(const std::string& text) {
    std::istringstream words(text);
    return {std::istream_iterator<std::string>(words), std::istream_iterator<std::string>()};
}

// An instrumented build links the sanitizer runtimes, which no installed product ever needs.
#ifdef __SANITIZE_ADDRESS__
#define NOT_SHIPPED " | grep -Ev '^lib(a|ub)san[.]so'"
#else
#define NOT_SHIPPED ""
#endif

// The Debian packages that own the shared libraries the program names as NEEDED. Merged /usr:
// dpkg may have recorded a library under /lib or under /usr/lib.
std::set<std::string> packagesOfNeededLibraries() {
    return wordsOf(
        sh("b=" FERRYGATE_BINARY
           "; for l in $(objdump -p $b | awk '$1==\"NEEDED\"{print $2}'" NOT_SHIPPED "); do"
           " p=$(readlink -f $(ldd $b | awk -v l=$l '$1==l{print $3}') | sed 's,^/usr,,');"
           " dpkg -S $p /usr$p 2>/dev/null | cut -d: -f1; done")
            .out);
}

// Private, writable overlays of /var and /usr/local for this process: whatever dpkg writes there
// lands on a tmpfs that disappears when the object returns the process to its former namespace.
class PrivateVarAndUsrLocal {
  public:
    explicit PrivateVarAndUsrLocal(const fs::path& scratch) {
        home_ = open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
        if (home_ < 0 || unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            throw std::runtime_error("cannot make a private mount namespace");
        fs::create_directories(scratch);
        if (mount("fg-package-test", scratch.c_str(), "tmpfs", 0, "mode=0700") != 0)
            throw std::runtime_error("cannot mount the scratch tmpfs");
        for (const char* lower : {"/var", "/usr/local"}) {
            const fs::path upper = scratch / (lower + 1) / "upper",
                           work = scratch / (lower + 1) / "work";
            fs::create_directories(upper);
            fs::create_directories(work);
            const std::string options = std::string("lowerdir=") + lower +
                                        ",upperdir=" + upper.string() + ",workdir=" + work.string();
            if (mount("fg-overlay", lower, "overlay", 0, options.c_str()) != 0)
                throw std::runtime_error(std::string("cannot overlay ") + lower);
        }
    }
    ~PrivateVarAndUsrLocal() {
        if (setns(home_, CLONE_NEWNS) != 0) std::abort();  // never run on with the overlays
        close(home_);
    }

  private:
    int home_ = -1;
};

// Standard input is closed so that a question from dpkg fails the command instead of waiting.
ProcessResult dpkg(const std::string& args) {
    return sh("dpkg --log=/dev/null " + args + " </dev/null");
}

class Package : public test::SshdTest {};

TEST_F(Package, InstallsTheProductThatThenRunsTheScoutAndRemovesItCleanly) {
    testing::ScratchDir scratch;
    // cmake --install writes the configuration only where there is none: it is the
    // administrator's once it exists.
    const std::string install = "DESTDIR=" + inQuotes(scratch.path()) + " cmake --install .";
    const std::string staged = scratch.path() + "/etc/hmx/hmx.conf";
    ProcessResult r = inBuildDir(install);
    ASSERT_EQ(0, r.status) << r.out;
    const std::string rootLine = "\nPRODUCT_ROOT_D " + kPrefix.string() + "\n";
    EXPECT_NE(std::string::npos, readFile(staged).find(rootLine));
    testing::writeTextFile(staged, "PRODUCT_ROOT_D /opt/elsewhere\n");
    ASSERT_EQ(0, inBuildDir(install).status);
    EXPECT_EQ("PRODUCT_ROOT_D /opt/elsewhere\n", readFile(staged));

    r = inBuildDir("cpack -G DEB -B " + inQuotes(scratch.path()));
    ASSERT_EQ(0, r.status) << r.out;
    fs::path deb;
    for (fs::directory_iterator it(scratch.path()), end; it != end; ++it)
        if (it->path().extension() == ".deb") deb = it->path();
    ASSERT_FALSE(deb.empty()) << r.out;

    const std::set<std::string> depends = wordsOf(
        sh("dpkg-deb -f " + inQuotes(deb) + " Depends | tr , '\\n' | awk '{print $1}'").out);
    const std::set<std::string> linked = packagesOfNeededLibraries();
    EXPECT_GE(linked.size(), 6u) << "found too few libraries to check";
    for (const std::string& package : linked)
        EXPECT_TRUE(depends.count(package)) << "Depends lacks " << package;
    EXPECT_TRUE(depends.count("passwd")) << "the maintainer scripts run useradd";

    const std::string statusBefore = readFile("/var/lib/dpkg/status");
    const bool rootExisted = fs::exists(kPrefix);
    ASSERT_FALSE(statusBefore.empty());
    {
        PrivateVarAndUsrLocal overlays(fs::path(scratch.path()) / "overlays");
        r = dpkg("-i " + inQuotes(deb));
        ASSERT_EQ(0, r.status) << r.out;
        r = sh("diff -r -x tmp " + inQuotes(kSource / "data") + " " + inQuotes(kPrefix / "RKU"));
        EXPECT_EQ(0, r.status) << "the data directory differs:\n" << r.out;
        EXPECT_NE(std::string::npos, readFile("/etc/hmx/hmx.conf").find(rootLine));
        EXPECT_EQ(fs::perms(0750), fs::status(kPrefix / "RKU/tmp").permissions());
        EXPECT_EQ(readFile((kSource / "docs/ferrygate.1").string()),
                  readFile((kPrefix / "share/man/man1/ferrygate.1").string()));

        // Session directories take hmxadm's user id as their group: the two must agree.
        const passwd* account = getpwnam("hmxadm");
        ASSERT_NE(nullptr, account);
        const uid_t uid = account->pw_uid;
        EXPECT_LT(uid, 1000u) << "a system account";
        const group* own = getgrgid(account->pw_gid);
        EXPECT_TRUE(own && own->gr_name == std::string("hmxadm") && own->gr_gid == uid);

        // One real action from nothing but the installed files: the installed configuration
        // leads the program to its scout and its logging configuration.
        const std::string installed = (kPrefix / "bin/ferrygate").string();
        const std::string session = scratch.path() + "/session";
        r = test::runProcess(
            {installed, "--send-scout", "--host=127.0.0.1", "--port=" + std::to_string(port()),
             "--login=" + user(), "--session-path=" + session},
            "", {"HMX_PASSWORD=" + password()});
        EXPECT_EQ(0, r.status) << r.out << r.err;
        EXPECT_NE(std::string::npos, readFile(session + "/scout-result.xml").find("<scout"));
        EXPECT_NE(std::string::npos,
                  readFile(session + "/migration.result").find("status=\"success\""));
        EXPECT_NE(std::string::npos, readFile(session + "/migration.log").find("started"));

        r = dpkg("-i " + inQuotes(deb));
        ASSERT_EQ(0, r.status) << "reinstalling:\n" << r.out;
        ASSERT_NE(nullptr, getpwnam("hmxadm"));
        EXPECT_EQ(uid, getpwnam("hmxadm")->pw_uid);

        r = dpkg("-r ferrygate");
        ASSERT_EQ(0, r.status) << r.out;
        EXPECT_FALSE(fs::exists(installed));
        EXPECT_TRUE(fs::exists("/etc/hmx/hmx.conf")) << "removal keeps the configuration";
        r = dpkg("--purge ferrygate");
        ASSERT_EQ(0, r.status) << r.out;
        EXPECT_FALSE(fs::exists("/etc/hmx/hmx.conf"));
        EXPECT_FALSE(fs::exists(kPrefix / "RKU/tmp"));
        EXPECT_NE(nullptr, getpwnam("hmxadm")) << "the account outlives the package";
    }
    EXPECT_EQ(statusBefore, readFile("/var/lib/dpkg/status"));
    EXPECT_EQ(rootExisted, fs::exists(kPrefix));
}

std::set<std::string> optionsIn(const std::string& text, const std::regex& pattern) {
    std::set<std::string> names;
    for (std::sregex_iterator it(text.begin(), text.end(), pattern), end; it != end; ++it)
        names.insert(std::regex_replace((*it)[1].str(), std::regex(R"(\\-)"), "-"));
    return names;
}

// Every option of the usage text is in the manual, and every option the manual names is one the
// program accepts. Help is answered before anything else and leaves nothing behind.
TEST(ManPage, DocumentsTheUsageOptionsAndOnlyOptionsTheProgramAccepts) {
    // In the page's source a long option reads \-\-name, with \- for every hyphen.
    const std::set<std::string> documented =
        optionsIn(readFile((kSource / "docs/ferrygate.1").string()),
                  std::regex(R"(\\-\\-([a-z]+(?:\\-[a-z]+)*))"));
    testing::ScratchDir cwd;
    const ProcessResult help =
        test::runProcess({FERRYGATE_BINARY, "--help", "--session-path=s"}, "", {}, cwd.path());
    ASSERT_EQ(0, help.status);
    EXPECT_EQ("", help.err);
    EXPECT_TRUE(fs::is_empty(cwd.path()));
    EXPECT_EQ(help.out, test::runProcess({FERRYGATE_BINARY, "-h"}).out);
    const std::set<std::string> usage =
        optionsIn(help.out, std::regex(R"(--([a-z]+(?:-[a-z]+)*))"));
    ASSERT_GT(usage.size(), 20u) << help.out;
    for (const std::string& name : usage) EXPECT_TRUE(documented.count(name)) << "--" << name;
    for (const std::string& name : documented) {
        const ProcessResult r = test::runProcess({FERRYGATE_BINARY, "--" + name + "=x"});
        EXPECT_EQ(std::string::npos, r.err.find("unrecognized")) << "--" << name << ": " << r.err;
    }
}

}  // namespace
}  // namespace tavik
