// The installed product: `cmake --install` and the Debian package put the program, its data and
// the product configuration where the program looks for them, and installing the package with
// dpkg leaves a working product. dpkg writes /var/lib/dpkg, /var/log and /usr/local on the real
// host, so the package is installed over private overlays of /var and /usr/local that vanish
// with the test; the test then checks that the host's package database is as it was.

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace tavik {
namespace {

namespace fs = boost::filesystem;

const fs::path kPrefix = FERRYGATE_INSTALL_PREFIX;
const fs::path kSource = FERRYGATE_SOURCE_DIR;

struct Outcome {
    int code;
    std::string out;
};

// Runs a shell command line; standard error is folded into the output for failure messages.
Outcome run(const std::string& command) {
    Outcome r{-1, {}};
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, pipe)) > 0) r.out.append(buf, n);
    int status = pclose(pipe);
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return r;
}

std::string readFile(const fs::path& p) {
    std::ifstream in(p.string(), std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string quoted(const fs::path& p) { return "'" + p.string() + "'"; }

class ScratchDir {
  public:
    ScratchDir() {
        char templ[] = "/tmp/ferrygate-package.XXXXXX";
        if (!mkdtemp(templ)) throw std::runtime_error("mkdtemp failed");
        path_ = templ;
    }
    ~ScratchDir() {
        boost::system::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    const fs::path& path() const { return path_; }

  private:
    fs::path path_;
};

// Builds the Debian package from this build tree into `dir` and returns its path. Concurrent
// package builds in one build tree would trip over each other, hence the lock.
fs::path buildPackage(const fs::path& dir) {
    int lock = open(FERRYGATE_BUILD_DIR "/package-test.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0644);
    flock(lock, LOCK_EX);
    Outcome r = run("cd " FERRYGATE_BUILD_DIR " && cpack -G DEB -B " + quoted(dir));
    close(lock);
    if (r.code != 0) throw std::runtime_error("cpack failed:\n" + r.out);
    for (fs::directory_iterator it(dir), end; it != end; ++it)
        if (it->path().extension() == ".deb") return it->path();
    throw std::runtime_error("cpack made no .deb:\n" + r.out);
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
        int n = 0;
        for (const char* lower : {"/var", "/usr/local"}) {
            fs::path upper = scratch / std::to_string(n) / "upper";
            fs::path work = scratch / std::to_string(n++) / "work";
            fs::create_directories(upper);
            fs::create_directories(work);
            std::string options = std::string("lowerdir=") + lower + ",upperdir=" + upper.string() +
                                  ",workdir=" + work.string();
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

std::string dpkg(const std::string& args) {
    // Standard input is closed so that a question from dpkg fails the command instead of
    // waiting for an answer.
    return "dpkg --log=/dev/null " + args + " </dev/null";
}

std::string confValue(const std::string& text, const std::string& name) {
    std::istringstream lines(text);
    std::string key, value;
    while (lines >> key) {
        std::getline(lines, value);
        if (key == name) return value.substr(value.find_first_not_of(" \t"));
    }
    return "(not set)";
}

// Every file of the source data directory is installed under RKU with its size and execute bit.
void expectDataInstalledUnder(const fs::path& root) {
    if (!fs::exists(kSource / "data")) return;
    for (fs::recursive_directory_iterator it(kSource / "data"), end; it != end; ++it) {
        if (!fs::is_regular_file(it->path())) continue;
        fs::path rel = fs::relative(it->path(), kSource / "data");
        fs::path installed = root / "RKU" / rel;
        ASSERT_TRUE(fs::is_regular_file(installed)) << installed;
        EXPECT_EQ(fs::file_size(it->path()), fs::file_size(installed)) << rel;
        auto exec = [](const fs::path& p) { return fs::status(p).permissions() & fs::owner_exe; };
        EXPECT_EQ(exec(it->path()), exec(installed)) << rel;
    }
}

TEST(Install, DestdirTreeIsWhereTheProgramLooksAndAnEditedConfIsKept) {
    ScratchDir scratch;
    const fs::path stage = scratch.path();
    const std::string install =
        "DESTDIR=" + quoted(stage) + " cmake --install " FERRYGATE_BUILD_DIR;
    Outcome r = run(install);
    ASSERT_EQ(0, r.code) << r.out;

    const fs::path root = stage / kPrefix;
    EXPECT_TRUE(fs::status(root / "bin/ferrygate").permissions() & fs::owner_exe);
    EXPECT_EQ(readFile(kSource / "docs/ferrygate.1"),
              readFile(root / "share/man/man1/ferrygate.1"));
    EXPECT_EQ(fs::perms(0750), fs::status(root / "RKU/tmp").permissions());
    expectDataInstalledUnder(root);
    const fs::path conf = stage / "etc/hmx/hmx.conf";
    EXPECT_EQ(kPrefix.string(), confValue(readFile(conf), "PRODUCT_ROOT_D"));
    EXPECT_FALSE(fs::exists(stage / "usr/local/RKU")) << "data must follow the product root";

    // The configuration belongs to the administrator once it exists.
    std::ofstream(conf.string()) << "PRODUCT_ROOT_D /opt/elsewhere\n";
    r = run(install);
    ASSERT_EQ(0, r.code) << r.out;
    EXPECT_EQ("/opt/elsewhere", confValue(readFile(conf), "PRODUCT_ROOT_D"));
}

std::set<std::string> dependsOf(const fs::path& deb) {
    std::set<std::string> names;
    std::istringstream list(run("dpkg-deb -f " + quoted(deb) + " Depends").out);
    std::string item;
    while (std::getline(list, item, ',')) {
        size_t start = item.find_first_not_of(" \n");
        if (start == std::string::npos) continue;
        item = item.substr(start);
        names.insert(item.substr(0, item.find_first_of(" (\n")));
    }
    return names;
}

// The packages that own `libraries`, in one dpkg look-up (each one reads the whole file database).
std::set<std::string> owningPackages(const std::vector<fs::path>& libraries) {
    std::string paths;
    std::vector<std::string> wanted;
    for (const fs::path& library : libraries) {
        // Merged /usr: dpkg may have recorded the file under /lib or under /usr/lib.
        const std::string path = fs::canonical(library).string();
        wanted.push_back(path);
        paths += " " + path + " " + (path.rfind("/usr/", 0) == 0 ? path.substr(4) : "/usr" + path);
    }
    std::map<std::string, std::string> owner;  // path without a leading /usr -> package
    std::istringstream lines(run("dpkg -S" + paths + " 2>/dev/null").out);
    for (std::string line; std::getline(lines, line);) {
        size_t colon = line.find(": /");
        if (colon == std::string::npos) continue;
        std::string path = line.substr(colon + 2);
        if (path.rfind("/usr/", 0) == 0) path = path.substr(4);
        owner[path] = line.substr(0, line.find(':'));
    }
    std::set<std::string> packages;
    for (std::string path : wanted) {
        if (path.rfind("/usr/", 0) == 0) path = path.substr(4);
        EXPECT_TRUE(owner.count(path)) << "no package owns " << path;
        if (owner.count(path)) packages.insert(owner[path]);
    }
    return packages;
}

// The Debian packages of the shared libraries that the program is linked with: those on its link
// line (the linker may drop what the code does not use yet) and those it needs at run time.
std::set<std::string> packagesOfLinkedLibraries() {
    std::vector<fs::path> libraries;
    std::istringstream linkLine(readFile(FERRYGATE_BUILD_DIR "/CMakeFiles/ferrygate.dir/link.txt"));
    for (std::string word; linkLine >> word;) {
        bool shared = word.size() > 3 && (word.compare(word.size() - 3, 3, ".so") == 0 ||
                                          word.find(".so.") != std::string::npos);
        if (shared && word[0] == '/') libraries.push_back(word);
    }
    std::set<std::string> needed;
    std::istringstream readelf(run("readelf -d " FERRYGATE_BINARY).out);
    for (std::string line; std::getline(readelf, line);) {
        size_t open = line.find("Shared library: [");
        if (open != std::string::npos)
            needed.insert(line.substr(open + 17, line.find(']', open) - open - 17));
    }
    std::istringstream ldd(run("ldd " FERRYGATE_BINARY).out);
    for (std::string soname, rest; ldd >> soname && std::getline(ldd, rest);) {
        std::istringstream fields(rest);
        std::string arrow, path;
        if (fields >> arrow >> path && arrow == "=>" && needed.count(soname))
            libraries.push_back(path);
    }
    std::set<std::string> packages = owningPackages(libraries);
    EXPECT_GE(packages.size(), 2u) << "found no libraries to check";
    return packages;
}

TEST(Package, InstallsTheProductAndItsAccountAndLeavesTheHostAsItWas) {
    ScratchDir scratch;
    const fs::path deb = buildPackage(scratch.path());

    const std::set<std::string> depends = dependsOf(deb);
    for (const std::string& package : packagesOfLinkedLibraries())
        EXPECT_TRUE(depends.count(package)) << "Depends lacks " << package;
    EXPECT_TRUE(depends.count("passwd")) << "the maintainer scripts run useradd";

    const std::string statusBefore = readFile("/var/lib/dpkg/status");
    const bool rootExisted = fs::exists(kPrefix);
    ASSERT_FALSE(statusBefore.empty());
    {
        PrivateVarAndUsrLocal overlays(scratch.path() / "overlays");
        Outcome r = run(dpkg("-i " + quoted(deb)));
        ASSERT_EQ(0, r.code) << r.out;
        EXPECT_EQ("install ok installed", run("dpkg-query -W -f='${Status}' ferrygate").out);
        EXPECT_TRUE(fs::status(kPrefix / "bin/ferrygate").permissions() & fs::owner_exe);
        expectDataInstalledUnder(kPrefix);
        EXPECT_EQ(kPrefix.string(), confValue(readFile("/etc/hmx/hmx.conf"), "PRODUCT_ROOT_D"));
        EXPECT_NE(std::string::npos,
                  run("dpkg-query -W -f='${Conffiles}' ferrygate").out.find("/etc/hmx/hmx.conf"));

        // Session directories take hmxadm's user id as their group: the two must agree.
        const passwd* account = getpwnam("hmxadm");
        ASSERT_NE(nullptr, account);
        const uid_t uid = account->pw_uid;
        EXPECT_EQ(uid, account->pw_gid);
        const group* own = getgrgid(account->pw_gid);
        ASSERT_NE(nullptr, own);
        EXPECT_STREQ("hmxadm", own->gr_name);
        EXPECT_LT(uid, 1000u) << "a system account";

        r = run(dpkg("-i " + quoted(deb)));
        ASSERT_EQ(0, r.code) << "reinstalling:\n" << r.out;
        ASSERT_NE(nullptr, getpwnam("hmxadm"));
        EXPECT_EQ(uid, getpwnam("hmxadm")->pw_uid);

        r = run(dpkg("-r ferrygate"));
        ASSERT_EQ(0, r.code) << r.out;
        EXPECT_FALSE(fs::exists(kPrefix / "bin/ferrygate"));
        EXPECT_TRUE(fs::exists("/etc/hmx/hmx.conf")) << "removal keeps the configuration";
        r = run(dpkg("--purge ferrygate"));
        ASSERT_EQ(0, r.code) << r.out;
        EXPECT_FALSE(fs::exists("/etc/hmx/hmx.conf"));
        EXPECT_FALSE(fs::exists(kPrefix / "RKU/tmp"));
        EXPECT_NE(nullptr, getpwnam("hmxadm")) << "the account outlives the package";
    }
    EXPECT_EQ(statusBefore, readFile("/var/lib/dpkg/status"));
    EXPECT_EQ(rootExisted, fs::exists(kPrefix));
}

bool driverAnswersHelp() { return run(FERRYGATE_BINARY " --help").out.rfind("Usage:", 0) == 0; }

TEST(Package, InstalledProgramFindsItsData) {
    if (!driverAnswersHelp()) GTEST_SKIP() << "the program does not answer --help yet";
    ScratchDir scratch;
    const fs::path deb = buildPackage(scratch.path());
    PrivateVarAndUsrLocal overlays(scratch.path() / "overlays");
    Outcome r = run(dpkg("-i " + quoted(deb)));
    ASSERT_EQ(0, r.code) << r.out;
    const std::string installed = (kPrefix / "bin/ferrygate").string();

    r = run(installed + " --help");
    EXPECT_EQ(0, r.code);
    EXPECT_EQ(run(FERRYGATE_BINARY " --help").out, r.out);

    // A run rejected by verification still opens its session and its log, which it can only do
    // when the installed tree gives it the logging configuration.
    const fs::path session = scratch.path() / "session";
    r = run("env -u HMX_PASSWORD " + installed +
            " --send-scout --send-scout --session-path=" + quoted(session));
    EXPECT_EQ(1, r.code) << r.out;
    struct stat st {};
    ASSERT_EQ(0, stat(session.c_str(), &st));
    EXPECT_EQ(0750u, st.st_mode & 07777);
    EXPECT_EQ(getpwnam("hmxadm")->pw_uid, st.st_gid);
    const std::string log = readFile(session / "migration.log");
    EXPECT_NE(std::string::npos, log.find("started")) << "no logging configuration found";
    EXPECT_NE(std::string::npos, log.find("More than one action is given"));
}

}  // namespace
}  // namespace tavik
