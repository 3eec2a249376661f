#include "commons/commons.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <set>
#include <string>

#include "support/sandbox_env.h"

namespace tavik {
namespace {

struct stat statOf(const std::string& path) {
    struct stat st = {};
    EXPECT_EQ(0, lstat(path.c_str(), &st)) << path;
    return st;
}

size_t openDescriptors() {
    boost::filesystem::directory_iterator it("/proc/self/fd"), end;
    return std::distance(it, end);
}

// Status files are replaced through these names thousands of times a run: a reused name, a
// readable mode or a leaked descriptor would each show only in the field.
TEST(TemporaryNames, AreNewPrivateAndNeverCollide) {
    umask(0);
    testing::ScratchDir scratch;
    const std::string base = scratch.path();
    const size_t descriptors = openDescriptors();
    std::set<std::string> names;
    for (int i = 0; i < 300; ++i) {
        const std::string name = RKU_getTempFileName(base + "/", "f.");
        ASSERT_TRUE(names.insert(name).second) << name;
        ASSERT_EQ(base + "/f.", name.substr(0, name.size() - 6));
        ASSERT_EQ(S_IFREG | 0600u, statOf(name).st_mode);
        const std::string dir = RKU_makeTempFileDirectory(base, "d.");
        ASSERT_TRUE(names.insert(dir).second) << dir;
        ASSERT_EQ(S_IFDIR | 0700u, statOf(dir).st_mode);
    }
    EXPECT_EQ(descriptors, openDescriptors());
}

}  // namespace
}  // namespace tavik
