#include "commons/commons.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <set>
#include <string>

#include "support/sandbox_env.h"

namespace tavik {
namespace {

// Status files are replaced through these names thousands of times a run: a reused name, a
// readable mode or a leaked descriptor would each show only in the field.
TEST(TemporaryNames, AreNewPrivateAndNeverCollide) {
    umask(0);
    testing::ScratchDir scratch;
    const auto descriptors = [] {
        return std::distance(boost::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = descriptors();
    std::set<std::string> names;
    struct stat file = {};
    for (int i = 0; i < 300; ++i) {
        const std::string name = RKU_getTempFileName(scratch.path() + "/", "f.");
        ASSERT_EQ(scratch.path() + "/f.", name.substr(0, name.size() - 6));
        ASSERT_TRUE(names.insert(name).second) << name;
        ASSERT_TRUE(lstat(name.c_str(), &file) == 0);
        ASSERT_EQ(S_IFREG | 0600u, file.st_mode);
    }
    EXPECT_EQ(before, descriptors());
}

}  // namespace
}  // namespace tavik
