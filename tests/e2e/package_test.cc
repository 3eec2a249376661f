// The installed product: `cmake --install` and the Debian package put the program, its data and
// the product configuration where the program looks for them, and the program installed by dpkg
// runs an action against a real SSH server. dpkg writes /var/lib/dpkg, /var/log and /usr/local,
// so the package is installed over private overlays of /var and /usr/local that vanish with the
// test; the test then checks that the host's package database is as it was.

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <boost/interprocess/sync/file_lock.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <fstream>
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

bool executable(const fs::path& p) { return fs::status(p).permissions() & fs::owner_exe; }

// Every install from the build tree, cpack's included, rewrites the tree's install manifest and
// reads the staged files back: installs that overlap hand out half-written files. Test cases
// run in parallel processes, so they take turns on an exclusive lock.
ProcessResult runLocked(const std::string& command) {
    const char* const lockFile = FERRYGATE_BUILD_DIR "/package-test.lock";
    std::ofstream(lockFile, std::ios::app);
    boost::interprocess::file_lock lock(lockFile);
    boost::interprocess::scoped_lock<boost::interprocess::file_lock> turn(lock);
    return sh("cd " + inQuotes(FERRYGATE_BUILD_DIR) + " && " + command);
}

std::string confValue(const std::string& text, const std::string& name) {
    std::smatch m;
    const std::regex line("(^|\n)" + name + "[ \t]+([^\n]*)");
    return std::regex_search(text, m, line) ? m[2].str() : "(not set)";
}

// Every file of the source data directory is installed under RKU with its size and execute bit.
void expectDataInstalledUnder(const fs::path& root) {
    size_t files = 0;
    for (fs::recursive_directory_iterator it(kSource / "data"), end; it != end; ++it) {
        if (!fs::is_regular_file(it->path())) continue;
        const fs::path rel = fs::relative(it->path(), kSource / "data");
        const fs::path installed = root / "RKU" / rel;
        ++files;
        ASSERT_TRUE(fs::is_regular_file(installed)) << installed;
        EXPECT_EQ(fs::file_size(it->path()), fs::file_size(installed)) << rel;
        EXPECT_EQ(executable(it->path()), executable(installed)) << rel;
    }
    EXPECT_GE(files, 3u) << "scout, agent and logging configuration";
}

TEST(Install, DestdirTreeIsWhereTheProgramLooksAndAnEditedConfIsKept) {
    testing::ScratchDir scratch;
    const fs::path stage = scratch.path();
    const std::string install = "DESTDIR=" + inQuotes(stage) + " cmake --install .";
    ProcessResult r = runLocked(install);
    ASSERT_EQ(0, r.status) << r.out;

    const fs::path root = stage / kPrefix;
    EXPECT_TRUE(executable(root / "bin/ferrygate"));
    EXPECT_EQ(readFile((kSource / "docs/ferrygate.1").string()),
              readFile((root / "share/man/man1/ferrygate.1").string()));
    EXPECT_EQ(fs::perms(0750), fs::status(root / "RKU/tmp").permissions());
    expectDataInstalledUnder(root);
    const std::string conf = (stage / "etc/hmx/hmx.conf").string();
    EXPECT_EQ(kPrefix.string(), confValue(readFile(conf), "PRODUCT_ROOT_D"));

    // The configuration belongs to the administrator once it exists.
    std::ofstream(conf) << "PRODUCT_ROOT_D /opt/elsewhere\n";
    r = runLocked(install);
    ASSERT_EQ(0, r.status) << r.out;
    EXPECT_EQ("/opt/elsewhere", confValue(readFile(conf), "PRODUCT_ROOT_D"));
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
            const fs::path upper = scratch / (lower + 1) / "upper";
            const fs::path work = scratch / (lower + 1) / "work";
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

class Package : public test::SshdTest {
  protected:
    test::SshdOptions sshdOptions() const override {
        test::SshdOptions options;
        options.ports = "20000-32767";  // the command line refuses higher ports
        return options;
    }
};

TEST_F(Package, InstallsTheProductThatThenRunsTheScoutAndRemovesItCleanly) {
    testing::ScratchDir scratch;
    ProcessResult r = runLocked("cpack -G DEB -B " + inQuotes(scratch.path()));
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
        EXPECT_EQ("install ok installed", sh("dpkg-query -W -f='${Status}' ferrygate").out);
        EXPECT_NE(std::string::npos,
                  sh("dpkg-query -W -f='${Conffiles}' ferrygate").out.find("/etc/hmx/hmx.conf"));
        expectDataInstalledUnder(kPrefix);
        EXPECT_EQ(kPrefix.string(), confValue(readFile("/etc/hmx/hmx.conf"), "PRODUCT_ROOT_D"));

        // Session directories take hmxadm's user id as their group: the two must agree.
        const passwd* account = getpwnam("hmxadm");
        ASSERT_NE(nullptr, account);
        const uid_t uid = account->pw_uid;
        EXPECT_LT(uid, 1000u) << "a system account";
        const group* own = getgrgid(account->pw_gid);
        ASSERT_NE(nullptr, own);
        EXPECT_STREQ("hmxadm", own->gr_name);
        EXPECT_EQ(uid, own->gr_gid);

        // One real action from nothing but the installed files: the installed configuration
        // leads the program to its scout and its logging configuration.
        const std::string installed = (kPrefix / "bin/ferrygate").string();
        EXPECT_EQ(sh(FERRYGATE_BINARY " --help").out, sh(installed + " --help").out);
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

}  // namespace
}  // namespace tavik
