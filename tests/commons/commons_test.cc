#include "commons/commons.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

#include "commons/exceptions.h"
#include "support/raised.h"
#include "support/sandbox_env.h"
#include "utils/files.h"
#include "utils/read_configuration.h"

namespace tavik {
namespace {

using testing::inSandbox;
using testing::messageOf;
using testing::writeTextFile;

struct stat statOf(const std::string& path) {
    struct stat st = {};
    EXPECT_EQ(0, lstat(path.c_str(), &st)) << path;
    return st;
}

size_t openDescriptors() {
    boost::filesystem::directory_iterator it("/proc/self/fd"), end;
    return std::distance(it, end);
}

// Modes are checked with the process umask out of the way.
class Commons : public ::testing::Test {
  protected:
    void SetUp() override { umask(0); }
    testing::ScratchDir scratch_;
    const std::string base_ = scratch_.path();
};

TEST_F(Commons, MakeDirCreatesMissingParentsWithOwnerAndMode) {
    std::string target = base_ + "/b/c";
    make_dir(&target[0], 1234, 5678, 0710);
    EXPECT_EQ(base_ + "/b/c", target);
    for (const std::string& dir : {base_ + "/b", base_ + "/b/c"}) {
        struct stat st = statOf(dir);
        EXPECT_EQ(S_IFDIR | 0710u, st.st_mode) << dir;
        EXPECT_EQ(1234u, st.st_uid) << dir;
        EXPECT_EQ(5678u, st.st_gid) << dir;
    }
    EXPECT_EQ(0u, statOf(base_).st_uid);
    make_dir(base_ + "/s/t/", 0, 0, 0700);
    EXPECT_EQ(S_IFDIR | 0700u, statOf(base_ + "/s/t").st_mode);
    make_dir(boost::filesystem::path(base_) / "p", 0, 0, 0750);
    EXPECT_EQ(S_IFDIR | 0750u, statOf(base_ + "/p").st_mode);
}

TEST_F(Commons, MakeDirLeavesExistingPathsAloneAndFailsSilently) {
    writeTextFile(base_ + "/file", "content");
    chmod((base_ + "/file").c_str(), 0640);
    make_dir(base_ + "/file", 1234, 1234, 0750);
    EXPECT_EQ(S_IFREG | 0640u, statOf(base_ + "/file").st_mode);
    EXPECT_EQ(0u, statOf(base_ + "/file").st_uid);
    make_dir(base_ + "/file/sub", 0, 0, 0755);
    EXPECT_FALSE(boost::filesystem::exists(base_ + "/file/sub"));
}

TEST_F(Commons, CheckInputFileAcceptsRegularFilesOnly) {
    writeTextFile(base_ + "/f", "");
    EXPECT_TRUE(check_input_file((base_ + "/f").c_str()));
    EXPECT_FALSE(check_input_file(base_.c_str()));
    EXPECT_FALSE(check_input_file((base_ + "/missing").c_str()));
    EXPECT_FALSE(check_input_file(nullptr));
    EXPECT_FALSE(check_input_file(""));
}

// Without a directory, names go to the configured dump directory, else to the product's.
TEST_F(Commons, TemplatesJoinDirectoryAndPrefixWithOneSlash) {
    ASSERT_TRUE(inSandbox());
    std::remove(HMX_CONF_FILE);
    std::vector<char> buffer;
    initTempName(buffer, "/var/x/", "pre");
    EXPECT_STREQ("/var/x/preXXXXXX", buffer.data());
    EXPECT_EQ('\0', buffer.back());
    initTempName(buffer, "/var/x", "");
    EXPECT_STREQ("/var/x/XXXXXX", buffer.data());
    initTempName(buffer, "", "t.");
    EXPECT_EQ(files::getTmpDir() + "/t.XXXXXX", buffer.data());

    writeTextFile(HMX_CONF_FILE, "DUMP_TMP_D " + base_ + "/\n");
    const std::string name = RKU_getTempFileName("", "cfg.");
    EXPECT_EQ(base_ + "/cfg.", name.substr(0, name.size() - 6));
    EXPECT_TRUE(check_input_file(name.c_str()));
}

TEST_F(Commons, TemporaryNamesAreNewPrivateAndNeverCollide) {
    const size_t descriptors = openDescriptors();
    std::set<std::string> names;
    for (int i = 0; i < 300; ++i) {
        const std::string name = RKU_getTempFileName(base_ + "/", "f.");
        ASSERT_TRUE(names.insert(name).second) << name;
        ASSERT_EQ(base_ + "/f.", name.substr(0, name.size() - 6));
        ASSERT_EQ(S_IFREG | 0600u, statOf(name).st_mode);
        ASSERT_EQ(0, statOf(name).st_size);
        const std::string dir = RKU_makeTempFileDirectory(base_, "d.");
        ASSERT_TRUE(names.insert(dir).second) << dir;
        ASSERT_EQ(S_IFDIR | 0700u, statOf(dir).st_mode);
    }
    EXPECT_EQ(descriptors, openDescriptors());
}

TEST_F(Commons, TemporaryNamesInAMissingDirectoryRaiseWithTheTemplate) {
    const std::string missing = base_ + "/missing";
    EXPECT_EQ("Can not create temporary file with the template '" + missing +
                  "/f.XXXXXX': No such file or directory.",
              messageOf<&CantCreateTempFile>([&] { RKU_getTempFileName(missing, "f."); }));
    EXPECT_EQ("Can not create temporary dir with the template '" + missing +
                  "/d.XXXXXX': No such file or directory.",
              messageOf<&CantCreateTempDir>([&] { RKU_makeTempFileDirectory(missing, "d."); }));
}

TEST(RandomPassword, SevenCharactersFromTheCallersSeed) {
    srand(99);
    const std::string first = randomPasswd();
    EXPECT_EQ(7u, first.size());
    EXPECT_EQ(std::string::npos, first.find_first_not_of("abcdefghijklmnopqrstuvwxyz"
                                                         "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"));
    srand(99);
    EXPECT_EQ(first, randomPasswd());
}

}  // namespace
}  // namespace tavik
