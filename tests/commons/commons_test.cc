#include "commons/commons.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <fstream>
#include <set>
#include <string>

#include "commons/exceptions.h"
#include "support/sandbox_env.h"
#include "utils/files.h"
#include "utils/read_configuration.h"

namespace tavik {
namespace {

using testing::inSandbox;
using testing::ScratchDir;
using testing::writeTextFile;

struct stat statOf(const std::string& path) {
    struct stat st = {};
    EXPECT_EQ(0, lstat(path.c_str(), &st)) << path;
    return st;
}

int openDescriptors() {
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
    return count;
}

// Temporary names are checked with the process umask out of the way.
class Commons : public ::testing::Test {
  protected:
    void SetUp() override { oldMask_ = umask(0); }
    void TearDown() override { umask(oldMask_); }
    ScratchDir scratch_;
    mode_t oldMask_ = 0;
};

TEST_F(Commons, MakeDirCreatesMissingParentsWithOwnerAndMode) {
    const std::string base = scratch_.path() + "/a";
    mkdir(base.c_str(), 0755);
    std::string target = base + "/b/c";
    make_dir(&target[0], 1234, 5678, 0710);
    for (const std::string& dir : {base + "/b", base + "/b/c"}) {
        struct stat st = statOf(dir);
        EXPECT_TRUE(S_ISDIR(st.st_mode)) << dir;
        EXPECT_EQ(0710u, st.st_mode & 07777) << dir;
        EXPECT_EQ(1234u, st.st_uid) << dir;
        EXPECT_EQ(5678u, st.st_gid) << dir;
    }
    EXPECT_EQ(base + "/b/c", target);
    EXPECT_EQ(0u, statOf(base).st_uid);

    make_dir(scratch_.path() + "/s/t/", 0, 0, 0700);
    EXPECT_EQ(0700u, statOf(scratch_.path() + "/s/t").st_mode & 07777);
    make_dir(boost::filesystem::path(scratch_.path()) / "p" / "q", 0, 0, 0750);
    EXPECT_EQ(0750u, statOf(scratch_.path() + "/p/q").st_mode & 07777);
}

TEST_F(Commons, MakeDirLeavesExistingPathsAlone) {
    const std::string file = scratch_.path() + "/file";
    writeTextFile(file, "content");
    chmod(file.c_str(), 0640);
    make_dir(file, 1234, 1234, 0750);
    struct stat st = statOf(file);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(0640u, st.st_mode & 07777);
    EXPECT_EQ(0u, st.st_uid);
    EXPECT_EQ(7, st.st_size);

    const std::string dir = scratch_.path() + "/dir";
    mkdir(dir.c_str(), 0700);
    make_dir(dir, 1234, 1234, 0755);
    EXPECT_EQ(0700u, statOf(dir).st_mode & 07777);
    EXPECT_EQ(0u, statOf(dir).st_uid);
    // Below a regular file nothing can be made, and nothing is reported.
    make_dir(file + "/sub", 0, 0, 0755);
    EXPECT_FALSE(boost::filesystem::exists(file + "/sub"));
}

TEST_F(Commons, CheckInputFileAcceptsRegularFilesOnly) {
    const std::string file = scratch_.path() + "/f";
    writeTextFile(file, "");
    EXPECT_TRUE(check_input_file(file.c_str()));
    EXPECT_FALSE(check_input_file(scratch_.path().c_str()));
    EXPECT_FALSE(check_input_file((file + ".missing").c_str()));
    EXPECT_FALSE(check_input_file(nullptr));
    EXPECT_FALSE(check_input_file(""));
}

TEST_F(Commons, TemplateNamesJoinDirectoryAndPrefixOnce) {
    std::vector<char> buffer;
    initTempName(buffer, "/var/x", "pre");
    EXPECT_STREQ("/var/x/preXXXXXX", buffer.data());
    EXPECT_EQ('\0', buffer.back());
    initTempName(buffer, "/var/x/", "");
    EXPECT_STREQ("/var/x/XXXXXX", buffer.data());
    EXPECT_GE(buffer.capacity(), 4096u);
}

TEST_F(Commons, EmptyDirectoryUsesTheProgramTemporaryDirectory) {
    ASSERT_TRUE(inSandbox());
    std::remove(HMX_CONF_FILE);
    std::vector<char> buffer;
    initTempName(buffer, "", "t.");
    EXPECT_EQ(files::getTmpDir() + "/t.XXXXXX", buffer.data());
}

TEST_F(Commons, EmptyDirectoryPrefersTheConfiguredDumpTemporaryDirectory) {
    ASSERT_TRUE(inSandbox());
    writeTextFile(HMX_CONF_FILE, "DUMP_TMP_D " + scratch_.path() + "/\n");
    const std::string name = RKU_getTempFileName("", "cfg.");
    EXPECT_EQ(scratch_.path() + "/cfg.", name.substr(0, name.size() - 6));
    EXPECT_TRUE(check_input_file(name.c_str()));
}

TEST_F(Commons, TemporaryFilesAreNewEmptyPrivateAndNeverCollide) {
    const int descriptorsBefore = openDescriptors();
    std::set<std::string> names;
    for (int i = 0; i < 300; ++i) {
        const std::string name = RKU_getTempFileName(scratch_.path() + "/", "f.");
        ASSERT_TRUE(names.insert(name).second) << name;
        ASSERT_EQ(scratch_.path() + "/f.", name.substr(0, name.size() - 6));
        struct stat st = statOf(name);
        ASSERT_TRUE(S_ISREG(st.st_mode));
        ASSERT_EQ(0600u, st.st_mode & 07777);
        ASSERT_EQ(0, st.st_size);
    }
    EXPECT_EQ(descriptorsBefore, openDescriptors());
    for (int i = 0; i < 100; ++i) {
        const std::string dir = RKU_makeTempFileDirectory(scratch_.path(), "d.");
        ASSERT_TRUE(names.insert(dir).second) << dir;
        struct stat st = statOf(dir);
        ASSERT_TRUE(S_ISDIR(st.st_mode));
        ASSERT_EQ(0700u, st.st_mode & 07777);
    }
}

TEST_F(Commons, TemporaryNamesInAMissingDirectoryRaiseWithTheTemplate) {
    const std::string missing = scratch_.path() + "/missing";
    try {
        RKU_getTempFileName(missing, "f.");
        FAIL() << "no exception";
    } catch (const Exc<&CantCreateTempFile>& e) {
        EXPECT_EQ("Can not create temporary file with the template '" + missing +
                      "/f.XXXXXX': No such file or directory.",
                  e.message());
    }
    try {
        RKU_makeTempFileDirectory(missing, "d.");
        FAIL() << "no exception";
    } catch (const Exc<&CantCreateTempDir>& e) {
        EXPECT_EQ("Can not create temporary dir with the template '" + missing +
                      "/d.XXXXXX': No such file or directory.",
                  e.message());
    }
}

TEST(RandomPassword, SevenCharactersFromTheCallersSeed) {
    srand(99);
    const std::string first = randomPasswd();
    EXPECT_EQ(7u, first.size());
    EXPECT_EQ(std::string::npos, first.find_first_not_of("abcdefghijklmnopqrstuvwxyz"
                                                         "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"));
    srand(99);
    EXPECT_EQ(first, randomPasswd());
    EXPECT_NE(first, randomPasswd());
}

}  // namespace
}  // namespace tavik
